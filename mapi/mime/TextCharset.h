// Text of mail in the charset it declares, read as UTF-8 the way mail clients read it: where the declared
// charset does not fit the bytes, UTF-8 is tried, then Windows-1252; a byte is never dropped.
#pragma once

#include <string>
#include <string_view>

namespace velmar::mapi {

// Bytes in the given charset (a MIME charset name, any letter case; empty when none is declared) as
// UTF-8. ISO-8859-1 is read as Windows-1252, its superset, as mail clients and browsers do. When the
// charset is unknown or does not fit the bytes (8-bit bytes in US-ASCII, Latin-1 in UTF-8): the bytes as
// UTF-8 when they are that; else each sequence that the declared charset (or UTF-8, when it is US-ASCII,
// UTF-8, unknown or none) takes is read so, and each other byte as Windows-1252. The result is always
// well-formed UTF-8 and holds a character for every byte that is not part of another one.
std::string CharsetToUtf8(std::string_view bytes, std::string_view charset);

// Raw 8-bit bytes of a header field: UTF-8 when they are that (RFC 6532 allows it, and text in a legacy
// charset rarely is), else as CharsetToUtf8 reads them in hint, the charset the entity declares for its
// body (empty when none).
std::string HeaderBytesToUtf8(std::string_view bytes, std::string_view hint);

// Bytes as UTF-8: each well-formed UTF-8 sequence as it is, each other byte as Windows-1252.
std::string Utf8OrWindows1252(std::string_view bytes);

}  // namespace velmar::mapi
