// The mail client's automation interface as the mail layer calls it: members of IDispatch objects by
// name, with their results held as variants.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <string>

#include "support/ComPtr.h"

namespace velmar::mail {

class CVariant {
public:
    CVariant() { VariantInit(&m_value); }
    ~CVariant() { VariantClear(&m_value); }
    CVariant(const CVariant&) = delete;
    CVariant& operator=(const CVariant&) = delete;
    VARIANT* operator&() { return &m_value; }
    const VARIANT& get() const { return m_value; }
    IDispatch* Dispatch() const { return m_value.vt == VT_DISPATCH ? m_value.pdispVal : nullptr; }
    std::wstring Text() const {
        return m_value.vt == VT_BSTR && m_value.bstrVal ? std::wstring(m_value.bstrVal) : std::wstring();
    }

private:
    VARIANT m_value;
};

// Calls a member of an automation object by name: a property get or a method, with up to one argument.
inline HRESULT Call(IDispatch* object, const wchar_t* name, WORD kind, CVariant& result,
                    const VARIANT* argument = nullptr) {
    if (!object) return E_POINTER;
    DISPID id = 0;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    HRESULT hr = object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
    if (FAILED(hr)) return hr;
    VARIANT arguments[1];
    DISPPARAMS parameters{nullptr, nullptr, 0, 0};
    if (argument) {
        arguments[0] = *argument;
        parameters.rgvarg = arguments;
        parameters.cArgs = 1;
    }
    return object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, kind, &parameters, &result, nullptr, nullptr);
}

inline HRESULT Get(IDispatch* object, const wchar_t* name, CVariant& result) {
    return Call(object, name, DISPATCH_PROPERTYGET, result);
}

// Creates the running (or a new) mail client's automation object "Outlook.Application"; null when there
// is none.
inline velmar::CComPtr<IDispatch> CreateOutlookApplication() {
    CLSID clsid{};
    IDispatch* application = nullptr;
    if (FAILED(CLSIDFromProgID(L"Outlook.Application", &clsid)) ||
        FAILED(CoCreateInstance(clsid, nullptr, CLSCTX_LOCAL_SERVER, IID_IDispatch,
                                reinterpret_cast<void**>(&application))))
        return {};
    return velmar::CComPtr<IDispatch>(application);
}

}  // namespace velmar::mail
