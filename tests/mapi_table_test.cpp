// Tables of our MAPI: views, the index, cursors, missing columns, sorting and tables over one source.
#include <gtest/gtest.h>

#include "tests/MapiTableFixture.h"

namespace {

using namespace velmar::test;

TEST(MapiTableView, RestrictReplacesTheRestrictionAndResetsTheCursor) {
    CRestrictions b;
    CComPtr<IMAPITable> table = FolderTable();
    ULONG count = 0;
    ASSERT_EQ(table->GetRowCount(0, &count), S_OK);
    EXPECT_EQ(count, 5u);

    SRestriction small = b.Property(RELOP_LT, PR_MESSAGE_SIZE, Long(PR_MESSAGE_SIZE, 1000));
    ASSERT_EQ(table->Restrict(&small, 0), S_OK);
    ASSERT_EQ(table->GetRowCount(0, &count), S_OK);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(QueryIds(table, 1), Ids({1}));
    EXPECT_EQ(Position(table), 1u);

    // Evaluated over the source, not over the previous view.
    SRestriction attached = b.Property(RELOP_EQ, PR_HASATTACH, Bool(PR_HASATTACH, true));
    ASSERT_EQ(table->Restrict(&attached, 0), S_OK);
    EXPECT_EQ(Position(table), 0u);
    EXPECT_EQ(QueryIds(table, 10), Ids({0, 2}));

    ASSERT_EQ(table->Restrict(nullptr, 0), S_OK);
    EXPECT_EQ(ViewIds(table), Ids({0, 1, 2, 3, 4}));
}

// Rows with a message id index whose Find fails the test when asked for the message id.
class CIndexedRows : public ITableRows {
public:
    explicit CIndexedRows(std::vector<std::vector<CPropValue>> rows) : m_rows({kTagId}, std::move(rows)) {
        for (size_t row = 0; row < m_rows.RowCount(); ++row)
            if (const CPropValue* id = m_rows.Find(row, PR_INTERNET_MESSAGE_ID_W))
                m_index[std::get<std::wstring>(id->data)].push_back(row);
    }
    size_t RowCount() const override { return m_rows.RowCount(); }
    const CPropValue* Find(size_t row, ULONG tag, CPropValue& slot) const override {
        ++m_finds;
        if (PROP_ID(tag) == PROP_ID(PR_INTERNET_MESSAGE_ID_W))
            ADD_FAILURE() << "message id read from row " << row;
        return m_rows.Find(row, tag, slot);
    }
    std::vector<ULONG> DefaultColumns() const override { return m_rows.DefaultColumns(); }
    std::optional<std::vector<size_t>> IndexedEqual(const SPropValue& value) const override {
        ++m_lookups;
        if (value.ulPropTag != PR_INTERNET_MESSAGE_ID_W) return std::nullopt;
        const auto found = m_index.find(value.Value.lpszW);
        return found == m_index.end() ? std::vector<size_t>{} : found->second;
    }

    mutable std::atomic<int> m_finds{0};
    mutable std::atomic<int> m_lookups{0};

private:
    CRowList m_rows;
    std::map<std::wstring, std::vector<size_t>> m_index;
};

std::vector<std::vector<CPropValue>> Messages(size_t count) {
    std::vector<std::vector<CPropValue>> rows;
    for (size_t i = 0; i < count; ++i) {
        // Row 7 repeats row 3's id, as a copied message does.
        const size_t idNumber = i == 7 ? 3 : i;
        rows.push_back({Id(static_cast<LONG>(i)),
                        {PR_INTERNET_MESSAGE_ID_W, L"<" + std::to_wstring(idNumber) + L"@example.org>"},
                        {PR_MESSAGE_SIZE, static_cast<std::int32_t>(i % 10)}});
    }
    return rows;
}

TEST(MapiTableView, EqualityOnAnIndexedPropertySkipsTheScan) {
    constexpr size_t kMessages = 100000;
    auto indexed = std::make_shared<CIndexedRows>(Messages(kMessages));
    CComPtr<IMAPITable> table = MakeTable(indexed);
    ASSERT_TRUE(table);
    CRestrictions b;
    const auto lookup = [&](const wchar_t* id) {
        return b.Property(RELOP_EQ, PR_INTERNET_MESSAGE_ID_W, b.Unicode(PR_INTERNET_MESSAGE_ID_W, id));
    };

    SRestriction one = lookup(L"<54321@example.org>");
    ASSERT_EQ(table->Restrict(&one, 0), S_OK);
    EXPECT_EQ(indexed->m_lookups.load(), 1);
    EXPECT_EQ(indexed->m_finds.load(), 0) << "no row is looked at";
    EXPECT_EQ(ViewIds(table), Ids({54321}));
    EXPECT_EQ(RestrictIds(table, lookup(L"<3@example.org>")), Ids({3, 7}));
    EXPECT_EQ(RestrictIds(table, lookup(L"<none@example.org>")), Ids({}));

    // The same answers from a scan over the same rows.
    CComPtr<IMAPITable> scanned =
        MakeTable(std::make_shared<CRowList>(std::vector<ULONG>{kTagId}, Messages(20)));
    ASSERT_TRUE(scanned);
    EXPECT_EQ(RestrictIds(scanned, lookup(L"<3@example.org>")), Ids({3, 7}));
    EXPECT_EQ(RestrictIds(scanned, lookup(L"<12@example.org>")), Ids({12}));
    EXPECT_EQ(RestrictIds(scanned, lookup(L"<none@example.org>")), Ids({}));

    // Where the source has no index, the table scans.
    const int lookups = indexed->m_lookups.load();
    SRestriction nines = b.Property(RELOP_EQ, PR_MESSAGE_SIZE, Long(PR_MESSAGE_SIZE, 9));
    ASSERT_EQ(table->Restrict(&nines, 0), S_OK);
    ULONG count = 0;
    ASSERT_EQ(table->GetRowCount(0, &count), S_OK);
    EXPECT_EQ(count, kMessages / 10);
    EXPECT_EQ(QueryIds(table, 2), Ids({9, 19}));
    EXPECT_EQ(indexed->m_lookups.load(), lookups + 1);
    EXPECT_GE(indexed->m_finds.load(), static_cast<int>(kMessages));
}

TEST(MapiTableCursor, SeekRowClampsAndReportsTheRowsMoved) {
    CComPtr<IMAPITable> table = FolderTable();
    LONG sought = 99;
    EXPECT_EQ(table->SeekRow(BOOKMARK_BEGINNING, 2, &sought), S_OK);
    EXPECT_EQ(sought, 2);
    EXPECT_EQ(Position(table), 2u);
    EXPECT_EQ(table->SeekRow(BOOKMARK_CURRENT, 10, &sought), S_OK);
    EXPECT_EQ(sought, 3);
    EXPECT_EQ(Position(table), 5u);
    EXPECT_EQ(table->SeekRow(BOOKMARK_CURRENT, -7, &sought), S_OK);
    EXPECT_EQ(sought, -5);
    EXPECT_EQ(Position(table), 0u);
    EXPECT_EQ(table->SeekRow(BOOKMARK_END, -2, &sought), S_OK);
    EXPECT_EQ(sought, -2);
    EXPECT_EQ(QueryIds(table, 1, TBL_NOADVANCE), Ids({3}));
    EXPECT_EQ(table->SeekRow(BOOKMARK_END, 1, &sought), S_OK);
    EXPECT_EQ(sought, 0);
    EXPECT_EQ(table->SeekRow(BOOKMARK_BEGINNING, -1, &sought), S_OK);
    EXPECT_EQ(sought, 0);
    EXPECT_EQ(table->SeekRow(BOOKMARK_CURRENT, 1, nullptr), S_OK);
    EXPECT_EQ(Position(table), 1u);
    EXPECT_EQ(table->SeekRow(BOOKMARK{7}, 0, &sought), MAPI_E_INVALID_BOOKMARK);
    EXPECT_EQ(Position(table), 1u);

    ULONG row = 0, numerator = 0, denominator = 0;
    ASSERT_EQ(table->QueryPosition(&row, &numerator, &denominator), S_OK);
    EXPECT_EQ(numerator, 1u);
    EXPECT_EQ(denominator, 5u);
    EXPECT_EQ(table->SeekRowApprox(1, 2), S_OK);
    EXPECT_EQ(Position(table), 2u);
    EXPECT_EQ(table->SeekRowApprox(1, 0), MAPI_E_INVALID_PARAMETER);
}

TEST(MapiTableColumns, MissingValuesComeBackAsNotFoundErrors) {
    CComPtr<IMAPITable> table = FolderTable();
    SizedSPropTagArray(5, columns) = {
        5,
        {kTagId, PR_SUBJECT_A, kTagNobodyHas, CHANGE_PROP_TYPE(PR_MESSAGE_SIZE, PT_UNSPECIFIED), PR_ENTRYID}};
    ASSERT_EQ(table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0), S_OK);
    ASSERT_EQ(table->SeekRow(BOOKMARK_BEGINNING, 1, nullptr), S_OK);
    LPSRowSet raw = nullptr;
    ASSERT_EQ(table->QueryRows(3, 0, &raw), S_OK);
    RowSetPtr rows(raw);
    ASSERT_EQ(rows->cRows, 3u);
    for (ULONG i = 0; i < rows->cRows; ++i) ASSERT_EQ(rows->aRow[i].cValues, 5u);

    const SPropValue* row1 = rows->aRow[0].lpProps;
    EXPECT_EQ(row1[0].Value.l, 1);
    // The wide subject converted to the 8-bit width the column asks for.
    EXPECT_EQ(row1[1].ulPropTag, PR_SUBJECT_A);
    EXPECT_STREQ(row1[1].Value.lpszA, "\xC3\x84RGER mit dem Drucker");
    EXPECT_EQ(row1[2].ulPropTag, CHANGE_PROP_TYPE(kTagNobodyHas, PT_ERROR));
    EXPECT_EQ(row1[2].Value.err, MAPI_E_NOT_FOUND);
    // A PT_UNSPECIFIED column comes back with the type stored.
    EXPECT_EQ(row1[3].ulPropTag, PR_MESSAGE_SIZE);
    EXPECT_EQ(row1[3].Value.l, 300);
    ASSERT_EQ(row1[4].ulPropTag, PR_ENTRYID);
    EXPECT_EQ(Bytes(row1[4].Value.bin.lpb, row1[4].Value.bin.lpb + row1[4].Value.bin.cb),
              Bytes({0xBE, 0xEF}));

    const SPropValue* row3 = (rows->aRow + 2)->lpProps;  // rows is declared as an array of one
    EXPECT_EQ(row3[0].Value.l, 3);
    EXPECT_EQ(row3[1].ulPropTag, CHANGE_PROP_TYPE(PR_SUBJECT_A, PT_ERROR));
    EXPECT_EQ(row3[1].Value.err, MAPI_E_NOT_FOUND);
    EXPECT_EQ(row3[4].ulPropTag, CHANGE_PROP_TYPE(PR_ENTRYID, PT_ERROR));
    EXPECT_EQ(row3[4].Value.err, MAPI_E_NOT_FOUND);
}

// Sorts the table by the given columns and returns its ids from the top.
Ids SortedIds(const CComPtr<IMAPITable>& table, std::vector<SSortOrder> order) {
    EXPECT_EQ(table->SortTable(SortOrder(std::move(order)).get(), 0), S_OK);
    EXPECT_EQ(Position(table), 0u);
    return ViewIds(table);
}

TEST(MapiTableSort, SortsAscendingAndDescendingKeepingTiesInSourceOrder) {
    CComPtr<IMAPITable> table = FolderTable();
    ASSERT_EQ(table->SeekRow(BOOKMARK_BEGINNING, 2, nullptr), S_OK);
    EXPECT_EQ(SortedIds(table, {{PR_MESSAGE_SIZE, TABLE_SORT_ASCEND}}), Ids({3, 1, 0, 2, 4}));
    EXPECT_EQ(SortedIds(table, {{PR_MESSAGE_SIZE, TABLE_SORT_DESCEND}}), Ids({4, 0, 2, 1, 3}));
    // The second key decides between the two rows of equal size.
    EXPECT_EQ(SortedIds(table, {{PR_MESSAGE_SIZE, TABLE_SORT_ASCEND}, {PR_SUBJECT_W, TABLE_SORT_DESCEND}}),
              Ids({3, 1, 2, 0, 4}));
    // Rows without a sender come first either way; senders order by code point ("Bob" < "carol" < "Ł...").
    EXPECT_EQ(SortedIds(table, {{PR_SENDER_NAME_A, TABLE_SORT_ASCEND}}), Ids({2, 0, 1, 3, 4}));
    EXPECT_EQ(SortedIds(table, {{PR_SENDER_NAME_A, TABLE_SORT_DESCEND}}), Ids({2, 4, 3, 1, 0}));
    EXPECT_EQ(SortedIds(table, {{PR_SENDER_NAME_W, TABLE_SORT_DESCEND}}), Ids({2, 4, 3, 1, 0}));
    EXPECT_EQ(SortedIds(table, {}), Ids({0, 1, 2, 3, 4}));
    // Ties follow the source, not whatever order the previous sort left.
    EXPECT_EQ(SortedIds(table, {{PR_SUBJECT_W, TABLE_SORT_DESCEND}}), Ids({3, 4, 1, 2, 0}));
    EXPECT_EQ(SortedIds(table, {{PR_MESSAGE_SIZE, TABLE_SORT_ASCEND}}), Ids({3, 1, 0, 2, 4}));
}

TEST(MapiTableObject, TablesOverOneSourceKeepTheirOwnState) {
    CRestrictions b;
    const std::shared_ptr<const ITableRows> rows = FolderRows();
    CComPtr<IMAPITable> first = MakeTable(rows);
    CComPtr<IMAPITable> second = MakeTable(rows);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(RestrictIds(first, b.Exist(PR_SENDER_NAME_A)), Ids({0, 1, 3, 4}));
    ASSERT_EQ(second->SeekRow(BOOKMARK_BEGINNING, 4, nullptr), S_OK);
    EXPECT_EQ(Position(first), 4u);
    EXPECT_EQ(QueryIds(second, 1), Ids({4}));
    EXPECT_EQ(ViewIds(second), Ids({0, 1, 2, 3, 4}));

    // Each thread restricts, sorts and reads its own table over the shared rows.
    std::atomic<int> wrong{0};
    const auto work = [&](LONG size, Ids expected) {
        CRestrictions mine;
        SRestriction restriction = mine.Property(RELOP_GE, PR_MESSAGE_SIZE, Long(PR_MESSAGE_SIZE, size));
        MapiBuffer<SSortOrderSet> bySize = SortOrder({{PR_MESSAGE_SIZE, TABLE_SORT_DESCEND}});
        CComPtr<IMAPITable> table = MakeTable(rows);
        for (int i = 0; i < 200 && table; ++i) {
            if (table->SortTable(bySize.get(), 0) != S_OK || table->Restrict(&restriction, 0) != S_OK ||
                QueryIds(table, 10) != expected)
                ++wrong;
        }
    };
    std::thread one(work, 1000, Ids{4, 0, 2});
    std::thread two(work, 100, Ids{4, 0, 2, 1});
    one.join();
    two.join();
    EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
