// The MAPI declarations of the POSIX build: our own MAPI's SDK-shaped headers (see mail/MapiHeaders.h).
#pragma once

#include "exchform.h"
#include "imessage.h"
#include "mapiform.h"
#include "mapinls.h"
#include "mapiutil.h"
#include "mapix.h"
