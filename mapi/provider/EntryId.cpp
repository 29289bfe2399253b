#include "mapi/provider/EntryId.h"

#include <cstring>

#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

constexpr BYTE kProviderUid[16] = {0x56, 0x45, 0x4C, 0x4D, 0x41, 0x52, 0x4D, 0x44,
                                   0x49, 0x52, 0x9A, 0x3C, 0x51, 0x0E, 0x77, 0x21};
constexpr BYTE kVersion = 1;
constexpr size_t kFixedSize = 4 + 16 + 1 + 1 + 8;

// The one-off provider uid of MAPI, {A41F2B81-A3BE-1910-9D6E-00DD010F5402} in byte order.
constexpr BYTE kOneOffUid[16] = {0x81, 0x2B, 0x1F, 0xA4, 0xBE, 0xA3, 0x10, 0x19,
                                 0x9D, 0x6E, 0x00, 0xDD, 0x01, 0x0F, 0x54, 0x02};
constexpr std::uint16_t kOneOffUnicode = 0x8000;
constexpr std::uint16_t kOneOffNoRichInfo = 0x0001;

void AppendString(std::vector<BYTE>& out, const std::string& text) {
    const auto length = static_cast<std::uint16_t>(text.size() > 0xFFFF ? 0xFFFF : text.size());
    out.push_back(static_cast<BYTE>(length & 0xFF));
    out.push_back(static_cast<BYTE>(length >> 8));
    out.insert(out.end(), text.begin(), text.begin() + length);
}

// Reads a length-prefixed string; every read checks the bytes that remain first.
bool ReadString(const BYTE* bytes, size_t size, size_t& offset, std::string& text) {
    if (size - offset < 2) return false;
    const size_t length = bytes[offset] | (static_cast<size_t>(bytes[offset + 1]) << 8);
    offset += 2;
    if (size - offset < length) return false;
    text.assign(reinterpret_cast<const char*>(bytes + offset), length);
    offset += length;
    return true;
}

void AppendUtf16(std::vector<BYTE>& out, const std::wstring& text) {
    for (wchar_t c : text) {
        char32_t cp = static_cast<char32_t>(c);
        if (cp >= 0x10000) {
            cp -= 0x10000;
            const auto high = static_cast<std::uint16_t>(0xD800 + (cp >> 10));
            const auto low = static_cast<std::uint16_t>(0xDC00 + (cp & 0x3FF));
            out.insert(out.end(), {static_cast<BYTE>(high & 0xFF), static_cast<BYTE>(high >> 8),
                                   static_cast<BYTE>(low & 0xFF), static_cast<BYTE>(low >> 8)});
        } else {
            out.insert(out.end(), {static_cast<BYTE>(cp & 0xFF), static_cast<BYTE>((cp >> 8) & 0xFF)});
        }
    }
    out.insert(out.end(), {0, 0});
}

}  // namespace

std::vector<BYTE> EncodeEntryId(const CEntryId& id) {
    std::vector<BYTE> out;
    out.reserve(kFixedSize + 4 + 8 + id.folder.size() + id.message.size());
    out.assign(4, 0);
    out.insert(out.end(), std::begin(kProviderUid), std::end(kProviderUid));
    out.push_back(kVersion);
    out.push_back(static_cast<BYTE>(id.kind));
    for (int i = 0; i < 8; ++i) out.push_back(static_cast<BYTE>(id.storeId >> (8 * i)));
    if (id.kind == EntryKind::Folder || id.kind == EntryKind::Message) AppendString(out, id.folder);
    if (id.kind == EntryKind::Message) AppendString(out, id.message);
    if (id.kind == EntryKind::Message && id.file)
        for (int i = 0; i < 8; ++i) out.push_back(static_cast<BYTE>(*id.file >> (8 * i)));
    return out;
}

std::optional<CEntryId> DecodeEntryId(const BYTE* bytes, size_t size) {
    if (!bytes || size < kFixedSize) return std::nullopt;
    if (std::memcmp(bytes + 4, kProviderUid, sizeof kProviderUid) != 0 || bytes[20] != kVersion)
        return std::nullopt;
    CEntryId id;
    const BYTE kind = bytes[21];
    if (kind < 1 || kind > 4) return std::nullopt;
    id.kind = static_cast<EntryKind>(kind);
    for (int i = 0; i < 8; ++i) id.storeId |= static_cast<std::uint64_t>(bytes[22 + i]) << (8 * i);
    size_t offset = kFixedSize;
    if ((id.kind == EntryKind::Folder || id.kind == EntryKind::Message) &&
        !ReadString(bytes, size, offset, id.folder))
        return std::nullopt;
    if (id.kind == EntryKind::Message && !ReadString(bytes, size, offset, id.message)) return std::nullopt;
    if (id.kind == EntryKind::Message && size - offset == 8) {
        std::uint64_t file = 0;
        for (int i = 0; i < 8; ++i) file |= static_cast<std::uint64_t>(bytes[offset + i]) << (8 * i);
        id.file = file;
        offset += 8;
    }
    if (offset != size) return std::nullopt;
    return id;
}

std::uint64_t StoreIdForPath(const std::string& path) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;  // FNV-1a
    for (unsigned char c : path) {
        hash ^= c;
        hash *= 0x100000001b3ULL;
    }
    return hash;
}

std::vector<BYTE> MakeOneOffEntryId(const std::wstring& displayName, const std::wstring& addressType,
                                    const std::wstring& address) {
    // Flags (4 bytes, zero), the one-off uid, the version (2 bytes, zero), then the one-off flags.
    constexpr std::uint16_t flags = kOneOffUnicode | kOneOffNoRichInfo;
    std::vector<BYTE> out;
    out.reserve(24 + 2 * (displayName.size() + addressType.size() + address.size() + 3));
    out.assign(4, 0);
    out.insert(out.end(), std::begin(kOneOffUid), std::end(kOneOffUid));
    out.insert(out.end(), {0, 0, static_cast<BYTE>(flags & 0xFF), static_cast<BYTE>(flags >> 8)});
    AppendUtf16(out, displayName);
    AppendUtf16(out, addressType);
    AppendUtf16(out, address);
    return out;
}

namespace {

// A zero-terminated string of the one-off id at offset, moving offset past its terminator.
bool ReadOneOffString(const BYTE* bytes, size_t size, size_t& offset, bool unicode, std::wstring& out) {
    out.clear();
    if (unicode) {
        char32_t high = 0;
        for (;; offset += 2) {
            if (offset + 2 > size) return false;
            const char32_t unit = static_cast<char32_t>(bytes[offset] | (bytes[offset + 1] << 8));
            if (unit == 0) break;
            if (unit >= 0xD800 && unit < 0xDC00) {
                high = unit;
                continue;
            }
            if (unit >= 0xDC00 && unit < 0xE000 && high)
                out.push_back(static_cast<wchar_t>(0x10000 + ((high - 0xD800) << 10) + (unit - 0xDC00)));
            else
                out.push_back(static_cast<wchar_t>(unit));
            high = 0;
        }
        offset += 2;
        return true;
    }
    std::string narrow;
    for (;; ++offset) {
        if (offset >= size) return false;
        if (bytes[offset] == 0) break;
        narrow.push_back(static_cast<char>(bytes[offset]));
    }
    ++offset;
    out = Utf8ToWide(narrow);
    return true;
}

}  // namespace

std::optional<COneOffEntry> DecodeOneOffEntryId(const BYTE* bytes, size_t size) {
    if (!bytes || size < 24 || std::memcmp(bytes + 4, kOneOffUid, sizeof kOneOffUid) != 0)
        return std::nullopt;
    const std::uint16_t flags = static_cast<std::uint16_t>(bytes[22] | (bytes[23] << 8));
    const bool unicode = (flags & kOneOffUnicode) != 0;
    COneOffEntry entry;
    size_t offset = 24;
    if (!ReadOneOffString(bytes, size, offset, unicode, entry.displayName) ||
        !ReadOneOffString(bytes, size, offset, unicode, entry.addressType) ||
        !ReadOneOffString(bytes, size, offset, unicode, entry.address))
        return std::nullopt;
    return entry;
}

}  // namespace velmar::mapi
