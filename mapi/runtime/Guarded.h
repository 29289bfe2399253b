// The boundary every call into our MAPI crosses: whatever its body throws (an allocation that fails, a
// library that throws) comes back as the HRESULT a MAPI caller expects, never as an exception.
#pragma once

#include <new>

#include "mapidefs.h"

namespace velmar::mapi {

// Runs body (an HRESULT-returning callable) and returns its result; MAPI_E_NOT_ENOUGH_MEMORY when it ran
// out of memory, MAPI_E_CALL_FAILED when it threw anything else.
template <class Body>
HRESULT Guarded(Body&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return MAPI_E_NOT_ENOUGH_MEMORY;
    } catch (...) {
        return MAPI_E_CALL_FAILED;
    }
}

}  // namespace velmar::mapi
