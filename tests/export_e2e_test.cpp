// Attachment export through the real service where it can go wrong: a shared temporary folder where
// another user was first, names no file system takes, and a service killed in the middle of a file.
// The tests with a second user run as root (as CI does) and act as that user through setpriv.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "json/CkJsonObject.h"
#include "tests/MessageServiceFixture.h"

namespace {

namespace fs = std::filesystem;
using velmar::test::WithAttachment;

constexpr int kOtherUser = 65534;

// Runs a shell command as the other user; true when it succeeded.
bool AsOtherUser(const std::string& command) {
    const std::string line = "setpriv --reuid=" + std::to_string(kOtherUser) +
                             " --regid=" + std::to_string(kOtherUser) + " --clear-groups sh -c '" + command +
                             "'";
    return std::system(line.c_str()) == 0;
}

class ExportFiles : public velmar::test::CMessageServiceTest {};

TEST_F(ExportFiles, AFolderOfAnotherUserIsNeverWrittenInto) {
    if (geteuid() != 0) GTEST_SKIP() << "a second user needs root";
    // A temporary folder everybody shares, as /tmp is, where the other user made Velmar/ first and left a
    // file of the attachment's name that anybody may write.
    const fs::path shared = m_dir / "shared";
    fs::create_directories(shared);
    ASSERT_EQ(chmod(shared.c_str(), 01777), 0);
    ASSERT_EQ(chmod(m_dir.Path().c_str(), 0755), 0);
    ASSERT_TRUE(AsOtherUser("mkdir -m 0777 " + (shared / "Velmar").string() + " && touch " +
                            (shared / "Velmar" / "bericht.pdf").string() + " && chmod 0666 " +
                            (shared / "Velmar" / "bericht.pdf").string()));
    velmar::test::SetEnvironment("TMPDIR", shared.string());
    Deliver("one", "1.M1.h", WithAttachment("<share@x>", "bericht.pdf", velmar::test::Base64("geheim")));
    Start();

    const std::string written = ExportedPath("<share@x>", 0);
    EXPECT_EQ(fs::file_size(shared / "Velmar" / "bericht.pdf"), 0u) << "the other user's file is untouched";
    ASSERT_EQ(written.front(), '/') << written;
    EXPECT_EQ(fs::path(written).filename(), "bericht.pdf");
    EXPECT_NE(fs::path(written).parent_path(), shared / "Velmar");
    EXPECT_EQ(velmar::test::ReadFile(written), "geheim");
    struct stat folder {};
    ASSERT_EQ(lstat(fs::path(written).parent_path().c_str(), &folder), 0);
    EXPECT_TRUE(S_ISDIR(folder.st_mode) && folder.st_uid == geteuid() && (folder.st_mode & 077) == 0)
        << "the export goes to a private folder of our own";
    EXPECT_NE(Activity().find("ERROR: Cannot Create: " + (shared / "Velmar").string() + "/"),
              std::string::npos);
}

// Without TMPDIR the private folder under /tmp is used; another user who took its name first gets
// nothing from us: the service (run as a user of its own here) goes on with a folder it made.
TEST_F(ExportFiles, APrivateFolderNameTakenByAnotherUserIsPassedBy) {
    if (geteuid() != 0) GTEST_SKIP() << "two users need root";
    constexpr int kServiceUser = 65533;
    const std::string taken = "/tmp/velmar-" + std::to_string(kServiceUser);
    const auto cleanUp = [&] {
        for (int i = 0; i < 3; ++i) fs::remove_all(i == 0 ? taken : taken + "-" + std::to_string(i));
    };
    cleanUp();
    ASSERT_TRUE(AsOtherUser("mkdir -m 0777 " + taken));
    ASSERT_EQ(chmod(m_dir.Path().c_str(), 0755), 0);
    Deliver("one", "1.M1.h", WithAttachment("<priv@x>", "notiz.txt", velmar::test::Base64("privat")));
    for (const auto& entry : fs::recursive_directory_iterator(m_dir.Path()))
        chown(entry.path().c_str(), kServiceUser, kServiceUser);
    unsetenv("TMPDIR");
    unsetenv("VELMAR_PIPE");
    unsetenv("XDG_RUNTIME_DIR");
    velmar::test::SetEnvironment("XDG_DATA_HOME", (m_dir / "data").string());
    m_service.emplace("/usr/bin/setpriv",
                      std::vector<std::string>{"--reuid=" + std::to_string(kServiceUser),
                                               "--regid=" + std::to_string(kServiceUser), "--clear-groups",
                                               VELMAR_SERVICE_PROGRAM, "--headless"},
                      (m_dir / "activity.log").string());
    // The service's socket is in the first private folder that is its own: the next name. Only its own
    // user may talk to it, so the client runs as that user too.
    velmar::test::SetEnvironment("VELMAR_PIPE", taken + "-1/velmartaskschedulernamedpipe");
    const auto askAsService = [&](const std::string& arguments) {
        const std::string command = "setpriv --reuid=" + std::to_string(kServiceUser) +
                                    " --regid=" + std::to_string(kServiceUser) +
                                    " --clear-groups " VELMAR_CLIENT_PROGRAM " " + arguments;
        std::string output;
        if (FILE* pipe = popen(command.c_str(), "r")) {
            char buffer[4096];
            for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, got);
            pclose(pipe);
        }
        return output;
    };
    std::string answer;
    for (int attempt = 0; attempt < 100 && answer.find("\"status\": \"OK\"") == std::string::npos;
         ++attempt) {
        answer = askAsService("Logon data_string=Velmar");
        if (answer.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ASSERT_NE(answer.find("\"status\": \"OK\""), std::string::npos)
        << "the service did not start: " << Activity();
    askAsService("OpenMessageStoreTable");
    CkJsonObject reply;
    ASSERT_TRUE(reply.LoadText(askAsService("OpenAttachment messageId=\\<priv@x\\> attachmentIndex=0")));
    const std::string written = reply.StringOf("fileName") ? reply.StringOf("fileName") : "";
    EXPECT_EQ(written, taken + "-1/Velmar/notiz.txt") << "never a bare, relative file name";
    EXPECT_EQ(velmar::test::ReadFile(written), "privat");
    EXPECT_TRUE(fs::is_empty(taken)) << "nothing went into the other user's folder";
    askAsService("CloseVelmarTaskScheduler");
    EXPECT_EQ(m_service->WaitForExit(10000), 0);
    cleanUp();
}

TEST_F(ExportFiles, NamesNoFileSystemTakesAreMadeWritable) {
    // 300 two-byte letters: the cut to 259 characters leaves 518 bytes, more than a file name may have.
    std::string umlauts;
    for (int i = 0; i < 300; ++i) umlauts += "\xC3\xA4";
    Deliver("one", "1.M1.h", WithAttachment("<long@x>", umlauts + ".pdf", velmar::test::Base64("lang")));
    Deliver("one", "2.M1.h", WithAttachment("<dot@x>", ".", velmar::test::Base64("punkt")));
    Deliver("one", "3.M1.h", WithAttachment("<dots@x>", "..", velmar::test::Base64("punkte")));
    Deliver("one", "4.M1.h",
            WithAttachment("<ctl@x>", "a\x1b[31mb\tc\x7f.txt", velmar::test::Base64("steuer")));
    Start();

    const fs::path folder = m_dir / "tmp" / "Velmar";
    std::string fitted;
    for (int i = 0; i < 127; ++i) fitted += "\xC3\xA4";  // 254 bytes: the last whole letter under 255
    const std::string longName = ExportedPath("<long@x>", 0);
    EXPECT_EQ(longName, (folder / fitted).string());
    EXPECT_EQ(velmar::test::ReadFile(longName), "lang");
    for (const char* id : {"<dot@x>", "<dots@x>"}) {
        const std::string written = ExportedPath(id, 0);
        EXPECT_EQ(written, (folder / "Unknown").string()) << id << ": never the folder or its parent";
        EXPECT_TRUE(fs::is_regular_file(written)) << id;
    }
    const std::string control = ExportedPath("<ctl@x>", 0);
    EXPECT_EQ(control, (folder / "a__31mb_c_.txt").string());
    EXPECT_EQ(velmar::test::ReadFile(control), "steuer");
}

TEST_F(ExportFiles, AKillInTheMiddleLeavesNoPartOfAFileUnderItsName) {
    const std::string big(40 * 1024 * 1024, 'x');
    Deliver("one", "1.M1.h", WithAttachment("<big@x>", "gross.bin", velmar::test::Base64(big)));
    Start();
    const fs::path folder = m_dir / "tmp" / "Velmar";
    const fs::path final = folder / "gross.bin";
    // The export writes to a temporary name first; the service is killed while that file grows.
    ASSERT_TRUE(m_channel->Send(
        R"({"command-target":"MAPI","command":"OpenAttachment","messageId":"<big@x>","attachmentIndex":0})"));
    bool killedWhileWriting = false;
    for (int wait = 0; wait < 20000 && !killedWhileWriting; ++wait) {
        std::error_code ignored;
        for (const auto& entry : fs::directory_iterator(folder, ignored))
            if (entry.path().extension() == ".part") killedWhileWriting = m_service->Signal(SIGKILL);
        if (!killedWhileWriting) std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    ASSERT_TRUE(killedWhileWriting) << "the export was never seen under way";
    StopService();
    EXPECT_FALSE(fs::exists(final)) << "no file under its final name before it is whole";

    // The next export writes it whole.
    Start();
    const std::string written = ExportedPath("<big@x>", 0);
    EXPECT_EQ(written, final.string());
    EXPECT_EQ(fs::file_size(final), big.size());
}

}  // namespace
