/* MAPI forms. The form manager is not available in this MAPI; MAPIOpenFormMgr says so. */
#pragma once

#include "mapix.h"

struct IMAPIFormMgr;
typedef IMAPIFormMgr* LPMAPIFORMMGR;

STDAPI MAPIOpenFormMgr(LPMAPISESSION pSession, LPMAPIFORMMGR* ppmgr);
