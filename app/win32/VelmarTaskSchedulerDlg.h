// The main window on Windows: a modal dialog (template IDD_VELMARTASKSCHEDULER_DIALOG) with the activity
// list, three buttons and a tray icon, in plain Win32. Service threads never send it a message and never
// wait for it: they add lines to the activity list, which posts the window one note to catch up, and a
// close from the service is posted. So a window that is closing never waits for a thread that waits for
// the window.
#pragma once

#include <windows.h>
#include <shellapi.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string>

#include "app/ActivityFeed.h"
#include "app/CommandJobs.h"
#include "app/WindowFormHost.h"
#include "service/RequestService.h"

class CVelmarTaskSchedulerDlg : public velmar::service::IMainWindow {
public:
    // Messages of the window beside the system's.
    static constexpr UINT kRunCommandJob = 1002;        // first parameter the job's index, second the action
    static constexpr UINT kTrayNotify = WM_USER + 101;  // the tray icon's callback, 1125
    static constexpr UINT kActivityNote = WM_APP + 1;   // lines wait in the activity list
    static constexpr UINT kFormTasks = WM_APP + 2;      // forms wait to be opened
    static constexpr UINT kPrintJobDone = WM_APP + 3;   // first parameter the job's index: all printed

    // startService starts the request service with this window as its main window; false when it cannot
    // (the service then says so in the activity list, and the window stays without it).
    CVelmarTaskSchedulerDlg(CActivityList& activity, std::function<bool()> startService);
    ~CVelmarTaskSchedulerDlg() override;
    CVelmarTaskSchedulerDlg(const CVelmarTaskSchedulerDlg&) = delete;
    CVelmarTaskSchedulerDlg& operator=(const CVelmarTaskSchedulerDlg&) = delete;

    // Shows the dialog and returns when it has closed.
    INT_PTR DoModal();
    // From any thread: a posted WM_CLOSE.
    void PostClose() override;

    HWND Handle() const { return m_hWnd; }
    CCommandJobs& Jobs() { return m_jobs; }
    // The host of the message forms, whose queue the dialog runs on its thread.
    void SetFormHost(std::weak_ptr<CWindowFormHost> host) { m_formHost = std::move(host); }
    // From any thread: run the form host's queue soon.
    void PostFormTasks();
    // A message box over the dialog, for the forms' site.
    void ShowMessage(const std::wstring& text);
    // Where the printing dialogs of PRINTHTML jobs live; none until set.
    void SetPrintJobHost(IPrintJobHost* host) { m_printer = host; }
    // From any thread: the print job `index` has printed everything: its dialog goes (action 2), then the
    // job leaves the list.
    void PostPrintJobDone(size_t index);

private:
    static INT_PTR CALLBACK DialogProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
    INT_PTR HandleMessage(UINT message, WPARAM wParam, LPARAM lParam);

    BOOL OnInitDialog();
    void OnSysCommand(UINT id, LPARAM lParam);
    bool OnPaint();
    void OnSize();
    void OnClose();
    void OnTrayNotify(WPARAM id, LPARAM mouseMessage);
    void OnMinimize();
    void OnClearList();
    void OnCopyList();
    // WM_COPYDATA: a print job handed over by another start of the program.
    bool OnCopyData(const COPYDATASTRUCT& data);
    // Shows one batch of what the activity list did; true when more waits.
    bool CatchUpBatch();
    HWND Control(int id) const { return GetDlgItem(m_hWnd, id); }

    CActivityList& m_activity;
    std::function<bool()> m_startService;
    std::atomic<HWND> m_hWnd{nullptr};  // read by service threads that post the close
    HICON m_hIcon = nullptr;
    NOTIFYICONDATAW m_trayIcon{};
    CCommandJobs m_jobs;
    IPrintJobHost* m_printer = nullptr;
    std::weak_ptr<CWindowFormHost> m_formHost;
    std::optional<CActivityFeed> m_feed;  // from the dialog's initialisation on
    bool m_bEnded = false;                // the window closed: DoModal returns
};
