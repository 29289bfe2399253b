// Recovers the original HTML or plain text that Outlook/Exchange encapsulated in an RTF body
// (MS-OXRTFEX). Text is decoded from the document's code pages with iconv, so this part is POSIX-only.
#pragma once

#include <string>
#include <string_view>

namespace velmar::mapi {

enum class RtfNativeBody { Rtf, Html, PlainText };

// Looks at the first ten tokens of the RTF header, as MS-OXRTFEX prescribes: \fromhtml1 means
// encapsulated HTML, \fromtext encapsulated plain text. Anything else (including text that is not
// RTF, or body text before either keyword) is plain RTF.
RtfNativeBody DetectNativeBody(std::string_view rtf) noexcept;

// Extracts the encapsulated HTML (kind == Html) or plain text (kind == PlainText) as UTF-8.
// Returns false, leaving utf8Out empty, if rtf does not start with "{\rtf", if kind is Rtf, or if
// memory runs out. Malformed RTF (unbalanced groups, cut escapes, absurd nesting) still returns true
// with whatever could be recovered; groups nested deeper than an internal limit are dropped.
bool DeencapsulateRtf(std::string_view rtf, RtfNativeBody kind, std::string& utf8Out) noexcept;

}  // namespace velmar::mapi
