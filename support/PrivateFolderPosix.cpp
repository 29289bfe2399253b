#include <unistd.h>
#include <sys/stat.h>

#include "support/PrivateFolder.h"

namespace velmar {

bool IsPrivateFolder(const std::string& path) {
    std::string folder = path;
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    struct stat info {};
    return lstat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == getuid() &&
           (info.st_mode & 0022) == 0;
}

std::string PrivateTempFolder() {
    const std::string base = "/tmp/velmar-" + std::to_string(getuid());
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string folder = attempt == 0 ? base : base + "-" + std::to_string(attempt);
        mkdir(folder.c_str(), 0700);  // fails harmlessly where the name is taken
        if (IsPrivateFolder(folder)) return folder;
    }
    return {};
}

}  // namespace velmar
