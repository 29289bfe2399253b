#include "print/PrintJobQueue.h"

#include <filesystem>
#include <system_error>
#include <utility>

namespace velmar::print {

void CPrintJobQueue::AddJob(std::wstring htmlFile, std::wstring printTemplate, std::wstring styleSheet,
                            const std::wstring& prompt, std::wstring printer) {
    m_jobs.push_back({std::move(htmlFile), std::move(printTemplate), std::move(styleSheet),
                      std::move(printer), prompt == L"1"});
}

void CPrintJobQueue::StartNext() {
    if (m_jobs.empty()) {
        m_current.reset();
        m_engine.QueueDone(m_savedPrinter);
        m_savedPrinter.clear();
        if (m_completion) m_completion();
        return;
    }
    m_current = std::move(m_jobs.front());
    m_jobs.pop_front();
    if (m_current->printer != kCurrentPrinter) m_savedPrinter = m_current->printer;
    m_awaitingPage = true;
    m_engine.NavigateBlank();
}

void CPrintJobQueue::OnNavigateComplete() {
    // Only the blank page of a job starts its printing, once.
    if (!m_current || !std::exchange(m_awaitingPage, false)) return;
    const CPrintJob& job = *m_current;
    // A file that makes no document is left where it is; the queue goes on with the next job.
    if (!m_engine.WriteDocument(job)) {
        m_engine.Trace(L"Html Dokument kann nicht gedruckt werden: " + job.htmlFile);
        m_engine.PostStartNext();
        return;
    }
    if (job.HasTemplate()) {
        m_engine.AddStyleSheet(job.styleSheet);
        m_engine.PrintWithTemplate(job);
        m_engine.CloseDocument();
        return;
    }
    m_engine.PrintAndWait(job);
    m_engine.CloseDocument();
    std::error_code ignored;
    std::filesystem::remove(std::filesystem::path(job.htmlFile), ignored);
    m_engine.PostStartNext();
}

void CPrintJobQueue::OnPrintComplete() {
    m_engine.PostStartNext();
}

}  // namespace velmar::print
