// Where the spooler puts a message in a store: a recipient's or a delivery report's inbox, a sent copy's
// folder. A Maildir folder on this machine, written the safe way, or a folder on the store's IMAP server,
// appended to (the sent copy with \Seen).
#pragma once

#include <string>
#include <string_view>

#include "mapi/provider/Profiles.h"

namespace velmar::mapi {

// The inbox of store; false with problem set when the message could not be put there.
bool FileInInbox(const CStoreConfig& store, std::string_view message, std::string& problem);
// The sent-items folder of store, read: sentFolder as the queued message names it (a Maildir folder name, or
// "/" and a folder on the server), else the store's own. False with problem set when it could not be filed.
bool FileAsSent(const CStoreConfig& store, const std::string& sentFolder, std::string_view message,
                std::string& problem);

}  // namespace velmar::mapi
