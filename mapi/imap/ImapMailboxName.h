// Mailbox names as IMAP writes them (RFC 3501 5.1.3, "modified UTF-7"): printable ASCII as itself, "&-"
// for "&", and every other run of characters as "&" + base64 of its UTF-16 (with "," for "/") + "-".
// German folder names arrive so: "Entw&APw-rfe" is "Entwürfe".
#pragma once

#include <string>
#include <string_view>

namespace velmar::mapi {

// The name for people; a run that is not modified UTF-7 stays as written.
std::wstring DecodeMailboxName(std::string_view name);

}  // namespace velmar::mapi
