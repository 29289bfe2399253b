#include "service/RequestThreadContext.h"

namespace velmar::service {

// Our MAPI is initialised once for the process and needs nothing per thread.
CRequestThreadContext::CRequestThreadContext() = default;
CRequestThreadContext::~CRequestThreadContext() = default;

}  // namespace velmar::service
