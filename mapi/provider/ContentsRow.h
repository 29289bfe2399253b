// What the contents table of a folder shows of a message, the same for every folder index of this
// provider (Maildir, IMAP): the columns, and each value made from what the index knows of the message.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mapi/provider/EntryId.h"
#include "mapi/provider/RowHash.h"
#include "mapi/runtime/TableRows.h"

namespace velmar::mapi {

// The columns of a new contents table.
std::vector<ULONG> ContentsColumns();

// What an index knows of one message; the views live as long as the index's snapshot (or the call).
struct CContentsFacts {
    std::uint64_t storeId = 0;
    std::string_view folder;              // the folder's name in entry ids
    std::string_view key;                 // the message's key in entry ids, and its instance key
    std::optional<std::uint64_t> file{};  // CEntryId::file, when the key has several files
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

// ITableRows::IndexedEqual of an index that hashes its rows by Message-ID (messageIdOf(row) gives a row's):
// the rows, ascending, whose Message-ID is the one value asks for; nullopt for a restriction on anything
// else.
template <class MessageIdOf>
std::optional<std::vector<size_t>> RowsWithMessageId(const SPropValue& value, const CRowHash& byMessageId,
                                                     MessageIdOf&& messageIdOf) {
    const std::optional<std::string> wanted = RestrictedMessageId(value);
    if (!wanted) return std::nullopt;
    std::vector<size_t> rows;
    byMessageId.Probe(CRowHash::HashOf(*wanted), [&](size_t row) {
        if (messageIdOf(row) == *wanted) rows.push_back(row);
        return false;
    });
    std::sort(rows.begin(), rows.end());
    return rows;
}

}  // namespace velmar::mapi
