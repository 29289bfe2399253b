// A message store on an IMAP server: the inbox, the sent-items, drafts and deleted-items folders are the
// server's (the latter by their special use, or their usual names, made when missing); the Outbox stays a
// Maildir folder of this machine, so that the spooler sends from it whether the server answers or not.
// Folders and messages are named by entry ids of this provider whose folder names start with "/".
#pragma once

#include "mapi/imap/ImapIndex.h"
#include "mapi/provider/EntryId.h"
#include "mapi/provider/Profiles.h"
#include "mapi/provider/Store.h"

namespace velmar::mapi {

// Opens the IMAP store of config (which has an IMAP account), starting its sync on first use.
HRESULT OpenImapStore(const CStoreConfig& config, LPMDB* lppMDB);
// Opens a folder or message of such a store by its decoded entry id; the Outbox and its messages are
// opened as Maildir entries.
HRESULT OpenImapEntry(const CStoreConfig& config, const CEntryId& id, LPCIID lpInterface, ULONG* lpulObjType,
                      LPUNKNOWN* lppUnk);

}  // namespace velmar::mapi
