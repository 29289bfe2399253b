// The main window on Linux, in Qt Widgets: the activity list of one column "Aktion", the buttons
// "&Minimize", "C&lear List" and "&Copy List", the tray icon, the about box and the command jobs. Without
// a system tray, "&Minimize" minimises to the task bar instead.
#pragma once

#include <QWidget>
#include <functional>
#include <memory>

#include "app/ActivityFeed.h"
#include "app/CommandJobs.h"
#include "app/WindowFormHost.h"
#include "service/RequestService.h"

class QMenu;
class QPushButton;
class QSystemTrayIcon;
class QTreeView;
class CActivityModel;

class CVelmarTaskSchedulerDlg : public QWidget, public velmar::service::IMainWindow {
public:
    // startService starts the request service with this window as its main window; false when it cannot
    // (the service then says so in the activity list, and the window stays without it).
    CVelmarTaskSchedulerDlg(CActivityList& activity, std::function<bool()> startService);
    ~CVelmarTaskSchedulerDlg() override;

    // What the dialog's initialisation does: icon, column, the service, and the posted "&Minimize".
    void OnInitDialog();

    // From any thread: ask the window to close, as a posted WM_CLOSE does.
    void PostClose() override;
    // From any thread: run command job `index` with `action`, as the posted message 1002 does.
    void PostCommandJob(size_t index, int action);
    // From any thread: the print job `index` has printed everything: its dialog goes (action 2), then the
    // job leaves the list.
    void PostPrintJobDone(size_t index);
    // From any thread: a print job handed over by another start of the program; false when the job list
    // could not take it.
    bool AcceptPrintJob(std::vector<std::wstring> job);
    CCommandJobs& Jobs() { return m_jobs; }
    // The host of the message forms, whose queue the window runs on its thread.
    void SetFormHost(std::weak_ptr<CWindowFormHost> host) { m_formHost = std::move(host); }
    // From any thread: run the form host's queue soon.
    void PostFormTasks();
    // A message box over the window, for the forms' site.
    void ShowMessage(const std::wstring& text);
    // Where the printing dialogs of PRINTHTML jobs live; none until set.
    void SetPrintJobHost(IPrintJobHost* host) { m_printer = host; }

    // The actions of the buttons and the tray icon.
    void OnMinimize();
    void RestoreFromTray();
    void OnClearList();
    void OnCopyList();
    void ShowAboutBox();

protected:
    bool event(QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    void CatchUpActivity();
    void LayOutControls();

    CActivityList& m_activity;
    std::function<bool()> m_startService;
    CCommandJobs m_jobs;
    IPrintJobHost* m_printer = nullptr;
    std::weak_ptr<CWindowFormHost> m_formHost;
    QTreeView* m_list;
    QPushButton* m_minimize;
    QPushButton* m_clearList;
    QPushButton* m_copyList;
    QSystemTrayIcon* m_tray;
    QMenu* m_trayMenu;
    CActivityFeed m_feed;
    CActivityModel* m_model;
};
