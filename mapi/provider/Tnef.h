// TNEF (application/ms-tnef, "winmail.dat", MS-OXTNEF): the message properties Outlook packs for another
// Outlook. We take the compressed RTF body from them; the rest of a TNEF stream stays an attachment.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace velmar::mapi {

// PR_RTF_COMPRESSED of the message-level property attribute, or nullopt when the stream is not TNEF, is
// cut short, or has none.
std::optional<std::vector<std::uint8_t>> FindCompressedRtf(std::span<const std::uint8_t> tnef);

}  // namespace velmar::mapi
