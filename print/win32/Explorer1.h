// The WebBrowser control ({8856F961-340A-11D0-A96B-00C04FD705A2}) hosted in a window of ours, in plain
// OLE: the control is activated in place in the window's client area through a small container site of our
// own, and its DWebBrowserEvents2 go to a sink the owner gives. Properties and methods are called by DISPID
// (Document 203, Navigate 104), as on the control's dispatch interface.
#pragma once

#include <windows.h>
#include <exdisp.h>
#include <ocidl.h>
#include <oleidl.h>

#include "support/ComPtr.h"

namespace velmar::print {

class CExplorer1 {
public:
    CExplorer1() = default;
    ~CExplorer1() { Destroy(); }
    CExplorer1(const CExplorer1&) = delete;
    CExplorer1& operator=(const CExplorer1&) = delete;

    // Creates the control in parent's client area and connects eventSink to its events. The thread must
    // have OLE initialised.
    HRESULT Create(HWND parent, IDispatch* eventSink);
    // Disconnects the events and closes the control; what it still holds of ours it lets go.
    void Destroy();
    bool Created() const { return static_cast<bool>(m_browser); }

    // DISPID 104.
    HRESULT Navigate(const wchar_t* url);
    // DISPID 203: the loaded document, or null.
    CComPtr<IDispatch> Document();
    // Whether a frame of an event is the control itself (not a frame inside its page).
    bool IsBrowser(IDispatch* frame) const;

private:
    CComPtr<IOleClientSite> m_site;
    CComPtr<IOleObject> m_object;
    CComPtr<IWebBrowser2> m_browser;
    CComPtr<IConnectionPoint> m_events;
    DWORD m_eventCookie = 0;
};

}  // namespace velmar::print
