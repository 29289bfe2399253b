// The printing dialog on Windows: a hidden modeless dialog (template 129) that hosts the WebBrowser control
// and prints the jobs of its queue one at a time. For each job the control goes to a blank page, the html
// file is written into that page, and the page is printed with the browser's print command, with or without
// the print dialog and through the job's print template if it has one.
//
// The dialog is a COM object too: the document's UI handler (IDocHostUIHandler, registered through
// ICustomDoc) and the sink of the control's events (IDispatch). Its references decide when the object goes;
// Close ends the window and the control, so that a browser that keeps a reference too long finds a closed
// dialog and no dangling one.
#pragma once

#include <windows.h>
#include <mshtmhst.h>
#include <mshtml.h>

#include <atomic>
#include <functional>
#include <string>

#include "print/PrintDialogs.h"
#include "print/PrintJobQueue.h"
#include "print/win32/Explorer1.h"
#include "print/win32/PrinterSelection.h"
#include "support/RefCounted.h"

namespace velmar::print {

inline constexpr int kPrintDialogTemplate = 129;
inline constexpr UINT kStartNextJob = WM_USER + 100;  // 1124

class CDlgPrintExplorer : public IDocHostUIHandler,
                          public IDispatch,
                          public IPrintEngine,
                          private velmar::CRefCounted {
public:
    // A blank page that has not come in this time will not come.
    static constexpr UINT kPageTimeoutMilliseconds = 10000;

    // Creates the dialog's window (hidden, owned by parent) and the browser control in it.
    CDlgPrintExplorer(HWND parent, std::function<void(const std::wstring&)> trace, std::function<void()> done,
                      UINT pageTimeoutMilliseconds = kPageTimeoutMilliseconds);
    CDlgPrintExplorer(const CDlgPrintExplorer&) = delete;
    CDlgPrintExplorer& operator=(const CDlgPrintExplorer&) = delete;

    HWND Window() const { return m_hWnd; }
    CPrintJobQueue& Queue() { return m_queue; }
    // Destroys the window and the control; the object itself goes with its last reference.
    void Close();

    // IUnknown
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
    STDMETHODIMP_(ULONG) AddRef() override { return AddReference(); }
    STDMETHODIMP_(ULONG) Release() override { return ReleaseReference(); }

    // IDocHostUIHandler: the external object; everything else is the browser's default (E_NOTIMPL).
    STDMETHODIMP ShowContextMenu(DWORD, POINT*, IUnknown*, IDispatch*) override { return E_NOTIMPL; }
    STDMETHODIMP GetHostInfo(DOCHOSTUIINFO*) override { return E_NOTIMPL; }
    STDMETHODIMP ShowUI(DWORD, IOleInPlaceActiveObject*, IOleCommandTarget*, IOleInPlaceFrame*,
                        IOleInPlaceUIWindow*) override {
        return E_NOTIMPL;
    }
    STDMETHODIMP HideUI() override { return E_NOTIMPL; }
    STDMETHODIMP UpdateUI() override { return E_NOTIMPL; }
    STDMETHODIMP EnableModeless(BOOL) override { return E_NOTIMPL; }
    STDMETHODIMP OnDocWindowActivate(BOOL) override { return E_NOTIMPL; }
    STDMETHODIMP OnFrameWindowActivate(BOOL) override { return E_NOTIMPL; }
    STDMETHODIMP ResizeBorder(LPCRECT, IOleInPlaceUIWindow*, BOOL) override { return E_NOTIMPL; }
    STDMETHODIMP TranslateAccelerator(LPMSG, const GUID*, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP GetOptionKeyPath(LPOLESTR*, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP GetDropTarget(IDropTarget*, IDropTarget**) override { return E_NOTIMPL; }
    STDMETHODIMP GetExternal(IDispatch** external) override;
    STDMETHODIMP TranslateUrl(DWORD, LPWSTR, LPWSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP FilterDataObject(IDataObject*, IDataObject**) override { return E_NOTIMPL; }

    // IDispatch: the control's events (DWebBrowserEvents2); NavigateComplete2 (252) prints the current job.
    STDMETHODIMP GetTypeInfoCount(UINT* count) override;
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* parameters, VARIANT*, EXCEPINFO*,
                        UINT*) override;

    // IPrintEngine
    void NavigateBlank() override;
    void WriteDocument(const CPrintJob& job) override;
    void AddStyleSheet(const std::wstring& url) override;
    void PrintWithTemplate(const CPrintJob& job) override;
    void Print(const CPrintJob& job) override;
    void CloseDocument() override;
    void QueueDone(const std::wstring& savedPrinter) override;
    void PostStartNext() override;
    void Trace(const std::wstring& line) override { m_trace(line); }

protected:
    virtual ~CDlgPrintExplorer();
    // The object offered to the page's scripts as window.external; none here.
    virtual IDispatch* ExternalObject() { return nullptr; }

private:
    static INT_PTR CALLBACK DialogProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
    HRESULT ExecPrint(const CPrintJob& job, VARIANT& input);
    void PageNotComing(const wchar_t* why);

    const UINT m_pageTimeoutMilliseconds;
    HWND m_hWnd = nullptr;
    std::function<void(const std::wstring&)> m_trace;
    CPrintJobQueue m_queue;
    CExplorer1 m_explorer;
    CComPtr<IHTMLDocument2> m_document;  // the current job's page
    CPrinterSelection m_printers;
    bool m_bOle = false;  // OleInitialize succeeded and is undone at the end
};

}  // namespace velmar::print
