// Number conversions with the exact semantics of the C runtime calls the protocol was defined with,
// independent of the width of long on the platform.
#pragma once

#include <cstdint>
#include <limits>
#include <string_view>

namespace velmar {
namespace detail {

template <class Char>
constexpr bool IsSpace(Char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Skips leading white space and a sign, then accumulates digits into a 64-bit magnitude that stops
// growing past the 32-bit range, so callers can tell overflow apart.
template <class Char>
constexpr std::uint64_t LeadingMagnitude(std::basic_string_view<Char> text, bool& negative) {
    size_t pos = 0;
    while (pos < text.size() && IsSpace(text[pos])) ++pos;
    negative = false;
    if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
        negative = text[pos] == '-';
        ++pos;
    }
    std::uint64_t magnitude = 0;
    for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos) {
        if (magnitude <= std::numeric_limits<std::uint32_t>::max())
            magnitude = magnitude * 10 + static_cast<std::uint64_t>(text[pos] - '0');
    }
    return magnitude;
}

}  // namespace detail

// atoi/_wtoi: white space, optional sign, leading digits; no digits gives 0; out of range saturates.
template <class Char>
constexpr std::int32_t ParseLeadingInt(std::basic_string_view<Char> text) {
    bool negative = false;
    const std::uint64_t magnitude = detail::LeadingMagnitude(text, negative);
    if (negative) {
        const std::uint64_t limit = static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max()) + 1;
        return magnitude >= limit ? std::numeric_limits<std::int32_t>::min()
                                  : -static_cast<std::int32_t>(magnitude);
    }
    return magnitude > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max())
               ? std::numeric_limits<std::int32_t>::max()
               : static_cast<std::int32_t>(magnitude);
}

// wcstoul(text, nullptr, 10) with a 32-bit unsigned long, as on Windows: a minus sign negates modulo 2^32
// ("-1" is all ones), and a magnitude beyond 32 bits gives all ones.
template <class Char>
constexpr std::uint32_t ParseLeadingUInt32(std::basic_string_view<Char> text) {
    bool negative = false;
    const std::uint64_t magnitude = detail::LeadingMagnitude(text, negative);
    if (magnitude > std::numeric_limits<std::uint32_t>::max())
        return std::numeric_limits<std::uint32_t>::max();
    const auto value = static_cast<std::uint32_t>(magnitude);
    return negative ? static_cast<std::uint32_t>(0u - value) : value;
}

}  // namespace velmar
