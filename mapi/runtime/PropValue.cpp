#include "mapi/runtime/PropValue.h"

#include <cstring>

#include "mapix.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

constexpr std::uint64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kSecondsFrom1601To1970 = 11'644'473'600;

bool IsStringType(ULONG type) {
    return type == PT_STRING8 || type == PT_UNICODE;
}

FILETIME ToFiletime(CFileTime time) {
    return FILETIME{static_cast<DWORD>(time.ticks & 0xFFFFFFFF), static_cast<DWORD>(time.ticks >> 32)};
}

// Copies bytes into a block chained to parent.
HRESULT CopyBytes(const void* bytes, size_t size, LPVOID parent, LPVOID* out) {
    if (size > 0xFFFFFFFFu) return MAPI_E_NOT_ENOUGH_MEMORY;
    if (const SCODE sc = MAPIAllocateMore(static_cast<ULONG>(size ? size : 1), parent, out); FAILED(sc))
        return sc;
    if (size) std::memcpy(*out, bytes, size);
    return S_OK;
}

}  // namespace

ULONG PropTypeOf(const PropData& data) {
    static constexpr ULONG kTypes[] = {PT_NULL,    PT_LONG,    PT_BOOLEAN, PT_I8,     PT_DOUBLE,
                                       PT_SYSTIME, PT_STRING8, PT_UNICODE, PT_BINARY, PT_MV_UNICODE};
    return kTypes[data.index()];
}

bool Answers(const CPropValue& value, ULONG tag) {
    if (PROP_ID(value.ulPropTag) != PROP_ID(tag)) return false;
    const ULONG wanted = PROP_TYPE(tag);
    const ULONG held = PropTypeOf(value.data);
    return wanted == PT_UNSPECIFIED || wanted == held || (IsStringType(wanted) && IsStringType(held));
}

bool ViewAs(const CPropValue& value, ULONG tag, SPropValue& out, CViewScratch& scratch) {
    const ULONG held = PropTypeOf(value.data);
    const ULONG type = PROP_TYPE(tag) == PT_UNSPECIFIED ? held : PROP_TYPE(tag);
    if (type != held && !(IsStringType(type) && IsStringType(held))) return false;
    out = SPropValue{};
    out.ulPropTag = PROP_TAG(type, PROP_ID(tag));
    switch (held) {
        case PT_NULL:
            out.Value.x = 0;
            break;
        case PT_LONG:
            out.Value.l = std::get<std::int32_t>(value.data);
            break;
        case PT_BOOLEAN:
            out.Value.b = std::get<bool>(value.data) ? 1 : 0;
            break;
        case PT_I8:
            out.Value.li.QuadPart = std::get<std::int64_t>(value.data);
            break;
        case PT_DOUBLE:
            out.Value.dbl = std::get<double>(value.data);
            break;
        case PT_SYSTIME:
            out.Value.ft = ToFiletime(std::get<CFileTime>(value.data));
            break;
        case PT_STRING8:
        case PT_UNICODE:
            if (type == PT_STRING8) {
                if (held == PT_UNICODE) scratch.narrow = WideToUtf8(std::get<std::wstring>(value.data));
                out.Value.lpszA = const_cast<LPSTR>(
                    held == PT_UNICODE ? scratch.narrow.c_str() : std::get<std::string>(value.data).c_str());
            } else {
                if (held == PT_STRING8) scratch.wide = Utf8ToWide(std::get<std::string>(value.data));
                out.Value.lpszW = const_cast<LPWSTR>(
                    held == PT_STRING8 ? scratch.wide.c_str() : std::get<std::wstring>(value.data).c_str());
            }
            break;
        case PT_BINARY: {
            const auto& bytes = std::get<std::vector<BYTE>>(value.data);
            out.Value.bin.cb = static_cast<ULONG>(bytes.size());
            out.Value.bin.lpb = const_cast<LPBYTE>(bytes.data());
            break;
        }
        case PT_MV_UNICODE:
            // Multi-valued strings are only copied (CopyToMapi), never viewed in place.
            return false;
    }
    return true;
}

HRESULT CopyToMapi(const CPropValue& value, ULONG tag, SPropValue& out, LPVOID parent) {
    if (PropTypeOf(value.data) == PT_MV_UNICODE) {
        if (PROP_TYPE(tag) != PT_UNSPECIFIED && PROP_TYPE(tag) != PT_MV_UNICODE) return MAPI_E_INVALID_TYPE;
        const auto& strings = std::get<std::vector<std::wstring>>(value.data);
        out = SPropValue{};
        out.ulPropTag = PROP_TAG(PT_MV_UNICODE, PROP_ID(tag));
        LPVOID array = nullptr;
        if (const SCODE sc =
                MAPIAllocateMore(static_cast<ULONG>(sizeof(LPWSTR) * (strings.size() + 1)), parent, &array);
            FAILED(sc))
            return sc;
        out.Value.MVszW.cValues = static_cast<ULONG>(strings.size());
        out.Value.MVszW.lppszW = static_cast<LPWSTR*>(array);
        for (size_t i = 0; i < strings.size(); ++i) {
            LPVOID copy = nullptr;
            if (const HRESULT hr =
                    CopyBytes(strings[i].c_str(), (strings[i].size() + 1) * sizeof(WCHAR), parent, &copy);
                FAILED(hr))
                return hr;
            out.Value.MVszW.lppszW[i] = static_cast<LPWSTR>(copy);
        }
        return S_OK;
    }
    CViewScratch scratch;
    SPropValue view;
    if (!ViewAs(value, tag, view, scratch)) return MAPI_E_INVALID_TYPE;
    out = view;
    LPVOID copy = nullptr;
    switch (PROP_TYPE(view.ulPropTag)) {
        case PT_STRING8:
            if (const HRESULT hr =
                    CopyBytes(view.Value.lpszA, std::strlen(view.Value.lpszA) + 1, parent, &copy);
                FAILED(hr))
                return hr;
            out.Value.lpszA = static_cast<LPSTR>(copy);
            break;
        case PT_UNICODE:
            if (const HRESULT hr = CopyBytes(
                    view.Value.lpszW, (std::wcslen(view.Value.lpszW) + 1) * sizeof(WCHAR), parent, &copy);
                FAILED(hr))
                return hr;
            out.Value.lpszW = static_cast<LPWSTR>(copy);
            break;
        case PT_BINARY:
            if (const HRESULT hr = CopyBytes(view.Value.bin.lpb, view.Value.bin.cb, parent, &copy);
                FAILED(hr))
                return hr;
            out.Value.bin.lpb = static_cast<LPBYTE>(copy);
            break;
        default:
            break;
    }
    return S_OK;
}

SPropValue ErrorValue(ULONG tag, SCODE error) {
    SPropValue value{};
    value.ulPropTag = CHANGE_PROP_TYPE(tag, PT_ERROR);
    value.Value.err = error;
    return value;
}

CFileTime FileTimeFromUnix(std::int64_t seconds, std::uint32_t nanoseconds) {
    if (seconds < -kSecondsFrom1601To1970) return CFileTime{0};
    return CFileTime{static_cast<std::uint64_t>(seconds + kSecondsFrom1601To1970) * kTicksPerSecond +
                     nanoseconds / 100};
}

std::int64_t UnixFromFileTime(CFileTime time) {
    return static_cast<std::int64_t>(time.ticks / kTicksPerSecond) - kSecondsFrom1601To1970;
}

}  // namespace velmar::mapi
