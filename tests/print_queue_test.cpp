// The printing dialogs' job queue over real files, with an engine that records what it is asked to do and
// completes as a browser would (asynchronously, through posted starts): the prompt rule, a job that
// makes no document, reports out of turn, and a failed print that keeps its file.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <string>
#include <vector>

#include "harness/TestFiles.h"
#include "print/PrintJobQueue.h"

namespace {

using namespace velmar::print;
namespace fs = std::filesystem;

class CRecordingEngine : public IPrintEngine {
public:
    void NavigateBlank() override {
        Note(L"navigate");
        m_pending.push_back(kPage);
    }
    void WriteDocument(const CPrintJob& job) override {
        Note(L"write " + fs::path(job.htmlFile).filename().wstring());
        m_pending.push_back(fs::exists(job.htmlFile) ? kWritten : kNotWritten);
    }
    void AddStyleSheet(const std::wstring& url) override { Note(L"style " + url); }
    void PrintWithTemplate(const CPrintJob& job) override {
        Note(L"template " + job.printTemplate + (job.prompt ? L" prompt" : L""));
        m_pending.push_back(kTemplateDone);
    }
    void Print(const CPrintJob& job) override {
        Note(L"print " + job.printer + (job.prompt ? L" prompt" : L""));
        m_pending.push_back(job.printer == L"Kaputt" ? kPrintFailed : kPrinted);
    }
    void CloseDocument() override { Note(L"close"); }
    void QueueDone(const std::wstring& savedPrinter) override { Note(L"done [" + savedPrinter + L"]"); }
    void PostStartNext() override { m_pending.push_back(kStart); }
    void Trace(const std::wstring& line) override { Note(L"trace " + line); }

    // Delivers what the browser and the message queue would, one at a time, until nothing is left.
    void Run(CPrintJobQueue& queue) {
        while (!m_pending.empty()) {
            const EPending next = m_pending.front();
            m_pending.pop_front();
            if (next == kPage) queue.OnNavigateComplete();
            if (next == kWritten || next == kNotWritten) queue.OnDocumentWritten(next == kWritten);
            if (next == kPrinted || next == kPrintFailed) {
                // Printing is over before the file goes.
                printedExisting.push_back(fs::exists(queue.Current()->htmlFile));
                queue.OnPrinted(next == kPrinted);
            }
            if (next == kTemplateDone) queue.OnPrintComplete();
            if (next == kStart) queue.StartNext();
        }
    }

    std::vector<std::wstring> calls;
    std::vector<bool> printedExisting;

private:
    enum EPending { kPage, kWritten, kNotWritten, kPrinted, kPrintFailed, kTemplateDone, kStart };
    void Note(const std::wstring& call) { calls.push_back(call); }

    std::deque<EPending> m_pending;
};

class PrintQueueTest : public ::testing::Test {
protected:
    std::wstring Html(const char* name) {
        const fs::path path = m_dir / name;
        velmar::test::WriteFile(path, "<p>Grüße</p>");
        return path.wstring();
    }

    velmar::test::CTempDir m_dir;
    CRecordingEngine m_engine;
    CPrintJobQueue m_queue{m_engine};
};

TEST_F(PrintQueueTest, OnlyTheWordOneAsksForTheDialog) {
    int page = 0;
    for (const wchar_t* prompt : {L"1", L"0", L"yes", L"", L"1 ", L"01"})
        m_queue.AddJob(Html(("seite" + std::to_string(++page) + ".html").c_str()), L"*", L"", prompt, L"*");
    m_queue.StartNext();
    m_engine.Run(m_queue);
    std::vector<std::wstring> prints;
    for (const std::wstring& call : m_engine.calls)
        if (call.rfind(L"print ", 0) == 0) prints.push_back(call);
    EXPECT_EQ(prints, (std::vector<std::wstring>{L"print * prompt", L"print *", L"print *", L"print *",
                                                 L"print *", L"print *"}));
    EXPECT_EQ(m_engine.calls.back(), L"done []") << "no job named a printer";
}

TEST_F(PrintQueueTest, AJobWithoutADocumentIsTracedAndTheQueueGoesOn) {
    int completions = 0;
    m_queue.SetCompletion([&] { ++completions; });
    const std::wstring missing = (m_dir / "fehlt.html").wstring();
    const std::wstring present = Html("da.html");
    m_queue.AddJob(missing, L"*", L"", L"0", L"Erster");
    m_queue.AddJob(present, L"*", L"", L"0", L"*");
    m_queue.StartNext();
    m_engine.Run(m_queue);
    EXPECT_EQ(m_engine.calls, (std::vector<std::wstring>{
                                  L"navigate", L"write fehlt.html",
                                  L"trace Html Dokument kann nicht gedruckt werden: " + missing, L"navigate",
                                  L"write da.html", L"print *", L"close", L"done [Erster]"}));
    EXPECT_EQ(completions, 1);
    EXPECT_FALSE(fs::exists(present));
}

TEST_F(PrintQueueTest, ReportsOutOfTurnAreIgnored) {
    m_queue.AddJob(Html("einmal.html"), L"res://vorlage.htm", L"", L"0", L"*");
    m_queue.AddJob(Html("danach.html"), L"*", L"", L"0", L"*");
    // A page script's "print_complete" before anything prints starts nothing.
    m_queue.OnPrintComplete();
    m_queue.OnPrinted(true);
    EXPECT_TRUE(m_engine.calls.empty());

    m_queue.StartNext();
    m_queue.OnNavigateComplete();
    m_queue.OnNavigateComplete();  // a second load of the page
    m_queue.OnDocumentWritten(true);
    m_queue.OnDocumentWritten(true);
    m_queue.OnPrinted(true);  // not a plain print: the template reports
    EXPECT_EQ(m_engine.calls, (std::vector<std::wstring>{L"navigate", L"write einmal.html", L"style ",
                                                         L"template res://vorlage.htm", L"close"}));
    m_queue.OnPrintComplete();
    m_queue.OnPrintComplete();  // twice: the next job starts once
    m_engine.Run(m_queue);
    EXPECT_EQ(std::count(m_engine.calls.begin(), m_engine.calls.end(), L"write danach.html"), 1);
    EXPECT_EQ(m_engine.calls.back(), L"done []");
}

TEST_F(PrintQueueTest, AFailedPrintKeepsItsFileAndTheQueueGoesOn) {
    const std::wstring failing = Html("kaputt.html");
    const std::wstring next = Html("gut.html");
    m_queue.AddJob(failing, L"*", L"", L"0", L"Kaputt");
    m_queue.AddJob(next, L"*", L"", L"0", L"*");
    m_queue.StartNext();
    m_engine.Run(m_queue);
    EXPECT_TRUE(fs::exists(failing));
    EXPECT_FALSE(fs::exists(next));
    EXPECT_EQ(m_engine.calls.back(), L"done [Kaputt]");
}

}  // namespace
