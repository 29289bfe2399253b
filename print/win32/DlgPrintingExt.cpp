#include "print/win32/DlgPrintingExt.h"

#include <atomic>

#include "print/PrintingExternal.h"
#include "support/RefCounted.h"

namespace velmar::print {
namespace {

// window.external: GetIDsOfNames knows "print_complete" (dispid 1) only; Invoke of dispid 1 ends the
// template's job, any other does nothing; both answer 0.
class CPrintingExternal final : public IDispatch, private velmar::CRefCounted {
public:
    explicit CPrintingExternal(CPrintJobQueue* queue) : m_queue(queue) {}
    // The dialog is going: the page's scripts may still hold this object, which then does nothing.
    void Detach() { m_queue = nullptr; }

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
        if (!object) return E_POINTER;
        *object = nullptr;
        if (iid != IID_IUnknown && iid != IID_IDispatch) return E_NOINTERFACE;
        *object = static_cast<IDispatch*>(this);
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return AddReference(); }
    STDMETHODIMP_(ULONG) Release() override { return ReleaseReference(); }
    STDMETHODIMP GetTypeInfoCount(UINT* count) override {
        if (!count) return E_POINTER;
        *count = 0;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override {
        if (!names || !ids) return E_POINTER;
        bool known = true;
        for (UINT i = 0; i < count; ++i) {
            ids[i] = PrintingExternalDispId(names[i] ? names[i] : L"");
            known = known && ids[i] != kUnknownDispId;
        }
        return known ? S_OK : DISP_E_UNKNOWNNAME;
    }
    STDMETHODIMP Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
        if (m_queue && id == kPrintCompleteDispId) m_queue->OnPrintComplete();
        return S_OK;
    }

private:
    ~CPrintingExternal() = default;

    CPrintJobQueue* m_queue;
};

// The slot's hold on a dialog: closes it when the slot is cleared, and gives up the slot's reference.
class CDialogSlot final : public IPrintDialog {
public:
    explicit CDialogSlot(CDlgPrintExplorer* dialog) : m_dialog(dialog) {}
    ~CDialogSlot() override { m_dialog->Close(); }
    CPrintJobQueue& Queue() override { return m_dialog->Queue(); }
    void PostStartNext() override { m_dialog->PostStartNext(); }

private:
    CComPtr<CDlgPrintExplorer> m_dialog;
};

}  // namespace

CDlgPrintingExt::CDlgPrintingExt(HWND parent, std::function<void(const std::wstring&)> trace,
                                 std::function<void()> done, UINT pageTimeoutMilliseconds)
    : CDlgPrintExplorer(parent, std::move(trace), std::move(done), pageTimeoutMilliseconds),
      m_external(new CPrintingExternal(&Queue())) {}

CDlgPrintingExt::~CDlgPrintingExt() {
    static_cast<CPrintingExternal*>(m_external.get())->Detach();
}

PrintDialogFactory PrintDialogFactoryWin32(std::function<HWND()> parent, UINT pageTimeoutMilliseconds) {
    return [parent, pageTimeoutMilliseconds](std::function<void(const std::wstring&)> trace,
                                             std::function<void()> done) {
        return std::make_unique<CDialogSlot>(
            new CDlgPrintingExt(parent(), std::move(trace), std::move(done), pageTimeoutMilliseconds));
    };
}

}  // namespace velmar::print
