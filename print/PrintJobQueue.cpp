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
        m_step = EStep::None;
        m_engine.QueueDone(m_savedPrinter);
        m_savedPrinter.clear();
        if (m_completion) m_completion();
        return;
    }
    m_current = std::move(m_jobs.front());
    m_jobs.pop_front();
    if (m_current->NamesPrinter()) m_savedPrinter = m_current->printer;
    m_step = EStep::Page;
    m_engine.NavigateBlank();
}

void CPrintJobQueue::OnNavigateComplete() {
    // Only the blank page of a job starts its printing, once.
    if (!m_current || m_step != EStep::Page) return;
    m_step = EStep::Document;
    m_engine.WriteDocument(*m_current);
}

void CPrintJobQueue::OnDocumentWritten(bool written) {
    if (!m_current || m_step != EStep::Document) return;
    const CPrintJob& job = *m_current;
    // A file that makes no document is left where it is; the queue goes on with the next job.
    if (!written) {
        m_step = EStep::None;
        m_engine.Trace(L"Html Dokument kann nicht gedruckt werden: " + job.htmlFile);
        m_engine.PostStartNext();
        return;
    }
    if (job.HasTemplate()) {
        m_step = EStep::Template;
        m_engine.AddStyleSheet(job.styleSheet);
        m_engine.PrintWithTemplate(job);
        // Deliberate: the document is closed while the template prints; the template has what it needs.
        m_engine.CloseDocument();
        return;
    }
    m_step = EStep::Printed;
    m_engine.Print(job);
}

void CPrintJobQueue::OnPrinted(bool printed) {
    if (!m_current || m_step != EStep::Printed) return;
    m_step = EStep::None;
    m_engine.CloseDocument();
    // A print that failed keeps its file, so that nothing the caller asked to print is lost.
    if (printed) {
        std::error_code ignored;
        std::filesystem::remove(std::filesystem::path(m_current->htmlFile), ignored);
    }
    m_engine.PostStartNext();
}

void CPrintJobQueue::OnPrintComplete() {
    if (!m_current || m_step != EStep::Template) return;
    m_step = EStep::None;
    m_engine.PostStartNext();
}

}  // namespace velmar::print
