// Helpers for tests that drive our MAPI as a client does: through its entry points and interfaces.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mapiutil.h"
#include "support/ComPtr.h"

namespace velmar::test {

// A property array from GetProps or HrGetOneProp, freed with MAPIFreeBuffer.
struct CPropsHolder {
    ULONG count = 0;
    LPSPropValue values = nullptr;
    ~CPropsHolder() { MAPIFreeBuffer(values); }
    const SPropValue* Find(ULONG tag) const { return PpropFindProp(values, count, tag); }
};

struct CRowsHolder {
    LPSRowSet rows = nullptr;
    ~CRowsHolder() { FreeProws(rows); }
};

// Row i of a row set. SRowSet declares its rows as an array of one, the C idiom for "as many as there
// are"; a variable index says so to the compiler.
inline const SRow& RowAt(const SRowSet& rows, size_t i) {
    return rows.aRow[i];
}

inline std::wstring WideProp(IMAPIProp* object, ULONG tag) {
    LPSPropValue value = nullptr;
    if (FAILED(HrGetOneProp(object, tag, &value))) return L"<missing>";
    std::wstring text = value->Value.lpszW;
    MAPIFreeBuffer(value);
    return text;
}

inline LONG LongProp(IMAPIProp* object, ULONG tag, LONG missing = -1) {
    LPSPropValue value = nullptr;
    if (FAILED(HrGetOneProp(object, tag, &value))) return missing;
    const LONG result = value->Value.l;
    MAPIFreeBuffer(value);
    return result;
}

inline std::vector<BYTE> BinaryProp(IMAPIProp* object, ULONG tag) {
    LPSPropValue value = nullptr;
    if (FAILED(HrGetOneProp(object, tag, &value))) return {};
    std::vector<BYTE> bytes(value->Value.bin.lpb, value->Value.bin.lpb + value->Value.bin.cb);
    MAPIFreeBuffer(value);
    return bytes;
}

// Opens an entry of a session or store by its id, as the interface T; null when that fails. With an
// expected type, the type OpenEntry reports must be that.
template <class T, class TContainer>
CComPtr<T> OpenEntryAs(TContainer* container, ULONG cb, const BYTE* id, ULONG flags = MAPI_BEST_ACCESS,
                       ULONG expectedType = 0) {
    ULONG type = 0;
    LPUNKNOWN object = nullptr;
    if (FAILED(container->OpenEntry(cb, reinterpret_cast<LPENTRYID>(const_cast<BYTE*>(id)), nullptr, flags,
                                    &type, &object)))
        return CComPtr<T>();
    EXPECT_TRUE(!expectedType || type == expectedType) << "type " << type << ", not " << expectedType;
    return CComPtr<T>(static_cast<T*>(object));
}
template <class T, class TContainer>
CComPtr<T> OpenEntryAs(TContainer* container, const std::vector<BYTE>& id, ULONG flags = MAPI_BEST_ACCESS,
                       ULONG expectedType = 0) {
    return OpenEntryAs<T>(container, static_cast<ULONG>(id.size()), id.data(), flags, expectedType);
}

// The restriction the mail layer makes to look a message up: equality on PR_INTERNET_MESSAGE_ID_A.
struct CMessageIdRestriction {
    explicit CMessageIdRestriction(const char* messageId) {
        value.ulPropTag = PR_INTERNET_MESSAGE_ID_A;
        value.Value.lpszA = const_cast<LPSTR>(messageId);
        restriction.rt = RES_PROPERTY;
        restriction.res.resProperty = {RELOP_EQ, PR_INTERNET_MESSAGE_ID_A, &value};
    }
    CMessageIdRestriction(const CMessageIdRestriction&) = delete;
    SRestriction* Get() { return &restriction; }
    SPropValue value{};
    SRestriction restriction{};
};

inline std::string ReadStream(IStream* stream) {
    STATSTG stat{};
    if (FAILED(stream->Stat(&stat, STATFLAG_NONAME))) return "<stat failed>";
    std::string bytes(static_cast<size_t>(stat.cbSize.QuadPart), '\0');
    ULONG got = 0;
    if (FAILED(stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &got))) return "<read failed>";
    bytes.resize(got);
    return bytes;
}

// The bytes of a property opened as a stream (an attachment's PR_ATTACH_DATA_BIN, say); "<not opened>"
// when it cannot be.
inline std::string StreamProp(IMAPIProp* object, ULONG tag) {
    LPUNKNOWN unknown = nullptr;
    if (object->OpenProperty(tag, &IID_IStream, 0, 0, &unknown) != S_OK) return "<not opened>";
    CComPtr<IStream> stream(static_cast<IStream*>(unknown));
    return ReadStream(stream.get());
}

}  // namespace velmar::test
