// Stores that are Maildir++ trees on this machine.
#pragma once

#include "mapi/provider/StoreKind.h"

namespace velmar::mapi {

// PR_PROVIDER_DISPLAY_W of these stores.
inline constexpr wchar_t kMaildirProviderName[] = L"Velmar Maildir";

const IStoreKind& MaildirStoreKind();

}  // namespace velmar::mapi
