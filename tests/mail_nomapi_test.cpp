// The mail layer where no MAPI library can be found: every step takes its failure path and says so only
// in the trace.
#include <gtest/gtest.h>

#include <cstdlib>

#include "mail/VelmarMapi.h"
#include "support/ActivityList.h"

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
    EXPECT_EQ(activity.Lines(), (Lines{L"CVelmarMapi::CVelmarMapi",
                                       L"CVelmarMapi::MAPIInitialize start",
                                       L"CVelmarMapi::MAPIInitialize end",
                                       L"CVelmarMapi::GetProfileNames start",
                                       L"CVelmarMapi::GetProfileNames MAPIAdminProfiles start",
                                       L"CVelmarMapi::GetProfileNames end",
                                       L"CVelmarMapi::Logon start",
                                       L"CVelmarMapi::Logon Logoff",
                                       L"CVelmarMapi::Logoff start",
                                       L"CVelmarMapi::Logoff SetAddrBook",
                                       L"CVelmarMapi::SetAddrBook start",
                                       L"CVelmarMapi::SetAddrBook end",
                                       L"CVelmarMapi::Logoff ReleaseSessionData start",
                                       L"CVelmarMapi::ReleaseSessionData start",
                                       L"CVelmarMapi::ReleaseSessionData end",
                                       L"CVelmarMapi::Logoff ReleaseSessionData end",
                                       L"CVelmarMapi::Logoff end",
                                       L"CVelmarMapi::Logon MAPIInitialize start",
                                       L"CVelmarMapi::MAPIInitialize start",
                                       L"CVelmarMapi::MAPIInitialize end",
                                       L"CVelmarMapi::Logon MAPIInitialize end",
                                       L"CVelmarMapi::Logon"}));
}

}  // namespace
