// The file system as attachment export needs it; one implementation per platform.
//   Windows: the user's temporary folder (GetTempPathW), "Velmar\" below it; structured storage for OLE
//            attachments.
//   POSIX:   $TMPDIR, else the user's private folder under /tmp, "Velmar/" below it; no structured storage.
// A folder that is not ours is never written into, and a file appears under its name only when whole.
#pragma once

#include <string>

#include "mail/MapiHeaders.h"

namespace velmar::mail {

// What ends the folder part of a path the service is given: the backslash on Windows, "/" on POSIX.
extern const wchar_t kFolderSeparator;

// The user's temporary folder, ending in a separator; never empty and never relative.
std::wstring TemporaryFolder();
// "Velmar" and a separator, appended to a folder path.
std::wstring AppendExportFolderName(const std::wstring& folder);
// Whether path names a folder that is ours to write into (on POSIX: a real one, no link, owned by us and
// writable by nobody else).
bool IsFolder(const std::wstring& path);
// Creates a folder (private to the user on POSIX); false when that fails.
bool MakeFolder(const std::wstring& path);
// A private folder of this process's own, ending in a separator, for exports whose folder is not ours;
// made on first use. Empty only when not even that can be had.
std::wstring PrivateExportFolder();

// A folder of one request's own, for files that request writes and removes itself (a forward's copies of
// its source's attachments): made new beside the export folder's files, private on POSIX, so that no other
// request writes a file into it or finds one there to replace. Removed with whatever is left in it when the
// object goes. Path() ends in a separator; empty when no folder could be made.
class CRequestFolder {
public:
    CRequestFolder();
    ~CRequestFolder();
    CRequestFolder(const CRequestFolder&) = delete;
    CRequestFolder& operator=(const CRequestFolder&) = delete;
    const std::wstring& Path() const { return m_path; }

private:
    std::wstring m_path;
};

// The name, cut at its end (on a character boundary) to the longest one file name the file system takes.
std::wstring FitFileName(const std::wstring& name);
// A new name in the folder of path, for writing a file that replaces path once it is whole.
std::wstring TemporaryFilePath(const std::wstring& path);
// Puts the file at temporaryPath in the place of path (replacing what is there); false when that fails,
// and the temporary file is then removed.
bool ReplaceWithFile(const std::wstring& temporaryPath, const std::wstring& path);
void RemoveFile(const std::wstring& path);

// Copies storage into a new compound file at path (transacted, created or replaced); false where the
// platform has no structured storage.
bool CopyStorageToFile(LPSTORAGE storage, const std::wstring& path);

}  // namespace velmar::mail
