#include "mapi/provider/MapiProp.h"

namespace velmar::mapi {

HRESULT GetPropsFrom(const std::vector<CPropValue>& values, LPSPropTagArray tags, ULONG* lpcValues,
                     LPSPropValue* lppPropArray) {
    if (!lpcValues || !lppPropArray) return MAPI_E_INVALID_PARAMETER;
    *lpcValues = 0;
    *lppPropArray = nullptr;
    std::vector<ULONG> wanted;
    if (tags) {
        wanted.assign(tags->aulPropTag, tags->aulPropTag + tags->cValues);
    } else {
        for (const CPropValue& value : values) wanted.push_back(value.ulPropTag);
    }
    LPVOID block = nullptr;
    if (const SCODE sc =
            MAPIAllocateBuffer(static_cast<ULONG>(sizeof(SPropValue) * (wanted.size() + 1)), &block);
        FAILED(sc))
        return sc;
    auto* out = static_cast<LPSPropValue>(block);
    HRESULT result = S_OK;
    for (size_t i = 0; i < wanted.size(); ++i) {
        const CPropValue* found = nullptr;
        for (const CPropValue& value : values)
            if (Answers(value, wanted[i])) {
                found = &value;
                break;
            }
        HRESULT hr = found ? CopyToMapi(*found, wanted[i], out[i], block) : MAPI_E_NOT_FOUND;
        if (hr == MAPI_E_NOT_ENOUGH_MEMORY) {
            MAPIFreeBuffer(block);
            return hr;
        }
        if (FAILED(hr)) {
            out[i] = ErrorValue(wanted[i], hr);
            result = MAPI_W_ERRORS_RETURNED;
        }
    }
    *lpcValues = static_cast<ULONG>(wanted.size());
    *lppPropArray = out;
    return result;
}

HRESULT GetPropListFrom(const std::vector<CPropValue>& values, LPSPropTagArray* lppPropTagArray) {
    if (!lppPropTagArray) return MAPI_E_INVALID_PARAMETER;
    *lppPropTagArray = nullptr;
    LPVOID block = nullptr;
    if (const SCODE sc =
            MAPIAllocateBuffer(static_cast<ULONG>(CbNewSPropTagArray(values.size() + 1)), &block);
        FAILED(sc))
        return sc;
    auto* tags = static_cast<LPSPropTagArray>(block);
    tags->cValues = static_cast<ULONG>(values.size());
    for (size_t i = 0; i < values.size(); ++i)
        tags->aulPropTag[i] = PROP_TAG(PropTypeOf(values[i].data), PROP_ID(values[i].ulPropTag));
    *lppPropTagArray = tags;
    return S_OK;
}

HRESULT CopyPropsTo(const std::vector<CPropValue>& values, LPSPropTagArray tags, IMAPIProp* destination) {
    if (!tags || !destination) return MAPI_E_INVALID_PARAMETER;
    std::vector<SPropValue> copies;
    std::vector<CViewScratch> scratch(tags->cValues);
    for (ULONG i = 0; i < tags->cValues; ++i) {
        const ULONG tag = tags->aulPropTag[i];
        for (const CPropValue& value : values) {
            SPropValue view{};
            if (Answers(value, tag) && ViewAs(value, tag, view, scratch[i])) {
                copies.push_back(view);
                break;
            }
        }
    }
    if (copies.empty()) return S_OK;
    return destination->SetProps(static_cast<ULONG>(copies.size()), copies.data(), nullptr);
}

}  // namespace velmar::mapi
