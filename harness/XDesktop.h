// A private X desktop for window tests: Xvfb on a display number of its own and, when asked, trayer as the
// system tray. The X tools (xdotool, xwininfo, xclip, import) run against it through Run.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace velmar::test {

class CXDesktop {
public:
    explicit CXDesktop(bool withTray) {
        int numberPipe[2];
        if (pipe2(numberPipe, O_CLOEXEC) != 0) return;
        m_server = Spawn({"/usr/bin/Xvfb", "-displayfd", std::to_string(numberPipe[1]), "-screen", "0",
                          "1024x768x24", "-nolisten", "tcp", "-noreset"},
                         numberPipe[1]);
        close(numberPipe[1]);
        std::string number;
        char c = 0;
        while (read(numberPipe[0], &c, 1) == 1 && c != '\n') number += c;
        close(numberPipe[0]);
        if (number.empty()) return;
        m_display = ":" + number;
        setenv("DISPLAY", m_display.c_str(), 1);
        unsetenv("WAYLAND_DISPLAY");
        if (withTray) {
            m_tray = Spawn({"/usr/bin/trayer", "--edge", "bottom", "--align", "right", "--widthtype", "pixel",
                            "--width", "120", "--heighttype", "pixel", "--height", "32", "--transparent",
                            "false", "--tint", "0x808080"});
            // Ready once its panel window is there to take icons.
            for (int i = 0; i < 100 && Run("xwininfo -root -tree | grep -c '\"panel\"'") != "1\n"; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    ~CXDesktop() {
        for (pid_t pid : {m_tray, m_server}) {
            if (pid <= 0) continue;
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
    CXDesktop(const CXDesktop&) = delete;
    CXDesktop& operator=(const CXDesktop&) = delete;

    bool Ready() const { return !m_display.empty(); }
    const std::string& Display() const { return m_display; }

    // Runs a shell command on this desktop and returns its standard output.
    std::string Run(const std::string& command) const {
        std::string output;
        FILE* pipe = popen(("DISPLAY=" + m_display + " " + command + " 2>/dev/null").c_str(), "r");
        if (!pipe) return output;
        char buffer[4096];
        size_t got = 0;
        while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, got);
        pclose(pipe);
        return output;
    }

    // The id of the one visible window with exactly this title, once there is one; empty when none came in
    // tenths tenths of a second.
    std::string WaitForWindow(const std::string& title, int tenths = 300) const {
        for (int i = 0; i < tenths; ++i) {
            std::istringstream ids(Run("xdotool search --onlyvisible --name '^" + title + "$'"));
            std::string id;
            if (ids >> id) return id;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return {};
    }
    // Whether no visible window of this title is left within 20 s.
    bool WaitUntilGone(const std::string& title) const {
        for (int i = 0; i < 200; ++i) {
            if (Run("xdotool search --onlyvisible --name '^" + title + "$'").empty()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }

    // Saves the whole screen as a PNG, for a person to look at.
    void Screenshot(const std::filesystem::path& file) const {
        std::filesystem::create_directories(file.parent_path());
        Run("import -window root '" + file.string() + "'");
    }

private:
    static pid_t Spawn(std::vector<std::string> words, int keepFd = -1) {
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            if (keepFd >= 0) fcntl(keepFd, F_SETFD, 0);
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
        return pid;
    }

    pid_t m_server = -1;
    pid_t m_tray = -1;
    std::string m_display;
};

}  // namespace velmar::test
