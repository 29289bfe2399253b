// New files in Maildir folders, written the safe way: the bytes go to tmp/ under a unique name, are synced,
// and are renamed into new/ or cur/ without replacing anything; then the folder itself is synced. A file is
// therefore whole under its name or not there at all, and still there after a crash.
#pragma once

#include <string>
#include <string_view>

namespace velmar::mapi {

struct CWrittenFile {
    int error = 0;     // 0, or the errno of the step that failed (nothing is left behind then)
    std::string path;  // the file's final path
    std::string key;   // the unique part of its name
};

// Writes bytes as a new message of the folder at folderPath: into new/ when flags is empty and
// intoNew is true, else into cur/ as "<key>:2,<flags>".
CWrittenFile WriteMaildirMessage(const std::string& folderPath, std::string_view bytes, bool intoNew,
                                 std::string_view flags);

// A new unique Maildir key: time, microseconds, process, a counter and the host name.
std::string NewMaildirKey();

// Moves a message file to another folder of the same file system under the name to, never replacing a
// file there, and syncs both folders: 0, or the errno of the rename (EEXIST when to is taken).
int MoveDurably(const std::string& from, const std::string& to);

// Writes bytes as the file at path, replacing what is there only once the new file is whole: readers see
// the old file or the new one. Synced (durable) the file is there after a crash too; unsynced (a cache) a
// crash may leave it empty or cut short. 0, or the errno of the step that failed.
int ReplaceFile(const std::string& path, std::string_view bytes, bool durable);

// Removes a file and syncs its folder, so the removal lasts; the errno of unlink, or 0.
int RemoveDurably(const std::string& path);

}  // namespace velmar::mapi
