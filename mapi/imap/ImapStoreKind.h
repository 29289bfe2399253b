// Stores that are mailboxes on an IMAP server, kept in sync by a thread of their own (ImapSync.h).
#pragma once

#include "mapi/provider/StoreKind.h"

namespace velmar::mapi {

// PR_PROVIDER_DISPLAY_W of these stores.
inline constexpr wchar_t kImapProviderName[] = L"Velmar IMAP";

const IStoreKind& ImapStoreKind();

}  // namespace velmar::mapi
