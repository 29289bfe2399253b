// The default columns of the recipient and attachment tables of this provider's messages, read and draft
// alike.
#pragma once

#include <iterator>
#include <vector>

#include "mapitags.h"

namespace velmar::mapi {

inline constexpr ULONG kRecipientColumns[] = {PR_DISPLAY_NAME_W, PR_EMAIL_ADDRESS_W, PR_ADDRTYPE_W,
                                              PR_RECIPIENT_TYPE, PR_ROWID,           PR_ENTRYID,
                                              PR_SMTP_ADDRESS_W};

// The attachment columns, then the one a kind of message adds: PR_INSTANCE_KEY for a read message,
// PR_ATTACH_EXTENSION_W for a draft (whose attachments carry it as it was set).
inline std::vector<ULONG> AttachmentColumnsWith(ULONG ulExtraTag) {
    return {PR_ATTACH_NUM,    PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_FILENAME_W, PR_DISPLAY_NAME_W,
            PR_ATTACH_METHOD, PR_ATTACH_CONTENT_ID_W,    PR_ATTACH_MIME_TAG_W, PR_ATTACH_SIZE,
            ulExtraTag};
}

inline std::vector<ULONG> RecipientColumns() {
    return std::vector<ULONG>(std::begin(kRecipientColumns), std::end(kRecipientColumns));
}

}  // namespace velmar::mapi
