// The printing dialog on Windows, in-process under Wine: its window from template 129, its COM faces (the
// document's UI handler, the event sink, the external object with "print_complete"), its life in the slots
// of the main window's jobs, and its queue run through the real browser control. Wine has no HTML engine
// here (no Gecko), so no document can be made: every job must fail cleanly, be traced, keep its file and
// let the queue go on to its completion.
#include <gtest/gtest.h>

#include <windows.h>
#include <mshtmhst.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "app/CommandJobs.h"
#include "print/PrintDialogs.h"
#include "print/win32/DlgPrintingExt.h"

namespace {

using namespace velmar::print;
namespace fs = std::filesystem;

// Runs the thread's messages until condition holds or the time is up.
bool PumpUntil(const std::function<bool()>& condition, int milliseconds = 60000) {
    const ULONGLONG deadline = GetTickCount64() + static_cast<ULONGLONG>(milliseconds);
    while (!condition() && GetTickCount64() < deadline) {
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 20, QS_ALLINPUT);
    }
    return condition();
}

std::wstring WindowText(HWND window) {
    wchar_t text[256] = L"";
    GetWindowTextW(window, text, 256);
    return text;
}

class PrintWin32Test : public ::testing::Test {
protected:
    void SetUp() override {
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        m_dir = fs::path(temp) / (L"velmar-print-" + std::to_wstring(GetCurrentProcessId()));
        fs::create_directories(m_dir);
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(m_dir, ignored);
    }
    std::wstring Html(const wchar_t* name) {
        std::ofstream(m_dir / name, std::ios::binary) << "<p>Grüße</p>";
        return (m_dir / name).wstring();
    }
    std::function<void(const std::wstring&)> Tracer() {
        return [this](const std::wstring& line) { m_lines.push_back(line); };
    }
    std::string Lines() const {
        std::string all;
        for (const std::wstring& line : m_lines) all += std::string(line.begin(), line.end()) + "\n";
        return all;
    }
    size_t LinesWith(const std::wstring& text) const {
        size_t count = 0;
        for (const std::wstring& line : m_lines) count += line.find(text) != std::wstring::npos;
        return count;
    }

    fs::path m_dir;
    std::vector<std::wstring> m_lines;
};

TEST_F(PrintWin32Test, TheDialogIsAHiddenWindowWithItsComFacesAndTheExternalObject) {
    int completions = 0;
    velmar::CComPtr<CDlgPrintExplorer> dialog(new CDlgPrintingExt(nullptr, Tracer(), [&] { ++completions; }));
    const HWND window = dialog->Window();
    ASSERT_TRUE(IsWindow(window));
    EXPECT_FALSE(IsWindowVisible(window));
    EXPECT_EQ(WindowText(window), L"Html Dokument ausdrucken");

    // The document's UI handler and the event sink are the dialog; nothing else is.
    velmar::CComPtr<IDocHostUIHandler> handler;
    ASSERT_EQ(dialog->QueryInterface(__uuidof(IDocHostUIHandler), reinterpret_cast<void**>(handler.Put())),
              S_OK);
    velmar::CComPtr<IDispatch> sink;
    EXPECT_EQ(dialog->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(sink.Put())), S_OK);
    velmar::CComPtr<IOleClientSite> site;
    EXPECT_EQ(dialog->QueryInterface(__uuidof(IOleClientSite), reinterpret_cast<void**>(site.Put())),
              E_NOINTERFACE);
    EXPECT_FALSE(site);
    EXPECT_EQ(handler->GetHostInfo(nullptr), E_NOTIMPL);
    EXPECT_EQ(handler->ShowContextMenu(0, nullptr, nullptr, nullptr), E_NOTIMPL);

    // window.external: "print_complete" is dispid 1, exactly so; other names are unknown.
    velmar::CComPtr<IDispatch> external;
    ASSERT_EQ(handler->GetExternal(external.Put()), S_OK);
    ASSERT_TRUE(external);
    DISPID ids[1] = {0};
    LPOLESTR name = const_cast<LPOLESTR>(L"print_complete");
    EXPECT_EQ(external->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_USER_DEFAULT, ids), S_OK);
    EXPECT_EQ(ids[0], 1);
    name = const_cast<LPOLESTR>(L"Print_Complete");
    EXPECT_EQ(external->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_USER_DEFAULT, ids), DISP_E_UNKNOWNNAME);
    EXPECT_EQ(ids[0], DISPID_UNKNOWN);

    // A page script that calls "print_complete" while no template prints starts nothing; Invoke answers 0
    // for any dispid.
    DISPPARAMS none{nullptr, nullptr, 0, 0};
    EXPECT_EQ(
        external->Invoke(1, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none, nullptr, nullptr, nullptr),
        S_OK);
    EXPECT_EQ(
        external->Invoke(7, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none, nullptr, nullptr, nullptr),
        S_OK);
    PumpUntil([] { return false; }, 300);
    EXPECT_EQ(completions, 0) << "no message 1124 came of it";

    // Closed, the window is gone; the object lives on while references to it are held, and does nothing.
    dialog->Close();
    EXPECT_FALSE(IsWindow(window));
    EXPECT_EQ(
        external->Invoke(1, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none, nullptr, nullptr, nullptr),
        S_OK);
    EXPECT_EQ(handler->GetExternal(external.Put()), S_OK);
}

TEST_F(PrintWin32Test, JobsWithoutADocumentFailCleanlyAndTheQueueRunsToItsCompletion) {
    size_t doneIndex = 99;
    int completions = 0;
    // Wine's browser never loads the blank page: a short wait for it keeps the test short.
    CPrintDialogs dialogs(PrintDialogFactoryWin32([] { return HWND{}; }, 500), Tracer(), [&](size_t index) {
        doneIndex = index;
        ++completions;
    });
    CCommandJobs jobs;
    CActivityList activity;
    const std::wstring page = Html(L"seite.html");
    const std::wstring withTemplate = Html(L"vorlage.html");
    const std::wstring missing = (m_dir / L"fehlt.html").wstring();
    ASSERT_EQ(jobs.Add({L"OPENMAIL"}), 0u);
    ASSERT_EQ(jobs.Add({L"PRINTHTML", missing, L"*", L"*", L"0", L"*",                                //
                        page, L"*", L"*", L"0", L"*",                                                 //
                        withTemplate, L"res://vorlage.htm", L"file:///druck.css", L"0", L"Nirgends",  //
                        L"rest.html"}),
              1u);
    jobs.Run(1, 1, activity, &dialogs);
    ASSERT_TRUE(dialogs.HasDialog(1));
    EXPECT_EQ(activity.Lines(), std::vector<std::wstring>(3, L"Html Dokument ausdrucken"));

    ASSERT_TRUE(PumpUntil([&] { return completions > 0; })) << "the queue never completed: " << Lines();
    PumpUntil([] { return false; }, 300);
    EXPECT_EQ(completions, 1);
    EXPECT_EQ(doneIndex, 1u);
    EXPECT_EQ(LinesWith(L"Html Dokument kann nicht gedruckt werden: " + missing), 1u);
    // Without an HTML engine neither existing page makes a document; each is traced and keeps its file.
    EXPECT_EQ(LinesWith(L"Html Dokument kann nicht gedruckt werden: " + page), 1u);
    EXPECT_EQ(LinesWith(L"Html Dokument kann nicht gedruckt werden: " + withTemplate), 1u);
    EXPECT_TRUE(fs::exists(page));
    EXPECT_TRUE(fs::exists(withTemplate));
    EXPECT_EQ(LinesWith(L"Html Dokument: die Seite lädt nicht"), 3u) << Lines();

    // Action 2 destroys the dialog and clears its slot; a new action 1 makes a fresh one.
    jobs.Run(1, 2, activity, &dialogs);
    EXPECT_FALSE(dialogs.HasDialog(1));
    jobs.Run(1, 1, activity, &dialogs);
    EXPECT_TRUE(dialogs.HasDialog(1));
    jobs.Run(0, 1, activity, &dialogs);
    EXPECT_FALSE(dialogs.HasDialog(0)) << "an OPENMAIL job prints nothing";
}

}  // namespace
