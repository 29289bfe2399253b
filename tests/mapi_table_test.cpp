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

namespace {

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

SPropValue Long(ULONG tag, LONG value) {
    SPropValue v{};
    v.ulPropTag = tag;
    v.Value.l = value;
    return v;
}
SPropValue Bool(ULONG tag, bool value) {
    SPropValue v{};
    v.ulPropTag = tag;
    v.Value.b = value ? 1 : 0;
    return v;
}
SPropValue I8(ULONG tag, std::int64_t value) {
    SPropValue v{};
    v.ulPropTag = tag;
    v.Value.li.QuadPart = value;
    return v;
}
SPropValue Double(ULONG tag, double value) {
    SPropValue v{};
    v.ulPropTag = tag;
    v.Value.dbl = value;
    return v;
}
SPropValue Time(ULONG tag, std::uint64_t ticks) {
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
    SRestriction Content(ULONG fuzzyLevel, ULONG tag, const SPropValue& value) {
        SRestriction r{};
        r.rt = RES_CONTENT;
        r.res.resContent = SContentRestriction{fuzzyLevel, tag, &m_values.emplace_back(value)};
        return r;
    }
    static SRestriction Exist(ULONG tag) {
        SRestriction r{};
        r.rt = RES_EXIST;
        r.res.resExist.ulPropTag = tag;
        return r;
    }
    SRestriction And(std::vector<SRestriction> children) { return List(RES_AND, std::move(children)); }
    SRestriction Or(std::vector<SRestriction> children) { return List(RES_OR, std::move(children)); }
    SRestriction Not(const SRestriction& child) {
        SRestriction r{};
        r.rt = RES_NOT;
        r.res.resNot.lpRes = &m_nodes.emplace_back(child);
        return r;
    }

private:
    SRestriction List(ULONG kind, std::vector<SRestriction> children) {
        std::vector<SRestriction>& kept = m_lists.emplace_back(std::move(children));
        SRestriction r{};
        r.rt = kind;
        r.res.resAnd = SAndRestriction{static_cast<ULONG>(kept.size()), kept.empty() ? nullptr : kept.data()};
        return r;
    }

    std::deque<std::string> m_narrow;
    std::deque<std::wstring> m_wide;
    std::deque<Bytes> m_bytes;
    std::deque<SPropValue> m_values;
    std::deque<SRestriction> m_nodes;
    std::deque<std::vector<SRestriction>> m_lists;
};

CPropValue Id(LONG id) {
    return CPropValue{kTagId, std::int32_t{id}};
}

std::shared_ptr<const ITableRows> RowsOf(std::vector<std::vector<CPropValue>> rows) {
    return std::make_shared<CRowList>(std::vector<ULONG>{kTagId}, std::move(rows));
}

// Five messages with gaps: row 2 has no sender, row 3 no subject, attachment flag or entry id.
enum EFolderColumn { kColId, kColSubject, kColSize, kFolderColumnCount };
constexpr ULONG kFolderColumns[kFolderColumnCount] = {kTagId, PR_SUBJECT_W, PR_MESSAGE_SIZE};

std::shared_ptr<const ITableRows> FolderRows() {
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
             {PR_SENDER_NAME_A, std::string("\xC5\x81\xC3\x93"
                                            "D\xC5\xB9")},  // ŁÓDŹ
             {PR_MESSAGE_SIZE, std::int32_t{9000}},
             {PR_HASATTACH, false}},
        });
}

CComPtr<IMAPITable> FolderTable() {
    CComPtr<IMAPITable> table = MakeTable(FolderRows());
    EXPECT_TRUE(table);
    return table;
}

// The ids (first column) of the rows QueryRows returns from the cursor.
std::vector<LONG> QueryIds(IMAPITable& table, LONG count, ULONG flags = 0) {
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
std::vector<LONG> ViewIds(IMAPITable& table) {
    ULONG count = 0;
    EXPECT_EQ(table.GetRowCount(0, &count), S_OK);
    EXPECT_EQ(table.SeekRow(BOOKMARK_BEGINNING, 0, nullptr), S_OK);
    std::vector<LONG> ids = QueryIds(table, 1000);
    EXPECT_EQ(ids.size(), count);
    return ids;
}

std::vector<LONG> RestrictIds(IMAPITable& table, SRestriction restriction) {
    EXPECT_EQ(table.Restrict(&restriction, 0), S_OK);
    return ViewIds(table);
}

// A sort order set in a MAPI buffer, as a client would pass one.
MapiBuffer<SSortOrderSet> SortOrder(std::vector<SSortOrder> order, ULONG categories = 0) {
    LPVOID block = nullptr;
    EXPECT_EQ(MAPIAllocateBuffer(static_cast<ULONG>(CbNewSSortOrderSet(order.size())), &block), S_OK);
    MapiBuffer<SSortOrderSet> set(static_cast<LPSSortOrderSet>(block));
    set->cSorts = static_cast<ULONG>(order.size());
    set->cCategories = categories;
    set->cExpanded = categories;
    std::copy(order.begin(), order.end(), set->aSort);
    return set;
}

ULONG Position(IMAPITable& table) {
    ULONG row = 0, numerator = 0, denominator = 0;
    EXPECT_EQ(table.QueryPosition(&row, &numerator, &denominator), S_OK);
    return row;
}

using Ids = std::vector<LONG>;

TEST(MapiRestriction, EveryRelopOnEveryTypeAndMissingValuesNeverMatch) {
    CRestrictions b;
    struct CCase {
        const char* name;
        ULONG tag;
        PropData high, low, mid;
        SPropValue probe;  // equal to mid
    };
    const CCase cases[] = {
        {"long", PR_MESSAGE_SIZE, std::int32_t{300}, std::int32_t{-5}, std::int32_t{7},
         Long(PR_MESSAGE_SIZE, 7)},
        {"i8", kTagI8, std::int64_t{(1LL << 32) + 1}, std::int64_t{-(1LL << 40)}, std::int64_t{1LL << 32},
         I8(kTagI8, 1LL << 32)},
        {"double", kTagDouble, 1e10, -2.5, 0.5, Double(kTagDouble, 0.5)},
        // The low value has the larger low dword: only a comparison of all 64 bits orders these.
        {"systime", PR_MESSAGE_DELIVERY_TIME, CFileTime{0x100000001}, CFileTime{0xFFFFFFFF},
         CFileTime{0x100000000}, Time(PR_MESSAGE_DELIVERY_TIME, 0x100000000)},
        // Case-sensitive code point order: 'Z' < 'a' < U+00E4.
        {"string8", PR_SENDER_NAME_A, std::string("\xC3\xA4pfel"), std::string("Zebra"), std::string("apple"),
         b.String8(PR_SENDER_NAME_A, "apple")},
        {"unicode", PR_SUBJECT_W, std::wstring(L"\u00e4pfel"), std::wstring(L"Zebra"), std::wstring(L"apple"),
         b.Unicode(PR_SUBJECT_W, L"apple")},
        // Bytes first, then length.
        {"binary", PR_ENTRYID, Bytes{0x02, 0x00}, Bytes{0x01, 0xFF}, Bytes{0x02},
         b.Binary(PR_ENTRYID, {0x02})},
    };
    // Rows: 0 high, 1 without the property, 2 low, 3 mid.
    const std::pair<ULONG, Ids> expected[] = {{RELOP_LT, {2}},    {RELOP_LE, {2, 3}}, {RELOP_GT, {0}},
                                              {RELOP_GE, {0, 3}}, {RELOP_EQ, {3}},    {RELOP_NE, {0, 2}}};
    for (const CCase& c : cases) {
        CComPtr<IMAPITable> table = MakeTable(
            RowsOf({{Id(0), {c.tag, c.high}}, {Id(1)}, {Id(2), {c.tag, c.low}}, {Id(3), {c.tag, c.mid}}}));
        ASSERT_TRUE(table);
        for (const auto& [relop, ids] : expected)
            EXPECT_EQ(RestrictIds(*table.get(), b.Property(relop, c.tag, c.probe)), ids)
                << c.name << " relop " << relop;
    }
}

TEST(MapiRestriction, BooleansOrderFalseBeforeTrue) {
    CRestrictions b;
    CComPtr<IMAPITable> table =
        MakeTable(RowsOf({{Id(0), {PR_HASATTACH, true}}, {Id(1)}, {Id(2), {PR_HASATTACH, false}}}));
    ASSERT_TRUE(table);
    const SPropValue yes = Bool(PR_HASATTACH, true);
    EXPECT_EQ(RestrictIds(*table.get(), b.Property(RELOP_EQ, PR_HASATTACH, yes)), Ids({0}));
    EXPECT_EQ(RestrictIds(*table.get(), b.Property(RELOP_NE, PR_HASATTACH, yes)), Ids({2}));
    EXPECT_EQ(RestrictIds(*table.get(), b.Property(RELOP_LT, PR_HASATTACH, yes)), Ids({2}));
    EXPECT_EQ(RestrictIds(*table.get(), b.Property(RELOP_GT, PR_HASATTACH, yes)), Ids({}));
    EXPECT_EQ(RestrictIds(*table.get(), b.Property(RELOP_GE, PR_HASATTACH, Bool(PR_HASATTACH, false))),
              Ids({0, 2}));
}

TEST(MapiRestriction, StringsOfEitherWidthCompareByCodePoint) {
    CRestrictions b;
    CComPtr<IMAPITable> table = MakeTable(RowsOf({
        {Id(0), {PR_SUBJECT_W, std::wstring(L"\u00e4pfel")}},
        {Id(1), {PR_SUBJECT_A, std::string("\xC3\xA4pfel")}},
        {Id(2), {PR_SUBJECT_W, std::wstring(L"\U0001F600")}},  // beyond the BMP
        {Id(3), {PR_SUBJECT_A, std::string("apple")}},
    }));
    ASSERT_TRUE(table);
    // An 8-bit restriction finds wide values and a wide one finds 8-bit values.
    EXPECT_EQ(RestrictIds(*table.get(),
                          b.Property(RELOP_EQ, PR_SUBJECT_A, b.String8(PR_SUBJECT_A, "\xC3\xA4pfel"))),
              Ids({0, 1}));
    EXPECT_EQ(
        RestrictIds(*table.get(), b.Property(RELOP_EQ, PR_SUBJECT_W, b.Unicode(PR_SUBJECT_W, L"apple"))),
        Ids({3}));
    // U+1F600 > U+FFFD whether compared as UTF-8 bytes or as wide characters.
    EXPECT_EQ(RestrictIds(*table.get(),
                          b.Property(RELOP_GT, PR_SUBJECT_A, b.String8(PR_SUBJECT_A, "\xEF\xBF\xBD"))),
              Ids({2}));
    EXPECT_EQ(
        RestrictIds(*table.get(), b.Property(RELOP_GT, PR_SUBJECT_W, b.Unicode(PR_SUBJECT_W, L"\ufffd"))),
        Ids({2}));
    EXPECT_EQ(RestrictIds(*table.get(), b.Property(RELOP_LT, PR_SUBJECT_W, b.Unicode(PR_SUBJECT_W, L"b"))),
              Ids({3}));
    // A value of another type is not equal to anything.
    EXPECT_EQ(RestrictIds(*table.get(), b.Property(RELOP_NE, PR_SUBJECT_W,
                                                   Long(CHANGE_PROP_TYPE(PR_SUBJECT_W, PT_LONG), 1))),
              Ids({}));
}

TEST(MapiRestriction, AndOrNotExistNest) {
    CRestrictions b;
    CComPtr<IMAPITable> table = FolderTable();
    const SRestriction hasSender = b.Exist(PR_SENDER_NAME_A);
    const SRestriction big = b.Property(RELOP_GE, PR_MESSAGE_SIZE, Long(PR_MESSAGE_SIZE, 300));
    EXPECT_EQ(RestrictIds(*table.get(), b.And({hasSender, big})), Ids({0, 1, 4}));
    EXPECT_EQ(RestrictIds(*table.get(),
                          b.Or({b.Content(FL_SUBSTRING, PR_SUBJECT_W, b.Unicode(PR_SUBJECT_W, L"report")),
                                b.Property(RELOP_LT, PR_MESSAGE_SIZE, Long(PR_MESSAGE_SIZE, 100))})),
              Ids({0, 2, 3}));
    EXPECT_EQ(RestrictIds(*table.get(), b.Not(b.Exist(PR_SUBJECT_W))), Ids({3}));
    EXPECT_EQ(RestrictIds(*table.get(), b.And({})), Ids({0, 1, 2, 3, 4}));
    EXPECT_EQ(RestrictIds(*table.get(), b.Or({})), Ids({}));
    EXPECT_EQ(RestrictIds(*table.get(), b.Not(b.Or({}))), Ids({0, 1, 2, 3, 4}));
    // NOT of a comparison takes in the rows without the property: the comparison did not match them.
    EXPECT_EQ(RestrictIds(*table.get(),
                          b.Not(b.Property(RELOP_EQ, PR_SENDER_NAME_A, b.String8(PR_SENDER_NAME_A, "Bob")))),
              Ids({0, 2, 3, 4}));
    const SRestriction attached = b.Property(RELOP_EQ, PR_HASATTACH, Bool(PR_HASATTACH, true));
    EXPECT_EQ(
        RestrictIds(*table.get(), b.Or({b.And({attached, b.Not(hasSender)}), b.Not(b.Exist(PR_HASATTACH))})),
        Ids({2, 3}));
}

TEST(MapiRestriction, ExistLooksForAValueAnsweringTheTag) {
    CComPtr<IMAPITable> table = FolderTable();
    EXPECT_EQ(RestrictIds(*table.get(), CRestrictions::Exist(PR_SUBJECT_W)), Ids({0, 1, 2, 4}));
    EXPECT_EQ(RestrictIds(*table.get(), CRestrictions::Exist(PR_SUBJECT_A)), Ids({0, 1, 2, 4}));
    EXPECT_EQ(RestrictIds(*table.get(), CRestrictions::Exist(CHANGE_PROP_TYPE(PR_SUBJECT_W, PT_UNSPECIFIED))),
              Ids({0, 1, 2, 4}));
    EXPECT_EQ(RestrictIds(*table.get(), CRestrictions::Exist(CHANGE_PROP_TYPE(PR_SUBJECT_W, PT_LONG))),
              Ids({}));
}

TEST(MapiRestriction, ContentMatchesFullStringSubstringAndPrefix) {
    CRestrictions b;
    CComPtr<IMAPITable> table = FolderTable();
    const auto subject = [&](ULONG level, const char* text) {
        return RestrictIds(*table.get(), b.Content(level, PR_SUBJECT_A, b.String8(PR_SUBJECT_A, text)));
    };
    EXPECT_EQ(subject(FL_SUBSTRING, "report"), Ids({0, 2}));
    EXPECT_EQ(subject(FL_SUBSTRING, "Quarterly"), Ids({0}));
    EXPECT_EQ(subject(FL_SUBSTRING | FL_IGNORECASE, "QUARTERLY"), Ids({0, 2}));
    EXPECT_EQ(subject(FL_PREFIX, "Re:"), Ids({2}));
    EXPECT_EQ(subject(FL_PREFIX, "report"), Ids({}));
    EXPECT_EQ(subject(FL_PREFIX | FL_IGNORECASE, "RE: Q"), Ids({2}));
    EXPECT_EQ(subject(FL_FULLSTRING, "Quarterly report"), Ids({0}));
    EXPECT_EQ(subject(FL_FULLSTRING, "Quarterly"), Ids({}));
    EXPECT_EQ(subject(FL_FULLSTRING | FL_IGNORECASE, "quarterly REPORT"), Ids({0}));
    EXPECT_EQ(subject(FL_SUBSTRING, ""), Ids({0, 1, 2, 4}));
    // Without case folding of our own, loose matching and ignoring non-spacing marks still ignore case.
    EXPECT_EQ(subject(FL_SUBSTRING | FL_LOOSE, "QUARTERLY"), Ids({0, 2}));
    EXPECT_EQ(subject(FL_SUBSTRING | FL_IGNORENONSPACE, "QUARTERLY"), Ids({0, 2}));
}

TEST(MapiRestriction, ContentIgnoresCaseBeyondAscii) {
    CRestrictions b;
    CComPtr<IMAPITable> table = FolderTable();
    // "ärger" in UTF-8 against the wide "ÄRGER ..."; the test runs in the C locale, where towlower is ASCII
    // only.
    EXPECT_EQ(RestrictIds(*table.get(), b.Content(FL_SUBSTRING | FL_IGNORECASE, PR_SUBJECT_A,
                                                  b.String8(PR_SUBJECT_A, "\xC3\xA4rger"))),
              Ids({1}));
    EXPECT_EQ(RestrictIds(*table.get(),
                          b.Content(FL_SUBSTRING, PR_SUBJECT_A, b.String8(PR_SUBJECT_A, "\xC3\xA4rger"))),
              Ids({}));
    EXPECT_EQ(
        RestrictIds(*table.get(), b.Content(FL_PREFIX, PR_SUBJECT_W, b.Unicode(PR_SUBJECT_W, L"\u00c4RGER"))),
        Ids({1}));
    // Cyrillic "привет" against the stored capitals.
    EXPECT_EQ(RestrictIds(*table.get(),
                          b.Content(FL_FULLSTRING | FL_IGNORECASE, PR_SUBJECT_W,
                                    b.Unicode(PR_SUBJECT_W, L"\u043f\u0440\u0438\u0432\u0435\u0442"))),
              Ids({4}));
    // A wide "łódź" against the 8-bit "ŁÓDŹ" (Latin Extended-A).
    EXPECT_EQ(RestrictIds(*table.get(), b.Content(FL_FULLSTRING | FL_IGNORECASE, PR_SENDER_NAME_W,
                                                  b.Unicode(PR_SENDER_NAME_W, L"\u0142\u00f3d\u017a"))),
              Ids({4}));
    EXPECT_EQ(RestrictIds(*table.get(), b.Content(FL_FULLSTRING, PR_SENDER_NAME_W,
                                                  b.Unicode(PR_SENDER_NAME_W, L"\u0142\u00f3d\u017a"))),
              Ids({}));
}

TEST(MapiRestriction, ContentOnBinariesAndOnOtherTypes) {
    CRestrictions b;
    CComPtr<IMAPITable> table = FolderTable();
    EXPECT_EQ(
        RestrictIds(*table.get(), b.Content(FL_SUBSTRING, PR_ENTRYID, b.Binary(PR_ENTRYID, {0xBE, 0xEF}))),
        Ids({0, 1}));
    EXPECT_EQ(RestrictIds(*table.get(), b.Content(FL_PREFIX, PR_ENTRYID, b.Binary(PR_ENTRYID, {0xBE}))),
              Ids({1}));
    EXPECT_EQ(
        RestrictIds(*table.get(), b.Content(FL_FULLSTRING, PR_ENTRYID, b.Binary(PR_ENTRYID, {0xBE, 0xEF}))),
        Ids({1}));
    EXPECT_EQ(RestrictIds(*table.get(), b.Content(FL_SUBSTRING, PR_ENTRYID, b.Binary(PR_ENTRYID, {}))),
              Ids({0, 1, 2}));
    // A string pattern against a number matches nothing rather than failing.
    EXPECT_EQ(
        RestrictIds(*table.get(), b.Content(FL_SUBSTRING, PR_MESSAGE_SIZE, b.String8(PR_SUBJECT_A, "1"))),
        Ids({}));
}

TEST(MapiRestriction, UnsupportedKindsAreTooComplexAndLeaveTheViewAlone) {
    CRestrictions b;
    CComPtr<IMAPITable> table = FolderTable();
    ASSERT_EQ(RestrictIds(*table.get(), b.Exist(PR_HASATTACH)), Ids({0, 1, 2, 4}));

    std::vector<SRestriction> refused;
    for (ULONG kind :
         {RES_COMPAREPROPS, RES_BITMASK, RES_SIZE, RES_SUBRESTRICTION, RES_COMMENT, ULONG{0x99}}) {
        SRestriction r{};
        r.rt = kind;
        refused.push_back(r);
    }
    refused.push_back(b.Property(RELOP_RE, PR_SUBJECT_A, b.String8(PR_SUBJECT_A, "re.*")));
    refused.push_back(b.Property(ULONG{7}, PR_MESSAGE_SIZE, Long(PR_MESSAGE_SIZE, 1)));
    SPropValue guid{};
    guid.ulPropTag = PROP_TAG(PT_CLSID, 0x6710);
    refused.push_back(b.Property(RELOP_EQ, guid.ulPropTag, guid));
    refused.push_back(b.Property(RELOP_EQ, PROP_TAG(PT_MV_LONG, 0x6711), Long(PROP_TAG(PT_LONG, 0x6711), 1)));
    refused.push_back(
        b.Content(ULONG{3}, PR_SUBJECT_A, b.String8(PR_SUBJECT_A, "x")));  // no such fuzzy level
    refused.push_back(b.Content(FL_SUBSTRING, PR_MESSAGE_SIZE, Long(PR_MESSAGE_SIZE, 1)));
    refused.push_back(b.Not(b.And({b.Exist(PR_SUBJECT_W), refused.front()})));  // deep inside a valid tree

    for (size_t i = 0; i < refused.size(); ++i) {
        EXPECT_EQ(table->Restrict(&refused[i], 0), MAPI_E_TOO_COMPLEX) << "case " << i;
        EXPECT_EQ(table->FindRow(&refused[i], BOOKMARK_BEGINNING, 0), MAPI_E_TOO_COMPLEX) << "case " << i;
    }
    EXPECT_EQ(ViewIds(*table.get()), Ids({0, 1, 2, 4}));
}

TEST(MapiRestriction, NullPointersInsideAreInvalidParameters) {
    CRestrictions b;
    CComPtr<IMAPITable> table = FolderTable();
    std::vector<SRestriction> broken(6);
    broken[0] = b.Property(RELOP_EQ, PR_MESSAGE_SIZE, Long(PR_MESSAGE_SIZE, 1));
    broken[0].res.resProperty.lpProp = nullptr;
    broken[1] = b.Content(FL_SUBSTRING, PR_SUBJECT_A, b.String8(PR_SUBJECT_A, "x"));
    broken[1].res.resContent.lpProp = nullptr;
    broken[2].rt = RES_AND;
    broken[2].res.resAnd = SAndRestriction{2, nullptr};
    broken[3].rt = RES_NOT;
    broken[3].res.resNot.lpRes = nullptr;
    SPropValue nullString{};
    nullString.ulPropTag = PR_SUBJECT_A;
    broken[4] = b.Property(RELOP_EQ, PR_SUBJECT_A, nullString);
    SPropValue nullBytes{};
    nullBytes.ulPropTag = PR_ENTRYID;
    nullBytes.Value.bin.cb = 4;
    broken[5] = b.Content(FL_PREFIX, PR_ENTRYID, nullBytes);
    for (size_t i = 0; i < broken.size(); ++i)
        EXPECT_EQ(table->Restrict(&broken[i], 0), MAPI_E_INVALID_PARAMETER) << "case " << i;
    EXPECT_EQ(table->FindRow(nullptr, BOOKMARK_BEGINNING, 0), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(ViewIds(*table.get()), Ids({0, 1, 2, 3, 4}));
}

TEST(MapiRestriction, NestingIsBounded) {
    CComPtr<IMAPITable> table = FolderTable();
    // levels NOTs around a test for a subject.
    const auto chain = [](size_t levels) {
        std::vector<SRestriction> nodes(levels);
        for (size_t i = 0; i + 1 < levels; ++i) {
            nodes[i].rt = RES_NOT;
            nodes[i].res.resNot.lpRes = &nodes[i + 1];
        }
        nodes.back() = CRestrictions::Exist(PR_SUBJECT_W);
        return nodes;
    };
    std::vector<SRestriction> deepest = chain(64);  // 63 NOTs: an odd number
    EXPECT_EQ(table->Restrict(deepest.data(), 0), S_OK);
    EXPECT_EQ(ViewIds(*table.get()), Ids({3}));
    std::vector<SRestriction> tooDeep = chain(65);
    EXPECT_EQ(table->Restrict(tooDeep.data(), 0), MAPI_E_TOO_COMPLEX);
    EXPECT_EQ(ViewIds(*table.get()), Ids({3}));

    SRestriction loop{};
    loop.rt = RES_NOT;
    loop.res.resNot.lpRes = &loop;
    EXPECT_EQ(table->Restrict(&loop, 0), MAPI_E_TOO_COMPLEX);

    // Forty levels whose two children are the same node: 2^40 paths, refused without walking them all.
    std::vector<std::vector<SRestriction>> levels(40, std::vector<SRestriction>(2));
    for (size_t i = 0; i < levels.size(); ++i)
        for (SRestriction& node : levels[i]) {
            if (i + 1 == levels.size()) {
                node = CRestrictions::Exist(PR_SUBJECT_W);
                continue;
            }
            node.rt = RES_AND;
            node.res.resAnd = SAndRestriction{2, levels[i + 1].data()};
        }
    EXPECT_EQ(table->Restrict(levels[0].data(), 0), MAPI_E_TOO_COMPLEX);
}

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
    EXPECT_EQ(QueryIds(*table.get(), 1), Ids({1}));
    EXPECT_EQ(Position(*table.get()), 1u);

    // Evaluated over the source, not over the previous view.
    SRestriction attached = b.Property(RELOP_EQ, PR_HASATTACH, Bool(PR_HASATTACH, true));
    ASSERT_EQ(table->Restrict(&attached, 0), S_OK);
    EXPECT_EQ(Position(*table.get()), 0u);
    EXPECT_EQ(QueryIds(*table.get(), 10), Ids({0, 2}));

    ASSERT_EQ(table->Restrict(nullptr, 0), S_OK);
    EXPECT_EQ(ViewIds(*table.get()), Ids({0, 1, 2, 3, 4}));
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
    EXPECT_EQ(ViewIds(*table.get()), Ids({54321}));
    EXPECT_EQ(RestrictIds(*table.get(), lookup(L"<3@example.org>")), Ids({3, 7}));
    EXPECT_EQ(RestrictIds(*table.get(), lookup(L"<none@example.org>")), Ids({}));

    // The same answers from a scan over the same rows.
    CComPtr<IMAPITable> scanned =
        MakeTable(std::make_shared<CRowList>(std::vector<ULONG>{kTagId}, Messages(20)));
    ASSERT_TRUE(scanned);
    EXPECT_EQ(RestrictIds(*scanned.get(), lookup(L"<3@example.org>")), Ids({3, 7}));
    EXPECT_EQ(RestrictIds(*scanned.get(), lookup(L"<12@example.org>")), Ids({12}));
    EXPECT_EQ(RestrictIds(*scanned.get(), lookup(L"<none@example.org>")), Ids({}));

    // Where the source has no index, the table scans.
    const int lookups = indexed->m_lookups.load();
    SRestriction nines = b.Property(RELOP_EQ, PR_MESSAGE_SIZE, Long(PR_MESSAGE_SIZE, 9));
    ASSERT_EQ(table->Restrict(&nines, 0), S_OK);
    ULONG count = 0;
    ASSERT_EQ(table->GetRowCount(0, &count), S_OK);
    EXPECT_EQ(count, kMessages / 10);
    EXPECT_EQ(QueryIds(*table.get(), 2), Ids({9, 19}));
    EXPECT_EQ(indexed->m_lookups.load(), lookups + 1);
    EXPECT_GE(indexed->m_finds.load(), static_cast<int>(kMessages));
}

TEST(MapiTableCursor, SeekRowClampsAndReportsTheRowsMoved) {
    CComPtr<IMAPITable> table = FolderTable();
    LONG sought = 99;
    EXPECT_EQ(table->SeekRow(BOOKMARK_BEGINNING, 2, &sought), S_OK);
    EXPECT_EQ(sought, 2);
    EXPECT_EQ(Position(*table.get()), 2u);
    EXPECT_EQ(table->SeekRow(BOOKMARK_CURRENT, 10, &sought), S_OK);
    EXPECT_EQ(sought, 3);
    EXPECT_EQ(Position(*table.get()), 5u);
    EXPECT_EQ(table->SeekRow(BOOKMARK_CURRENT, -7, &sought), S_OK);
    EXPECT_EQ(sought, -5);
    EXPECT_EQ(Position(*table.get()), 0u);
    EXPECT_EQ(table->SeekRow(BOOKMARK_END, -2, &sought), S_OK);
    EXPECT_EQ(sought, -2);
    EXPECT_EQ(QueryIds(*table.get(), 1, TBL_NOADVANCE), Ids({3}));
    EXPECT_EQ(table->SeekRow(BOOKMARK_END, 1, &sought), S_OK);
    EXPECT_EQ(sought, 0);
    EXPECT_EQ(table->SeekRow(BOOKMARK_BEGINNING, -1, &sought), S_OK);
    EXPECT_EQ(sought, 0);
    EXPECT_EQ(table->SeekRow(BOOKMARK_CURRENT, 1, nullptr), S_OK);
    EXPECT_EQ(Position(*table.get()), 1u);
    EXPECT_EQ(table->SeekRow(BOOKMARK{7}, 0, &sought), MAPI_E_INVALID_BOOKMARK);
    EXPECT_EQ(Position(*table.get()), 1u);

    ULONG row = 0, numerator = 0, denominator = 0;
    ASSERT_EQ(table->QueryPosition(&row, &numerator, &denominator), S_OK);
    EXPECT_EQ(numerator, 1u);
    EXPECT_EQ(denominator, 5u);
    EXPECT_EQ(table->SeekRowApprox(1, 2), S_OK);
    EXPECT_EQ(Position(*table.get()), 2u);
    EXPECT_EQ(table->SeekRowApprox(1, 0), MAPI_E_INVALID_PARAMETER);
}

TEST(MapiTableCursor, QueryRowsReadsForwardOrBackFromTheCursor) {
    CComPtr<IMAPITable> table = FolderTable();
    ASSERT_EQ(table->SeekRow(BOOKMARK_BEGINNING, 3, nullptr), S_OK);
    // Back two rows, read forward, and stay at the first row read.
    EXPECT_EQ(QueryIds(*table.get(), -2), Ids({1, 2}));
    EXPECT_EQ(Position(*table.get()), 1u);
    EXPECT_EQ(QueryIds(*table.get(), -5), Ids({0}));
    EXPECT_EQ(Position(*table.get()), 0u);
    EXPECT_EQ(QueryIds(*table.get(), -1), Ids({}));
    EXPECT_EQ(QueryIds(*table.get(), 2, TBL_NOADVANCE), Ids({0, 1}));
    EXPECT_EQ(Position(*table.get()), 0u);
    EXPECT_EQ(QueryIds(*table.get(), 0), Ids({}));
    EXPECT_EQ(Position(*table.get()), 0u);
    EXPECT_EQ(QueryIds(*table.get(), 3), Ids({0, 1, 2}));
    EXPECT_EQ(QueryIds(*table.get(), 0x7FFFFFFF), Ids({3, 4}));
    EXPECT_EQ(QueryIds(*table.get(), 1), Ids({}));
    EXPECT_EQ(Position(*table.get()), 5u);
    ASSERT_EQ(table->SeekRow(BOOKMARK_END, 0, nullptr), S_OK);
    EXPECT_EQ(QueryIds(*table.get(), -2, TBL_NOADVANCE), Ids({3, 4}));
    EXPECT_EQ(Position(*table.get()), 5u);
    EXPECT_EQ(QueryIds(*table.get(), static_cast<LONG>(0x80000000)), Ids({0, 1, 2, 3, 4}));
    EXPECT_EQ(table->QueryRows(1, 0, nullptr), MAPI_E_INVALID_PARAMETER);
}

TEST(MapiTableCursor, FindRowMovesToTheFirstMatchAtOrAfterTheOrigin) {
    CRestrictions b;
    CComPtr<IMAPITable> table = FolderTable();
    SRestriction attached = b.Property(RELOP_EQ, PR_HASATTACH, Bool(PR_HASATTACH, true));
    ASSERT_EQ(table->SeekRow(BOOKMARK_END, 0, nullptr), S_OK);
    EXPECT_EQ(table->FindRow(&attached, BOOKMARK_BEGINNING, 0), S_OK);
    EXPECT_EQ(Position(*table.get()), 0u);
    EXPECT_EQ(QueryIds(*table.get(), 1), Ids({0}));
    EXPECT_EQ(table->FindRow(&attached, BOOKMARK_CURRENT, 0), S_OK);
    EXPECT_EQ(Position(*table.get()), 2u);
    EXPECT_EQ(table->FindRow(&attached, BOOKMARK_CURRENT, 0), S_OK) << "the current row itself counts";
    EXPECT_EQ(Position(*table.get()), 2u);
    ASSERT_EQ(table->SeekRow(BOOKMARK_CURRENT, 1, nullptr), S_OK);
    EXPECT_EQ(table->FindRow(&attached, BOOKMARK_CURRENT, 0), MAPI_E_NOT_FOUND);
    EXPECT_EQ(Position(*table.get()), 3u);
    EXPECT_EQ(table->FindRow(&attached, BOOKMARK_END, 0), MAPI_E_NOT_FOUND);
    EXPECT_EQ(table->FindRow(&attached, BOOKMARK_BEGINNING, kDirBackward), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(table->FindRow(&attached, BOOKMARK{9}, 0), MAPI_E_INVALID_BOOKMARK);

    // Positions are those of the sorted view.
    ASSERT_EQ(table->SortTable(SortOrder({{PR_MESSAGE_SIZE, TABLE_SORT_DESCEND}}).get(), 0), S_OK);
    SRestriction small = b.Property(RELOP_LT, PR_MESSAGE_SIZE, Long(PR_MESSAGE_SIZE, 1000));
    EXPECT_EQ(table->FindRow(&small, BOOKMARK_BEGINNING, 0), S_OK);
    EXPECT_EQ(Position(*table.get()), 3u);
    EXPECT_EQ(QueryIds(*table.get(), 5), Ids({1, 3}));
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

    const SPropValue* row3 = rows->aRow[2].lpProps;
    EXPECT_EQ(row3[0].Value.l, 3);
    EXPECT_EQ(row3[1].ulPropTag, CHANGE_PROP_TYPE(PR_SUBJECT_A, PT_ERROR));
    EXPECT_EQ(row3[1].Value.err, MAPI_E_NOT_FOUND);
    EXPECT_EQ(row3[4].ulPropTag, CHANGE_PROP_TYPE(PR_ENTRYID, PT_ERROR));
    EXPECT_EQ(row3[4].Value.err, MAPI_E_NOT_FOUND);
}

TEST(MapiTableColumns, SetColumnsAndQueryColumnsRoundTrip) {
    CComPtr<IMAPITable> table = FolderTable();
    const auto current = [&](ULONG flags) {
        LPSPropTagArray raw = nullptr;
        EXPECT_EQ(table->QueryColumns(flags, &raw), S_OK);
        MapiBuffer<SPropTagArray> tags(raw);
        return tags ? std::vector<ULONG>(tags->aulPropTag, tags->aulPropTag + tags->cValues)
                    : std::vector<ULONG>{};
    };
    EXPECT_EQ(current(0), std::vector<ULONG>(std::begin(kFolderColumns), std::end(kFolderColumns)));

    SizedSPropTagArray(2, columns) = {2, {PR_MESSAGE_SIZE, kTagId}};
    ASSERT_EQ(table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0), S_OK);
    EXPECT_EQ(current(0), std::vector<ULONG>({PR_MESSAGE_SIZE, kTagId}));
    EXPECT_EQ(current(TBL_ALL_COLUMNS), std::vector<ULONG>({PR_MESSAGE_SIZE, kTagId}));
    LPSRowSet raw = nullptr;
    ASSERT_EQ(table->QueryRows(1, 0, &raw), S_OK);
    RowSetPtr rows(raw);
    ASSERT_EQ(rows->cRows, 1u);
    ASSERT_EQ(rows->aRow[0].cValues, 2u);
    EXPECT_EQ(rows->aRow[0].lpProps[0].Value.l, 1200);
    EXPECT_EQ(rows->aRow[0].lpProps[1].Value.l, 0);

    SizedSPropTagArray(1, none) = {0, {0}};
    EXPECT_EQ(table->SetColumns(reinterpret_cast<LPSPropTagArray>(&none), 0), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(table->SetColumns(nullptr, 0), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(current(0), std::vector<ULONG>({PR_MESSAGE_SIZE, kTagId}));
    EXPECT_EQ(table->QueryColumns(0, nullptr), MAPI_E_INVALID_PARAMETER);
}

// Sorts the table by the given columns and returns its ids from the top.
Ids SortedIds(IMAPITable& table, std::vector<SSortOrder> order) {
    EXPECT_EQ(table.SortTable(SortOrder(std::move(order)).get(), 0), S_OK);
    EXPECT_EQ(Position(table), 0u);
    return ViewIds(table);
}

TEST(MapiTableSort, SortsAscendingAndDescendingKeepingTiesInSourceOrder) {
    CComPtr<IMAPITable> table = FolderTable();
    ASSERT_EQ(table->SeekRow(BOOKMARK_BEGINNING, 2, nullptr), S_OK);
    EXPECT_EQ(SortedIds(*table.get(), {{PR_MESSAGE_SIZE, TABLE_SORT_ASCEND}}), Ids({3, 1, 0, 2, 4}));
    EXPECT_EQ(SortedIds(*table.get(), {{PR_MESSAGE_SIZE, TABLE_SORT_DESCEND}}), Ids({4, 0, 2, 1, 3}));
    // The second key decides between the two rows of equal size.
    EXPECT_EQ(
        SortedIds(*table.get(), {{PR_MESSAGE_SIZE, TABLE_SORT_ASCEND}, {PR_SUBJECT_W, TABLE_SORT_DESCEND}}),
        Ids({3, 1, 2, 0, 4}));
    // Rows without a sender come first either way; senders order by code point ("Bob" < "carol" < "Ł...").
    EXPECT_EQ(SortedIds(*table.get(), {{PR_SENDER_NAME_A, TABLE_SORT_ASCEND}}), Ids({2, 0, 1, 3, 4}));
    EXPECT_EQ(SortedIds(*table.get(), {{PR_SENDER_NAME_A, TABLE_SORT_DESCEND}}), Ids({2, 4, 3, 1, 0}));
    EXPECT_EQ(SortedIds(*table.get(), {{PR_SENDER_NAME_W, TABLE_SORT_DESCEND}}), Ids({2, 4, 3, 1, 0}));
    EXPECT_EQ(SortedIds(*table.get(), {}), Ids({0, 1, 2, 3, 4}));
    // Ties follow the source, not whatever order the previous sort left.
    EXPECT_EQ(SortedIds(*table.get(), {{PR_SUBJECT_W, TABLE_SORT_DESCEND}}), Ids({3, 4, 1, 2, 0}));
    EXPECT_EQ(SortedIds(*table.get(), {{PR_MESSAGE_SIZE, TABLE_SORT_ASCEND}}), Ids({3, 1, 0, 2, 4}));
}

TEST(MapiTableSort, SortOrderSurvivesRestrictAndIsReported) {
    CRestrictions b;
    CComPtr<IMAPITable> table = FolderTable();
    const auto sortOrder = [&] {
        LPSSortOrderSet raw = nullptr;
        EXPECT_EQ(table->QuerySortOrder(&raw), S_OK);
        MapiBuffer<SSortOrderSet> set(raw);
        std::vector<std::pair<ULONG, ULONG>> order;
        if (!set) return order;
        EXPECT_EQ(set->cCategories, 0u);
        for (ULONG i = 0; i < set->cSorts; ++i)
            order.emplace_back(set->aSort[i].ulPropTag, set->aSort[i].ulOrder);
        return order;
    };
    EXPECT_TRUE(sortOrder().empty());

    ASSERT_EQ(SortedIds(*table.get(), {{PR_MESSAGE_SIZE, TABLE_SORT_ASCEND}, {kTagId, TABLE_SORT_DESCEND}}),
              Ids({3, 1, 2, 0, 4}));
    EXPECT_EQ(sortOrder(), (std::vector<std::pair<ULONG, ULONG>>{{PR_MESSAGE_SIZE, TABLE_SORT_ASCEND},
                                                                 {kTagId, TABLE_SORT_DESCEND}}));
    EXPECT_EQ(RestrictIds(*table.get(), b.Exist(PR_HASATTACH)), Ids({1, 2, 0, 4}));
    EXPECT_EQ(SortedIds(*table.get(), {}), Ids({0, 1, 2, 4}));
    EXPECT_TRUE(sortOrder().empty());
    ASSERT_EQ(table->Restrict(nullptr, 0), S_OK);
    EXPECT_EQ(ViewIds(*table.get()), Ids({0, 1, 2, 3, 4}));

    EXPECT_EQ(table->SortTable(SortOrder({{PR_SENDER_NAME_W, TABLE_SORT_ASCEND}}, 1).get(), 0),
              MAPI_E_TOO_COMPLEX);
    EXPECT_EQ(table->SortTable(nullptr, 0), MAPI_E_INVALID_PARAMETER);
    EXPECT_TRUE(sortOrder().empty());
}

TEST(MapiTableObject, StatusInterfacesAndWhatIsNotSupported) {
    CComPtr<IMAPITable> table = FolderTable();
    ULONG status = 99, type = 99;
    EXPECT_EQ(table->GetStatus(&status, &type), S_OK);
    EXPECT_EQ(status, TBLSTAT_COMPLETE);
    EXPECT_EQ(type, TBLTYPE_SNAPSHOT);
    status = 99;
    EXPECT_EQ(table->WaitForCompletion(0, 1000, &status), S_OK);
    EXPECT_EQ(status, TBLSTAT_COMPLETE);
    EXPECT_EQ(table->Abort(), S_OK);

    CComPtr<IMAPITable> same;
    EXPECT_EQ(table->QueryInterface(IID_IMAPITable, reinterpret_cast<LPVOID*>(same.Put())), S_OK);
    EXPECT_EQ(same.get(), table.get());
    LPVOID other = nullptr;
    EXPECT_EQ(table->QueryInterface(IID_IMAPIProp, &other), E_NOINTERFACE);
    EXPECT_EQ(other, nullptr);

    ULONG connection = 0;
    EXPECT_EQ(table->Advise(0, nullptr, &connection), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(table->Unadvise(1), MAPI_E_NO_SUPPORT);
    BOOKMARK bookmark = 0;
    EXPECT_EQ(table->CreateBookmark(&bookmark), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(table->FreeBookmark(3), MAPI_E_NO_SUPPORT);
    LPSRowSet rows = nullptr;
    ULONG more = 0;
    EXPECT_EQ(table->ExpandRow(0, nullptr, 1, 0, &rows, &more), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(rows, nullptr);
    EXPECT_EQ(table->CollapseRow(0, nullptr, 0, &more), MAPI_E_NO_SUPPORT);
    LPMAPIERROR error = nullptr;
    EXPECT_EQ(table->GetLastError(MAPI_E_NO_SUPPORT, 0, &error), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(error, nullptr);
    EXPECT_FALSE(MakeTable(nullptr));
}

TEST(MapiTableObject, TablesOverOneSourceKeepTheirOwnState) {
    CRestrictions b;
    const std::shared_ptr<const ITableRows> rows = FolderRows();
    CComPtr<IMAPITable> first = MakeTable(rows);
    CComPtr<IMAPITable> second = MakeTable(rows);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(RestrictIds(*first.get(), b.Exist(PR_SENDER_NAME_A)), Ids({0, 1, 3, 4}));
    ASSERT_EQ(second->SeekRow(BOOKMARK_BEGINNING, 4, nullptr), S_OK);
    EXPECT_EQ(Position(*first.get()), 4u);
    EXPECT_EQ(QueryIds(*second.get(), 1), Ids({4}));
    EXPECT_EQ(ViewIds(*second.get()), Ids({0, 1, 2, 3, 4}));

    // Each thread restricts, sorts and reads its own table over the shared rows.
    std::atomic<int> wrong{0};
    const auto work = [&](LONG size, Ids expected) {
        CRestrictions mine;
        SRestriction restriction = mine.Property(RELOP_GE, PR_MESSAGE_SIZE, Long(PR_MESSAGE_SIZE, size));
        MapiBuffer<SSortOrderSet> bySize = SortOrder({{PR_MESSAGE_SIZE, TABLE_SORT_DESCEND}});
        CComPtr<IMAPITable> table = MakeTable(rows);
        for (int i = 0; i < 200 && table; ++i) {
            if (table->SortTable(bySize.get(), 0) != S_OK || table->Restrict(&restriction, 0) != S_OK ||
                QueryIds(*table.get(), 10) != expected)
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
