#include <cstdlib>

#include "support/PrivateFolder.h"
#include "support/ServiceChannel.h"

namespace velmar {

std::string ServiceSocketPath() {
    if (const char* named = std::getenv("VELMAR_PIPE"); named && *named) return named;
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime)
        return std::string(runtime) + "/" + kServiceSocketName;
    const std::string folder = PrivateTempFolder();
    return folder.empty() ? std::string() : folder + "/" + kServiceSocketName;
}

}  // namespace velmar
