#include "print/win32/Explorer1.h"
#include "support/RefCounted.h"

#include <atomic>

namespace velmar::print {
namespace {

constexpr DISPID kDispIdNavigate = 104;
constexpr DISPID kDispIdDocument = 203;

// The container's side of in-place activation: the control lives in the owner's window, fills its client
// area and has no menus, tool bars or status line to merge with.
class CExplorerSite final : public IOleClientSite,
                            public IOleInPlaceSite,
                            public IOleInPlaceFrame,
                            private velmar::CRefCounted {
public:
    explicit CExplorerSite(HWND window) : m_window(window) {}

    // IUnknown
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
        if (!object) return E_POINTER;
        *object = nullptr;
        if (iid == IID_IUnknown || iid == __uuidof(IOleClientSite))
            *object = static_cast<IOleClientSite*>(this);
        else if (iid == __uuidof(IOleWindow) || iid == __uuidof(IOleInPlaceSite))
            *object = static_cast<IOleInPlaceSite*>(this);
        else if (iid == __uuidof(IOleInPlaceUIWindow) || iid == __uuidof(IOleInPlaceFrame))
            *object = static_cast<IOleInPlaceFrame*>(this);
        else
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return AddReference(); }
    STDMETHODIMP_(ULONG) Release() override { return ReleaseReference(); }

    // IOleClientSite
    STDMETHODIMP SaveObject() override { return E_NOTIMPL; }
    STDMETHODIMP GetMoniker(DWORD, DWORD, IMoniker**) override { return E_NOTIMPL; }
    STDMETHODIMP GetContainer(IOleContainer** container) override {
        *container = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP ShowObject() override { return S_OK; }
    STDMETHODIMP OnShowWindow(BOOL) override { return S_OK; }
    STDMETHODIMP RequestNewObjectLayout() override { return E_NOTIMPL; }

    // IOleWindow
    STDMETHODIMP GetWindow(HWND* window) override {
        *window = m_window;
        return S_OK;
    }
    STDMETHODIMP ContextSensitiveHelp(BOOL) override { return E_NOTIMPL; }

    // IOleInPlaceSite
    STDMETHODIMP CanInPlaceActivate() override { return S_OK; }
    STDMETHODIMP OnInPlaceActivate() override { return S_OK; }
    STDMETHODIMP OnUIActivate() override { return S_OK; }
    STDMETHODIMP GetWindowContext(IOleInPlaceFrame** frame, IOleInPlaceUIWindow** document, LPRECT position,
                                  LPRECT clip, LPOLEINPLACEFRAMEINFO info) override {
        *frame = this;
        AddRef();
        *document = nullptr;
        GetClientRect(m_window, position);
        *clip = *position;
        info->fMDIApp = FALSE;
        info->hwndFrame = m_window;
        info->haccel = nullptr;
        info->cAccelEntries = 0;
        return S_OK;
    }
    STDMETHODIMP Scroll(SIZE) override { return E_NOTIMPL; }
    STDMETHODIMP OnUIDeactivate(BOOL) override { return S_OK; }
    STDMETHODIMP OnInPlaceDeactivate() override { return S_OK; }
    STDMETHODIMP DiscardUndoState() override { return E_NOTIMPL; }
    STDMETHODIMP DeactivateAndUndo() override { return E_NOTIMPL; }
    STDMETHODIMP OnPosRectChange(LPCRECT) override { return S_OK; }

    // IOleInPlaceUIWindow and IOleInPlaceFrame
    STDMETHODIMP GetBorder(LPRECT) override { return INPLACE_E_NOTOOLSPACE; }
    STDMETHODIMP RequestBorderSpace(LPCBORDERWIDTHS) override { return INPLACE_E_NOTOOLSPACE; }
    STDMETHODIMP SetBorderSpace(LPCBORDERWIDTHS) override { return S_OK; }
    STDMETHODIMP SetActiveObject(IOleInPlaceActiveObject*, LPCOLESTR) override { return S_OK; }
    STDMETHODIMP InsertMenus(HMENU, LPOLEMENUGROUPWIDTHS) override { return S_OK; }
    STDMETHODIMP SetMenu(HMENU, HOLEMENU, HWND) override { return S_OK; }
    STDMETHODIMP RemoveMenus(HMENU) override { return S_OK; }
    STDMETHODIMP SetStatusText(LPCOLESTR) override { return S_OK; }
    STDMETHODIMP EnableModeless(BOOL) override { return S_OK; }
    STDMETHODIMP TranslateAccelerator(LPMSG, WORD) override { return S_FALSE; }

private:
    ~CExplorerSite() = default;

    const HWND m_window;
};

}  // namespace

HRESULT CExplorer1::Create(HWND parent, IDispatch* eventSink) {
    Destroy();
    CComPtr<IOleObject> object;
    HRESULT result = CoCreateInstance(CLSID_WebBrowser, nullptr, CLSCTX_INPROC_SERVER, __uuidof(IOleObject),
                                      reinterpret_cast<void**>(object.Put()));
    if (FAILED(result)) return result;
    m_site.Reset(new CExplorerSite(parent));
    if (FAILED(result = object->SetClientSite(m_site.get()))) return result;
    m_object = std::move(object);
    RECT area{};
    GetClientRect(parent, &area);
    result = m_object->DoVerb(OLEIVERB_INPLACEACTIVATE, nullptr, m_site.get(), 0, parent, &area);
    if (FAILED(result)) return result;
    if (FAILED(result = m_object->QueryInterface(__uuidof(IWebBrowser2),
                                                 reinterpret_cast<void**>(m_browser.Put()))))
        return result;
    // Script errors of a printed page are no reason for a box on the user's screen.
    m_browser->put_Silent(VARIANT_TRUE);
    CComPtr<IConnectionPointContainer> points;
    if (FAILED(result = m_object->QueryInterface(__uuidof(IConnectionPointContainer),
                                                 reinterpret_cast<void**>(points.Put()))) ||
        FAILED(result = points->FindConnectionPoint(DIID_DWebBrowserEvents2, m_events.Put())) ||
        FAILED(result = m_events->Advise(eventSink, &m_eventCookie))) {
        m_events.Reset();
        return result;
    }
    return S_OK;
}

void CExplorer1::Destroy() {
    if (m_events) m_events->Unadvise(m_eventCookie);
    m_events.Reset();
    m_eventCookie = 0;
    m_browser.Reset();
    if (m_object) {
        m_object->Close(OLECLOSE_NOSAVE);
        m_object->SetClientSite(nullptr);
    }
    m_object.Reset();
    m_site.Reset();
}

HRESULT CExplorer1::Navigate(const wchar_t* url) {
    if (!m_browser) return E_UNEXPECTED;
    VARIANT argument;
    VariantInit(&argument);
    argument.vt = VT_BSTR;
    argument.bstrVal = SysAllocString(url);
    if (!argument.bstrVal) return E_OUTOFMEMORY;
    DISPPARAMS parameters{&argument, nullptr, 1, 0};
    const HRESULT result = m_browser->Invoke(kDispIdNavigate, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD,
                                             &parameters, nullptr, nullptr, nullptr);
    VariantClear(&argument);
    return result;
}

CComPtr<IDispatch> CExplorer1::Document() {
    CComPtr<IDispatch> document;
    if (!m_browser) return document;
    VARIANT value;
    VariantInit(&value);
    DISPPARAMS none{nullptr, nullptr, 0, 0};
    if (SUCCEEDED(m_browser->Invoke(kDispIdDocument, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET,
                                    &none, &value, nullptr, nullptr)) &&
        value.vt == VT_DISPATCH)
        document.Reset(std::exchange(value.pdispVal, nullptr));
    VariantClear(&value);
    return document;
}

bool CExplorer1::IsBrowser(IDispatch* frame) const {
    if (!frame || !m_browser) return false;
    CComPtr<IUnknown> ours;
    CComPtr<IUnknown> theirs;
    m_browser->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(ours.Put()));
    frame->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(theirs.Put()));
    return ours && ours.get() == theirs.get();
}

}  // namespace velmar::print
