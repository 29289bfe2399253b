// A MAPI library that breaks the rule ours keeps: its logon throws, as a library may. The service takes it
// in the client's place (VELMAR_MAPI_LIBRARY); the rest of the function table comes from our MAPI.
#include <new>

extern "C" {

__attribute__((visibility("default"))) long MAPIInitialize(void*) {
    return 0;
}

__attribute__((visibility("default"))) void MAPIUninitialize() {}

// Every logon runs out of memory.
__attribute__((visibility("default"))) long MAPILogonEx(unsigned long, void*, void*, unsigned long, void**) {
    throw std::bad_alloc();
}
}
