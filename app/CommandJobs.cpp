#include "app/CommandJobs.h"

#include <mutex>

#include "app/WindowTexts.h"
#include "support/PrintJobChannel.h"

std::optional<size_t> CCommandJobs::Add(std::vector<std::wstring> job) {
    std::unique_lock lock(m_lock, kLockWait);
    if (!lock) return std::nullopt;
    m_jobs.push_back(std::move(job));
    return m_jobs.size() - 1;
}

bool CCommandJobs::Remove(size_t index) {
    std::unique_lock lock(m_lock, kLockWait);
    if (!lock) return false;
    if (index < m_jobs.size()) m_jobs[index].clear();
    return true;
}

bool CCommandJobs::HasOpenMail() {
    std::unique_lock lock(m_lock, kLockWait);
    if (!lock) return true;
    for (const auto& job : m_jobs) {
        if (!job.empty() && job.front() == kOpenMailJob) return true;
    }
    return false;
}

void CCommandJobs::Run(size_t index, int action, CActivityList& activity, IPrintJobHost* printer) {
    std::vector<std::wstring> job;
    {
        std::unique_lock lock(m_lock, kLockWait);
        if (!lock) {
            activity.AddLine(kTextCommandJobsFailed);
            return;
        }
        if (index >= m_jobs.size()) return;
        job = m_jobs[index];
    }
    if (job.empty() || job.front() != velmar::kPrintHtmlWord || !printer) return;
    if (action == 2) {
        printer->DestroyDialog(index);
        return;
    }
    if (action != 1) return;
    printer->RecreateDialog(index);
    // Strings 1 to 5, 6 to 10, ...: only groups whose last string is there.
    for (size_t first = 1; first + 4 < job.size(); first += 5) {
        activity.AddLine(L"Html Dokument ausdrucken");
        printer->AddPrintJob(index,
                             std::vector<std::wstring>(job.begin() + static_cast<ptrdiff_t>(first),
                                                       job.begin() + static_cast<ptrdiff_t>(first + 5)));
    }
    printer->StartPrinting(index);
}
