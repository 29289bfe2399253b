// The place of a message in a Maildir folder: its file, whose name carries the read flag (S), so that
// marking it read renames the file.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "mapi/provider/Message.h"

namespace velmar::mapi {

struct CMessageLocation {
    std::uint64_t storeId = 0;
    std::string folderName;
    std::string folderPath;
    std::string key;
    std::string fileName;  // current name in new/ or cur/
    bool inNew = false;
    std::string flags;
    CFileTime delivered;
    std::uint64_t size = 0;
    std::optional<std::uint64_t> file{};  // for a key with several files, which (CEntryId::file)
    std::uint64_t inode = 0;  // of the file as it was opened (0: unknown), by which a rename is followed
};

std::unique_ptr<IMessagePlace> MakeMaildirPlace(CMessageLocation location);

}  // namespace velmar::mapi
