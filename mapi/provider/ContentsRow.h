// What the contents table of a folder shows of a message, the same for every folder index of this
// provider (Maildir, IMAP): the columns, and each value made from what the index knows of the message.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mapi/provider/EntryId.h"
#include "mapi/runtime/TableRows.h"

namespace velmar::mapi {

// The columns of a new contents table.
std::vector<ULONG> ContentsColumns();

// What an index knows of one message; the views live as long as the index's snapshot.
struct CContentsFacts {
    CEntryId entryId;               // kind Message
    std::vector<BYTE> instanceKey;  // unique within the table
    std::string_view messageId;
    std::string_view subject;  // UTF-8
    bool read = false;
    CFileTime delivered;
    std::uint64_t size = 0;
};

// The value of the row that answers tag, made in slot; null when the row has none.
const CPropValue* ContentsValue(const CContentsFacts& message, ULONG tag, CPropValue& slot);
// Every value a row of rows has, as a table shows them: what a message shows when its content cannot be
// had.
std::vector<CPropValue> ContentsRowValues(const ITableRows& rows, size_t row);
// The Message-ID a restriction on PR_INTERNET_MESSAGE_ID asks for (8-bit or Unicode), as UTF-8; nullopt for
// a restriction on anything else.
std::optional<std::string> RestrictedMessageId(const SPropValue& value);

}  // namespace velmar::mapi
