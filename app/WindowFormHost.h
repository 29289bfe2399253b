// The main window as host of the message forms: forms are opened on the window's thread from a queue that
// the request threads fill (the window is woken to empty it), and every form on screen holds an "OPENMAIL"
// job in the window's command-job list, so that closing the window asks first. Used through shared
// pointers: a form's token may outlive the window, so the window detaches the host before it goes.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "app/CommandJobs.h"
#include "mail/FormHost.h"

class CWindowFormHost final : public velmar::mail::IFormHost,
                              public std::enable_shared_from_this<CWindowFormHost> {
public:
    // parentWindow: from any thread, the window's handle or id. wake: from any thread, makes the window's
    // thread call RunPendingTasks soon. showMessage: a message box owned by the window.
    CWindowFormHost(std::function<ULONG_PTR()> parentWindow, CCommandJobs& jobs, std::function<void()> wake,
                    std::function<void(const std::wstring&)> showMessage);

    ULONG_PTR ParentWindow() const override { return m_parentWindow(); }
    bool Post(std::function<void()> task) override;
    std::shared_ptr<void> FormOnScreen(velmar::CComPtr<IMAPIForm> form) override;
    void ShowMessage(const std::wstring& text) override;

    // On the window's thread: runs the tasks posted so far.
    void RunPendingTasks();
    // On the window's thread, before the window goes: drops the tasks not run, takes no more, and shuts the
    // forms still on screen down without saving.
    void Detach();

private:
    void FormGone(size_t job);

    const std::function<ULONG_PTR()> m_parentWindow;
    const std::function<void()> m_wake;
    const std::function<void(const std::wstring&)> m_showMessage;
    std::mutex m_lock;
    CCommandJobs* m_pJobs;  // null once detached
    std::deque<std::function<void()>> m_tasks;
    std::map<size_t, velmar::CComPtr<IMAPIForm>> m_forms;  // by their job's index
};
