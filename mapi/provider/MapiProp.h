// IMAPIProp for the objects of this MAPI: properties come from a list the object builds, GetProps copies
// them into MAPI buffers, and whatever an object does not support answers MAPI_E_NO_SUPPORT.
#pragma once

#include <new>
#include <vector>

#include "mapi/runtime/ComObject.h"
#include "mapi/runtime/Guarded.h"
#include "mapi/runtime/PropValue.h"
#include "mapix.h"

namespace velmar::mapi {

// Answers GetProps for tags (all values when tags is null) from values. A tag without a value comes back
// as PT_ERROR/MAPI_E_NOT_FOUND and the call returns MAPI_W_ERRORS_RETURNED.
HRESULT GetPropsFrom(const std::vector<CPropValue>& values, LPSPropTagArray tags, ULONG* lpcValues,
                     LPSPropValue* lppPropArray);
// Sets the values that answer tags onto destination, one SetProps for all of them.
HRESULT CopyPropsTo(const std::vector<CPropValue>& values, LPSPropTagArray tags, IMAPIProp* destination);
// The tags of values, in a MAPI buffer.
HRESULT GetPropListFrom(const std::vector<CPropValue>& values, LPSPropTagArray* lppPropTagArray);

template <class Interface>
class CMapiProp : public CComObject<Interface> {
public:
    HRESULT GetLastError(HRESULT, ULONG, LPMAPIERROR* lppMAPIError) override {
        if (lppMAPIError) *lppMAPIError = nullptr;
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT SaveChanges(ULONG) override { return S_OK; }
    HRESULT GetProps(LPSPropTagArray lpPropTagArray, ULONG, ULONG* lpcValues,
                     LPSPropValue* lppPropArray) override {
        return Guarded(
            [&]() -> HRESULT { return GetPropsFrom(Properties(), lpPropTagArray, lpcValues, lppPropArray); });
    }
    HRESULT GetPropList(ULONG, LPSPropTagArray* lppPropTagArray) override {
        return Guarded([&]() -> HRESULT { return GetPropListFrom(Properties(), lppPropTagArray); });
    }
    HRESULT OpenProperty(ULONG, LPCIID, ULONG, ULONG, LPUNKNOWN* lppUnk) override {
        if (lppUnk) *lppUnk = nullptr;
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT SetProps(ULONG, LPSPropValue, LPSPropProblemArray* lppProblems) override {
        if (lppProblems) *lppProblems = nullptr;
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT DeleteProps(LPSPropTagArray, LPSPropProblemArray* lppProblems) override {
        if (lppProblems) *lppProblems = nullptr;
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT CopyTo(ULONG, LPCIID, LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                   LPSPropProblemArray* lppProblems) override {
        if (lppProblems) *lppProblems = nullptr;
        return MAPI_E_NO_SUPPORT;
    }
    // Copies the listed properties this object has onto the destination (an IMAPIProp of whatever
    // interface lpInterface names) with its SetProps; those it lacks are left out.
    HRESULT CopyProps(LPSPropTagArray lpIncludeProps, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID lpDestObj,
                      ULONG, LPSPropProblemArray* lppProblems) override {
        if (lppProblems) *lppProblems = nullptr;
        return Guarded([&]() -> HRESULT {
            return CopyPropsTo(Properties(), lpIncludeProps, static_cast<IMAPIProp*>(lpDestObj));
        });
    }
    HRESULT GetNamesFromIDs(LPSPropTagArray*, LPGUID, ULONG, ULONG*, LPMAPINAMEID**) override {
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT GetIDsFromNames(ULONG, LPMAPINAMEID*, ULONG, LPSPropTagArray*) override {
        return MAPI_E_NO_SUPPORT;
    }

protected:
    // The object's properties as they are now.
    virtual std::vector<CPropValue> Properties() const = 0;
};

}  // namespace velmar::mapi
