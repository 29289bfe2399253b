#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "mail/MapiLibrary.h"

namespace velmar::mail {

LibraryHandle LoadDefaultClientLibrary() {
    const char* named = std::getenv("VELMAR_MAPI_LIBRARY");
    if (!named || !*named) return nullptr;
    return dlopen(named, RTLD_NOW | RTLD_LOCAL);
}

LibraryHandle LoadSystemMapiLibrary() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) return nullptr;
    std::string folder(path, static_cast<size_t>(length));
    folder.resize(folder.rfind('/'));
    return dlopen((folder + "/libvelmarmapi.so").c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* FindExport(LibraryHandle library, const char* name) {
    return library ? dlsym(library, name) : nullptr;
}

}  // namespace velmar::mail
