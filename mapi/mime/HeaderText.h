// Header fields as a careful reader reads them from their raw values (as the file has them, after the
// colon): unfolded as RFC 5322 says, encoded words decoded in one place (EncodedWords.h), parameters with
// their RFC 2231 continuations and charsets. Text comes back as UTF-8.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velmar::mapi {

// The raw value with its line breaks removed: a fold's white space stays, its CR LF goes; never a CR or
// LF in what comes back.
std::string UnfoldHeader(std::string_view raw);

// An unstructured field (Subject): unfolded, the white space between the colon and the text dropped,
// encoded words decoded; white space inside the text and at its end stays. hint is the charset the
// entity declares for its body, for raw 8-bit text (see HeaderBytesToUtf8).
std::string UnstructuredText(std::string_view raw, std::string_view hint);

// The value of the parameter name (any letter case) of a Content-Type or Content-Disposition field, or
// nullopt when it has none. RFC 2231 forms (name*=charset''text, name*0= ...) come before the plain one;
// quoted strings lose their quoting backslashes, as RFC 2045 says; encoded words in a plain value are
// decoded, as mail clients do.
std::optional<std::string> HeaderParameter(std::string_view raw, std::string_view name,
                                           std::string_view hint);

}  // namespace velmar::mapi
