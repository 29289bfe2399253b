#include <unistd.h>
#include <sys/stat.h>

#include <cstdlib>

#include "support/ServiceChannel.h"

namespace velmar {

std::string ServiceSocketPath() {
    if (const char* named = std::getenv("VELMAR_PIPE"); named && *named) return named;
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime)
        return std::string(runtime) + "/" + kServiceSocketName;
    const std::string folder = "/tmp/velmar-" + std::to_string(getuid());
    mkdir(folder.c_str(), 0700);
    struct stat info {};
    if (lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != getuid() ||
        (info.st_mode & 0077) != 0)
        return {};
    return folder + "/" + kServiceSocketName;
}

}  // namespace velmar
