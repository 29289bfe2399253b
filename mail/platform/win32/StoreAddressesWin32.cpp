// The owners of the stores, on Windows: asked of a running Outlook through its automation interface, by
// display name of each top-level folder's store.
#include "mail/VelmarMapi.h"
#include "mail/platform/win32/Automation.h"

using velmar::mail::Call;
using velmar::mail::CVariant;
using velmar::mail::Get;

std::map<std::wstring, std::wstring> CVelmarMapi::StoreAddresses() {
    std::map<std::wstring, std::wstring> addresses;
    AddTrace(L"CVelmarMapi::OpenMessageStoreTable CreateDispatch");
    const velmar::CComPtr<IDispatch> application = velmar::mail::CreateOutlookApplication();
    if (!application) return addresses;
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
