#include "app/win32/VelmarTaskSchedulerDlg.h"

#include <commctrl.h>

#include <vector>

#include "app/WindowTexts.h"
#include "app/win32/AboutDlg.h"
#include "app/win32/resource.h"
#include "support/PrintJobChannel.h"

namespace {

// Lines inserted per note: a burst goes in as a few batches, with the window's other messages between.
constexpr size_t kBatchLines = 2000;
// A batch this large is inserted with drawing switched off, then drawn once.
constexpr size_t kQuietBatch = 64;

std::wstring LoadText(UINT id) {
    const wchar_t* text = nullptr;
    const int length = LoadStringW(GetModuleHandleW(nullptr), id, reinterpret_cast<LPWSTR>(&text), 0);
    return length > 0 ? std::wstring(text, static_cast<size_t>(length)) : std::wstring();
}

// The item's text, however long.
std::wstring ItemText(HWND list, int item) {
    std::vector<wchar_t> buffer(256);
    for (;;) {
        LVITEMW column{};
        column.iSubItem = 0;
        column.pszText = buffer.data();
        column.cchTextMax = static_cast<int>(buffer.size());
        const auto length = static_cast<size_t>(SendMessageW(
            list, LVM_GETITEMTEXTW, static_cast<WPARAM>(item), reinterpret_cast<LPARAM>(&column)));
        if (length + 1 < buffer.size()) return std::wstring(buffer.data(), length);
        buffer.resize(buffer.size() * 4);
    }
}

// The rectangle of a control in the window's client coordinates, from one in screen coordinates.
void MoveToScreenRect(HWND window, HWND control, RECT rect) {
    POINT corners[2] = {{rect.left, rect.top}, {rect.right, rect.bottom}};
    MapWindowPoints(nullptr, window, corners, 2);
    MoveWindow(control, corners[0].x, corners[0].y, corners[1].x - corners[0].x, corners[1].y - corners[0].y,
               TRUE);
}

}  // namespace

CVelmarTaskSchedulerDlg::CVelmarTaskSchedulerDlg(CActivityList& activity, std::function<bool()> startService)
    : m_activity(activity), m_startService(std::move(startService)) {
    m_hIcon = LoadIconW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDR_MAINFRAME));
}

CVelmarTaskSchedulerDlg::~CVelmarTaskSchedulerDlg() = default;

// A loop of our own rather than DialogBox's: that one shows a hidden dialog whenever its queue runs
// empty, and this dialog lives hidden in the tray.
INT_PTR CVelmarTaskSchedulerDlg::DoModal() {
    HWND window =
        CreateDialogParamW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDD_VELMARTASKSCHEDULER_DIALOG),
                           nullptr, DialogProc, reinterpret_cast<LPARAM>(this));
    if (!window) return -1;
    MSG message;
    while (!m_bEnded && GetMessageW(&message, nullptr, 0, 0) > 0) {
        if (!IsDialogMessageW(window, &message)) {
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
    }
    m_hWnd = nullptr;
    RemovePropW(window, velmar::kPrintJobWindowProperty);
    DestroyWindow(window);
    return IDCANCEL;
}

void CVelmarTaskSchedulerDlg::PostClose() {
    if (m_hWnd) PostMessageW(m_hWnd, WM_CLOSE, 0, 0);
}

void CVelmarTaskSchedulerDlg::PostPrintJobDone(size_t index) {
    if (m_hWnd) PostMessageW(m_hWnd, kPrintJobDone, index, 0);
}

void CVelmarTaskSchedulerDlg::PostFormTasks() {
    if (m_hWnd) PostMessageW(m_hWnd, kFormTasks, 0, 0);
}

void CVelmarTaskSchedulerDlg::ShowMessage(const std::wstring& text) {
    MessageBoxW(m_hWnd, text.c_str(), kWindowCaption, MB_OK | MB_ICONWARNING);
}

INT_PTR CALLBACK CVelmarTaskSchedulerDlg::DialogProc(HWND window, UINT message, WPARAM wParam,
                                                     LPARAM lParam) {
    if (message == WM_INITDIALOG) {
        auto* dialog = reinterpret_cast<CVelmarTaskSchedulerDlg*>(lParam);
        SetWindowLongPtrW(window, DWLP_USER, lParam);
        dialog->m_hWnd = window;
        return dialog->OnInitDialog();
    }
    auto* dialog = reinterpret_cast<CVelmarTaskSchedulerDlg*>(GetWindowLongPtrW(window, DWLP_USER));
    return dialog ? dialog->HandleMessage(message, wParam, lParam) : FALSE;
}

INT_PTR CVelmarTaskSchedulerDlg::HandleMessage(UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
        case WM_SYSCOMMAND:
            if ((wParam & 0xFFF0) != IDM_ABOUTBOX) return FALSE;
            ShowAboutBox(m_hWnd);
            return TRUE;
        case WM_PAINT:
            return OnPaint();
        case WM_QUERYDRAGICON:
            return reinterpret_cast<INT_PTR>(m_hIcon);
        case WM_SIZE:
            OnSize();
            return FALSE;
        case kFormTasks:
            if (const std::shared_ptr<CWindowFormHost> host = m_formHost.lock()) host->RunPendingTasks();
            return TRUE;
        case kRunCommandJob:
            m_jobs.Run(static_cast<size_t>(wParam), static_cast<int>(lParam), m_activity, m_printer);
            return TRUE;
        case kPrintJobDone:
            m_jobs.Run(static_cast<size_t>(wParam), 2, m_activity, m_printer);
            m_jobs.Remove(static_cast<size_t>(wParam));
            return TRUE;
        case WM_COPYDATA:
            SetWindowLongPtrW(m_hWnd, DWLP_MSGRESULT,
                              OnCopyData(*reinterpret_cast<const COPYDATASTRUCT*>(lParam)));
            return TRUE;
        case WM_CLOSE:
            OnClose();
            return TRUE;
        case WM_NOTIFY: {
            const auto* header = reinterpret_cast<const NMHDR*>(lParam);
            if (header->idFrom == IDC_ACTIVITY_LIST && header->code == NM_DBLCLK) {
                const int item = reinterpret_cast<const NMITEMACTIVATE*>(lParam)->iItem;
                if (item >= 0) m_jobs.Run(static_cast<size_t>(item), 0, m_activity, m_printer);
                return TRUE;
            }
            return FALSE;
        }
        case kTrayNotify:
            OnTrayNotify(wParam, lParam);
            return TRUE;
        case kActivityNote:
            // One batch now, the rest after the messages that queued up meanwhile.
            if (CatchUpBatch()) PostMessageW(m_hWnd, kActivityNote, 0, 0);
            return TRUE;
        case WM_COMMAND:
            if (HIWORD(wParam) != BN_CLICKED) return FALSE;
            switch (LOWORD(wParam)) {
                case IDC_MINIMIZE:
                    OnMinimize();
                    return TRUE;
                case IDC_CLEAR_LIST:
                    OnClearList();
                    return TRUE;
                case IDC_COPY_LIST:
                    OnCopyList();
                    return TRUE;
                case IDCANCEL:
                    // Escape closes as the close box does: with the question, never past it.
                    OnClose();
                    return TRUE;
                case IDOK:
                    // Return must not end a resident service.
                    return TRUE;
            }
            return FALSE;
    }
    return FALSE;
}

BOOL CVelmarTaskSchedulerDlg::OnInitDialog() {
    if (HMENU systemMenu = GetSystemMenu(m_hWnd, FALSE)) {
        const std::wstring aboutItem = LoadText(IDS_ABOUTBOX);
        if (!aboutItem.empty()) {
            AppendMenuW(systemMenu, MF_SEPARATOR, 0, nullptr);
            AppendMenuW(systemMenu, MF_STRING, IDM_ABOUTBOX, aboutItem.c_str());
        }
    }
    SendMessageW(m_hWnd, WM_SETICON, ICON_BIG, reinterpret_cast<LPARAM>(m_hIcon));
    SendMessageW(m_hWnd, WM_SETICON, ICON_SMALL, reinterpret_cast<LPARAM>(m_hIcon));

    LVCOLUMNW column{};
    column.mask = LVCF_FMT | LVCF_TEXT | LVCF_WIDTH;
    column.fmt = LVCFMT_LEFT;
    column.cx = kActivityColumnWidth;
    column.pszText = const_cast<wchar_t*>(kActivityColumn);
    SendMessageW(Control(IDC_ACTIVITY_LIST), LVM_INSERTCOLUMNW, 0, reinterpret_cast<LPARAM>(&column));

    // Later starts of the program find the window by this mark and hand their print jobs to it.
    SetPropW(m_hWnd, velmar::kPrintJobWindowProperty, reinterpret_cast<HANDLE>(1));
    HWND window = m_hWnd;
    m_feed.emplace(m_activity, kBatchLines, [window] { PostMessageW(window, kActivityNote, 0, 0); });
    m_startService();
    // To the tray as soon as the message loop runs.
    PostMessageW(m_hWnd, WM_COMMAND, MAKEWPARAM(IDC_MINIMIZE, BN_CLICKED), 0);
    return TRUE;
}

bool CVelmarTaskSchedulerDlg::OnPaint() {
    if (!IsIconic(m_hWnd)) return false;
    PAINTSTRUCT paint;
    HDC dc = BeginPaint(m_hWnd, &paint);
    SendMessageW(m_hWnd, WM_ICONERASEBKGND, reinterpret_cast<WPARAM>(dc), 0);
    RECT client;
    GetClientRect(m_hWnd, &client);
    const int x = (client.right - client.left - GetSystemMetrics(SM_CXICON) + 1) / 2;
    const int y = (client.bottom - client.top - GetSystemMetrics(SM_CYICON) + 1) / 2;
    DrawIcon(dc, x, y, m_hIcon);
    EndPaint(m_hWnd, &paint);
    return true;
}

void CVelmarTaskSchedulerDlg::OnSize() {
    HWND minimize = Control(IDC_MINIMIZE);
    HWND list = Control(IDC_ACTIVITY_LIST);
    HWND clear = Control(IDC_CLEAR_LIST);
    HWND copy = Control(IDC_COPY_LIST);
    if (!minimize || !list || !clear || !copy || !IsWindowVisible(m_hWnd)) return;
    WINDOWPLACEMENT placement{};
    placement.length = sizeof placement;
    GetWindowPlacement(m_hWnd, &placement);
    if (placement.showCmd == SW_HIDE || placement.showCmd == SW_SHOWMINIMIZED ||
        placement.showCmd == SW_MINIMIZE)
        return;

    constexpr int kMargin = 20;
    RECT window;
    GetWindowRect(m_hWnd, &window);
    auto size = [](HWND control) {
        RECT rect;
        GetWindowRect(control, &rect);
        return SIZE{rect.right - rect.left, rect.bottom - rect.top};
    };
    const SIZE minimizeSize = size(minimize);
    const SIZE clearSize = size(clear);
    const SIZE copySize = size(copy);
    const int bottom = window.bottom - kMargin;
    MoveToScreenRect(
        m_hWnd, minimize,
        {window.right - kMargin - minimizeSize.cx, bottom - minimizeSize.cy, window.right - kMargin, bottom});
    MoveToScreenRect(
        m_hWnd, clear,
        {window.left + kMargin, bottom - clearSize.cy, window.left + kMargin + clearSize.cx, bottom});
    const int copyLeft = window.left + (window.right - window.left - copySize.cx) / 2;
    MoveToScreenRect(m_hWnd, copy, {copyLeft, bottom - copySize.cy, copyLeft + copySize.cx, bottom});
    MoveToScreenRect(
        m_hWnd, list,
        {window.left + kMargin, window.top + 40, window.right - kMargin, window.bottom - 30 - copySize.cy});
}

void CVelmarTaskSchedulerDlg::OnClose() {
    if (m_jobs.HasOpenMail()) {
        const std::wstring question = LoadText(IDS_CLOSE_QUESTION);
        if (MessageBoxW(m_hWnd, question.c_str(), kWindowCaption, MB_YESNO | MB_ICONQUESTION) == IDNO) return;
    }
    // A window that leaves the tray takes its icon along.
    if (m_trayIcon.cbSize) Shell_NotifyIconW(NIM_DELETE, &m_trayIcon);
    m_bEnded = true;
}

bool CVelmarTaskSchedulerDlg::OnCopyData(const COPYDATASTRUCT& data) {
    std::vector<std::wstring> job;
    if (data.dwData != velmar::kPrintJobCopyData || !data.lpData ||
        !velmar::DecodePrintJob(std::string_view(static_cast<const char*>(data.lpData), data.cbData), job))
        return false;
    const std::optional<size_t> index = m_jobs.Add(std::move(job));
    if (!index) return false;
    PostMessageW(m_hWnd, kRunCommandJob, *index, 1);
    return true;
}

void CVelmarTaskSchedulerDlg::OnTrayNotify(WPARAM id, LPARAM mouseMessage) {
    if (id != 1) return;
    if (mouseMessage != WM_LBUTTONDOWN && mouseMessage != WM_RBUTTONDOWN && mouseMessage != WM_CONTEXTMENU)
        return;
    if (!Shell_NotifyIconW(NIM_DELETE, &m_trayIcon)) {
        MessageBoxW(m_hWnd, kTrayRestoreFailed, kWindowCaption, MB_OK);
        return;
    }
    m_trayIcon.cbSize = 0;
    ShowWindow(m_hWnd, SW_SHOW);
    ShowWindow(m_hWnd, SW_RESTORE);
}

void CVelmarTaskSchedulerDlg::OnMinimize() {
    NOTIFYICONDATAW icon{};
    icon.cbSize = sizeof icon;
    icon.hWnd = m_hWnd;
    icon.uID = 1;
    icon.uFlags = NIF_MESSAGE | NIF_ICON;
    icon.uCallbackMessage = kTrayNotify;
    icon.hIcon = m_hIcon;
    lstrcpynW(icon.szTip, kTrayTip, ARRAYSIZE(icon.szTip));
    if (!Shell_NotifyIconW(NIM_ADD, &icon)) {
        MessageBoxW(m_hWnd, kTraySetFailed, kWindowCaption, MB_OK);
        return;
    }
    m_trayIcon = icon;
    ShowWindow(m_hWnd, SW_MINIMIZE);
    ShowWindow(m_hWnd, SW_HIDE);
}

void CVelmarTaskSchedulerDlg::OnClearList() {
    SendMessageW(Control(IDC_ACTIVITY_LIST), LVM_DELETEALLITEMS, 0, 0);
    m_activity.Clear();
    // The cleared lines leave the feed too; the rows are gone already.
    CatchUpBatch();
}

// Every line, each followed by CR LF, as 8-bit text of the thread's code page.
void CVelmarTaskSchedulerDlg::OnCopyList() {
    if (!OpenClipboard(m_hWnd)) return;
    EmptyClipboard();
    while (CatchUpBatch()) {
    }
    HWND list = Control(IDC_ACTIVITY_LIST);
    std::wstring text;
    const int count = static_cast<int>(SendMessageW(list, LVM_GETITEMCOUNT, 0, 0));
    for (int item = 0; item < count; ++item) text += ItemText(list, item) + L"\r\n";
    const int bytes = text.empty()
                          ? 0
                          : WideCharToMultiByte(CP_THREAD_ACP, 0, text.data(), static_cast<int>(text.size()),
                                                nullptr, 0, nullptr, nullptr);
    if (HGLOBAL memory =
            GlobalAlloc(GMEM_MOVEABLE | GMEM_SHARE | GMEM_ZEROINIT, static_cast<SIZE_T>(bytes) + 1)) {
        if (auto* target = static_cast<char*>(GlobalLock(memory))) {
            if (bytes > 0)
                WideCharToMultiByte(CP_THREAD_ACP, 0, text.data(), static_cast<int>(text.size()), target,
                                    bytes, nullptr, nullptr);
            GlobalUnlock(memory);
            if (!SetClipboardData(CF_TEXT, memory)) GlobalFree(memory);
        } else {
            GlobalFree(memory);
        }
    }
    CloseClipboard();
}

// Applies what the activity list did since the last look: rows out at the top, new lines appended at the
// item count. Large batches are drawn once.
bool CVelmarTaskSchedulerDlg::CatchUpBatch() {
    HWND list = Control(IDC_ACTIVITY_LIST);
    CActivityFeed::CChanges changes = m_feed->CatchUp(true);
    const bool quiet = changes.appended.size() + changes.removeFront >= kQuietBatch;
    if (quiet) SendMessageW(list, WM_SETREDRAW, FALSE, 0);
    const auto count = static_cast<size_t>(SendMessageW(list, LVM_GETITEMCOUNT, 0, 0));
    if (changes.removeFront >= count) {
        SendMessageW(list, LVM_DELETEALLITEMS, 0, 0);
    } else {
        for (size_t i = 0; i < changes.removeFront; ++i) SendMessageW(list, LVM_DELETEITEM, 0, 0);
    }
    for (std::wstring& line : changes.appended) {
        LVITEMW item{};
        item.mask = LVIF_TEXT;
        item.iItem = static_cast<int>(SendMessageW(list, LVM_GETITEMCOUNT, 0, 0));
        item.pszText = line.data();
        SendMessageW(list, LVM_INSERTITEMW, 0, reinterpret_cast<LPARAM>(&item));
    }
    if (quiet) {
        SendMessageW(list, WM_SETREDRAW, TRUE, 0);
        InvalidateRect(list, nullptr, TRUE);
    }
    return changes.more;
}
