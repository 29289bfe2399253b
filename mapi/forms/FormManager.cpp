#include "mapi/forms/FormManager.h"

#include <dlfcn.h>

#include <strings.h>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "mapi/forms/FormLibrary.h"
#include "mapi/runtime/Guarded.h"

namespace velmar::mapi {
namespace {

// Nulls an out pointer and says the request is not offered.
template <class T>
HRESULT NotOffered(T** out) {
    if (out) *out = nullptr;
    return MAPI_E_NO_SUPPORT;
}

bool DisplayNamed() {
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) {
        const char* value = std::getenv(name);
        if (value && *value) return true;
    }
    return false;
}

// The form library beside this library, loaded once, on first need; null when it cannot be loaded.
PFN_VelmarCreateNoteForm NoteFormFactory() {
    static std::once_flag once;
    static PFN_VelmarCreateNoteForm factory = nullptr;
    std::call_once(once, [] {
        Dl_info self{};
        if (!dladdr(reinterpret_cast<const void*>(&NoteFormFactory), &self) || !self.dli_fname) return;
        std::string path = self.dli_fname;
        const size_t slash = path.rfind('/');
        path = (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + kFormLibraryName;
        // Kept for the life of the process: forms may be open until its end.
        if (void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL))
            factory = reinterpret_cast<PFN_VelmarCreateNoteForm>(dlsym(library, kCreateNoteFormExport));
    });
    return factory;
}

}  // namespace

bool IsNoteClass(const char* messageClass) {
    constexpr char kNote[] = "IPM.Note";
    constexpr size_t kLength = sizeof kNote - 1;
    if (!messageClass || strncasecmp(messageClass, kNote, kLength) != 0) return false;
    return messageClass[kLength] == '\0' || messageClass[kLength] == '.';
}

HRESULT CFormManager::LoadForm(ULONG_PTR, ULONG, LPCSTR lpszMessageClass, ULONG ulMessageStatus,
                               ULONG ulMessageFlags, LPMAPIFOLDER, LPMAPIMESSAGESITE pMessageSite,
                               LPMESSAGE pmsg, LPMAPIVIEWCONTEXT pViewContext, REFIID riid, LPVOID* ppvObj) {
    if (!ppvObj || !pMessageSite || !pmsg) return MAPI_E_INVALID_PARAMETER;
    *ppvObj = nullptr;
    if (!IsNoteClass(lpszMessageClass)) return MAPI_E_NOT_FOUND;
    if (!DisplayNamed()) return MAPI_E_NO_SUPPORT;
    const PFN_VelmarCreateNoteForm create = NoteFormFactory();
    if (!create) return MAPI_E_NO_SUPPORT;

    CComPtr<IMAPIForm> form;
    HRESULT hr = create(IID_IMAPIForm, reinterpret_cast<LPVOID*>(form.Put()));
    if (FAILED(hr)) return hr;
    CComPtr<IPersistMessage> persist;
    hr = form->QueryInterface(IID_IPersistMessage, reinterpret_cast<LPVOID*>(persist.Put()));
    if (FAILED(hr)) return hr;
    hr = persist->Load(pMessageSite, pmsg, ulMessageStatus, ulMessageFlags);
    if (FAILED(hr)) return hr;
    if (pViewContext) {
        hr = form->SetViewContext(pViewContext);
        if (FAILED(hr)) {
            form->ShutdownForm(SAVEOPTS_NOSAVE);
            return hr;
        }
    }
    return form->QueryInterface(riid, ppvObj);
}

HRESULT CFormManager::ResolveMessageClass(LPCSTR, ULONG, LPMAPIFOLDER, LPMAPIFORMINFO* ppResult) {
    return NotOffered(ppResult);
}

HRESULT CFormManager::ResolveMultipleMessageClasses(LPSMESSAGECLASSARRAY, ULONG, LPMAPIFOLDER,
                                                    LPSMAPIFORMINFOARRAY* pfrminfoarray) {
    return NotOffered(pfrminfoarray);
}

HRESULT CFormManager::CalcFormPropSet(LPSMAPIFORMINFOARRAY, ULONG, LPMAPIFORMPROPARRAY* ppResults) {
    return NotOffered(ppResults);
}

HRESULT CFormManager::CreateForm(ULONG_PTR, ULONG, LPMAPIFORMINFO, REFIID, LPVOID* ppvObj) {
    return NotOffered(ppvObj);
}

HRESULT CFormManager::SelectForm(ULONG_PTR, ULONG, LPCTSTR, LPMAPIFOLDER, LPMAPIFORMINFO* ppfrminfoReturned) {
    return NotOffered(ppfrminfoReturned);
}

HRESULT CFormManager::SelectMultipleForms(ULONG_PTR, ULONG, LPCTSTR, LPMAPIFOLDER, LPSMAPIFORMINFOARRAY,
                                          LPSMAPIFORMINFOARRAY* ppfrminfoarray) {
    return NotOffered(ppfrminfoarray);
}

HRESULT CFormManager::SelectFormContainer(ULONG_PTR, ULONG, LPMAPIFORMCONTAINER* lppfcnt) {
    return NotOffered(lppfcnt);
}

HRESULT CFormManager::OpenFormContainer(HFRMREG, LPUNKNOWN, LPMAPIFORMCONTAINER* lppfcnt) {
    return NotOffered(lppfcnt);
}

}  // namespace velmar::mapi

STDAPI MAPIOpenFormMgr(LPMAPISESSION pSession, LPMAPIFORMMGR* ppmgr) {
    if (!ppmgr) return MAPI_E_INVALID_PARAMETER;
    *ppmgr = nullptr;
    if (!pSession) return MAPI_E_INVALID_PARAMETER;
    return velmar::mapi::Guarded([&]() -> HRESULT {
        *ppmgr = velmar::mapi::MakeObject<velmar::mapi::CFormManager>().Detach();
        return S_OK;
    });
}
