#include "mapi/provider/AddressBook.h"

#include <cstring>
#include <cwctype>

#include "mapi/mime/AddressList.h"
#include "mapi/provider/DraftContent.h"
#include "mapi/provider/EntryId.h"
#include "mapi/runtime/Guarded.h"
#include "mapitags.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

bool SameName(const std::wstring& a, const std::wstring& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::towlower(static_cast<wint_t>(a[i])) != std::towlower(static_cast<wint_t>(b[i])))
            return false;
    return true;
}

// The values of a resolved entry: its own values but those the resolution sets, then the resolution's, in
// one new MAPI buffer.
HRESULT ResolvedValues(const ADRENTRY& entry, const CResolvedName& resolved, ULONG* count,
                       LPSPropValue* values) {
    std::vector<CPropValue> props;
    for (ULONG i = 0; entry.rgPropVals && i < entry.cValues; ++i)
        if (std::optional<CPropValue> value = FromMapi(entry.rgPropVals[i]))
            SetValue(props, std::move(*value));
    SetValue(props, {PR_DISPLAY_NAME_W, resolved.displayName});
    SetValue(props, {PR_EMAIL_ADDRESS_W, resolved.address});
    SetValue(props, {PR_SMTP_ADDRESS_W, resolved.address});
    SetValue(props, {PR_ADDRTYPE_W, std::wstring(L"SMTP")});
    SetValue(props, {PR_ENTRYID, MakeOneOffEntryId(resolved.displayName, L"SMTP", resolved.address)});
    SetValue(props, {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_MAILUSER)});
    LPVOID block = nullptr;
    if (const SCODE sc = MAPIAllocateBuffer(static_cast<ULONG>(props.size() * sizeof(SPropValue)), &block);
        FAILED(sc))
        return sc;
    auto* out = static_cast<LPSPropValue>(block);
    for (size_t i = 0; i < props.size(); ++i) {
        if (const HRESULT hr = CopyToMapi(props[i], props[i].ulPropTag, out[i], block); FAILED(hr)) {
            MAPIFreeBuffer(block);
            return hr;
        }
    }
    *count = static_cast<ULONG>(props.size());
    *values = out;
    return S_OK;
}

std::wstring EntryText(const ADRENTRY& entry, bool unicode) {
    for (ULONG i = 0; entry.rgPropVals && i < entry.cValues; ++i) {
        const SPropValue& value = entry.rgPropVals[i];
        if (value.ulPropTag == PR_DISPLAY_NAME_W && unicode && value.Value.lpszW) return value.Value.lpszW;
        if (value.ulPropTag == PR_DISPLAY_NAME_A && value.Value.lpszA)
            return Utf8ToWide(SanitizeUtf8(value.Value.lpszA));
        if (value.ulPropTag == PR_DISPLAY_NAME_W && value.Value.lpszW) return value.Value.lpszW;
    }
    return {};
}

bool IsResolved(const ADRENTRY& entry) {
    for (ULONG i = 0; entry.rgPropVals && i < entry.cValues; ++i)
        if (entry.rgPropVals[i].ulPropTag == PR_ENTRYID) return true;
    return false;
}

class CAddrBook : public CMapiProp<IAddrBook> {
public:
    explicit CAddrBook(CProfile profile) : m_profile(std::move(profile)) {}

    HRESULT OpenEntry(ULONG, LPENTRYID, LPCIID, ULONG, ULONG*, LPUNKNOWN* lppUnk) override {
        if (lppUnk) *lppUnk = nullptr;
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT CompareEntryIDs(ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG, ULONG*) override {
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT Advise(ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT Unadvise(ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT CreateOneOff(LPTSTR, LPTSTR, LPTSTR, ULONG, ULONG*, LPENTRYID*) override {
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT NewEntry(ULONG_PTR, ULONG, ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG*, LPENTRYID*) override {
        return MAPI_E_NO_SUPPORT;
    }
    // Each entry not yet resolved is resolved when its display name names one address; the others stay as
    // they are, and the call then says MAPI_E_NOT_FOUND.
    HRESULT ResolveName(ULONG_PTR, ULONG ulFlags, LPTSTR, LPADRLIST lpAdrList) override {
        if (!lpAdrList) return MAPI_E_INVALID_PARAMETER;
        bool allResolved = true;
        return Guarded([&]() -> HRESULT {
            for (ULONG i = 0; i < lpAdrList->cEntries; ++i) {
                ADRENTRY& entry = lpAdrList->aEntries[i];
                if (IsResolved(entry)) continue;
                const std::optional<CResolvedName> resolved =
                    ResolveRecipientText(m_profile, EntryText(entry, (ulFlags & MAPI_UNICODE) != 0));
                if (!resolved) {
                    allResolved = false;
                    continue;
                }
                ULONG count = 0;
                LPSPropValue values = nullptr;
                if (const HRESULT hr = ResolvedValues(entry, *resolved, &count, &values); FAILED(hr))
                    return hr;
                MAPIFreeBuffer(entry.rgPropVals);
                entry.rgPropVals = values;
                entry.cValues = count;
            }
            return allResolved ? S_OK : MAPI_E_NOT_FOUND;
        });
    }
    HRESULT Address(ULONG_PTR*, LPADRPARM, LPADRLIST*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT Details(ULONG_PTR*, LPFNDISMISS, LPVOID, ULONG, LPENTRYID, LPFNBUTTON, LPVOID, LPTSTR,
                    ULONG) override {
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT RecipOptions(ULONG_PTR, ULONG, LPADRENTRY) override { return MAPI_E_NO_SUPPORT; }
    HRESULT QueryDefaultRecipOpt(LPTSTR, ULONG, ULONG*, LPSPropValue*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT GetPAB(ULONG*, LPENTRYID*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT SetPAB(ULONG, LPENTRYID) override { return MAPI_E_NO_SUPPORT; }
    HRESULT GetDefaultDir(ULONG*, LPENTRYID*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT SetDefaultDir(ULONG, LPENTRYID) override { return MAPI_E_NO_SUPPORT; }
    HRESULT GetSearchPath(ULONG, LPSRowSet*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT SetSearchPath(ULONG, LPSRowSet) override { return MAPI_E_NO_SUPPORT; }
    HRESULT PrepareRecips(ULONG, LPSPropTagArray, LPADRLIST) override { return MAPI_E_NO_SUPPORT; }

protected:
    std::vector<CPropValue> Properties() const override {
        return {{PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_ADDRBOOK)}};
    }
    bool SupportsInterface(REFIID riid) const override {
        return IsOneOf(riid, {IID_IAddrBook, IID_IMAPIProp});
    }

private:
    CProfile m_profile;
};

}  // namespace

std::optional<CResolvedName> ResolveRecipientText(const CProfile& profile, const std::wstring& text) {
    if (text.empty()) return std::nullopt;
    const std::vector<CMailboxText> parsed = ParseAddressList(WideToUtf8(text), "utf-8");
    if (parsed.size() == 1 && parsed.front().address.find('@') != std::string::npos) {
        const std::wstring address = Utf8ToWide(parsed.front().address);
        const std::wstring name = Utf8ToWide(parsed.front().name);
        return CResolvedName{name.empty() ? address : name, address};
    }
    std::optional<CResolvedName> found;
    const auto consider = [&](const std::wstring& name, const std::wstring& address) {
        if (address.empty() || !SameName(name, text)) return true;
        if (found && !SameName(found->address, address)) return false;  // ambiguous
        found = CResolvedName{name, address};
        return true;
    };
    for (const CStoreConfig& store : profile.stores)
        if (!consider(OwnerName(store), store.ownerAddress)) return std::nullopt;
    for (const CContact& contact : profile.contacts)
        if (!consider(contact.name, contact.address)) return std::nullopt;
    return found;
}

CComPtr<IAddrBook> MakeAddressBook(const CProfile& profile) {
    return CComPtr<IAddrBook>(MakeObject<CAddrBook>(profile).Detach());
}

}  // namespace velmar::mapi
