#include "print/win32/DlgPrintExplorer.h"

#include <exdispid.h>
#include <mshtmcid.h>
#include <oleauto.h>

#include <optional>
#include <vector>

#include "support/FileBytes.h"

namespace velmar::print {
namespace {

// {DE4BA900-59CA-11CF-9592-444553540000}: the command group of MSHTML's own commands.
constexpr GUID kCgidMshtml = {0xDE4BA900, 0x59CA, 0x11CF, {0x95, 0x92, 0x44, 0x45, 0x53, 0x54, 0x00, 0x00}};
constexpr UINT_PTR kPageTimer = 1;
constexpr UINT kPageFailed = WM_APP + 1;  // posted: the blank page will not come
constexpr int kPromptUser = 1;            // OLECMDEXECOPT_PROMPTUSER
constexpr int kDontPromptUser = 2;        // OLECMDEXECOPT_DONTPROMPTUSER
constexpr short kPrintWaitForCompletion = 2;
// Files beyond this are no document to print.
constexpr size_t kLargestHtmlFile = 256u * 1024 * 1024;

std::wstring HresultText(HRESULT result) {
    wchar_t text[16];
    wsprintfW(text, L"0x%08lX", static_cast<unsigned long>(result));
    return text;
}

}  // namespace

CDlgPrintExplorer::CDlgPrintExplorer(HWND parent, std::function<void(const std::wstring&)> trace,
                                     std::function<void()> done, UINT pageTimeoutMilliseconds)
    : m_pageTimeoutMilliseconds(pageTimeoutMilliseconds), m_trace(std::move(trace)), m_queue(*this) {
    m_queue.SetCompletion(std::move(done));
    // In-place activation of a control needs OLE, not only COM, on this thread.
    m_bOle = SUCCEEDED(OleInitialize(nullptr));
    m_hWnd = CreateDialogParamW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(kPrintDialogTemplate), parent,
                                DialogProc, reinterpret_cast<LPARAM>(this));
    if (!m_hWnd) {
        Trace(L"Druckdialog kann nicht erstellt werden");
        return;
    }
    if (const HRESULT result = m_explorer.Create(m_hWnd, static_cast<IDispatch*>(this)); FAILED(result)) {
        m_explorer.Destroy();
        Trace(L"Browser-Steuerelement nicht verfügbar: " + HresultText(result));
    }
}

CDlgPrintExplorer::~CDlgPrintExplorer() {
    Close();
    if (m_bOle) OleUninitialize();
}

void CDlgPrintExplorer::Close() {
    m_document.Reset();
    m_explorer.Destroy();
    m_printers.Restore();
    if (m_hWnd) {
        SetWindowLongPtrW(m_hWnd, DWLP_USER, 0);
        DestroyWindow(std::exchange(m_hWnd, nullptr));
    }
}

STDMETHODIMP CDlgPrintExplorer::QueryInterface(REFIID iid, void** object) {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (iid == IID_IUnknown || iid == __uuidof(IDocHostUIHandler))
        *object = static_cast<IDocHostUIHandler*>(this);
    else if (iid == IID_IDispatch || iid == DIID_DWebBrowserEvents2)
        *object = static_cast<IDispatch*>(this);
    else
        return E_NOINTERFACE;
    AddRef();
    return S_OK;
}

STDMETHODIMP CDlgPrintExplorer::GetExternal(IDispatch** external) {
    if (!external) return E_POINTER;
    *external = ExternalObject();
    if (!*external) return E_NOTIMPL;
    (*external)->AddRef();
    return S_OK;
}

STDMETHODIMP CDlgPrintExplorer::GetTypeInfoCount(UINT* count) {
    if (!count) return E_POINTER;
    *count = 0;
    return S_OK;
}

STDMETHODIMP CDlgPrintExplorer::Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* parameters, VARIANT*,
                                       EXCEPINFO*, UINT*) {
    // NavigateComplete2(pDisp, URL): the page of the control itself, not of a frame inside it.
    if (id == DISPID_NAVIGATECOMPLETE2 && parameters && parameters->cArgs >= 1) {
        const VARIANT& frame = parameters->rgvarg[parameters->cArgs - 1];
        if (frame.vt == VT_DISPATCH && m_explorer.IsBrowser(frame.pdispVal)) {
            if (m_hWnd) KillTimer(m_hWnd, kPageTimer);
            m_queue.OnNavigateComplete();
        }
    }
    return S_OK;
}

INT_PTR CALLBACK CDlgPrintExplorer::DialogProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_INITDIALOG) {
        SetWindowLongPtrW(window, DWLP_USER, lParam);
        return FALSE;
    }
    auto* dialog = reinterpret_cast<CDlgPrintExplorer*>(GetWindowLongPtrW(window, DWLP_USER));
    if (!dialog) return FALSE;
    switch (message) {
        case kStartNextJob: {
            // The queue may hand the dialog's last reference to its owner's completion: hold one meanwhile.
            dialog->AddRef();
            dialog->m_queue.StartNext();
            dialog->Release();
            return TRUE;
        }
        case WM_TIMER:
            if (wParam != kPageTimer) return FALSE;
            KillTimer(window, kPageTimer);
            dialog->PageNotComing(L"die Seite lädt nicht");
            return TRUE;
        case kPageFailed:
            dialog->m_queue.OnNavigateComplete();
            return TRUE;
        case WM_NCDESTROY:
            // Gone with its owner: the dialog has no window any more.
            dialog->m_hWnd = nullptr;
            return FALSE;
        default:
            return FALSE;
    }
}

void CDlgPrintExplorer::PostStartNext() {
    if (m_hWnd) PostMessageW(m_hWnd, kStartNextJob, 0, 0);
}

// The job then finds no document, is traced and the queue goes on.
void CDlgPrintExplorer::PageNotComing(const wchar_t* why) {
    Trace(std::wstring(L"Html Dokument: ") + why);
    if (m_hWnd) PostMessageW(m_hWnd, kPageFailed, 0, 0);
}

void CDlgPrintExplorer::NavigateBlank() {
    m_document.Reset();
    if (!m_explorer.Created()) return PageNotComing(L"kein Browser-Steuerelement");
    if (const HRESULT result = m_explorer.Navigate(L"about:blank"); FAILED(result))
        return PageNotComing((L"about:blank lädt nicht: " + HresultText(result)).c_str());
    SetTimer(m_hWnd, kPageTimer, m_pageTimeoutMilliseconds, nullptr);
}

void CDlgPrintExplorer::WriteDocument(const CPrintJob& job) {
    const CComPtr<IDispatch> page = m_explorer.Document();
    if (!page ||
        FAILED(page->QueryInterface(__uuidof(IHTMLDocument2), reinterpret_cast<void**>(m_document.Put()))))
        return m_queue.OnDocumentWritten(false);
    CComPtr<ICustomDoc> custom;
    if (SUCCEEDED(page->QueryInterface(__uuidof(ICustomDoc), reinterpret_cast<void**>(custom.Put()))))
        custom->SetUIHandler(this);

    // Deliberate: the file's bytes are taken as UTF-16 text as they stand, without conversion from an
    // 8-bit encoding, and end at the first zero character.
    std::optional<std::string> bytes = velmar::ReadFileBytes(job.htmlFile, kLargestHtmlFile);
    if (!bytes) return m_queue.OnDocumentWritten(false);
    bytes->append(2, '\0');
    std::vector<OLECHAR> text((bytes->size() + 1) / sizeof(OLECHAR) + 1, 0);
    memcpy(text.data(), bytes->data(), bytes->size());
    BSTR html = SysAllocString(text.data());
    SAFEARRAY* lines = SafeArrayCreateVector(VT_VARIANT, 0, 1);
    HRESULT result = html && lines ? S_OK : E_OUTOFMEMORY;
    if (SUCCEEDED(result)) {
        VARIANT* line = nullptr;
        result = SafeArrayAccessData(lines, reinterpret_cast<void**>(&line));
        if (SUCCEEDED(result)) {
            line->vt = VT_BSTR;
            line->bstrVal = std::exchange(html, nullptr);  // the array owns it now
            SafeArrayUnaccessData(lines);
            result = m_document->write(lines);
        }
    }
    SysFreeString(html);
    if (lines) SafeArrayDestroy(lines);
    if (FAILED(result)) Trace(L"IHTMLDocument2::write: " + HresultText(result));
    m_queue.OnDocumentWritten(SUCCEEDED(result));
}

void CDlgPrintExplorer::AddStyleSheet(const std::wstring& url) {
    if (!m_document) return;
    long count = 0;
    CComPtr<IHTMLStyleSheetsCollection> sheets;
    if (SUCCEEDED(m_document->get_styleSheets(sheets.Put())) && sheets) sheets->get_length(&count);
    BSTR address = SysAllocString(url.c_str());
    CComPtr<IHTMLStyleSheet> added;
    m_document->createStyleSheet(address, count, added.Put());
    SysFreeString(address);
}

// IDM_PRINT through the document's command target, on the job's printer, with the print dialog when the
// job asked for it.
HRESULT CDlgPrintExplorer::ExecPrint(const CPrintJob& job, VARIANT& input) {
    if (job.NamesPrinter() && !m_printers.Select(job.printer))
        Trace(L"Drucker nicht gefunden, gedruckt wird auf dem Standarddrucker: " + job.printer);
    CComPtr<IOleCommandTarget> commands;
    HRESULT result = m_document ? m_document->QueryInterface(__uuidof(IOleCommandTarget),
                                                             reinterpret_cast<void**>(commands.Put()))
                                : E_UNEXPECTED;
    if (SUCCEEDED(result))
        result = commands->Exec(&kCgidMshtml, IDM_PRINT, job.prompt ? kPromptUser : kDontPromptUser, &input,
                                nullptr);
    if (FAILED(result)) Trace(L"Html Dokument nicht gedruckt: " + job.htmlFile + L": " + HresultText(result));
    return result;
}

void CDlgPrintExplorer::PrintWithTemplate(const CPrintJob& job) {
    VARIANT input;
    VariantInit(&input);
    input.vt = VT_BSTR;
    input.bstrVal = SysAllocString(job.printTemplate.c_str());
    // The template reports its completion through the external object ("print_complete").
    ExecPrint(job, input);
    VariantClear(&input);
}

void CDlgPrintExplorer::Print(const CPrintJob& job) {
    VARIANT input;
    VariantInit(&input);
    input.vt = VT_I2;
    input.iVal = kPrintWaitForCompletion;
    const HRESULT result = ExecPrint(job, input);
    if (SUCCEEDED(result)) Trace(L"Html Dokument gedruckt: " + job.htmlFile);
    m_queue.OnPrinted(SUCCEEDED(result));
}

void CDlgPrintExplorer::CloseDocument() {
    if (m_document) m_document->close();
    m_document.Reset();
}

void CDlgPrintExplorer::QueueDone(const std::wstring&) {
    m_printers.Restore();
}

}  // namespace velmar::print
