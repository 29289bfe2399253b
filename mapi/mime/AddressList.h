// Address-list fields (From, Sender, To, Cc, Bcc) read from their raw values as mail clients read them:
// RFC 5322 with its obsolete forms, and what is left of an address that breaks the rules.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace velmar::mapi {

struct CMailboxText {
    std::string name;     // the display name, UTF-8; empty when there is none
    std::string address;  // the address, UTF-8; empty when there is none
};

// Every mailbox of the field, group members in their place (a group's own name is dropped). A display
// name is unfolded (never a CR or LF in it), keeps the white space inside its quotes, and has its encoded
// words decoded (EncodedWords.h); raw 8-bit text is read as HeaderBytesToUtf8 reads it with hint. Kept
// from what breaks the rules, as mail clients keep it:
// - "Big Bug bb@bug.com": the address, and the words before it as the name;
// - "a@b (Name)": the comment as the name when there is no other;
// - "Doe, John <j@x>": an unquoted comma in a name, when a name and an address follow it;
// - "Someone": a lone word as the address; several words without an address as a name.
std::vector<CMailboxText> ParseAddressList(std::string_view raw, std::string_view hint);

}  // namespace velmar::mapi
