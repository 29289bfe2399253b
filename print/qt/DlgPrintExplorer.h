// The printing dialog on Linux: a hidden widget whose web engine page takes the jobs of its queue one at a
// time. A blank page is loaded, the job's html file is read in the encoding it declares (UTF-8 when it
// declares none) and written into it, and the page is rendered as a PDF and handed to CUPS, so printers get
// vector output. Print templates have no counterpart in a web engine: with a template, the job's style sheet
// is added to the page and the page prints as the template would have, which then reports completion through
// the dialog's external object ("print_complete"). No script of a printed page runs, and it reaches no file
// outside its folder and no other host (PrintPageGuard.h).
//
// Qt WebEngine will not run as root with its sandbox on, and it ends the whole process when asked to; the
// dialog never switches the sandbox off by itself: as root without QTWEBENGINE_DISABLE_SANDBOX=1 it prints
// nothing and says why.
#pragma once

#include <QPointer>
#include <QWidget>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "print/PrintDialogs.h"
#include "print/PrintJobQueue.h"
#include "print/qt/PrintPageGuard.h"

class QPrinter;
class QTimer;
class QWebEngineProfile;

namespace velmar::print {

// Why the web engine cannot run in this process; empty when it can.
std::wstring WebEngineUnavailableReason();

class CDlgPrintExplorer final : public QWidget, public IPrintEngine, public IPrintDialog {
public:
    CDlgPrintExplorer(std::function<void(const std::wstring&)> trace, std::function<void()> done);
    ~CDlgPrintExplorer() override;

    // IPrintDialog
    CPrintJobQueue& Queue() override { return m_queue; }
    void PostStartNext() override;

    // IPrintEngine
    void NavigateBlank() override;
    void WriteDocument(const CPrintJob& job) override;
    void AddStyleSheet(const std::wstring& url) override { m_styleSheet = url; }
    void PrintWithTemplate(const CPrintJob& job) override;
    void Print(const CPrintJob& job) override;
    void CloseDocument() override {}  // the page stays as it is until the next job's blank page
    void QueueDone(const std::wstring& savedPrinter) override;
    void Trace(const std::wstring& line) override { m_trace(line); }

    // The external object of the page: "print_complete" (dispid 1) ends a template's job; others do nothing.
    void InvokeExternal(long dispid);

    // The print dialog of a job with prompt "1" while it is open, for tests; null otherwise.
    QWidget* OpenPrintDialog() const { return m_printDialog; }

private:
    enum class ELoad { None, Blank, Document };
    struct CPdfTarget;

    void LoadFinished(bool ok);
    void PrintPage(const CPrintJob& job);
    void StyleSheetThenPrint(const CPrintJob& job, int polls);
    void RenderAndSubmit(const CPrintJob& job, std::shared_ptr<CPdfTarget> target);
    // The current print is over: its line for the activity list, then m_printed.
    void Finish(bool ok, const std::wstring& line);

    std::function<void(const std::wstring&)> m_trace;
    CPrintJobQueue m_queue;
    CPrintPageScope m_scope;                 // what the page of the job under way may reach
    QWebEngineProfile* m_profile = nullptr;  // made with the first job, never as root with the sandbox on
    CPrintPage* m_page = nullptr;
    QTimer* m_watchdog;
    ELoad m_loading = ELoad::None;
    std::wstring m_styleSheet;
    std::unique_ptr<QPrinter> m_printer;  // the print dialog's choices
    QPointer<QWidget> m_printDialog;
    std::function<void(bool)> m_printed;  // what to do once the current print is over
    std::thread m_submission;             // the PDF on its way to CUPS, off the window's thread
    bool m_closing = false;
};

// The factory of CPrintDialogs for this platform.
PrintDialogFactory PrintDialogFactoryQt();

}  // namespace velmar::print
