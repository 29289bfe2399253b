// The file system as attachment export needs it; one implementation per platform.
//   Windows: the user's temporary folder (GetTempPathW), "Velmar\" below it; structured storage for OLE
//            attachments.
//   POSIX:   $TMPDIR, else a private folder of our own under /tmp (mode 0700), "Velmar/" below it; no
//            structured storage.
#pragma once

#include <string>

#include "mail/MapiHeaders.h"

namespace velmar::mail {

// The user's temporary folder, ending in a separator; empty when there is none.
std::wstring TemporaryFolder();
// "Velmar" and a separator, appended to a folder path.
std::wstring AppendExportFolderName(const std::wstring& folder);
// Whether path names an existing folder (and, on POSIX, a real one of ours, not a link).
bool IsFolder(const std::wstring& path);
// Creates a folder (private to the user on POSIX); false when that fails.
bool MakeFolder(const std::wstring& path);
// Copies storage into a new compound file at path (transacted, created or replaced); false where the
// platform has no structured storage.
bool CopyStorageToFile(LPSTORAGE storage, const std::wstring& path);

}  // namespace velmar::mail
