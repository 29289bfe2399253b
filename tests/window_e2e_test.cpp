// The real program with its window on a private X desktop: started in the tray (trayer) or, without a
// tray, minimised to the task bar; driven with xdotool as a person would, its list read back through
// "&Copy List" and the clipboard (xclip), closed by request. Screenshots go to the build folder.
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <regex>
#include <sstream>

#include "harness/XDesktop.h"
#include "tests/ServiceFixture.h"

namespace {

namespace fs = std::filesystem;
using velmar::test::CXDesktop;
using velmar::test::WaitFor;

struct CXWindow {
    std::string id;
    int x = 0, y = 0, width = 0, height = 0;  // absolute
    bool viewable = false;
};

class WindowTest : public velmar::test::CServiceTest {
protected:
    void SetUp() override {
        CServiceTest::SetUp();
        UseOwnHome();
    }
    // The program with its window on a private X desktop, with a tray or without.
    void StartProgram(bool withTray) {
        StartDesktop(withTray);
        StartService({}, "program.log");
        ASSERT_TRUE(WaitFor([&] { return MainWindow().has_value(); })) << "no main window";
    }
    void StartDesktop(bool withTray) {
        m_desktop.emplace(withTray);
        ASSERT_TRUE(m_desktop->Ready()) << "Xvfb did not start";
    }

    std::string Ask(const std::string& command) {
        const std::optional<std::string> reply =
            Request(R"({"command-target":"MAPI","command":")" + command + "\"}", 20000);
        if (!reply) ADD_FAILURE() << "no reply to " << command;
        return reply.value_or("");
    }

    // The windows of a name anywhere in the tree (the tray icon lives inside the tray's panel), Qt's hidden
    // group leader of 1 x 1 pixels aside.
    std::vector<CXWindow> ProgramWindows(const std::string& name = "VelmarTaskScheduler") {
        std::vector<CXWindow> windows;
        const std::string tree = m_desktop->Run("xwininfo -root -tree");
        const std::regex line("(0x[0-9a-f]+) \"" + name +
                              R"(\":.*\s(\d+)x(\d+)[+-]-?\d+[+-]-?\d+\s+\+(-?\d+)\+(-?\d+))");
        for (std::sregex_iterator match(tree.begin(), tree.end(), line), end; match != end; ++match) {
            CXWindow window{(*match)[1]};
            window.width = std::stoi((*match)[2]);
            window.height = std::stoi((*match)[3]);
            window.x = std::stoi((*match)[4]);
            window.y = std::stoi((*match)[5]);
            window.viewable =
                m_desktop->Run("xwininfo -id " + window.id).find("IsViewable") != std::string::npos;
            if (window.width > 1) windows.push_back(window);
        }
        return windows;
    }
    std::optional<CXWindow> MainWindow() {
        for (const CXWindow& window : ProgramWindows())
            if (window.width >= 300) return window;
        return std::nullopt;
    }
    // The icon docked in the tray: a small window of ours that is on screen.
    std::optional<CXWindow> TrayIcon() {
        for (const CXWindow& window : ProgramWindows())
            if (window.width < 100 && window.viewable) return window;
        return std::nullopt;
    }

    void ClickAt(int x, int y, int button = 1) {
        m_desktop->Run("xdotool mousemove " + std::to_string(x) + " " + std::to_string(y) + " click " +
                       std::to_string(button));
    }
    // Buttons of the dialog template, at their places in a window that was not resized: dialog units of
    // 6 x 13 pixels per 4 x 8.
    void ClickButton(int dialogX, int dialogY) {
        const CXWindow main = *MainWindow();
        ClickAt(main.x + (dialogX + 25) * 6 / 4, main.y + (dialogY + 7) * 13 / 8);
    }
    void ClickCopyList() { ClickButton(135, 179); }
    void ClickClearList() { ClickButton(7, 179); }
    void ClickMinimize() { ClickButton(263, 179); }

    std::string Clipboard() { return m_desktop->Run("xclip -o -selection clipboard"); }

    std::optional<CXDesktop> m_desktop;
};

const fs::path kScreenshots = fs::path(VELMAR_BUILD_DIR) / "screenshots";

TEST_F(WindowTest, LivesInTheTrayShowsEveryRequestCopiesClearsAndClosesByRequest) {
    StartProgram(true);
    // At start only the tray icon is there.
    ASSERT_TRUE(WaitFor([&] { return TrayIcon().has_value(); })) << "no icon in the tray";
    EXPECT_FALSE(MainWindow()->viewable);

    // A click on the icon brings the window back and takes the icon away.
    const CXWindow icon = *TrayIcon();
    ClickAt(icon.x + icon.width / 2, icon.y + icon.height / 2);
    ASSERT_TRUE(WaitFor([&] { return MainWindow()->viewable; })) << "the window did not come back";
    EXPECT_TRUE(WaitFor([&] { return !TrayIcon().has_value(); })) << "the icon stayed in the tray";

    // A request's steps appear in the list; "&Copy List" gives them as UTF-8 lines ending in CR LF.
    EXPECT_NE(Ask("IsMAPIDllInitialized").find("\"OK\""), std::string::npos);
    std::string copied;
    ASSERT_TRUE(WaitFor([&] {
        ClickCopyList();
        copied = Clipboard();
        return copied.find("Write Back Json\r\n") != std::string::npos;
    })) << copied;
    EXPECT_EQ(copied.rfind("VelmarTaskScheduler MEM_LIMIT=0 VELMAR_SYNC=1\r\n", 0), 0u) << copied;
    EXPECT_NE(copied.find("\r\nHandlePipeRequest\r\n"), std::string::npos);
    EXPECT_NE(copied.find("\r\n-> IsMAPIDllInitialized\r\n"), std::string::npos);
    EXPECT_EQ(copied.substr(copied.size() - 2), "\r\n");
    m_desktop->Screenshot(kScreenshots / "linux-window.png");

    // "C&lear List" empties it: the copy is empty.
    ClickClearList();
    EXPECT_TRUE(WaitFor([&] {
        ClickCopyList();
        return Clipboard().empty();
    }));

    // "&Minimize" puts it back in the tray.
    ClickMinimize();
    EXPECT_TRUE(WaitFor([&] { return !MainWindow()->viewable && TrayIcon().has_value(); }));

    // Closed by request: the client has its "OK" first, then the program ends.
    EXPECT_NE(Ask("CloseVelmarTaskScheduler").find("\"OK\""), std::string::npos);
    EXPECT_EQ(m_service->WaitForExit(10000), 0);
}

TEST_F(WindowTest, AboutBoxFromTheTrayMenuAndClosedBySignal) {
    StartProgram(true);
    ASSERT_TRUE(WaitFor([&] { return TrayIcon().has_value(); }));
    // The right button opens the icon's menu; its item shows the about box.
    const CXWindow icon = *TrayIcon();
    ClickAt(icon.x + icon.width / 2, icon.y + icon.height / 2, 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    // The menu opens above the icon at the bottom of the screen: its only item is its last line.
    m_desktop->Run("xdotool key Down Return");
    ASSERT_TRUE(WaitFor([&] { return !ProgramWindows("Info über VelmarTaskScheduler").empty(); }))
        << "no about box";
    EXPECT_FALSE(MainWindow()->viewable) << "the about box leaves the window in the tray";
    m_desktop->Screenshot(kScreenshots / "linux-about.png");
    m_desktop->Run("xdotool key Return");
    EXPECT_TRUE(WaitFor([&] { return ProgramWindows("Info über VelmarTaskScheduler").empty(); }));
    // Closing the about box does not end the program; a stop signal closes the window and does.
    EXPECT_NE(Ask("IsMAPIDllInitialized").find("\"OK\""), std::string::npos);
    ASSERT_TRUE(m_service->Signal(SIGTERM));
    EXPECT_EQ(m_service->WaitForExit(10000), 0);
}

TEST_F(WindowTest, WithoutATrayStartsMinimisedToTheTaskBar) {
    StartProgram(false);
    const CXWindow main = *MainWindow();
    // Minimised: mapped as an icon of the task bar, which a window manager would show there.
    EXPECT_TRUE(WaitFor([&] {
        return m_desktop->Run("xprop -id " + main.id + " WM_HINTS").find("Iconic State") != std::string::npos;
    }));
    EXPECT_FALSE(TrayIcon().has_value());
    // "&Minimize" does the same again, with no message box about the tray.
    ClickMinimize();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(ProgramWindows().size(), 1u) << "a box came up";
    m_desktop->Screenshot(kScreenshots / "linux-window-without-tray.png");
    EXPECT_NE(Ask("CloseVelmarTaskScheduler").find("\"OK\""), std::string::npos);
    EXPECT_EQ(m_service->WaitForExit(10000), 0);
}

TEST_F(WindowTest, ClosedByRequestWhileManyClientsKeepItBusy) {
    StartProgram(true);
    // Clients asking without pause, their steps pouring into the list, while another asks to close: the
    // window closes, the service threads end, nothing waits for anything forever.
    std::atomic<bool> stop{false};
    std::atomic<int> answered{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < 6; ++c) {
        clients.emplace_back([&] {
            std::string error;
            auto channel = velmar::tools::ConnectToService(error);
            std::string reply;
            while (channel && !stop &&
                   channel->Send(R"({"command-target":"MAPI","command":"IsInitialized"})") &&
                   channel->Receive(reply, 20000))
                ++answered;
        });
    }
    ASSERT_TRUE(WaitFor([&] { return answered > 500; }));
    EXPECT_NE(Ask("CloseVelmarTaskScheduler").find("\"OK\""), std::string::npos);
    EXPECT_EQ(m_service->WaitForExit(20000), 0) << "the program hangs while closing under load";
    stop = true;
    for (auto& client : clients) client.join();
}

TEST_F(WindowTest, AWindowWithoutAServiceWhenTheSocketCannotBeOffered) {
    // Something else lies where the socket would go: the service cannot start, the window stays and says why.
    velmar::test::WriteFile(m_dir / "taken", "not a socket");
    StartDesktop(true);
    velmar::test::SetEnvironment("VELMAR_PIPE", (m_dir / "taken").string());
    m_service.emplace(VELMAR_SERVICE_PROGRAM, std::vector<std::string>{}, (m_dir / "program.log").string());
    ASSERT_TRUE(WaitFor([&] { return TrayIcon().has_value(); })) << "no window in the tray";
    const CXWindow icon = *TrayIcon();
    ClickAt(icon.x + icon.width / 2, icon.y + icon.height / 2);
    ASSERT_TRUE(WaitFor([&] { return MainWindow()->viewable; }));
    std::string copied;
    EXPECT_TRUE(WaitFor([&] {
        ClickCopyList();
        copied = Clipboard();
        return copied.find("Am Ort des Sockets liegt schon etwas anderes: ") != std::string::npos;
    })) << copied;
    EXPECT_FALSE(m_service->WaitForExit(0)) << "the window goes on without its service";
    ASSERT_TRUE(m_service->Signal(SIGTERM));
    EXPECT_EQ(m_service->WaitForExit(10000), 0);
}

TEST_F(WindowTest, ADisplayThatCannotBeReachedMeansHeadless) {
    StartDesktop(false);
    // A display nobody serves: the program must not die in Qt, but serve without a window.
    velmar::test::SetEnvironment("DISPLAY", ":" + std::to_string(60000 + getpid() % 1000));
    StartService({}, "program.log");
    EXPECT_NE(Ask("CloseVelmarTaskScheduler").find("\"OK\""), std::string::npos);
    EXPECT_EQ(m_service->WaitForExit(10000), 0);
    // Headless: the activity list went to standard output.
    EXPECT_NE(Activity().find("-> CloseVelmarTaskScheduler"), std::string::npos);
}

}  // namespace
