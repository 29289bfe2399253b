// What a table shows: a fixed snapshot of rows whose values are looked up by tag. Providers implement
// ITableRows over their own data (a folder index, a message's recipients); CRowList holds rows in memory.
#pragma once

#include <optional>
#include <vector>

#include "mapi/runtime/PropValue.h"

namespace velmar::mapi {

class ITableRows {
public:
    virtual ~ITableRows() = default;
    virtual size_t RowCount() const = 0;
    // The value in row that answers tag (see Answers), or null when the row has none. A source that keeps
    // its values returns one of them; one that makes them when asked makes it in slot and returns &slot.
    // Either way the value stays valid while the source lives and slot is left alone.
    virtual const CPropValue* Find(size_t row, ULONG tag, CPropValue& slot) const = 0;
    // The columns a new table shows.
    virtual std::vector<ULONG> DefaultColumns() const = 0;
    // The rows, in ascending order, whose value of value.ulPropTag equals value exactly, when the source
    // keeps an index for that property; nullopt when it does not and the table has to look at every row.
    virtual std::optional<std::vector<size_t>> IndexedEqual(const SPropValue& value) const {
        (void)value;
        return std::nullopt;
    }
};

class CRowList : public ITableRows {
public:
    CRowList(std::vector<ULONG> defaultColumns, std::vector<std::vector<CPropValue>> rows)
        : m_defaultColumns(std::move(defaultColumns)), m_rows(std::move(rows)) {}

    size_t RowCount() const override { return m_rows.size(); }
    const CPropValue* Find(size_t row, ULONG tag, CPropValue&) const override { return Find(row, tag); }
    const CPropValue* Find(size_t row, ULONG tag) const {
        for (const CPropValue& value : m_rows[row])
            if (Answers(value, tag)) return &value;
        return nullptr;
    }
    std::vector<ULONG> DefaultColumns() const override { return m_defaultColumns; }

private:
    std::vector<ULONG> m_defaultColumns;
    std::vector<std::vector<CPropValue>> m_rows;
};

}  // namespace velmar::mapi
