// The mail layer where no MAPI library can be found: every step takes its failure path and says so only
// in the trace.
#include <gtest/gtest.h>

#include <cstdlib>

#include "mail/VelmarMapi.h"
#include "support/ActivityList.h"
#include "tests/TraceLines.h"

namespace {

using Lines = std::vector<std::wstring>;

TEST(MailWithoutMapi, FailurePaths) {
    unsetenv("VELMAR_MAPI_LIBRARY");  // and no libvelmarmapi.so stands beside this test
    EXPECT_EQ(velmar::mail::VMAPIFreeBuffer(nullptr), 0u);
    LPVOID buffer = nullptr;
    EXPECT_EQ(velmar::mail::VMAPIAllocateBuffer(16, &buffer), E_FAIL);
    EXPECT_EQ(velmar::mail::MapiFunction(velmar::mail::MapiSlot::MAPILogonEx), nullptr);

    CActivityList activity;
    CVelmarMapi mapi(&activity);
    EXPECT_FALSE(mapi.IsMAPIInitialized());
    int defaultProfile = 0;
    EXPECT_TRUE(mapi.GetProfileNames(defaultProfile).empty());
    EXPECT_EQ(defaultProfile, -1);
    mapi.Logon(L"Velmar", 0);
    EXPECT_FALSE(mapi.HasSession());
    using velmar::test::Steps;
    const Lines initialize = Steps(L"MAPIInitialize", {L"start", L"end"});
    EXPECT_EQ(activity.Lines(),
              velmar::test::Joined<std::wstring>(
                  {{L"CVelmarMapi::CVelmarMapi"},
                   initialize,
                   Steps(L"GetProfileNames", {L"start", L"MAPIAdminProfiles start", L"end"}),
                   Steps(L"Logon", {L"start", L"Logoff"}),
                   velmar::test::LogoffTrace(),
                   Steps(L"Logoff", {L"end"}),
                   Steps(L"Logon", {L"MAPIInitialize start"}),
                   initialize,
                   Steps(L"Logon", {L"MAPIInitialize end"}),
                   {L"CVelmarMapi::Logon"}}));
}

}  // namespace
