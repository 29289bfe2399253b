// POSIX: the user's private folder under /tmp, shared by the service's socket and its exports when nothing
// better is set. Another user may create the usual name first; a folder that is not ours is never used.
#pragma once

#include <string>

namespace velmar {

// /tmp/velmar-<uid>, or, when that name is taken by something that is not a private folder of ours (another
// user's folder, a link, a file, a folder others may write to), the first of /tmp/velmar-<uid>-1 ... -99
// that is; made with mode 0700 when missing. Client and service walk the same names, so both find the same
// folder. Empty only when none of them can be had.
std::string PrivateTempFolder();

// Whether path (no trailing separator needed) is a real folder, not a link, owned by this user and not
// writable by anybody else.
bool IsPrivateFolder(const std::string& path);

}  // namespace velmar
