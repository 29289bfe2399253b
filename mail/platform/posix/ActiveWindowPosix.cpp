#include "mail/FormHost.h"

namespace velmar::mail {

// Our forms find their place without an owner handle.
ULONG_PTR ActiveWindowHandle() {
    return 0;
}

}  // namespace velmar::mail
