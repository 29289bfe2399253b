// The MAPI declarations of this platform: the Windows SDK's headers, plus what mingw-w64 leaves out.
#pragma once

#include <windows.h>

#include <imessage.h>
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
