// The external object a printing dialog offers to the scripts of its page (window.external): one method,
// "print_complete", which a print template calls once it has printed. Names are matched exactly, case
// included.
#pragma once

#include <string_view>

namespace velmar::print {

inline constexpr long kPrintCompleteDispId = 1;
inline constexpr long kUnknownDispId = -1;  // DISPID_UNKNOWN

inline long PrintingExternalDispId(std::wstring_view name) {
    return name == L"print_complete" ? kPrintCompleteDispId : kUnknownDispId;
}

}  // namespace velmar::print
