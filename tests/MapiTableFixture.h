// Rows, restrictions and cursors shared by the tests of our MAPI's restrictions and tables.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "mapi/runtime/ProviderBuffers.h"
#include "mapi/runtime/Table.h"
#include "mapiutil.h"

namespace velmar::test {

using velmar::CComPtr;
using velmar::mapi::CFileTime;
using velmar::mapi::CPropValue;
using velmar::mapi::CRowList;
using velmar::mapi::ITableRows;
using velmar::mapi::MakeTable;
using velmar::mapi::MapiBuffer;
using velmar::mapi::PropData;
using velmar::mapi::RowSetPtr;
using Bytes = std::vector<BYTE>;

constexpr ULONG kTagId = PROP_TAG(PT_LONG, 0x6700);  // which fixture row a table row is
constexpr ULONG kTagI8 = PROP_TAG(PT_I8, 0x6701);
constexpr ULONG kTagDouble = PROP_TAG(PT_DOUBLE, 0x6702);
constexpr ULONG kTagNobodyHas = PROP_TAG(PT_LONG, 0x6799);
constexpr ULONG kDirBackward = 0x00000001;

inline SPropValue Long(ULONG tag, LONG value) {
    SPropValue v{};
    v.ulPropTag = tag;
    v.Value.l = value;
    return v;
}
inline SPropValue Bool(ULONG tag, bool value) {
    SPropValue v{};
    v.ulPropTag = tag;
    v.Value.b = value ? 1 : 0;
    return v;
}
inline SPropValue I8(ULONG tag, std::int64_t value) {
    SPropValue v{};
    v.ulPropTag = tag;
    v.Value.li.QuadPart = value;
    return v;
}
inline SPropValue Double(ULONG tag, double value) {
    SPropValue v{};
    v.ulPropTag = tag;
    v.Value.dbl = value;
    return v;
}
inline SPropValue Time(ULONG tag, std::uint64_t ticks) {
    SPropValue v{};
    v.ulPropTag = tag;
    v.Value.ft = FILETIME{static_cast<DWORD>(ticks & 0xFFFFFFFF), static_cast<DWORD>(ticks >> 32)};
    return v;
}

// Owns what the restrictions a test builds point to, so they stay valid for the whole test.
class CRestrictions {
public:
    SPropValue String8(ULONG tag, std::string text) {
        SPropValue v{};
        v.ulPropTag = tag;
        v.Value.lpszA = m_narrow.emplace_back(std::move(text)).data();
        return v;
    }
    SPropValue Unicode(ULONG tag, std::wstring text) {
        SPropValue v{};
        v.ulPropTag = tag;
        v.Value.lpszW = m_wide.emplace_back(std::move(text)).data();
        return v;
    }
    SPropValue Binary(ULONG tag, Bytes bytes) {
        SPropValue v{};
        v.ulPropTag = tag;
        Bytes& kept = m_bytes.emplace_back(std::move(bytes));
        v.Value.bin = SBinary{static_cast<ULONG>(kept.size()), kept.data()};
        return v;
    }

    SRestriction Property(ULONG relop, ULONG tag, const SPropValue& value) {
        SRestriction r{};
        r.rt = RES_PROPERTY;
        r.res.resProperty = SPropertyRestriction{relop, tag, &m_values.emplace_back(value)};
        return r;
    }
    static SRestriction Exist(ULONG tag) {
        SRestriction r{};
        r.rt = RES_EXIST;
        r.res.resExist.ulPropTag = tag;
        return r;
    }

private:
    std::deque<std::string> m_narrow;
    std::deque<std::wstring> m_wide;
    std::deque<Bytes> m_bytes;
    std::deque<SPropValue> m_values;
};

inline CPropValue Id(LONG id) {
    return CPropValue{kTagId, std::int32_t{id}};
}

inline std::shared_ptr<const ITableRows> RowsOf(std::vector<std::vector<CPropValue>> rows) {
    return std::make_shared<CRowList>(std::vector<ULONG>{kTagId}, std::move(rows));
}

// Five messages with gaps: row 2 has no sender, row 3 no subject, attachment flag or entry id.
enum EFolderColumn { kColId, kColSubject, kColSize, kFolderColumnCount };
constexpr ULONG kFolderColumns[kFolderColumnCount] = {kTagId, PR_SUBJECT_W, PR_MESSAGE_SIZE};

inline std::shared_ptr<const ITableRows> FolderRows() {
    return std::make_shared<CRowList>(
        std::vector<ULONG>(std::begin(kFolderColumns), std::end(kFolderColumns)),
        std::vector<std::vector<CPropValue>>{
            {Id(0),
             {PR_SUBJECT_W, std::wstring(L"Quarterly report")},
             {PR_SENDER_NAME_A, std::string("Alice")},
             {PR_MESSAGE_SIZE, std::int32_t{1200}},
             {PR_HASATTACH, true},
             {PR_ENTRYID, Bytes{0xDE, 0xAD, 0xBE, 0xEF}}},
            {Id(1),
             {PR_SUBJECT_W, std::wstring(L"\u00c4RGER mit dem Drucker")},
             {PR_SENDER_NAME_A, std::string("Bob")},
             {PR_MESSAGE_SIZE, std::int32_t{300}},
             {PR_HASATTACH, false},
             {PR_ENTRYID, Bytes{0xBE, 0xEF}}},
            {Id(2),
             {PR_SUBJECT_W, std::wstring(L"Re: quarterly report")},
             {PR_MESSAGE_SIZE, std::int32_t{1200}},
             {PR_HASATTACH, true},
             {PR_ENTRYID, Bytes{0x00}}},
            {Id(3), {PR_SENDER_NAME_A, std::string("carol")}, {PR_MESSAGE_SIZE, std::int32_t{50}}},
            {Id(4),
             {PR_SUBJECT_W, std::wstring(L"\u041f\u0420\u0418\u0412\u0415\u0422")},  // ПРИВЕТ
             {PR_SENDER_NAME_A, std::string("ŁÓDŹ")},
             {PR_MESSAGE_SIZE, std::int32_t{9000}},
             {PR_HASATTACH, false}},
        });
}

inline CComPtr<IMAPITable> FolderTable() {
    CComPtr<IMAPITable> table = MakeTable(FolderRows());
    EXPECT_TRUE(table);
    return table;
}

// The ids (first column) of the rows QueryRows returns from the cursor.
inline std::vector<LONG> QueryIds(IMAPITable& table, LONG count, ULONG flags = 0) {
    LPSRowSet raw = nullptr;
    EXPECT_EQ(table.QueryRows(count, flags, &raw), S_OK);
    RowSetPtr rows(raw);
    std::vector<LONG> ids;
    if (!rows) return ids;
    for (ULONG i = 0; i < rows->cRows; ++i) {
        EXPECT_EQ(rows->aRow[i].lpProps[0].ulPropTag, kTagId);
        ids.push_back(rows->aRow[i].lpProps[0].Value.l);
    }
    return ids;
}

// Every row of the view from the top; checks that GetRowCount agrees.
inline std::vector<LONG> ViewIds(IMAPITable& table) {
    ULONG count = 0;
    EXPECT_EQ(table.GetRowCount(0, &count), S_OK);
    EXPECT_EQ(table.SeekRow(BOOKMARK_BEGINNING, 0, nullptr), S_OK);
    std::vector<LONG> ids = QueryIds(table, 1000);
    EXPECT_EQ(ids.size(), count);
    return ids;
}

inline std::vector<LONG> RestrictIds(IMAPITable& table, SRestriction restriction) {
    EXPECT_EQ(table.Restrict(&restriction, 0), S_OK);
    return ViewIds(table);
}

// A sort order set in a MAPI buffer, as a client would pass one.
inline MapiBuffer<SSortOrderSet> SortOrder(std::vector<SSortOrder> order, ULONG categories = 0) {
    LPVOID block = nullptr;
    EXPECT_EQ(MAPIAllocateBuffer(static_cast<ULONG>(CbNewSSortOrderSet(order.size())), &block), S_OK);
    MapiBuffer<SSortOrderSet> set(static_cast<LPSSortOrderSet>(block));
    set->cSorts = static_cast<ULONG>(order.size());
    set->cCategories = categories;
    set->cExpanded = categories;
    std::copy(order.begin(), order.end(), set->aSort);
    return set;
}

// Each of the above on a held table.
inline std::vector<LONG> QueryIds(const CComPtr<IMAPITable>& table, LONG count, ULONG flags = 0) {
    return QueryIds(*table.get(), count, flags);
}
inline std::vector<LONG> ViewIds(const CComPtr<IMAPITable>& table) {
    return ViewIds(*table.get());
}
inline std::vector<LONG> RestrictIds(const CComPtr<IMAPITable>& table, SRestriction restriction) {
    return RestrictIds(*table.get(), restriction);
}

inline ULONG Position(IMAPITable& table) {
    ULONG row = 0, numerator = 0, denominator = 0;
    EXPECT_EQ(table.QueryPosition(&row, &numerator, &denominator), S_OK);
    return row;
}

inline ULONG Position(const CComPtr<IMAPITable>& table) {
    return Position(*table.get());
}

using Ids = std::vector<LONG>;

}  // namespace velmar::test
