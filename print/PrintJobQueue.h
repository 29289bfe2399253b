// The job queue of a printing dialog: HTML files printed one at a time in the order they were queued, each
// started only after the one before has reported completion. The dialog's browser does the printing behind
// IPrintEngine; the queue holds the order, the printer the jobs asked for and the completion signal, the
// same on every platform.
//
// A job goes: blank page loaded (OnNavigateComplete), the file written into it (OnDocumentWritten), then
// either printed through its print template, which reports itself (OnPrintComplete), or printed plainly
// (OnPrinted), after which its html file is deleted. An engine may report at once, from inside the call
// that started the step, or later from its thread's event loop; reports out of turn are ignored.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>

namespace velmar::print {

inline constexpr wchar_t kNoPrintTemplate[] = L"*";
inline constexpr wchar_t kCurrentPrinter[] = L"*";

struct CPrintJob {
    std::wstring htmlFile;
    std::wstring printTemplate;  // URL of a print template, or "*" for none
    std::wstring styleSheet;     // URL of a style sheet added to the page; used only with a template
    std::wstring printer;        // printer name, or "*" for the current printer
    bool prompt = false;         // the print dialog chooses printer and options

    bool HasTemplate() const { return printTemplate != kNoPrintTemplate; }
    bool NamesPrinter() const { return printer != kCurrentPrinter; }
};

// What a printing dialog's browser does for the queue. All calls come on the dialog's thread.
class IPrintEngine {
public:
    virtual ~IPrintEngine() = default;
    // Loads a blank page; once it is there the engine calls the queue's OnNavigateComplete.
    virtual void NavigateBlank() = 0;
    // Writes the job's html file into the blank page, then calls OnDocumentWritten with whether a document
    // could be made of it.
    virtual void WriteDocument(const CPrintJob& job) = 0;
    virtual void AddStyleSheet(const std::wstring& url) = 0;
    // Prints through the job's template, which reports completion itself (the queue's OnPrintComplete).
    virtual void PrintWithTemplate(const CPrintJob& job) = 0;
    // Prints, then calls OnPrinted with whether the printing went through.
    virtual void Print(const CPrintJob& job) = 0;
    virtual void CloseDocument() = 0;
    // The queue ran empty; savedPrinter is the printer the last named job asked for, empty when none did.
    virtual void QueueDone(const std::wstring& savedPrinter) = 0;
    // Makes the dialog's thread call the queue's StartNext soon (message 1124).
    virtual void PostStartNext() = 0;
    // A line for the activity list.
    virtual void Trace(const std::wstring& line) = 0;
};

class CPrintJobQueue {
public:
    explicit CPrintJobQueue(IPrintEngine& engine) : m_engine(engine) {}
    CPrintJobQueue(const CPrintJobQueue&) = delete;
    CPrintJobQueue& operator=(const CPrintJobQueue&) = delete;

    // One job; prompt is "1" to show the print dialog, anything else prints without it.
    void AddJob(std::wstring htmlFile, std::wstring printTemplate, std::wstring styleSheet,
                const std::wstring& prompt, std::wstring printer);
    // Called once the last job is done, as the completion event of the dialog's creator is signalled.
    void SetCompletion(std::function<void()> completion) { m_completion = std::move(completion); }

    // Message 1124: the next job, or the end of the queue.
    void StartNext();
    // The blank page is loaded: the current job's file goes into it.
    void OnNavigateComplete();
    // The file is in the page (written false: no document could be made of it): the job is printed.
    void OnDocumentWritten(bool written);
    // A plain print is over (printed false: it failed, and the html file stays).
    void OnPrinted(bool printed);
    // The print template has finished ("print_complete").
    void OnPrintComplete();

    size_t Waiting() const { return m_jobs.size(); }
    const std::optional<CPrintJob>& Current() const { return m_current; }

private:
    // What the current job waits for; a report of anything else is not its own.
    enum class EStep { None, Page, Document, Printed, Template };

    IPrintEngine& m_engine;
    std::deque<CPrintJob> m_jobs;
    std::optional<CPrintJob> m_current;
    EStep m_step = EStep::None;
    std::wstring m_savedPrinter;
    std::function<void()> m_completion;
};

}  // namespace velmar::print
