#include <windows.h>
#include <objbase.h>

#include "mail/MapiFunctions.h"
#include "service/RequestThreadContext.h"

namespace velmar::service {

using velmar::mail::BoundMapiFunction;
using velmar::mail::MapiSlot;

namespace {

// What this thread's context initialised, and so has to uninitialise.
thread_local bool t_bCom = false;
thread_local bool t_bMapi = false;

}  // namespace

CRequestThreadContext::CRequestThreadContext() {
    t_bCom = SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED));
    if (const auto initialize =
            BoundMapiFunction<velmar::mail::PFN_MAPIInitialize>(MapiSlot::MAPIInitialize)) {
        MAPIINIT_0 init{MAPI_INIT_VERSION, 0};
        t_bMapi = SUCCEEDED(initialize(&init));
    }
}

CRequestThreadContext::~CRequestThreadContext() {
    if (t_bMapi) {
        if (const auto uninitialize =
                BoundMapiFunction<velmar::mail::PFN_MAPIUninitialize>(MapiSlot::MAPIUninitialize))
            uninitialize();
    }
    if (t_bCom) CoUninitialize();
}

}  // namespace velmar::service
