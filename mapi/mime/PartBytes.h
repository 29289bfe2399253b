// The bytes of a MIME leaf part as its writer meant them: its transfer encoding undone, without the line
// break that belongs to the boundary after it. GMime's own decoding is not used for these: it drops the
// last bytes of base64 that lacks its padding ("SGVsbG8" gives "Hel"), and in a file that mixes CR LF and
// LF line ends it leaves the CR of the line break before a boundary in the part.
#pragma once

#include <gmime/gmime.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace velmar::mapi {

// Hands the decoded bytes to sink piece by piece, in order, without holding them all; nothing for a part
// without content.
void ReadPartBytes(GMimePart* part, const std::function<void(std::string_view)>& sink);
// The same for a body as sent, held in a stream of its own, in the given transfer encoding.
void ReadEncodedBytes(GMimeStream* raw, GMimeContentEncoding encoding,
                      const std::function<void(std::string_view)>& sink);
// All of them.
std::string PartBytes(GMimePart* part);

}  // namespace velmar::mapi
