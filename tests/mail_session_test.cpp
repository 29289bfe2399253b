// CVelmarMapi on our MAPI (named by VELMAR_MAPI_LIBRARY, as a deployment may name another): the trace of
// each session step, line by line, and the state the commands read.
#include <gtest/gtest.h>

#include "app/ActivityList.h"
#include "mail/VelmarMapi.h"
#include "tests/TestFiles.h"

namespace {

class MailSession : public ::testing::Test {
protected:
    void SetUp() override {
        velmar::test::SetEnvironment("VELMAR_MAPI_LIBRARY", VELMAR_MAPI_LIBRARY_FILE);
        velmar::test::WriteFile(
            m_dir / "profiles.ini",
            "[Alpha]\nstore1.name = Eins\nstore1.path = one\nstore1.address = a@x\n"
            "store2.name = Zwei\nstore2.path = two\nstore2.address = b@x\nstore2.default = yes\n"
            "[Beta]\ndefault = yes\nstore1.path = three\n");
        velmar::test::SetEnvironment("VELMAR_MAPI_PROFILES", (m_dir / "profiles.ini").string());
    }

    // The lines added since the last call.
    std::vector<std::wstring> Take() {
        const std::vector<std::wstring> all = m_activity.Lines();
        std::vector<std::wstring> fresh(all.begin() + static_cast<std::ptrdiff_t>(m_seen), all.end());
        m_seen = all.size();
        return fresh;
    }

    velmar::test::CTempDir m_dir;
    CActivityList m_activity;
    size_t m_seen = 0;
};

using Lines = std::vector<std::wstring>;

TEST_F(MailSession, ProfilesLogonStoresAndTheirTrace) {
    {
        CVelmarMapi mapi(&m_activity);
        EXPECT_TRUE(mapi.m_bMAPIInitialized);
        EXPECT_EQ(Take(), (Lines{L"CVelmarMapi::CVelmarMapi", L"CVelmarMapi::MAPIInitialize start",
                                 L"CVelmarMapi::MAPIInitialize end"}));

        int defaultProfile = 7;
        EXPECT_EQ(mapi.GetProfileNames(defaultProfile), (Lines{L"Alpha", L"Beta"}));
        EXPECT_EQ(defaultProfile, 1);
        EXPECT_EQ(Take(), (Lines{L"CVelmarMapi::GetProfileNames start",
                                 L"CVelmarMapi::GetProfileNames MAPIAdminProfiles start",
                                 L"CVelmarMapi::GetProfileNames MAPIAdminProfiles start",
                                 L"CVelmarMapi::GetProfileNames GetProfileTable start",
                                 L"CVelmarMapi::GetProfileNames GetProfileTable end",
                                 L"CVelmarMapi::GetProfileNames QueryRows start",
                                 L"CVelmarMapi::GetProfileNames QueryRows end",
                                 L"CVelmarMapi::GetProfileNames end"}));
        EXPECT_EQ(mapi.GetProfileNames(defaultProfile).size(), 2u);
        EXPECT_EQ(defaultProfile, -1) << "the list is built once; later calls do not report the default";
        Take();

        mapi.Logon(L"Alpha", 0);
        ASSERT_TRUE(mapi.m_lpMAPISession);
        const Lines logon = Take();
        ASSERT_EQ(logon.size(), 19u);
        EXPECT_EQ(logon[15], L"CVelmarMapi::Logon MAPILogonEx start");
        EXPECT_EQ(logon[17].rfind(L"::MAPILogonEx returns 0x0 m_lpMAPISession = 0x", 0), 0u);
        EXPECT_EQ(logon.back(), L"CVelmarMapi::Logon");

        mapi.OpenMessageStoreTable();
        ASSERT_EQ(mapi.m_MsgStores.size(), 2u);
        EXPECT_EQ(mapi.m_MsgStores[0]->strDisplayName, L"Eins");
        EXPECT_EQ(mapi.m_MsgStores[0]->strEMailAddress, L"a@x");
        EXPECT_EQ(mapi.m_MsgStores[1]->strEMailAddress, L"b@x");
        EXPECT_EQ(mapi.m_nDefaultStore, 1);
        EXPECT_EQ(mapi.m_nStoreIndex, 1);
        const Lines table = Take();
        EXPECT_EQ(table.front(), L"CVelmarMapi::OpenMessageStoreTable start");
        EXPECT_EQ(table[1], L"CVelmarMapi::OpenMessageStoreTable CreateDispatch");
        EXPECT_NE(
            std::find(table.begin(), table.end(), L"Loop RowIndex: 1,  PropIndex: 4 -> Value: 3001001f"),
            table.end());
        EXPECT_NE(std::find(table.begin(), table.end(), L"Found: Zwei"), table.end());
        EXPECT_EQ(Lines(table.end() - 5, table.end()),
                  (Lines{L"CVelmarMapi::OpenMessageStoreTable FreeRows start",
                         L"CVelmarMapi::OpenMessageStoreTable FreeRows end",
                         L"CVelmarMapi::OpenMessageStoreTable MAPIFreeBuffer start",
                         L"CVelmarMapi::OpenMessageStoreTable MAPIFreeBuffer end",
                         L"CVelmarMapi::OpenMessageStoreTable end"}));

        EXPECT_TRUE(mapi.SetMessageStore(L"Eins"));
        EXPECT_EQ(mapi.m_nStoreIndex, 0);
        EXPECT_EQ(Take(), (Lines{L"CVelmarMapi::SetMessageStore start",
                                 L"CVelmarMapi::SetMessageStore SetMessageStore start",
                                 L"CVelmarMapi::SetMessageStore start", L"CVelmarMapi::SetMessageStore end",
                                 L"CVelmarMapi::SetMessageStore end"}));
        EXPECT_FALSE(mapi.SetMessageStore(L"eins")) << "names compare exactly";
        EXPECT_EQ(mapi.m_nStoreIndex, 0);
        Take();

        mapi.OutputError(L"Fehler beim Ausgang \u00d6ffnung, Fehlernummer: 80004005");
        EXPECT_EQ(Take(), (Lines{L"CVelmarMapi::OutputError start",
                                 L"Fehler beim Ausgang \u00d6ffnung, Fehlernummer: 80004005",
                                 L"Fehler beim Ausgang \u00d6ffnung, Fehlernummer: 80004005",
                                 L"CVelmarMapi::OutputError end"}));
    }
    const Lines closing = Take();
    ASSERT_GE(closing.size(), 4u);
    EXPECT_EQ(closing.front(), L"CVelmarMapi::~CVelmarMapi start");
    EXPECT_EQ(Lines(closing.end() - 3, closing.end()),
              (Lines{L"CVelmarMapi::MAPIUninitialize start", L"CVelmarMapi::MAPIUninitialize end",
                     L"CVelmarMapi::~CVelmarMapi end"}));
    EXPECT_NE(std::find(closing.begin(), closing.end(), L"CVelmarMapi::ReleaseSessionData end"),
              closing.end());
}

TEST_F(MailSession, WithoutAnActivityListTheTraceIsDropped) {
    CVelmarMapi mapi(nullptr);
    mapi.Logon(L"Beta", 0);
    EXPECT_TRUE(mapi.m_lpMAPISession);
    EXPECT_EQ(m_activity.Count(), 0u);
}

}  // namespace
