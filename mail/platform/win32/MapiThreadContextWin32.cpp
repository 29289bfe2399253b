#include <windows.h>
#include <objbase.h>

#include "mail/MapiFunctions.h"
#include "mail/MapiThreadContext.h"

namespace velmar::mail {

namespace {

// What this thread's context initialised, and so has to uninitialise.
thread_local bool t_bCom = false;
thread_local bool t_bMapi = false;

}  // namespace

CMapiThreadContext::CMapiThreadContext() {
    t_bCom = SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED));
    if (const auto initialize = BoundMapiFunction<PFN_MAPIInitialize>(MapiSlot::MAPIInitialize)) {
        MAPIINIT_0 init{MAPI_INIT_VERSION, 0};
        t_bMapi = SUCCEEDED(initialize(&init));
    }
}

CMapiThreadContext::~CMapiThreadContext() {
    if (t_bMapi) {
        if (const auto uninitialize = BoundMapiFunction<PFN_MAPIUninitialize>(MapiSlot::MAPIUninitialize))
            uninitialize();
    }
    if (t_bCom) CoUninitialize();
}

}  // namespace velmar::mail
