// The MAPI declarations the mail layer compiles against. The mail layer is one source for both targets, so
// there are two sets: the Windows SDK's headers (MapiHeadersWin32.h) and our own MAPI's (MapiHeadersPosix.h).
#pragma once

#if defined(_WIN32)
#include "mail/platform/win32/MapiHeadersWin32.h"
#else
#include "mail/platform/posix/MapiHeadersPosix.h"
#endif
