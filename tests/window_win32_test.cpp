// The Win32 window under Wine on a private X desktop with a tray: the dialog in-process on a thread of its
// own, driven as another program would drive it (messages, BM_CLICK, the list view's messages, the
// clipboard), and the real program end to end. Screenshots go to the build folder.
#include <gtest/gtest.h>

#include <windows.h>
#include <commctrl.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "app/WindowTexts.h"
#include "app/win32/VelmarTaskSchedulerDlg.h"
#include "app/win32/resource.h"
#include "harness/ServiceProcess.h"
#include "support/PrintJobChannel.h"
#include "tools/ClientChannel.h"

namespace {

bool WaitFor(const std::function<bool()>& condition, int milliseconds = 10000) {
    for (int waited = 0; waited < milliseconds; waited += 20) {
        if (condition()) return true;
        Sleep(20);
    }
    return condition();
}

// The whole screen of the X desktop as a PNG, taken by ImageMagick: Wine starts Unix programs too.
void Screenshot(const std::string& name) {
    std::string command = "/usr/bin/import -window root " VELMAR_BUILD_DIR "/screenshots/" + name;
    CreateDirectoryA("Z:" VELMAR_BUILD_DIR "/screenshots", nullptr);
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &process)) {
        WaitForSingleObject(process.hProcess, 20000);
        CloseHandle(process.hProcess);
        CloseHandle(process.hThread);
    }
}

// A message to the real program's window that gives up after 20 s, so that a box the program opened
// fails the test instead of hanging it.
std::optional<LRESULT> SendToProgram(HWND window, UINT message, WPARAM wParam = 0, LPARAM lParam = 0) {
    DWORD_PTR result = 0;
    if (!SendMessageTimeoutW(window, message, wParam, lParam, SMTO_NORMAL, 20000, &result))
        return std::nullopt;
    return static_cast<LRESULT>(result);
}

std::wstring WindowText(HWND window) {
    wchar_t text[1024] = L"";
    GetWindowTextW(window, text, 1024);
    return text;
}

// The clipboard's CF_TEXT with its size in bytes; nullopt when there is none.
std::optional<std::pair<std::string, SIZE_T>> ClipboardText() {
    std::optional<std::pair<std::string, SIZE_T>> result;
    if (!OpenClipboard(nullptr)) return result;
    if (HANDLE data = GetClipboardData(CF_TEXT)) {
        if (const char* text = static_cast<const char*>(GlobalLock(data))) {
            result.emplace(text, GlobalSize(data));
            GlobalUnlock(data);
        }
    }
    CloseClipboard();
    return result;
}

std::string Ansi(const std::wstring& text) {
    const int size = WideCharToMultiByte(CP_THREAD_ACP, 0, text.data(), static_cast<int>(text.size()),
                                         nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_THREAD_ACP, 0, text.data(), static_cast<int>(text.size()), result.data(), size,
                        nullptr, nullptr);
    return result;
}

// A window of `thread` that is not `besides`: the message box or about box the dialog opened.
HWND OtherDialogOf(DWORD thread, HWND besides) {
    struct CSearch {
        HWND besides;
        HWND found;
    } search{besides, nullptr};
    EnumThreadWindows(
        thread,
        [](HWND window, LPARAM context) -> BOOL {
            auto* search = reinterpret_cast<CSearch*>(context);
            wchar_t name[32] = L"";
            GetClassNameW(window, name, 32);
            if (window == search->besides || wcscmp(name, L"#32770") != 0 || !IsWindowVisible(window))
                return TRUE;
            search->found = window;
            return FALSE;
        },
        reinterpret_cast<LPARAM>(&search));
    return search.found;
}

class WindowWin32Test : public ::testing::Test {
protected:
    void SetUp() override {
        m_thread = std::thread([this] {
            m_threadId = GetCurrentThreadId();
            m_dialog.DoModal();
            m_ended = true;
        });
        ASSERT_TRUE(WaitFor([&] { return m_dialog.Handle() != nullptr; }));
        m_window = m_dialog.Handle();
        // The posted "&Minimize" has put it in the tray: minimised, then hidden.
        ASSERT_TRUE(WaitFor([&] { return IsIconic(m_window) && !IsWindowVisible(m_window); }))
            << "the window did not go to the tray";
    }
    void TearDown() override {
        if (!m_ended) PostMessageW(m_window, WM_CLOSE, 0, 0);
        m_thread.join();
    }

    HWND Control(int id) { return GetDlgItem(m_window, id); }
    int ItemCount() {
        return static_cast<int>(SendMessageW(Control(IDC_ACTIVITY_LIST), LVM_GETITEMCOUNT, 0, 0));
    }
    std::wstring Item(int index) {
        wchar_t text[512] = L"";
        LVITEMW item{};
        item.pszText = text;
        item.cchTextMax = 512;
        SendMessageW(Control(IDC_ACTIVITY_LIST), LVM_GETITEMTEXTW, static_cast<WPARAM>(index),
                     reinterpret_cast<LPARAM>(&item));
        return text;
    }
    RECT ScreenRect(HWND window) {
        RECT rect;
        GetWindowRect(window, &rect);
        return rect;
    }
    void Restore() {
        SendMessageW(m_window, CVelmarTaskSchedulerDlg::kTrayNotify, 1, WM_LBUTTONDOWN);
        ASSERT_TRUE(WaitFor([&] { return IsWindowVisible(m_window) && !IsIconic(m_window); }));
    }

    CActivityList m_activity;
    std::atomic<int> m_starts{0};
    CVelmarTaskSchedulerDlg m_dialog{m_activity, [this] { return ++m_starts, true; }};
    std::thread m_thread;
    std::atomic<DWORD> m_threadId{0};
    std::atomic<bool> m_ended{false};
    HWND m_window = nullptr;
};

TEST_F(WindowWin32Test, StringsSystemMenuAndAboutBox) {
    EXPECT_EQ(m_starts, 1) << "the dialog's initialisation starts the service";
    EXPECT_EQ(WindowText(m_window), L"VelmarTaskScheduler");
    EXPECT_EQ(WindowText(Control(IDC_MINIMIZE)), kMinimizeButton);
    EXPECT_EQ(WindowText(Control(IDC_CLEAR_LIST)), kClearListButton);
    EXPECT_EQ(WindowText(Control(IDC_COPY_LIST)), kCopyListButton);
    wchar_t heading[64] = L"";
    LVCOLUMNW column{};
    column.mask = LVCF_TEXT | LVCF_WIDTH;
    column.pszText = heading;
    column.cchTextMax = 64;
    ASSERT_TRUE(
        SendMessageW(Control(IDC_ACTIVITY_LIST), LVM_GETCOLUMNW, 0, reinterpret_cast<LPARAM>(&column)));
    EXPECT_EQ(std::wstring(heading), L"Aktion");
    EXPECT_EQ(column.cx, 2500);

    // The string table as the window and the service use it.
    const std::pair<UINT, const wchar_t*> strings[] = {{IDS_ABOUTBOX, kTextAboutItem},
                                                       {IDS_CONNECTION_ERROR, kTextConnectionError},
                                                       {IDS_CLOSE_QUESTION, kTextCloseQuestion},
                                                       {IDS_THREAD_ERROR, kTextThreadError},
                                                       {IDS_COMMAND_JOBS_FAILED, kTextCommandJobsFailed}};
    for (auto [id, expected] : strings) {
        wchar_t text[512] = L"";
        LoadStringW(GetModuleHandleW(nullptr), id, text, 512);
        EXPECT_EQ(std::wstring(text), expected) << id;
    }
    EXPECT_EQ(reinterpret_cast<HICON>(SendMessageW(m_window, WM_QUERYDRAGICON, 0, 0)),
              LoadIconW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDR_MAINFRAME)));

    // The system menu ends with a separator and the about item 16.
    HMENU menu = GetSystemMenu(m_window, FALSE);
    const int count = GetMenuItemCount(menu);
    ASSERT_GE(count, 2);
    EXPECT_EQ(GetMenuItemID(menu, count - 1), static_cast<UINT>(IDM_ABOUTBOX));
    wchar_t item[128] = L"";
    GetMenuStringW(menu, static_cast<UINT>(count - 1), item, 128, MF_BYPOSITION);
    EXPECT_EQ(std::wstring(item), kTextAboutItem);
    EXPECT_EQ(GetMenuState(menu, static_cast<UINT>(count - 2), MF_BYPOSITION) & MF_SEPARATOR,
              static_cast<UINT>(MF_SEPARATOR));

    Restore();
    PostMessageW(m_window, WM_SYSCOMMAND, IDM_ABOUTBOX, 0);
    HWND about = nullptr;
    ASSERT_TRUE(WaitFor([&] { return (about = OtherDialogOf(m_threadId, m_window)) != nullptr; }));
    EXPECT_EQ(WindowText(about), kAboutCaption);
    EXPECT_EQ(WindowText(GetDlgItem(about, IDC_ABOUT_TEXT)), kAboutText);
    Screenshot("windows-about.png");
    SendMessageW(about, WM_COMMAND, IDOK, 0);
    EXPECT_TRUE(WaitFor([&] { return !IsWindow(about); }));
}

TEST_F(WindowWin32Test, LayoutAfterAResizeKeepsTwentyPixelMargins) {
    Restore();
    SetWindowPos(m_window, nullptr, 50, 60, 900, 640, SWP_NOZORDER);
    const RECT window = ScreenRect(m_window);
    const RECT minimize = ScreenRect(Control(IDC_MINIMIZE));
    const RECT clear = ScreenRect(Control(IDC_CLEAR_LIST));
    const RECT copy = ScreenRect(Control(IDC_COPY_LIST));
    const RECT list = ScreenRect(Control(IDC_ACTIVITY_LIST));
    EXPECT_EQ(minimize.right, window.right - 20);
    EXPECT_EQ(minimize.bottom, window.bottom - 20);
    EXPECT_EQ(clear.left, window.left + 20);
    EXPECT_EQ(clear.bottom, window.bottom - 20);
    const int copyWidth = copy.right - copy.left;
    EXPECT_EQ(copy.left, window.left + (window.right - window.left - copyWidth) / 2);
    EXPECT_EQ(copy.bottom, window.bottom - 20);
    EXPECT_EQ(list.left, window.left + 20);
    EXPECT_EQ(list.right, window.right - 20);
    EXPECT_EQ(list.top, window.top + 40);
    EXPECT_EQ(list.bottom, window.bottom - 30 - (copy.bottom - copy.top));
    RECT units{0, 0, 50, 14};
    MapDialogRect(m_window, &units);
    EXPECT_EQ(minimize.right - minimize.left, units.right) << "buttons keep their size";
    Screenshot("windows-window-resized.png");
}

TEST_F(WindowWin32Test, LinesFromManyThreadsCopyAndClearList) {
    Restore();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < 1500; ++i) {
                if (i % 3)
                    m_activity.AddLine(L"Zeile " + std::to_wstring(t) + L"/" + std::to_wstring(i));
                else
                    m_activity.AddTraceLine(L"Spur f\u00FCr " + std::to_wstring(t) + L"/" +
                                            std::to_wstring(i));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    const std::vector<std::wstring> lines = m_activity.Lines();
    ASSERT_TRUE(WaitFor([&] { return ItemCount() == static_cast<int>(lines.size()); }))
        << ItemCount() << " of " << lines.size();
    for (size_t i : {size_t{0}, lines.size() / 2, lines.size() - 1})
        EXPECT_EQ(Item(static_cast<int>(i)), lines[i]) << i;

    // "&Copy List": CF_TEXT in the thread's code page, CR LF after each line.
    SendMessageW(Control(IDC_COPY_LIST), BM_CLICK, 0, 0);
    auto copied = ClipboardText();
    ASSERT_TRUE(copied);
    EXPECT_EQ(copied->first, Ansi(m_activity.Text()));
    EXPECT_EQ(copied->first.substr(copied->first.size() - 2), "\r\n");
    Screenshot("windows-window.png");

    // "C&lear List", then a copy of the empty list: one zero byte.
    SendMessageW(Control(IDC_CLEAR_LIST), BM_CLICK, 0, 0);
    EXPECT_EQ(ItemCount(), 0);
    SendMessageW(Control(IDC_COPY_LIST), BM_CLICK, 0, 0);
    copied = ClipboardText();
    ASSERT_TRUE(copied);
    EXPECT_EQ(copied->first, "");
    EXPECT_GE(copied->second, 1u);
    m_activity.AddLine(L"danach");
    EXPECT_TRUE(WaitFor([&] { return ItemCount() == 1 && Item(0) == L"danach"; }));
}

class CRecordingPrinter : public IPrintJobHost {
public:
    void RecreateDialog(size_t index) override { calls.push_back(L"recreate " + std::to_wstring(index)); }
    void AddPrintJob(size_t index, const std::vector<std::wstring>& group) override {
        calls.push_back(L"job " + std::to_wstring(index) + L" " + group.front());
    }
    void StartPrinting(size_t index) override { calls.push_back(L"start " + std::to_wstring(index)); }
    void DestroyDialog(size_t index) override { calls.push_back(L"destroy " + std::to_wstring(index)); }
    std::vector<std::wstring> calls;
};

// Jobs come from the dialog's thread, the test looks from its own.
class CLockedPrinter : public IPrintJobHost {
public:
    void RecreateDialog(size_t index) override { Note(L"recreate " + std::to_wstring(index)); }
    void AddPrintJob(size_t index, const std::vector<std::wstring>& group) override {
        Note(L"job " + std::to_wstring(index) + L" " + group.front());
    }
    void StartPrinting(size_t index) override { Note(L"start " + std::to_wstring(index)); }
    void DestroyDialog(size_t index) override { Note(L"destroy " + std::to_wstring(index)); }
    std::vector<std::wstring> Calls() {
        std::lock_guard lock(m_lock);
        return m_calls;
    }

private:
    void Note(std::wstring call) {
        std::lock_guard lock(m_lock);
        m_calls.push_back(std::move(call));
    }
    std::mutex m_lock;
    std::vector<std::wstring> m_calls;
};

TEST_F(WindowWin32Test, PrintJobsOfOtherStartsArriveByCopyDataAndLeaveWhenPrinted) {
    CLockedPrinter printer;
    m_dialog.SetPrintJobHost(&printer);
    std::wstring error;
    ASSERT_EQ(
        velmar::HandPrintJobToWindow({L"PRINTHTML", L"a.html", L"*", L"a.css", L"0", L"*", L"b.html"}, error),
        velmar::EHandOver::Handed)
        << std::string(error.begin(), error.end());
    EXPECT_TRUE(WaitFor([&] { return printer.Calls().size() == 3; }));
    EXPECT_EQ(printer.Calls(), (std::vector<std::wstring>{L"recreate 0", L"job 0 a.html", L"start 0"}));

    // Anything else on WM_COPYDATA is refused and adds no job.
    const char garbage[] = "{\"PRINTHTML\":[\"PRINTHTML\",\"a.html\"]}";
    COPYDATASTRUCT data{velmar::kPrintJobCopyData, sizeof garbage - 1, const_cast<char*>(garbage)};
    EXPECT_EQ(SendMessageW(m_window, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&data)), FALSE);
    data.dwData = 1;
    EXPECT_EQ(SendMessageW(m_window, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&data)), FALSE);

    // Printed: the job's dialog goes and the job leaves the list, so running it again does nothing.
    m_dialog.PostPrintJobDone(0);
    EXPECT_TRUE(WaitFor([&] { return printer.Calls().size() == 4; }));
    SendMessageW(m_window, CVelmarTaskSchedulerDlg::kRunCommandJob, 0, 1);
    EXPECT_EQ(printer.Calls().back(), L"destroy 0");
    EXPECT_EQ(printer.Calls().size(), 4u);
    m_dialog.SetPrintJobHost(nullptr);
}

TEST_F(WindowWin32Test, CommandJobsByMessageAndTheCloseQuestionWithOpenMail) {
    CRecordingPrinter printer;
    m_dialog.SetPrintJobHost(&printer);
    ASSERT_EQ(m_dialog.Jobs().Add({L"PRINTHTML", L"a.html", L"*", L"a.css", L"0", L"*"}), 0u);
    SendMessageW(m_window, CVelmarTaskSchedulerDlg::kRunCommandJob, 0, 1);
    SendMessageW(m_window, CVelmarTaskSchedulerDlg::kRunCommandJob, 5, 1);  // no such job
    SendMessageW(m_window, CVelmarTaskSchedulerDlg::kRunCommandJob, 0, 2);
    EXPECT_EQ(printer.calls,
              (std::vector<std::wstring>{L"recreate 0", L"job 0 a.html", L"start 0", L"destroy 0"}));

    // With mail opened by the service on screen, closing asks; No keeps the window.
    ASSERT_TRUE(m_dialog.Jobs().Add({L"OPENMAIL"}));
    Restore();
    PostMessageW(m_window, WM_CLOSE, 0, 0);
    HWND box = nullptr;
    ASSERT_TRUE(WaitFor([&] { return (box = OtherDialogOf(m_threadId, m_window)) != nullptr; }));
    EXPECT_EQ(WindowText(GetDlgItem(box, 0xFFFF)), kTextCloseQuestion);
    Screenshot("windows-close-question.png");
    PostMessageW(box, WM_COMMAND, IDNO, 0);
    ASSERT_TRUE(WaitFor([&] { return !IsWindow(box); }));
    Sleep(200);
    EXPECT_FALSE(m_ended) << "No keeps the window";

    // Escape asks the same; Yes closes.
    PostMessageW(m_window, WM_COMMAND, MAKEWPARAM(IDCANCEL, BN_CLICKED), 0);
    ASSERT_TRUE(WaitFor([&] { return (box = OtherDialogOf(m_threadId, m_window)) != nullptr; }));
    PostMessageW(box, WM_COMMAND, IDYES, 0);
    EXPECT_TRUE(WaitFor([&] { return m_ended.load(); }));
}

// The real program: in the tray at start, its list filled by a request, read back by another process,
// closed by request.
TEST(WindowProgram, RealProgramInTheTrayServesAndClosesByRequest) {
    velmar::test::CServiceProcess program(VELMAR_SERVICE_PROGRAM, {}, "NUL");
    ASSERT_TRUE(program.Started());
    HWND window = nullptr;
    // Hidden alone is also the moment before the dialog first shows; minimised and hidden means its icon is
    // in the tray.
    ASSERT_TRUE(WaitFor([&] {
        window = FindWindowW(L"#32770", L"VelmarTaskScheduler");
        return window && IsIconic(window) && !IsWindowVisible(window);
    })) << "no window in the tray";
    std::unique_ptr<velmar::tools::IClientChannel> channel;
    ASSERT_TRUE(WaitFor([&] {
        std::string error;
        return (channel = velmar::tools::ConnectToService(error)) != nullptr;
    }));
    std::string reply;
    ASSERT_TRUE(channel->Send(R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})"));
    ASSERT_TRUE(channel->Receive(reply, 20000));

    ASSERT_TRUE(SendToProgram(window, CVelmarTaskSchedulerDlg::kTrayNotify, 1, WM_LBUTTONDOWN))
        << "the program did not answer the click on its icon";
    ASSERT_TRUE(WaitFor([&] { return IsWindowVisible(window) != FALSE; }));
    HWND list = GetDlgItem(window, IDC_ACTIVITY_LIST);
    ASSERT_TRUE(WaitFor([&] { return SendToProgram(list, LVM_GETITEMCOUNT).value_or(0) >= 6; }));

    // The first line, read across processes: the item and its buffer live in the program's memory.
    DWORD processId = 0;
    GetWindowThreadProcessId(window, &processId);
    HANDLE process = OpenProcess(PROCESS_VM_OPERATION | PROCESS_VM_READ | PROCESS_VM_WRITE, FALSE, processId);
    ASSERT_TRUE(process);
    auto* remote = static_cast<char*>(VirtualAllocEx(process, nullptr, 4096, MEM_COMMIT, PAGE_READWRITE));
    ASSERT_TRUE(remote);
    LVITEMW item{};
    item.pszText = reinterpret_cast<wchar_t*>(remote + 512);
    item.cchTextMax = 1024;
    WriteProcessMemory(process, remote, &item, sizeof item, nullptr);
    SendToProgram(list, LVM_GETITEMTEXTW, 0, reinterpret_cast<LPARAM>(remote));
    wchar_t first[1024] = L"";
    ReadProcessMemory(process, remote + 512, first, sizeof first - sizeof(wchar_t), nullptr);
    VirtualFreeEx(process, remote, 0, MEM_RELEASE);
    CloseHandle(process);
    EXPECT_EQ(std::wstring(first), L"VelmarTaskScheduler MEM_LIMIT=0 VELMAR_SYNC=1");

    ASSERT_TRUE(SendToProgram(GetDlgItem(window, IDC_COPY_LIST), BM_CLICK));
    const auto copied = ClipboardText();
    ASSERT_TRUE(copied);
    EXPECT_NE(copied->first.find("\r\nHandlePipeRequest\r\n"), std::string::npos) << copied->first;
    EXPECT_NE(copied->first.find("\r\n-> IsMAPIDllInitialized\r\n"), std::string::npos);
    Screenshot("windows-program.png");

    ASSERT_TRUE(channel->Send(R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})"));
    ASSERT_TRUE(channel->Receive(reply, 20000));
    EXPECT_NE(reply.find("\"OK\""), std::string::npos);
    EXPECT_EQ(program.WaitForExit(20000), 0);
}

// The browser control of Wine has no HTML engine (no Gecko): a print job handed to the running window goes
// all the way to it and fails there cleanly, traced, its file kept, the window serving on. A start without a
// window prints by itself and fails the same way.
TEST(WindowProgram, PrintStartsHandTheirJobToTheWindowWhereItFailsCleanly) {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    const std::wstring page = std::wstring(temp) + L"velmar-druck.html";
    HANDLE file = CreateFileW(page.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    DWORD written = 0;
    WriteFile(file, "<p>x</p>", 8, &written, nullptr);
    CloseHandle(file);
    const std::string pageArgument = Ansi(page);

    velmar::test::CServiceProcess program(VELMAR_SERVICE_PROGRAM, {}, "NUL");
    HWND window = nullptr;
    ASSERT_TRUE(
        WaitFor([&] { return (window = FindWindowW(L"#32770", L"VelmarTaskScheduler")) != nullptr; }));
    ASSERT_TRUE(WaitFor([&] { return GetPropW(window, velmar::kPrintJobWindowProperty) != nullptr; }));
    velmar::test::CServiceProcess start(VELMAR_SERVICE_PROGRAM,
                                        {"PRINTHTML", pageArgument, "*", "*", "0", "*"}, "NUL");
    EXPECT_EQ(start.WaitForExit(20000), 0) << "the job is handed over at once";

    const std::string failed = "Html Dokument kann nicht gedruckt werden: " + pageArgument;
    std::string list;
    EXPECT_TRUE(WaitFor(
        [&] {
            SendToProgram(GetDlgItem(window, IDC_COPY_LIST), BM_CLICK);
            const auto copied = ClipboardText();
            list = copied ? copied->first : std::string();
            return list.find(failed) != std::string::npos;
        },
        30000))
        << list;
    EXPECT_NE(list.find("\r\nHtml Dokument ausdrucken\r\n"), std::string::npos);
    EXPECT_EQ(GetFileAttributesW(page.c_str()) != INVALID_FILE_ATTRIBUTES, true)
        << "a job not printed keeps its file";
    std::unique_ptr<velmar::tools::IClientChannel> channel;
    ASSERT_TRUE(WaitFor([&] {
        std::string error;
        return (channel = velmar::tools::ConnectToService(error)) != nullptr;
    }));
    std::string reply;
    ASSERT_TRUE(channel->Send(R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})"));
    ASSERT_TRUE(channel->Receive(reply, 20000));
    EXPECT_EQ(program.WaitForExit(20000), 0);

    velmar::test::CServiceProcess alone(VELMAR_SERVICE_PROGRAM,
                                        {"PRINTHTML", pageArgument, "*", "*", "0", "*"}, "NUL");
    EXPECT_EQ(alone.WaitForExit(60000), 0) << "without a window the start prints itself and ends";
    EXPECT_NE(GetFileAttributesW(page.c_str()), INVALID_FILE_ATTRIBUTES);
    DeleteFileW(page.c_str());
}

}  // namespace
