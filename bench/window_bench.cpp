// The window's cost, in one run on a private X desktop with a tray:
//   - the median round trip of "IsMAPIDllInitialized" (eight activity lines each) through the real program
//     with its window open, against the same program headless (target: at most 1.2 times);
//   - 100,000 lines added from 8 threads to the Qt window in-process: the time until all are in the list
//     against the bare activity list, the longest gap between two processed window events meanwhile,
//     and the longest single scroll through the full list.
//   window_bench [requests=5000]
#include <unistd.h>
#include <sys/socket.h>

#include <QApplication>
#include <QScrollBar>
#include <QTimer>
#include <QTreeView>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <regex>
#include <thread>

#include "app/qt/MainWindowQt.h"
#include "bench/BenchSockets.h"
#include "harness/ServiceProcess.h"
#include "harness/XDesktop.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

const std::string kRequest = R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})";

double Micro(Clock::duration duration) {
    return std::chrono::duration<double, std::micro>(duration).count();
}
double Milli(Clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

bool RoundTrip(int fd, const std::string& request) {
    if (send(fd, request.c_str(), request.size() + 1, MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size() + 1))
        return false;
    char buffer[4096];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0) return false;
        if (std::memchr(buffer, 0, static_cast<size_t>(got))) return true;
    }
}

// The program started with arguments; the median round trip in microseconds, negative on failure. With
// the window, prepare brings it on screen first.
double MedianRoundTrip(const std::vector<std::string>& arguments, const std::string& path, int requests,
                       const std::function<void()>& prepare) {
    velmar::test::CServiceProcess program(VELMAR_SERVICE_PROGRAM, arguments, "/dev/null");
    int fd = -1;
    for (int attempt = 0; attempt < 200 && fd < 0; ++attempt) {
        fd = velmar::bench::Connect(path);
        if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (fd < 0) return -1;
    if (prepare) prepare();
    for (int i = 0; i < 200; ++i) RoundTrip(fd, kRequest);
    std::vector<double> times;
    for (int i = 0; i < requests; ++i) {
        const auto start = Clock::now();
        if (!RoundTrip(fd, kRequest)) break;
        times.push_back(Micro(Clock::now() - start));
    }
    const std::string close = R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})";
    RoundTrip(fd, close);
    ::close(fd);
    program.WaitForExit(10000);
    if (times.size() < static_cast<size_t>(requests) / 2) return -1;
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

// Clicks the program's tray icon, which brings its window on screen.
void ClickTrayIcon(const velmar::test::CXDesktop& desktop) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string tree = desktop.Run("xwininfo -root -tree");
        std::smatch icon;
        const std::regex line(R"x("VelmarTaskScheduler":.*\s(\d+)x(\d+)\+\d+\+\d+\s+\+(\d+)\+(\d+))x");
        for (std::sregex_iterator match(tree.begin(), tree.end(), line), end; match != end; ++match) {
            const int width = std::stoi((*match)[1]);
            if (width > 1 && width < 100) {
                desktop.Run("xdotool mousemove " + std::to_string(std::stoi((*match)[3]) + width / 2) + " " +
                            std::to_string(std::stoi((*match)[4]) + 5) + " click 1");
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
                return;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

// Lines from 8 threads into a list; returns when they are all added.
void AddLines(CActivityList& list, int total) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&list, t, total] {
            for (int i = t; i < total; i += 8)
                list.AddLine(L"Zeile " + std::to_wstring(i) + L" eines Threads, wie der Dienst sie schreibt");
        });
    for (auto& thread : threads) thread.join();
}

}  // namespace

int main(int argc, char** argv) {
    const int requests = argc > 1 ? std::atoi(argv[1]) : 5000;
    velmar::test::CXDesktop desktop(true);
    if (!desktop.Ready()) {
        std::fprintf(stderr, "no X desktop (Xvfb)\n");
        return 1;
    }
    const fs::path folder = fs::temp_directory_path() / ("velmar-window-bench-" + std::to_string(getpid()));
    fs::create_directories(folder);
    const std::string path = (folder / "service.sock").string();
    setenv("VELMAR_PIPE", path.c_str(), 1);
    setenv("VELMAR_MAPI_PROFILES", (folder / "none.ini").c_str(), 1);
    setenv("XDG_DATA_HOME", (folder / "data").c_str(), 1);

    const double headless = MedianRoundTrip({"--headless"}, path, requests, nullptr);
    const double window = MedianRoundTrip({}, path, requests, [&] { ClickTrayIcon(desktop); });
    fs::remove_all(folder);
    if (headless <= 0 || window <= 0) {
        std::fprintf(stderr, "a round trip failed\n");
        return 1;
    }
    std::printf("round trip, IsMAPIDllInitialized: headless %.1f us, window open %.1f us, ratio %.2f\n",
                headless, window, window / headless);

    // 100,000 lines: the bare list first, then the window following it.
    constexpr int kLines = 100000;
    double bare = 0;
    {
        CActivityList list;
        const auto start = Clock::now();
        AddLines(list, kLines);
        bare = Milli(Clock::now() - start);
    }
    QApplication application(argc, argv);
    CActivityList activity;
    CVelmarTaskSchedulerDlg dialog(activity, [] { return true; });
    dialog.resize(900, 700);
    dialog.show();
    auto* list = dialog.findChild<QTreeView*>();
    QTimer ticker;
    Clock::time_point lastTick = Clock::now();
    Clock::duration longestGap{};
    QObject::connect(&ticker, &QTimer::timeout, [&] {
        const auto now = Clock::now();
        longestGap = std::max(longestGap, now - lastTick);
        lastTick = now;
    });
    ticker.start(1);
    const auto settled = Clock::now() + std::chrono::milliseconds(200);
    while (Clock::now() < settled) QCoreApplication::processEvents();
    longestGap = {};
    const auto start = Clock::now();
    std::thread writers([&] { AddLines(activity, kLines); });
    while (list->model()->rowCount() < kLines)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
    const double shown = Milli(Clock::now() - start);
    writers.join();
    const double gap = Milli(longestGap);

    // Scrolling the full list: page by page from the top, each repainted at once.
    Clock::duration slowestScroll{};
    QScrollBar* scroll = list->verticalScrollBar();
    scroll->setValue(0);
    for (int page = 0; page < 200; ++page) {
        const auto before = Clock::now();
        scroll->setValue(page == 199 ? scroll->maximum() : scroll->value() + scroll->pageStep() * 50);
        list->viewport()->repaint();
        slowestScroll = std::max(slowestScroll, Clock::now() - before);
    }
    std::printf("100,000 lines from 8 threads: bare list %.0f ms, shown in the window %.0f ms (ratio %.2f)\n",
                bare, shown, shown / bare);
    std::printf(
        "window responsiveness: longest gap between processed events %.1f ms; slowest scroll %.1f ms\n", gap,
        Milli(slowestScroll));
    return 0;
}
