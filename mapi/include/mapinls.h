/* Wide-string helpers of MAPI. */
#pragma once

#include "mapiwin.h"

STDAPI_(int) MNLS_lstrlenW(LPCWSTR lpString);
