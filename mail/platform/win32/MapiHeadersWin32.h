// The MAPI declarations of the Windows build: the SDK's headers, plus what mingw-w64 leaves out (see
// mail/MapiHeaders.h).
#pragma once

#include <windows.h>

#include <imessage.h>
#define NOEXCHFORMGUIDS
#include <exchform.h>
#include <mapiform.h>
#include <mapiguid.h>
#include <mapinls.h>
#include <mapitags.h>
#include <mapiutil.h>
#include <mapix.h>

#ifndef MAPI_NATIVE_BODY
#define MAPI_NATIVE_BODY ((ULONG)0x00010000)
#define MAPI_NATIVE_BODY_TYPE_RTF ((ULONG)0x00000001)
#define MAPI_NATIVE_BODY_TYPE_HTML ((ULONG)0x00000002)
#define MAPI_NATIVE_BODY_TYPE_PLAINTEXT ((ULONG)0x00000004)
typedef struct {
    ULONG size;
    ULONG ulFlags;
    ULONG ulInCodePage;
    ULONG ulOutCodePage;
} RTF_WCSINFO;
typedef struct {
    ULONG size;
    ULONG ulStreamFlags;
} RTF_WCSRETINFO;
#endif

// Property tags newer than mingw-w64's mapitags.h.
#ifndef PR_MAILBOX_OWNER_ENTRYID
#define PR_MAILBOX_OWNER_ENTRYID PROP_TAG(PT_BINARY, 0x661B)
#endif
#ifndef PR_MSG_EDITOR_FORMAT
#define PR_MSG_EDITOR_FORMAT PROP_TAG(PT_LONG, 0x5909)
#endif
#ifndef PR_HTML
#define PR_HTML PROP_TAG(PT_BINARY, 0x1013)
#endif
#ifndef PR_INTERNET_CPID
#define PR_INTERNET_CPID PROP_TAG(PT_LONG, 0x3FDE)
#endif
#ifndef PR_INTERNET_MESSAGE_ID_A
#define PR_INTERNET_MESSAGE_ID_A PROP_TAG(PT_STRING8, 0x1035)
#define PR_INTERNET_MESSAGE_ID_W PROP_TAG(PT_UNICODE, 0x1035)
#endif
#ifndef PR_ATTACH_CONTENT_ID_W
#define PR_ATTACH_CONTENT_ID_A PROP_TAG(PT_STRING8, 0x3712)
#define PR_ATTACH_CONTENT_ID_W PROP_TAG(PT_UNICODE, 0x3712)
#endif
