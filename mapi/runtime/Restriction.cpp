#include "mapi/runtime/Restriction.h"

#include <algorithm>
#include <cstring>
#include <cwctype>
#include <span>
#include <string>

#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

constexpr ULONG kFuzzyLevelMask = 0x0000FFFF;
constexpr ULONG kFuzzyFlags = FL_IGNORECASE | FL_IGNORENONSPACE | FL_LOOSE;

bool IsComparableType(ULONG type) {
    switch (type) {
        case PT_LONG:
        case PT_I8:
        case PT_BOOLEAN:
        case PT_DOUBLE:
        case PT_SYSTIME:
        case PT_STRING8:
        case PT_UNICODE:
        case PT_BINARY:
            return true;
        default:
            return false;
    }
}

// The pointers a value of one of the comparable types carries must be usable.
HRESULT ValidateValue(const SPropValue* value) {
    if (!value) return MAPI_E_INVALID_PARAMETER;
    switch (PROP_TYPE(value->ulPropTag)) {
        case PT_STRING8:
            return value->Value.lpszA ? S_OK : MAPI_E_INVALID_PARAMETER;
        case PT_UNICODE:
            return value->Value.lpszW ? S_OK : MAPI_E_INVALID_PARAMETER;
        case PT_BINARY:
            return value->Value.bin.cb == 0 || value->Value.bin.lpb ? S_OK : MAPI_E_INVALID_PARAMETER;
        default:
            return S_OK;
    }
}

class CValidator {
public:
    HRESULT Visit(const SRestriction& restriction, unsigned depth) {
        if (depth > kMaxRestrictionDepth || ++m_nodes > kMaxRestrictionNodes) return MAPI_E_TOO_COMPLEX;
        switch (restriction.rt) {
            case RES_AND:
                return VisitList(restriction.res.resAnd.cRes, restriction.res.resAnd.lpRes, depth);
            case RES_OR:
                return VisitList(restriction.res.resOr.cRes, restriction.res.resOr.lpRes, depth);
            case RES_NOT:
                if (!restriction.res.resNot.lpRes) return MAPI_E_INVALID_PARAMETER;
                return Visit(*restriction.res.resNot.lpRes, depth + 1);
            case RES_EXIST:
                return S_OK;
            case RES_PROPERTY:
                return VisitProperty(restriction.res.resProperty);
            case RES_CONTENT:
                return VisitContent(restriction.res.resContent);
            default:
                return MAPI_E_TOO_COMPLEX;
        }
    }

private:
    HRESULT VisitList(ULONG count, const SRestriction* children, unsigned depth) {
        if (count > 0 && !children) return MAPI_E_INVALID_PARAMETER;
        for (ULONG i = 0; i < count; ++i)
            if (const HRESULT hr = Visit(children[i], depth + 1); FAILED(hr)) return hr;
        return S_OK;
    }
    static HRESULT VisitProperty(const SPropertyRestriction& restriction) {
        if (restriction.relop > RELOP_NE) return MAPI_E_TOO_COMPLEX;  // RELOP_RE and beyond
        if (const HRESULT hr = ValidateValue(restriction.lpProp); FAILED(hr)) return hr;
        if (!IsComparableType(PROP_TYPE(restriction.lpProp->ulPropTag)) || (restriction.ulPropTag & MV_FLAG))
            return MAPI_E_TOO_COMPLEX;
        return S_OK;
    }
    static HRESULT VisitContent(const SContentRestriction& restriction) {
        const ULONG level = restriction.ulFuzzyLevel & kFuzzyLevelMask;
        if (level > FL_PREFIX || (restriction.ulFuzzyLevel & ~(kFuzzyLevelMask | kFuzzyFlags)))
            return MAPI_E_TOO_COMPLEX;
        if (const HRESULT hr = ValidateValue(restriction.lpProp); FAILED(hr)) return hr;
        const ULONG type = PROP_TYPE(restriction.lpProp->ulPropTag);
        if ((type != PT_STRING8 && type != PT_UNICODE && type != PT_BINARY) ||
            (restriction.ulPropTag & MV_FLAG))
            return MAPI_E_TOO_COMPLEX;
        return S_OK;
    }

    size_t m_nodes = 0;
};

std::uint64_t Ticks(const FILETIME& time) {
    return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

std::span<const BYTE> Bytes(const SBinary& bin) {
    return {bin.lpb, bin.cb};
}

// Lower case that does not depend on the process locale: the service usually runs in the C locale, where
// towlower folds ASCII only, so the alphabets most mail is written in are folded here.
wchar_t FoldCase(wchar_t c) {
    const auto u = static_cast<std::uint32_t>(c);
    const auto plus = [c](int offset) { return static_cast<wchar_t>(c + offset); };
    if (u >= 'A' && u <= 'Z') return plus(0x20);
    if (u < 0x80) return c;
    if (u >= 0xC0 && u <= 0xDE && u != 0xD7) return plus(0x20);  // Latin-1
    if (u >= 0x100 && u <= 0x17F) {  // Latin Extended-A: capital and small letters alternate
        if (u == 0x130) return L'i';
        if (u == 0x178) return static_cast<wchar_t>(0xFF);
        if (u == 0x131 || u == 0x138 || u == 0x149 || u == 0x17F) return c;  // no capital form
        const bool capitalIsOdd = (u >= 0x139 && u <= 0x148) || u >= 0x179;
        return (u % 2 == 1) == capitalIsOdd ? plus(1) : c;
    }
    if (u >= 0x391 && u <= 0x3AB && u != 0x3A2) return plus(0x20);  // Greek
    if (u >= 0x410 && u <= 0x42F) return plus(0x20);                // Cyrillic
    if (u >= 0x400 && u <= 0x40F) return plus(0x50);
    return static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c)));
}

template <class T>
bool MatchesLevel(ULONG level, std::span<const T> text, std::span<const T> pattern) {
    switch (level) {
        case FL_FULLSTRING:
            return std::equal(text.begin(), text.end(), pattern.begin(), pattern.end());
        case FL_PREFIX:
            return text.size() >= pattern.size() && std::equal(pattern.begin(), pattern.end(), text.begin());
        default:
            return pattern.empty() ||
                   std::search(text.begin(), text.end(), pattern.begin(), pattern.end()) != text.end();
    }
}

bool SatisfiesRelop(ULONG relop, std::weak_ordering order) {
    switch (relop) {
        case RELOP_LT:
            return order < 0;
        case RELOP_LE:
            return order <= 0;
        case RELOP_GT:
            return order > 0;
        case RELOP_GE:
            return order >= 0;
        case RELOP_EQ:
            return order == 0;
        case RELOP_NE:
            return order != 0;
        default:
            return false;
    }
}

bool Matches(const SRestriction& restriction, const ITableRows& rows, size_t row, unsigned depth);

bool MatchAnd(const SAndRestriction& restriction, const ITableRows& rows, size_t row, unsigned depth) {
    for (ULONG i = 0; i < restriction.cRes; ++i)
        if (!Matches(restriction.lpRes[i], rows, row, depth + 1)) return false;
    return true;
}

bool MatchOr(const SOrRestriction& restriction, const ITableRows& rows, size_t row, unsigned depth) {
    for (ULONG i = 0; i < restriction.cRes; ++i)
        if (Matches(restriction.lpRes[i], rows, row, depth + 1)) return true;
    return false;
}

bool MatchNot(const SNotRestriction& restriction, const ITableRows& rows, size_t row, unsigned depth) {
    return !Matches(*restriction.lpRes, rows, row, depth + 1);
}

bool MatchExist(const SExistRestriction& restriction, const ITableRows& rows, size_t row) {
    CPropValue slot{};
    return rows.Find(row, restriction.ulPropTag, slot) != nullptr;
}

bool MatchProperty(const SPropertyRestriction& restriction, const ITableRows& rows, size_t row) {
    CPropValue slot{};
    const CPropValue* stored = rows.Find(row, restriction.ulPropTag, slot);
    if (!stored) return false;
    // Viewed as the type of the value compared against, so 8-bit and wide strings meet at one width.
    CViewScratch scratch;
    SPropValue view;
    if (!ViewAs(*stored, restriction.lpProp->ulPropTag, view, scratch)) return false;
    return SatisfiesRelop(restriction.relop, CompareProps(view, *restriction.lpProp));
}

bool MatchContent(const SContentRestriction& restriction, const ITableRows& rows, size_t row) {
    CPropValue slot{};
    const CPropValue* stored = rows.Find(row, restriction.ulPropTag, slot);
    if (!stored) return false;
    const ULONG level = restriction.ulFuzzyLevel & kFuzzyLevelMask;
    const SPropValue& pattern = *restriction.lpProp;
    CViewScratch scratch;
    SPropValue view;
    if (PROP_TYPE(pattern.ulPropTag) == PT_BINARY) {
        if (!ViewAs(*stored, PT_BINARY, view, scratch)) return false;
        return MatchesLevel(level, Bytes(view.Value.bin), Bytes(pattern.Value.bin));
    }
    if (!ViewAs(*stored, PT_UNICODE, view, scratch)) return false;
    std::wstring text = view.Value.lpszW;
    std::wstring wanted = PROP_TYPE(pattern.ulPropTag) == PT_UNICODE ? std::wstring(pattern.Value.lpszW)
                                                                     : Utf8ToWide(pattern.Value.lpszA);
    // We have no accent folding; ignoring non-spacing marks and loose matching at least ignore case.
    if (restriction.ulFuzzyLevel & kFuzzyFlags) {
        std::transform(text.begin(), text.end(), text.begin(), FoldCase);
        std::transform(wanted.begin(), wanted.end(), wanted.begin(), FoldCase);
    }
    return MatchesLevel(level, std::span<const wchar_t>(text), std::span<const wchar_t>(wanted));
}

bool Matches(const SRestriction& restriction, const ITableRows& rows, size_t row, unsigned depth) {
    if (depth > kMaxRestrictionDepth) return false;  // validated restrictions never get here
    switch (restriction.rt) {
        case RES_AND:
            return MatchAnd(restriction.res.resAnd, rows, row, depth);
        case RES_OR:
            return MatchOr(restriction.res.resOr, rows, row, depth);
        case RES_NOT:
            return MatchNot(restriction.res.resNot, rows, row, depth);
        case RES_EXIST:
            return MatchExist(restriction.res.resExist, rows, row);
        case RES_PROPERTY:
            return MatchProperty(restriction.res.resProperty, rows, row);
        case RES_CONTENT:
            return MatchContent(restriction.res.resContent, rows, row);
        default:
            return false;
    }
}

}  // namespace

HRESULT ValidateRestriction(const SRestriction* restriction) {
    if (!restriction) return MAPI_E_INVALID_PARAMETER;
    return CValidator().Visit(*restriction, 1);
}

bool MatchesRestriction(const SRestriction& restriction, const ITableRows& rows, size_t row) {
    return Matches(restriction, rows, row, 1);
}

std::weak_ordering CompareProps(const SPropValue& left, const SPropValue& right) {
    const ULONG type = PROP_TYPE(left.ulPropTag);
    if (type != PROP_TYPE(right.ulPropTag)) return type <=> PROP_TYPE(right.ulPropTag);
    const auto& a = left.Value;
    const auto& b = right.Value;
    switch (type) {
        case PT_LONG:
            return a.l <=> b.l;
        case PT_I8:
            return a.li.QuadPart <=> b.li.QuadPart;
        case PT_BOOLEAN:
            return (a.b != 0) <=> (b.b != 0);
        case PT_DOUBLE:
            return std::weak_order(a.dbl, b.dbl);
        case PT_SYSTIME:
            return Ticks(a.ft) <=> Ticks(b.ft);
        // strcmp compares as unsigned char, and UTF-8 byte order is code point order.
        case PT_STRING8:
            return std::strcmp(a.lpszA, b.lpszA) <=> 0;
        case PT_UNICODE:
            return std::wcscmp(a.lpszW, b.lpszW) <=> 0;
        case PT_BINARY: {
            const size_t common = std::min(a.bin.cb, b.bin.cb);
            if (const int bytes = common ? std::memcmp(a.bin.lpb, b.bin.lpb, common) : 0; bytes != 0)
                return bytes <=> 0;
            return a.bin.cb <=> b.bin.cb;
        }
        default:
            return std::weak_ordering::equivalent;
    }
}

}  // namespace velmar::mapi
