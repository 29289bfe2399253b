#include "mapi/provider/MaildirPlace.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "mapi/provider/EntryId.h"
#include "mapi/provider/Maildir.h"
#include "mapi/provider/MaildirIndex.h"
#include "mapitags.h"

namespace velmar::mapi {
namespace {

// Renames the message's file into cur/ with the S flag set or cleared; 0 or the errno of the rename.
// Deliberate: when the new name is taken, by another file of the message's key (a copy a sync tool or a
// crash left), the file is left as it is and 0 returned. A Maildir key names one message, so that message
// is on disk with those flags already, and the other file is never replaced.
int RenameForReadFlag(CMessageLocation& where, bool read) {
    std::string flags = where.flags;
    const size_t seen = flags.find('S');
    if (read && seen == std::string::npos) flags += 'S';
    if (!read && seen != std::string::npos) flags.erase(seen, 1);
    CMaildirName name = SplitMaildirName(where.fileName);
    name.flags = flags;
    std::sort(name.flags.begin(), name.flags.end());
    const std::string fileName = JoinMaildirName(name);
    const std::string from = where.folderPath + (where.inNew ? "/new/" : "/cur/") + where.fileName;
    // Nothing to rename, when the file is still where this message last saw it.
    if (fileName == where.fileName && !where.inNew) return access(from.c_str(), F_OK) == 0 ? 0 : errno;
    const std::string to = where.folderPath + "/cur/" + fileName;
    // One rename: the message is never missing from the folder, and a concurrent reader sees old or new.
    if (const int error = RenameWithoutReplacing(from, to); error != 0) return error == EEXIST ? 0 : error;
    where.fileName = fileName;
    where.inNew = false;
    where.flags = name.flags;
    return 0;
}

class CMaildirPlace final : public IMessagePlace {
public:
    explicit CMaildirPlace(CMessageLocation location) : m_location(std::move(location)) {}

    void AddProperties(std::vector<CPropValue>& props, std::int32_t& flags) const override {
        const CMessageLocation& where = m_location;
        if (where.flags.find('S') != std::string::npos) flags |= MSGFLAG_READ;
        const std::vector<BYTE> entryId =
            EncodeEntryId({EntryKind::Message, where.storeId, where.folderName, where.key, where.file});
        props.push_back({PR_ENTRYID, entryId});
        props.push_back({PR_RECORD_KEY, entryId});
        props.push_back({PR_SEARCH_KEY, std::vector<BYTE>(where.key.begin(), where.key.end())});
        props.push_back(
            {PR_PARENT_ENTRYID, EncodeEntryId({EntryKind::Folder, where.storeId, where.folderName, {}})});
        props.push_back({PR_STORE_ENTRYID, EncodeEntryId({EntryKind::Store, where.storeId, {}, {}})});
        props.push_back({PR_CREATION_TIME, where.delivered});
        props.push_back({PR_MESSAGE_DELIVERY_TIME, where.delivered});
        props.push_back({PR_LAST_MODIFICATION_TIME, where.delivered});
        props.push_back(
            {PR_MESSAGE_SIZE, static_cast<std::int32_t>(std::min<std::uint64_t>(where.size, 0x7FFFFFFF))});
    }

    HRESULT SetReadFlag(bool read) override {
        CMessageLocation& where = m_location;
        // Another program may have renamed the file since (a client moving it to cur/, a sync tool changing
        // its flags): then the folder is listed again and its current name, with its current flags, is
        // renamed instead. The file is found by its inode, which a rename keeps, so that of two files of
        // one key it is this message's own.
        for (int attempt = 0;; ++attempt) {
            const int error = RenameForReadFlag(where, read);
            if (error == 0) return S_OK;
            if (error != ENOENT || attempt == kRenameRetries) return MAPI_E_NOT_FOUND;
            const auto snapshot = IndexForFolder(where.folderPath, where.storeId, where.folderName)->Rescan();
            const std::optional<size_t> row = snapshot->FindMessage(
                where.key, where.inode != 0 ? std::optional<std::uint64_t>(where.inode) : std::nullopt);
            if (!row) return MAPI_E_NOT_FOUND;
            const CIndexedMessage indexed = snapshot->Message(*row);
            where.fileName = indexed.fileName;
            where.inNew = indexed.inNew;
            where.flags = indexed.flags;
            where.file = indexed.file;
        }
    }

private:
    CMessageLocation m_location;
};

}  // namespace

std::unique_ptr<IMessagePlace> MakeMaildirPlace(CMessageLocation location) {
    return std::make_unique<CMaildirPlace>(std::move(location));
}

}  // namespace velmar::mapi
