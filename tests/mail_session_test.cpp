// CVelmarMapi on our MAPI (named by VELMAR_MAPI_LIBRARY, as a deployment may name another): the trace of
// each session step, line by line, and the state the commands read.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "harness/TestFiles.h"
#include "mail/VelmarMapi.h"
#include "support/ActivityList.h"

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

// The lines with the pointers they show replaced by "<pointer>", so that sequences compare whole.
Lines WithoutPointers(Lines lines) {
    for (std::wstring& line : lines) {
        const size_t at = line.find(L"m_lpMAPISession = 0x");
        if (at != std::wstring::npos) line = line.substr(0, at) + L"m_lpMAPISession = 0x<pointer>";
    }
    return lines;
}

TEST_F(MailSession, ProfilesLogonStoresAndTheirTrace) {
    {
        CVelmarMapi mapi(&m_activity);
        EXPECT_TRUE(mapi.IsMAPIInitialized());
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
        ASSERT_TRUE(mapi.HasSession());
        EXPECT_EQ(
            WithoutPointers(Take()),
            (Lines{L"CVelmarMapi::Logon start", L"CVelmarMapi::Logon Logoff", L"CVelmarMapi::Logoff start",
                   L"CVelmarMapi::Logoff SetAddrBook", L"CVelmarMapi::SetAddrBook start",
                   L"CVelmarMapi::SetAddrBook end", L"CVelmarMapi::Logoff ReleaseSessionData start",
                   L"CVelmarMapi::ReleaseSessionData start", L"CVelmarMapi::ReleaseSessionData end",
                   L"CVelmarMapi::Logoff ReleaseSessionData end", L"CVelmarMapi::Logoff end",
                   L"CVelmarMapi::Logon MAPIInitialize start", L"CVelmarMapi::MAPIInitialize start",
                   L"CVelmarMapi::MAPIInitialize end", L"CVelmarMapi::Logon MAPIInitialize end",
                   L"CVelmarMapi::Logon MAPILogonEx start", L"CVelmarMapi::Logon MAPILogonEx end",
                   L"::MAPILogonEx returns 0x0 m_lpMAPISession = 0x<pointer>", L"CVelmarMapi::Logon"}));

        mapi.OpenMessageStoreTable();
        const std::vector<MsgStoreInfo> stores = mapi.MessageStores();
        ASSERT_EQ(stores.size(), 2u);
        EXPECT_EQ(stores[0].strDisplayName, L"Eins");
        EXPECT_EQ(stores[0].strEMailAddress, L"a@x");
        EXPECT_EQ(stores[1].strEMailAddress, L"b@x");
        EXPECT_EQ(mapi.DefaultStore(), 1);
        EXPECT_EQ(mapi.StoreIndex(), 1);
        // Every column of every row is traced; the later of the two name columns wins.
        const Lines rows = {L"Loop RowIndex: 0,  PropIndex: 0 -> Value: ff60102",
                            L"Loop RowIndex: 0,  PropIndex: 1 -> Value: fff0102",
                            L"Loop RowIndex: 0,  PropIndex: 2 -> Value: ff90102",
                            L"Loop RowIndex: 0,  PropIndex: 3 -> Value: 3006001f",
                            L"Found: Velmar Maildir",
                            L"Loop RowIndex: 0,  PropIndex: 4 -> Value: 3001001f",
                            L"Found: Eins",
                            L"Loop RowIndex: 0,  PropIndex: 5 -> Value: 3400000b",
                            L"Loop RowIndex: 0,  PropIndex: 6 -> Value: 34140102",
                            L"Loop RowIndex: 0,  PropIndex: 7 -> Value: 30090003",
                            L"Loop RowIndex: 0,  PropIndex: 8 -> Value: 3003001f",
                            L"Loop RowIndex: 0,  PropIndex: 9 -> Value: 661c001f",
                            L"Loop RowIndex: 1,  PropIndex: 0 -> Value: ff60102",
                            L"Loop RowIndex: 1,  PropIndex: 1 -> Value: fff0102",
                            L"Loop RowIndex: 1,  PropIndex: 2 -> Value: ff90102",
                            L"Loop RowIndex: 1,  PropIndex: 3 -> Value: 3006001f",
                            L"Found: Velmar Maildir",
                            L"Loop RowIndex: 1,  PropIndex: 4 -> Value: 3001001f",
                            L"Found: Zwei",
                            L"Loop RowIndex: 1,  PropIndex: 5 -> Value: 3400000b",
                            L"Loop RowIndex: 1,  PropIndex: 6 -> Value: 34140102",
                            L"Loop RowIndex: 1,  PropIndex: 7 -> Value: 30090003",
                            L"Loop RowIndex: 1,  PropIndex: 8 -> Value: 3003001f",
                            L"Loop RowIndex: 1,  PropIndex: 9 -> Value: 661c001f"};
        Lines table = {L"CVelmarMapi::OpenMessageStoreTable start",
                       L"CVelmarMapi::OpenMessageStoreTable CreateDispatch",
                       L"Store DisplayName: Eins",
                       L"Store email: a@x",
                       L"Store DisplayName: Zwei",
                       L"Store email: b@x",
                       L"Found Folders finished",
                       L"CVelmarMapi::OpenMessageStoreTable GetMsgStoresTable start",
                       L"CVelmarMapi::OpenMessageStoreTable GetMsgStoresTable end",
                       L"CVelmarMapi::OpenMessageStoreTable GetRowCount",
                       L"CVelmarMapi::OpenMessageStoreTable QueryColumns",
                       L"CVelmarMapi::OpenMessageStoreTable SeekRow start",
                       L"CVelmarMapi::OpenMessageStoreTable SeekRow end",
                       L"CVelmarMapi::OpenMessageStoreTable QueryRows start",
                       L"CVelmarMapi::OpenMessageStoreTable QueryRows end"};
        table.insert(table.end(), rows.begin(), rows.end());
        table.insert(table.end(), {L"CVelmarMapi::OpenMessageStoreTable FreeRows start",
                                   L"CVelmarMapi::OpenMessageStoreTable FreeRows end",
                                   L"CVelmarMapi::OpenMessageStoreTable MAPIFreeBuffer start",
                                   L"CVelmarMapi::OpenMessageStoreTable MAPIFreeBuffer end",
                                   L"CVelmarMapi::OpenMessageStoreTable end"});
        EXPECT_EQ(Take(), table);

        EXPECT_TRUE(mapi.SetMessageStore(L"Eins"));
        EXPECT_EQ(mapi.StoreIndex(), 0);
        EXPECT_EQ(Take(), (Lines{L"CVelmarMapi::SetMessageStore start",
                                 L"CVelmarMapi::SetMessageStore SetMessageStore start",
                                 L"CVelmarMapi::SetMessageStore start", L"CVelmarMapi::SetMessageStore end",
                                 L"CVelmarMapi::SetMessageStore end"}));
        EXPECT_FALSE(mapi.SetMessageStore(L"eins")) << "names compare exactly";
        EXPECT_EQ(mapi.StoreIndex(), 0);
        Take();

        mapi.OutputError(L"Fehler beim Ausgang \u00d6ffnung, Fehlernummer: 80004005");
        EXPECT_EQ(Take(), (Lines{L"CVelmarMapi::OutputError start",
                                 L"Fehler beim Ausgang \u00d6ffnung, Fehlernummer: 80004005",
                                 L"Fehler beim Ausgang \u00d6ffnung, Fehlernummer: 80004005",
                                 L"CVelmarMapi::OutputError end"}));
    }
    EXPECT_EQ(WithoutPointers(Take()),
              (Lines{L"CVelmarMapi::~CVelmarMapi start", L"CVelmarMapi::Logoff start",
                     L"CVelmarMapi::Logoff SetAddrBook", L"CVelmarMapi::SetAddrBook start",
                     L"CVelmarMapi::SetAddrBook end", L"CVelmarMapi::Logoff ReleaseSessionData start",
                     L"CVelmarMapi::ReleaseSessionData start", L"CVelmarMapi::ReleaseSessionData end",
                     L"CVelmarMapi::Logoff ReleaseSessionData end",
                     L"m_lpMAPISession->Logoff returns 0x0 m_lpMAPISession = 0x<pointer>",
                     L"CVelmarMapi::Logoff end", L"CVelmarMapi::MAPIUninitialize start",
                     L"CVelmarMapi::MAPIUninitialize end", L"CVelmarMapi::~CVelmarMapi end"}));
}

TEST_F(MailSession, WithoutAnActivityListTheTraceIsDropped) {
    CVelmarMapi mapi(nullptr);
    mapi.Logon(L"Beta", 0);
    EXPECT_TRUE(mapi.HasSession());
    EXPECT_EQ(m_activity.Count(), 0u);
}

TEST_F(MailSession, MessageDataAndExportTraceEveryStepInOrder) {
    velmar::test::WriteFile(m_dir / "one" / "new" / "1.M1.h",
                            "From: A <a@x>\nTo: B <b@x>\nMessage-ID: <m@x>\nSubject: s\n\nHallo\n");
    velmar::test::WriteFile(
        m_dir / "one" / "new" / "2.M1.h",
        "From: a@x\nMessage-ID: <att@x>\nMIME-Version: 1.0\nContent-Type: multipart/mixed; "
        "boundary=b\n\n--b\nContent-Type: text/plain\n\nx\n--b\nContent-Type: text/plain\n"
        "Content-Disposition: attachment; filename=\"n-1.txt\"\n\nDaten\n--b--\n");
    const char* previousTmp = std::getenv("TMPDIR");
    const std::string restoreTmp =
        previousTmp ? previousTmp : std::filesystem::temp_directory_path().string();
    velmar::test::SetEnvironment("TMPDIR", (m_dir / "export").string());
    std::filesystem::create_directories(m_dir / "export");
    CVelmarMapi mapi(&m_activity);
    mapi.Logon(L"Alpha", 0);
    mapi.OpenMessageStoreTable();
    Take();

    EMailData data;
    mapi.GetMessageData(data, {L"Alpha", 0, {}}, L"<m@x>", L"", false);
    EXPECT_EQ(data.messageId, L"<m@x>");
    EXPECT_EQ(data.to, Lines{L"B"});
    const Lines search = {L"CVelmarMapi::GetpMessage start",
                          L"CVelmarMapi::GetpMessage strToEmailAddress = ",
                          L"CVelmarMapi::GetpMessage DeTokonized: ",
                          L"CVelmarMapi::GetpMessage All Message Boxes",
                          L"CVelmarMapi::GetpMessage nStoreIndex = 0",
                          L"searching in Eins",
                          L"CVelmarMapi::SearchMessageInMessageStore start",
                          L"CVelmarMapi::SearchMessageInMessageStore OpenMsgStore",
                          L"CVelmarMapi::SearchMessageInMessageStore GetReceiveFolder",
                          L"CVelmarMapi::SearchMessageInMessageStore OpenEntry",
                          L"CVelmarMapi::SearchMessageInMessageStore GetContentsTable",
                          L"CVelmarMapi::SearchMessageInMessageStore GetRowCount",
                          L"CVelmarMapi::SearchMessageInMessageStore Restrict",
                          L"CVelmarMapi::SearchMessageInMessageStore GetRowCount",
                          L"CVelmarMapi::SearchMessageInMessageStore QueryRows",
                          L"CVelmarMapi::SearchMessageInMessageStore OpenEntry",
                          L"CVelmarMapi::SearchMessageInMessageStore FreeRows",
                          L"CVelmarMapi::SearchMessageInMessageStore end",
                          L"CVelmarMapi::GetpMessage end"};
    Lines expected = {L"CVelmarMapi::GetMessageData start", L"CVelmarMapi::GetMessageData FindMessage",
                      L"CVelmarMapi::FindMessage start", L"CVelmarMapi::FindMessage GetpMessage"};
    expected.insert(expected.end(), search.begin(), search.end());
    const Lines fill = {L"CVelmarMapi::FindMessage MapiFillMessage start",
                        L"CVelmarMapi::MapiFillMessage start",
                        L"CVelmarMapi::MapiFillMessage FetchProps",
                        L"CVelmarMapi::FetchProps start",
                        L"CVelmarMapi::FetchProps GetProps start",
                        L"CVelmarMapi::FetchProps GetProps end",
                        L"CVelmarMapi::FetchProps set pEmailData",
                        L"CVelmarMapi::FetchProps end",
                        L"CVelmarMapi::MapiFillMessage FetchRecipients",
                        L"CVelmarMapi::FetchRecipients start",
                        L"CVelmarMapi::FetchRecipients GetRecipientTable",
                        L"CVelmarMapi::FetchRecipients QueryRows start",
                        L"CVelmarMapi::FetchRecipients QueryRows end",
                        L"CVelmarMapi::FetchRecipients set pEmailData",
                        L"CVelmarMapi::FetchRecipients FreeProws",
                        L"CVelmarMapi::FetchRecipients end",
                        L"CVelmarMapi::MapiFillMessage FetchAttachments",
                        L"CVelmarMapi::FetchAttachments start",
                        L"CVelmarMapi::FetchAttachments GetAttachmentTable",
                        L"CVelmarMapi::FetchAttachments GetRowCount",
                        L"CVelmarMapi::FetchAttachments SetColumns",
                        L"CVelmarMapi::FetchAttachments HrQueryAllRows start",
                        L"CVelmarMapi::FetchAttachments HrQueryAllRows end",
                        L"CVelmarMapi::FetchAttachments FreeProws",
                        L"CVelmarMapi::FetchAttachments end",
                        L"CVelmarMapi::MapiFillMessage FetchBody",
                        L"CVelmarMapi::FetchBody start",
                        L"CVelmarMapi::FetchBody OpenProperty 1",
                        L"CVelmarMapi::FetchBody Stat",
                        L"CVelmarMapi::FetchBody OpenProperty 2 (PR_HTML)",
                        L"CVelmarMapi::FetchBody HrGetOneProp",
                        L"CVelmarMapi::FetchBody OpenProperty 3",
                        L"CVelmarMapi::FetchBody pfnWrapEx failed",
                        L"CVelmarMapi::FetchBody MapiFreeBuffer",
                        L"CVelmarMapi::FetchBody end",
                        L"CVelmarMapi::MapiFillMessage PrepareEmbeddedImages",
                        L"CVelmarMapi::PrepareEmbeddedImages",
                        L"CVelmarMapi::MapiFillMessage end",
                        L"CVelmarMapi::FindMessage MapiFillMessage end",
                        L"CVelmarMapi::FindMessage cleanup",
                        L"CVelmarMapi::FindMessage end",
                        L"CVelmarMapi::GetMessageData end"};
    expected.insert(expected.end(), fill.begin(), fill.end());
    EXPECT_EQ(Take(), expected);

    const std::wstring path = mapi.OpenAttachment2(L"<att@x>", L"", 0);
    EXPECT_EQ(path, (m_dir / "export" / "Velmar" / "n_1.txt").wstring());
    Lines exportTrace = {L"CVelmarMapi::OpenAttachment2 start", L"CVelmarMapi::OpenAttachment2 GetpMessage"};
    // The store and its inbox stay open from the first search (MAPI_CACHE_MSGSTORE is on by default).
    Lines cachedSearch = search;
    std::erase(cachedSearch, L"CVelmarMapi::SearchMessageInMessageStore GetReceiveFolder");
    cachedSearch.erase(std::find(cachedSearch.begin(), cachedSearch.end(),
                                 L"CVelmarMapi::SearchMessageInMessageStore OpenEntry"));
    exportTrace.insert(exportTrace.end(), cachedSearch.begin(), cachedSearch.end());
    const Lines write = {L"CVelmarMapi::OpenAttachment2 OpenAttachment",
                         L"CVelmarMapi::OpenAttachment1 start",
                         L"CVelmarMapi::OpenAttachment1 OpenAttach",
                         L"CVelmarMapi::OpenAttachment1 WriteAttachmentToFile",
                         L"CVelmarMapi::WriteAttachmentToFile start",
                         L"CVelmarMapi::WriteAttachmentToFile GetProps",
                         L"CVelmarMapi::WriteAttachmentToFile CheckStringProp",
                         L"CVelmarMapi::WriteAttachmentToFile SanitizeFileName",
                         L"CVelmarMapi::SanitizeFileName start",
                         L"CVelmarMapi::SanitizeFileName end",
                         L"CVelmarMapi::WriteAttachmentToFile GetStatus",
                         L"CVelmarMapi::WriteAttachmentToFile WriteAttachStreamToFile",
                         L"CVelmarMapi::WriteAttachStreamToFile start",
                         L"CVelmarMapi::WriteAttachStreamToFile OpenProperty",
                         L"CVelmarMapi::WriteAttachStreamToFile MyOpenStreamOnFile",
                         L"CVelmarMapi::WriteAttachStreamToFile Stat",
                         L"CVelmarMapi::WriteAttachStreamToFile CopyTo",
                         L"CVelmarMapi::WriteAttachStreamToFile Commit",
                         L"CVelmarMapi::WriteAttachStreamToFile Release",
                         L"CVelmarMapi::WriteAttachStreamToFile end",
                         L"CVelmarMapi::WriteAttachmentToFile MAPIFreeBuffer",
                         L"CVelmarMapi::WriteAttachmentToFile end",
                         L"CVelmarMapi::OpenAttachment1 Release",
                         L"CVelmarMapi::OpenAttachment2 release",
                         L"CVelmarMapi::OpenAttachment2 end"};
    exportTrace.insert(exportTrace.end(), write.begin(), write.end());
    EXPECT_EQ(Take(), exportTrace);
    velmar::test::SetEnvironment("TMPDIR", restoreTmp);
}

}  // namespace
