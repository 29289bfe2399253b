// CVelmarMapi on our MAPI (named by VELMAR_MAPI_LIBRARY, as a deployment may name another): the trace of
// each session step, line by line, and the state the commands read.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "harness/TestFiles.h"
#include "mail/VelmarMapi.h"
#include "support/ActivityList.h"
#include "tests/TraceLines.h"

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

using velmar::test::Joined;
using velmar::test::Steps;

const Lines kLogoff = velmar::test::LogoffTrace();
const Lines kInitialize = Steps(L"MAPIInitialize", {L"start", L"end"});

TEST_F(MailSession, ProfilesLogonStoresAndTheirTrace) {
    {
        CVelmarMapi mapi(&m_activity);
        EXPECT_TRUE(mapi.IsMAPIInitialized());
        EXPECT_EQ(Take(), Joined<std::wstring>({{L"CVelmarMapi::CVelmarMapi"}, kInitialize}));

        int defaultProfile = 7;
        EXPECT_EQ(mapi.GetProfileNames(defaultProfile), (Lines{L"Alpha", L"Beta"}));
        EXPECT_EQ(defaultProfile, 1);
        EXPECT_EQ(Take(),
                  Steps(L"GetProfileNames", {L"start", L"MAPIAdminProfiles start", L"MAPIAdminProfiles start",
                                             L"GetProfileTable start", L"GetProfileTable end",
                                             L"QueryRows start", L"QueryRows end", L"end"}));
        EXPECT_EQ(mapi.GetProfileNames(defaultProfile).size(), 2u);
        EXPECT_EQ(defaultProfile, -1) << "the list is built once; later calls do not report the default";
        Take();

        mapi.Logon(L"Alpha", 0);
        ASSERT_TRUE(mapi.HasSession());
        EXPECT_EQ(WithoutPointers(Take()),
                  Joined<std::wstring>(
                      {Steps(L"Logon", {L"start", L"Logoff"}),
                       kLogoff,
                       Steps(L"Logoff", {L"end"}),
                       Steps(L"Logon", {L"MAPIInitialize start"}),
                       kInitialize,
                       Steps(L"Logon", {L"MAPIInitialize end", L"MAPILogonEx start", L"MAPILogonEx end"}),
                       {L"::MAPILogonEx returns 0x0 m_lpMAPISession = 0x<pointer>", L"CVelmarMapi::Logon"}}));

        mapi.OpenMessageStoreTable();
        const std::vector<MsgStoreInfo> stores = mapi.MessageStores();
        ASSERT_EQ(stores.size(), 2u);
        EXPECT_EQ(stores[0].strDisplayName, L"Eins");
        EXPECT_EQ(stores[0].strEMailAddress, L"a@x");
        EXPECT_EQ(stores[1].strEMailAddress, L"b@x");
        EXPECT_EQ(mapi.DefaultStore(), 1);
        EXPECT_EQ(mapi.StoreIndex(), 1);
        // Every column of every row is traced; the later of the two name columns wins.
        Lines rows;
        for (const auto& [row, name] : {std::pair{L"0", L"Eins"}, {L"1", L"Zwei"}}) {
            int column = 0;
            for (const wchar_t* tag : {L"ff60102", L"fff0102", L"ff90102", L"3006001f", L"3001001f",
                                       L"3400000b", L"34140102", L"30090003", L"3003001f", L"661c001f"}) {
                rows.push_back(std::wstring(L"Loop RowIndex: ") + row + L",  PropIndex: " +
                               std::to_wstring(column) + L" -> Value: " + tag);
                if (column == 3) rows.push_back(L"Found: Velmar Maildir");
                if (column++ == 4) rows.push_back(std::wstring(L"Found: ") + name);
            }
        }
        const Lines table = Joined<std::wstring>(
            {Steps(L"OpenMessageStoreTable", {L"start", L"CreateDispatch"}),
             {L"Store DisplayName: Eins", L"Store email: a@x", L"Store DisplayName: Zwei",
              L"Store email: b@x", L"Found Folders finished"},
             Steps(L"OpenMessageStoreTable",
                   {L"GetMsgStoresTable start", L"GetMsgStoresTable end", L"GetRowCount", L"QueryColumns",
                    L"SeekRow start", L"SeekRow end", L"QueryRows start", L"QueryRows end"}),
             rows,
             Steps(L"OpenMessageStoreTable", {L"FreeRows start", L"FreeRows end", L"MAPIFreeBuffer start",
                                              L"MAPIFreeBuffer end", L"end"})});
        EXPECT_EQ(Take(), table);

        EXPECT_TRUE(mapi.SetMessageStore(L"Eins"));
        EXPECT_EQ(mapi.StoreIndex(), 0);
        EXPECT_EQ(Take(),
                  Steps(L"SetMessageStore", {L"start", L"SetMessageStore start", L"start", L"end", L"end"}));
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
              Joined<std::wstring>({{L"CVelmarMapi::~CVelmarMapi start"},
                                    kLogoff,
                                    {L"m_lpMAPISession->Logoff returns 0x0 m_lpMAPISession = 0x<pointer>"},
                                    Steps(L"Logoff", {L"end"}),
                                    Steps(L"MAPIUninitialize", {L"start", L"end"}),
                                    {L"CVelmarMapi::~CVelmarMapi end"}}));
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
    const Lines search =
        Joined<std::wstring>({Steps(L"GetpMessage", {L"start", L"strToEmailAddress = ", L"DeTokonized: ",
                                                     L"All Message Boxes", L"nStoreIndex = 0"}),
                              {L"searching in Eins"},
                              Steps(L"SearchMessageInMessageStore",
                                    {L"start", L"OpenMsgStore", L"GetReceiveFolder", L"OpenEntry",
                                     L"GetContentsTable", L"GetRowCount", L"Restrict", L"GetRowCount",
                                     L"QueryRows", L"OpenEntry", L"FreeRows", L"end"}),
                              Steps(L"GetpMessage", {L"end"})});
    const Lines expected = Joined<std::wstring>(
        {Steps(L"GetMessageData", {L"start", L"FindMessage"}),
         Steps(L"FindMessage", {L"start", L"GetpMessage"}),
         search,
         Steps(L"FindMessage", {L"MapiFillMessage start"}),
         Steps(L"MapiFillMessage", {L"start", L"FetchProps"}),
         Steps(L"FetchProps", {L"start", L"GetProps start", L"GetProps end", L"set pEmailData", L"end"}),
         Steps(L"MapiFillMessage", {L"FetchRecipients"}),
         Steps(L"FetchRecipients", {L"start", L"GetRecipientTable", L"QueryRows start", L"QueryRows end",
                                    L"set pEmailData", L"FreeProws", L"end"}),
         Steps(L"MapiFillMessage", {L"FetchAttachments"}),
         Steps(L"FetchAttachments", {L"start", L"GetAttachmentTable", L"GetRowCount", L"SetColumns",
                                     L"HrQueryAllRows start", L"HrQueryAllRows end", L"FreeProws", L"end"}),
         Steps(L"MapiFillMessage", {L"FetchBody"}),
         Steps(L"FetchBody",
               {L"start", L"OpenProperty 1", L"Stat", L"OpenProperty 2 (PR_HTML)", L"HrGetOneProp",
                L"OpenProperty 3", L"pfnWrapEx failed", L"MapiFreeBuffer", L"end"}),
         Steps(L"MapiFillMessage", {L"PrepareEmbeddedImages"}),
         {L"CVelmarMapi::PrepareEmbeddedImages"},
         Steps(L"MapiFillMessage", {L"end"}),
         Steps(L"FindMessage", {L"MapiFillMessage end", L"cleanup", L"end"}),
         Steps(L"GetMessageData", {L"end"})});
    EXPECT_EQ(Take(), expected);

    const std::wstring path = mapi.OpenAttachment2(L"<att@x>", L"", 0);
    EXPECT_EQ(path, (m_dir / "export" / "Velmar" / "n_1.txt").wstring());
    // The store and its inbox stay open from the first search (MAPI_CACHE_MSGSTORE is on by default).
    Lines cachedSearch = search;
    std::erase(cachedSearch, L"CVelmarMapi::SearchMessageInMessageStore GetReceiveFolder");
    cachedSearch.erase(std::find(cachedSearch.begin(), cachedSearch.end(),
                                 L"CVelmarMapi::SearchMessageInMessageStore OpenEntry"));
    const Lines exportTrace = Joined<std::wstring>(
        {Steps(L"OpenAttachment2", {L"start", L"GetpMessage"}), cachedSearch,
         Steps(L"OpenAttachment2", {L"OpenAttachment"}),
         Steps(L"OpenAttachment1", {L"start", L"OpenAttach", L"WriteAttachmentToFile"}),
         Steps(L"WriteAttachmentToFile", {L"start", L"GetProps", L"CheckStringProp", L"SanitizeFileName"}),
         Steps(L"SanitizeFileName", {L"start", L"end"}),
         Steps(L"WriteAttachmentToFile", {L"GetStatus", L"WriteAttachStreamToFile"}),
         Steps(L"WriteAttachStreamToFile", {L"start", L"OpenProperty", L"MyOpenStreamOnFile", L"Stat",
                                            L"CopyTo", L"Commit", L"Release", L"end"}),
         Steps(L"WriteAttachmentToFile", {L"MAPIFreeBuffer", L"end"}),
         Steps(L"OpenAttachment1", {L"Release"}), Steps(L"OpenAttachment2", {L"release", L"end"})});
    EXPECT_EQ(Take(), exportTrace);
    velmar::test::SetEnvironment("TMPDIR", restoreTmp);
}

}  // namespace
