// Maildir++ folders: the inbox is the store's root folder, other folders are ".Name" folders beside its
// cur/, new/ and tmp/. A message file is named "<unique key>:2,<flags>" in cur/, or "<unique key>" in new/.
#pragma once

#include <string>
#include <string_view>

namespace velmar::mapi {

// Folders every store has; created when missing.
inline constexpr const char* kInboxFolder = "";
inline constexpr const char* kSentFolder = ".Sent";
inline constexpr const char* kOutboxFolder = ".Outbox";
inline constexpr const char* kTrashFolder = ".Trash";

// "" or "." followed by a name without a path separator and not "." or "..".
bool IsValidFolderName(std::string_view name);
// The folder's path in the store; the store path itself for the inbox.
std::string FolderPath(const std::string& storePath, std::string_view folderName);
// Creates the store's path, the folder and its cur/, new/ and tmp/ (mode 0700) where missing; false when
// that fails. The store's path is taken as configured, links and all (~/Maildir on another disk); below it
// no symbolic link is followed: a link where a folder should be is left alone, nothing is made through it,
// and the index lists nothing from it.
bool EnsureMaildir(const std::string& storePath, std::string_view folderName);
// Opens the folder at folderPath (FolderPath of folderName) for listing: a folder below the store that is
// a symbolic link is refused. The descriptor is the caller's; -1 with errno on failure.
int OpenMaildirFolder(const std::string& folderPath, std::string_view folderName);
// Opens the directory sub ("cur", "new") of an open folder, refusing a symbolic link; as OpenMaildirFolder.
int OpenMaildirSubfolder(int folderFd, const char* sub);
// Renames a message file within its folder (between new/ and cur/ too) without ever replacing a file: 0,
// EEXIST when the name to is taken (the file stays as it was), or the errno of the failure.
int RenameWithoutReplacing(const std::string& from, const std::string& to);
// The display name of a folder: "Posteingang" for the inbox, else the name without its dot.
std::wstring FolderDisplayName(std::string_view folderName);

struct CMaildirName {
    std::string key;       // unique part, the same in new/ and cur/
    std::string flags;     // the letters after ":2,", sorted
    char separator = ':';  // some servers write ";2," where ':' is not allowed in file names
};
CMaildirName SplitMaildirName(std::string_view fileName);
// The key of a file name as SplitMaildirName gives it, as a view into fileName.
std::string_view MaildirKey(std::string_view fileName);
std::string JoinMaildirName(const CMaildirName& name);

}  // namespace velmar::mapi
