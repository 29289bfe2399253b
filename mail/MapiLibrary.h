// Where the MAPI libraries come from; one implementation per platform.
//   Windows: the default mail client's MAPI DLL (registry and Windows Installer), and mapi32.dll from the
//            system directory.
//   POSIX:   the library named by $VELMAR_MAPI_LIBRARY in the client's place, and libvelmarmapi.so beside
//            the program as the system's.
// Libraries stay loaded for the life of the process.
#pragma once

#include <string>

namespace velmar::mail {

using LibraryHandle = void*;

// Null when there is none or it cannot be loaded.
LibraryHandle LoadDefaultClientLibrary();
LibraryHandle LoadSystemMapiLibrary();
// Null when the library does not export name.
void* FindExport(LibraryHandle library, const char* name);

}  // namespace velmar::mail
