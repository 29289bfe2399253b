// Entry identifiers of this provider. A store is named by a hash of its Maildir path, a folder by its
// Maildir++ name ("" for the inbox, ".Sent", ...), a message by the unique part of its file name, which
// stays the same when the flags after ":2," change. Layout (all after MAPI's four flag bytes):
//   16  provider uid
//    1  version (1)
//    1  kind (store, folder, message)
//    8  store id, little-endian
//   for folders and messages: 2-byte length + folder name (UTF-8)
//   for messages:             2-byte length + message key (UTF-8)
//   only for a message whose key has several files: 8-byte file id, little-endian
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "mapidefs.h"

namespace velmar::mapi {

// Spooler names the session's spooler status object (store id 0, no more fields).
enum class EntryKind : std::uint8_t { Store = 1, Folder = 2, Message = 3, Spooler = 4 };

struct CEntryId {
    EntryKind kind = EntryKind::Store;
    std::uint64_t storeId = 0;
    std::string folder;   // Folder and Message
    std::string message;  // Message
    // Message: which file of a key that has several (two copies a sync tool or a crash left), by its inode
    // number, which a rename keeps; none for a key's only file, so that its id is just the key.
    std::optional<std::uint64_t> file{};
};

std::vector<BYTE> EncodeEntryId(const CEntryId& id);
// Nullopt for bytes that are not an entry identifier of this provider (any length, any content).
std::optional<CEntryId> DecodeEntryId(const BYTE* bytes, size_t size);

// A stable 64-bit id for a store, from its Maildir path.
std::uint64_t StoreIdForPath(const std::string& path);

// A one-off address-book entry id (MS-OXCDATA): display name, address type and address in UTF-16.
std::vector<BYTE> MakeOneOffEntryId(const std::wstring& displayName, const std::wstring& addressType,
                                    const std::wstring& address);

struct COneOffEntry {
    std::wstring displayName;
    std::wstring addressType;
    std::wstring address;
};
// The fields of a one-off entry id (Unicode or 8-bit, as its flags say); nullopt for anything else.
std::optional<COneOffEntry> DecodeOneOffEntryId(const BYTE* bytes, size_t size);

}  // namespace velmar::mapi
