// The form manager of our MAPI (MAPIOpenFormMgr). It knows one form, the note form of the form library,
// for messages of the class "IPM.Note" and its subclasses, and loads it only where a window can be shown.
// Selecting, installing and resolving forms by their descriptions are not offered.
#pragma once

#include "mapi/runtime/ComObject.h"
#include "mapiform.h"

namespace velmar::mapi {

class CFormManager : public CComObject<IMAPIFormMgr> {
public:
    HRESULT GetLastError(HRESULT, ULONG, LPMAPIERROR*) override { return MAPI_E_NO_SUPPORT; }
    // The form for the class, with the message loaded and the view context given; MAPI_E_NOT_FOUND for a
    // class without a form, MAPI_E_NO_SUPPORT where no window can be shown (no display, no form library).
    HRESULT LoadForm(ULONG_PTR ulUIParam, ULONG ulFlags, LPCSTR lpszMessageClass, ULONG ulMessageStatus,
                     ULONG ulMessageFlags, LPMAPIFOLDER pFolderFocus, LPMAPIMESSAGESITE pMessageSite,
                     LPMESSAGE pmsg, LPMAPIVIEWCONTEXT pViewContext, REFIID riid, LPVOID* ppvObj) override;
    HRESULT ResolveMessageClass(LPCSTR, ULONG, LPMAPIFOLDER, LPMAPIFORMINFO* ppResult) override;
    HRESULT ResolveMultipleMessageClasses(LPSMESSAGECLASSARRAY, ULONG, LPMAPIFOLDER,
                                          LPSMAPIFORMINFOARRAY* pfrminfoarray) override;
    HRESULT CalcFormPropSet(LPSMAPIFORMINFOARRAY, ULONG, LPMAPIFORMPROPARRAY* ppResults) override;
    HRESULT CreateForm(ULONG_PTR, ULONG, LPMAPIFORMINFO, REFIID, LPVOID* ppvObj) override;
    HRESULT SelectForm(ULONG_PTR, ULONG, LPCTSTR, LPMAPIFOLDER, LPMAPIFORMINFO* ppfrminfoReturned) override;
    HRESULT SelectMultipleForms(ULONG_PTR, ULONG, LPCTSTR, LPMAPIFOLDER, LPSMAPIFORMINFOARRAY,
                                LPSMAPIFORMINFOARRAY* ppfrminfoarray) override;
    HRESULT SelectFormContainer(ULONG_PTR, ULONG, LPMAPIFORMCONTAINER* lppfcnt) override;
    HRESULT OpenFormContainer(HFRMREG, LPUNKNOWN, LPMAPIFORMCONTAINER* lppfcnt) override;
    HRESULT PrepareForm(ULONG_PTR, ULONG, LPMAPIFORMINFO) override { return MAPI_E_NO_SUPPORT; }
    HRESULT IsInConflict(ULONG, ULONG, LPCSTR, LPMAPIFOLDER) override { return MAPI_E_NO_SUPPORT; }

protected:
    bool SupportsInterface(REFIID riid) const override { return riid == IID_IMAPIFormMgr; }
};

// Whether the note form serves messages of this class: "IPM.Note" and "IPM.Note.*", in any case.
bool IsNoteClass(const char* messageClass);

}  // namespace velmar::mapi
