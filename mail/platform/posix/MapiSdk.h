// The MAPI declarations of this platform: our own MAPI's headers.
#pragma once

#include "imessage.h"
#include "mapiform.h"
#include "mapinls.h"
#include "mapiutil.h"
#include "mapix.h"
