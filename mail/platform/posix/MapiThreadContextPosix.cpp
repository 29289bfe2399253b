#include "mail/MapiThreadContext.h"

namespace velmar::mail {

CMapiThreadContext::CMapiThreadContext() = default;
CMapiThreadContext::~CMapiThreadContext() = default;

}  // namespace velmar::mail
