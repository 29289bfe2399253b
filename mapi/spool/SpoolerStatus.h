// The spooler as MAPI shows it: a row of the session's status table, and the status object that row's entry
// id opens, whose FlushQueues sends the queue at once and looks for new mail.
#pragma once

#include <vector>

#include "mapi/provider/MapiProp.h"

namespace velmar::mapi {

// The spooler's row: PR_ENTRYID, PR_RESOURCE_TYPE (MAPI_SPOOLER), PR_DISPLAY_NAME_W, PR_STATUS_CODE and
// PR_STATUS_STRING_W (what waits in the queue and why).
std::vector<CPropValue> SpoolerStatusRow();

CComPtr<IMAPIStatus> MakeSpoolerStatus();

}  // namespace velmar::mapi
