#include "mail/FormHost.h"

namespace velmar::mail {

ULONG_PTR ActiveWindowHandle() {
    return reinterpret_cast<ULONG_PTR>(GetActiveWindow());
}

}  // namespace velmar::mail
