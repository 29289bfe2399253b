// Compressed RTF (PR_RTF_COMPRESSED) codec, as described by MS-OXRTFCP.
//
// A stream starts with a 16-byte little-endian header: CompSize, RawSize, CompType, CRC.
// CompSize counts every byte after the CompSize field itself, so a whole stream is CompSize + 4
// bytes long. CompType is "LZFu" for LZ77-compressed data or "MELA" for data stored as is.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velmar::mapi {

enum class RtfCodecStatus {
    Ok,
    Truncated,    // the input ends before the header or the compressed data says it should
    BadMagic,     // CompType is neither LZFu nor MELA
    BadCrc,       // LZFu data does not match the CRC in the header
    BadSize,      // header sizes are inconsistent, or the data decodes to a size other than RawSize
    OutOfMemory,  // an allocation failed
};

// Short, stable name for logs and test messages, e.g. "BadCrc".
const char* RtfCodecStatusName(RtfCodecStatus status) noexcept;

// Decodes a compressed RTF stream (LZFu or MELA) into rtfOut.
// On BadMagic/BadCrc and header errors rtfOut is empty. On a Truncated or BadSize error found
// while decoding, rtfOut keeps the bytes decoded so far; it never grows beyond RawSize.
// Bytes after CompSize + 4 are ignored.
RtfCodecStatus DecompressRtf(std::span<const std::uint8_t> in, std::string& rtfOut) noexcept;

// Encodes rtf as an LZFu stream (compressed == true) or a MELA stream (compressed == false).
// Returns an empty vector only if rtf is too large for the 32-bit size fields or memory runs out.
std::vector<std::uint8_t> CompressRtf(std::string_view rtf, bool compressed) noexcept;

// The MS-OXRTFCP CRC-32: the usual reflected 0xEDB88320 table, but starting from `crc` (0 for a
// fresh computation) with no inversion at either end. Pass a previous result to continue it.
std::uint32_t RtfCrc32(std::span<const std::uint8_t> data, std::uint32_t crc = 0) noexcept;

}  // namespace velmar::mapi
