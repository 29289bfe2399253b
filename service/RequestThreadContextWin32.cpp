#include <windows.h>
#include <objbase.h>

#include "mail/MapiFunctions.h"
#include "service/RequestThreadContext.h"

namespace velmar::service {

using velmar::mail::BoundMapiFunction;
using velmar::mail::MapiSlot;

CRequestThreadContext::CRequestThreadContext() {
    m_bCom = SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED));
    if (const auto initialize =
            BoundMapiFunction<velmar::mail::PFN_MAPIInitialize>(MapiSlot::MAPIInitialize)) {
        MAPIINIT_0 init{MAPI_INIT_VERSION, 0};
        m_bMapi = SUCCEEDED(initialize(&init));
    }
}

CRequestThreadContext::~CRequestThreadContext() {
    if (m_bMapi) {
        if (const auto uninitialize =
                BoundMapiFunction<velmar::mail::PFN_MAPIUninitialize>(MapiSlot::MAPIUninitialize))
            uninitialize();
    }
    if (m_bCom) CoUninitialize();
}

}  // namespace velmar::service
