/* Messages on structured storage (.msg files). */
#pragma once

#include "mapix.h"

typedef struct _MSGSESS* LPMSGSESS;
typedef void(STDMETHODCALLTYPE MSGCALLRELEASE)(ULONG ulCallerData, LPMESSAGE lpMessage);

STDAPI_(SCODE) OpenIMsgSession(LPMALLOC lpMalloc, ULONG ulFlags, LPMSGSESS* lppMsgSess);
STDAPI_(void) CloseIMsgSession(LPMSGSESS lpMsgSess);
STDAPI_(SCODE)
OpenIMsgOnIStg(LPMSGSESS lpMsgSess, LPALLOCATEBUFFER lpAllocateBuffer, LPALLOCATEMORE lpAllocateMore,
               LPFREEBUFFER lpFreeBuffer, LPMALLOC lpMalloc, LPVOID lpMapiSup, LPSTORAGE lpStg,
               MSGCALLRELEASE* lpfMsgCallRelease, ULONG ulCallerData, ULONG ulFlags, LPMESSAGE* lppMsg);
