// Property values as this MAPI keeps them in C++ (owned, typed), and their conversion to MAPI's
// SPropValue. 8-bit strings are UTF-8: the code page of every POSIX system we run on.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "mapidefs.h"

namespace velmar::mapi {

struct CFileTime {
    std::uint64_t ticks = 0;  // 100 ns since 1601-01-01 UTC
    bool operator==(const CFileTime&) const = default;
};

using PropData = std::variant<std::monostate,              // PT_NULL
                              std::int32_t,                // PT_LONG
                              bool,                        // PT_BOOLEAN
                              std::int64_t,                // PT_I8
                              double,                      // PT_DOUBLE
                              CFileTime,                   // PT_SYSTIME
                              std::string,                 // PT_STRING8 (UTF-8)
                              std::wstring,                // PT_UNICODE
                              std::vector<BYTE>,           // PT_BINARY
                              std::vector<std::wstring>>;  // PT_MV_UNICODE

struct CPropValue {
    ULONG ulPropTag;
    PropData data;
};

// The property type that data holds.
ULONG PropTypeOf(const PropData& data);

// Whether a stored value answers a request for tag: same id, and the same type, PT_UNSPECIFIED, or the
// other width of a string (PT_STRING8 and PT_UNICODE convert into each other).
bool Answers(const CPropValue& value, ULONG tag);

// Fills out with value as the type tag asks for (its own type for PT_UNSPECIFIED). Strings and binaries
// point into value, or into scratch when a string had to change width; nothing is allocated in MAPI
// buffers. Returns false when the types do not convert.
struct CViewScratch {
    std::string narrow;
    std::wstring wide;
};
bool ViewAs(const CPropValue& value, ULONG tag, SPropValue& out, CViewScratch& scratch);

// Copies value into out as tag asks, with strings and binaries in blocks chained to parent by
// MAPIAllocateMore. Fails with MAPI_E_NOT_ENOUGH_MEMORY, or MAPI_E_INVALID_TYPE when the types do not
// convert.
HRESULT CopyToMapi(const CPropValue& value, ULONG tag, SPropValue& out, LPVOID parent);

// A PT_ERROR value for tag, as a missing column or property reads.
SPropValue ErrorValue(ULONG tag, SCODE error);

// 100 ns ticks since 1601 from seconds since 1970, and back.
CFileTime FileTimeFromUnix(std::int64_t seconds, std::uint32_t nanoseconds = 0);
std::int64_t UnixFromFileTime(CFileTime time);

}  // namespace velmar::mapi
