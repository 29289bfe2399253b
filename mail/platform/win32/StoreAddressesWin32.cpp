// The owners of the stores, on Windows: asked of a running Outlook through its automation interface, by
// display name of each top-level folder's store.
#include <windows.h>
#include <oleauto.h>

#include "mail/VelmarMapi.h"

namespace {

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
HRESULT Call(IDispatch* object, const wchar_t* name, WORD kind, CVariant& result,
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

HRESULT Get(IDispatch* object, const wchar_t* name, CVariant& result) {
    return Call(object, name, DISPATCH_PROPERTYGET, result);
}

}  // namespace

std::map<std::wstring, std::wstring> CVelmarMapi::StoreAddresses() {
    std::map<std::wstring, std::wstring> addresses;
    AddTrace(L"CVelmarMapi::OpenMessageStoreTable CreateDispatch");
    CLSID clsid{};
    IDispatch* rawApplication = nullptr;
    if (FAILED(CLSIDFromProgID(L"Outlook.Application", &clsid)) ||
        FAILED(CoCreateInstance(clsid, nullptr, CLSCTX_LOCAL_SERVER, IID_IDispatch,
                                reinterpret_cast<void**>(&rawApplication))))
        return addresses;
    velmar::CComPtr<IDispatch> application(rawApplication);
    AddTrace(L"CVelmarMapi::OpenMessageStoreTable get_Session");
    CVariant session;
    if (FAILED(Get(application.get(), L"Session", session)) || !session.Dispatch()) return addresses;
    CVariant folders;
    CVariant count;
    if (FAILED(Get(session.Dispatch(), L"Folders", folders)) ||
        FAILED(Get(folders.Dispatch(), L"Count", count)))
        return addresses;
    wchar_t line[64] = {};
    std::swprintf(line, 64, L"Found Folders Count: %d", count.get().vt == VT_I4 ? count.get().lVal : 0);
    AddTrace(line);
    auto folder = std::make_unique<CVariant>();
    for (HRESULT hr = Call(folders.Dispatch(), L"GetFirst", DISPATCH_METHOD, *folder);
         SUCCEEDED(hr) && folder->Dispatch(); folder = std::make_unique<CVariant>(),
                 hr = Call(folders.Dispatch(), L"GetNext", DISPATCH_METHOD, *folder)) {
        CVariant name, store, displayName, accessor, owner, ownerText, entry, user, smtp;
        if (FAILED(Get(folder->Dispatch(), L"Name", name))) continue;
        AddTrace(L"Description: " + name.Text());
        if (FAILED(Get(folder->Dispatch(), L"Store", store)) ||
            FAILED(Get(store.Dispatch(), L"DisplayName", displayName)))
            continue;
        AddTrace(L"Store DisplayName: " + displayName.Text());
        if (FAILED(Get(store.Dispatch(), L"PropertyAccessor", accessor))) continue;
        AddTrace(L"Got PropertyAccessor ");
        VARIANT tag;
        tag.vt = VT_BSTR;
        tag.bstrVal = SysAllocString(L"http://schemas.microsoft.com/mapi/proptag/0x661B0102");
        const HRESULT hrOwner = Call(accessor.Dispatch(), L"GetProperty", DISPATCH_METHOD, owner, &tag);
        SysFreeString(tag.bstrVal);
        if (FAILED(hrOwner)) continue;
        AddTrace(L"Got Property: ");
        if (FAILED(Call(accessor.Dispatch(), L"BinaryToString", DISPATCH_METHOD, ownerText, &owner.get())))
            continue;
        if (FAILED(
                Call(session.Dispatch(), L"GetAddressEntryFromID", DISPATCH_METHOD, entry, &ownerText.get())))
            continue;
        AddTrace(L"Got AddressEntry");
        if (FAILED(Call(entry.Dispatch(), L"GetExchangeUser", DISPATCH_METHOD, user)) || !user.Dispatch())
            continue;
        AddTrace(L"Got ExchangeUser ");
        if (FAILED(Get(user.Dispatch(), L"PrimarySmtpAddress", smtp))) continue;
        AddTrace(L"Store email: " + smtp.Text());
        addresses[displayName.Text()] = smtp.Text();
    }
    AddTrace(L"Found Folders finished");
    return addresses;
}
