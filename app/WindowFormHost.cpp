#include "app/WindowFormHost.h"

#include <utility>
#include <vector>

CWindowFormHost::CWindowFormHost(std::function<ULONG_PTR()> parentWindow, CCommandJobs& jobs,
                                 std::function<void()> wake,
                                 std::function<void(const std::wstring&)> showMessage)
    : m_parentWindow(std::move(parentWindow)),
      m_wake(std::move(wake)),
      m_showMessage(std::move(showMessage)),
      m_pJobs(&jobs) {}

bool CWindowFormHost::Post(std::function<void()> task) {
    {
        std::lock_guard lock(m_lock);
        if (!m_pJobs) return false;
        m_tasks.push_back(std::move(task));
    }
    m_wake();
    return true;
}

void CWindowFormHost::RunPendingTasks() {
    for (;;) {
        std::function<void()> task;
        {
            std::lock_guard lock(m_lock);
            if (!m_pJobs || m_tasks.empty()) return;
            task = std::move(m_tasks.front());
            m_tasks.pop_front();
        }
        task();
    }
}

std::shared_ptr<void> CWindowFormHost::FormOnScreen(velmar::CComPtr<IMAPIForm> form) {
    std::optional<size_t> job;
    {
        std::lock_guard lock(m_lock);
        if (!m_pJobs) return nullptr;
        job = m_pJobs->Add({kOpenMailJob});
        // A list that stays locked cannot record the form; closing then asks anyway (see HasOpenMail).
        if (!job) return nullptr;
        m_forms.emplace(*job, std::move(form));
    }
    // The token keeps the host: the form may outlive the window.
    return std::shared_ptr<void>(nullptr,
                                 [host = shared_from_this(), index = *job](void*) { host->FormGone(index); });
}

void CWindowFormHost::FormGone(size_t job) {
    velmar::CComPtr<IMAPIForm> form;
    {
        std::lock_guard lock(m_lock);
        if (auto found = m_forms.find(job); found != m_forms.end()) {
            form = std::move(found->second);
            m_forms.erase(found);
        }
        if (m_pJobs) m_pJobs->Remove(job);
    }
    // form is released here, outside the lock: its last reference may take the form down.
}

void CWindowFormHost::ShowMessage(const std::wstring& text) {
    m_showMessage(text);
}

void CWindowFormHost::Detach() {
    std::deque<std::function<void()>> dropped;
    std::vector<velmar::CComPtr<IMAPIForm>> forms;
    {
        std::lock_guard lock(m_lock);
        m_pJobs = nullptr;
        dropped.swap(m_tasks);
        for (auto& [job, form] : m_forms) forms.push_back(velmar::CComPtr<IMAPIForm>::AddRefed(form.get()));
    }
    for (const velmar::CComPtr<IMAPIForm>& form : forms) form->ShutdownForm(SAVEOPTS_NOSAVE);
}
