// Restrictions of our MAPI: every relation on every type, content matches, nesting and what is refused.
#include <gtest/gtest.h>

#include "tests/MapiTableFixture.h"

namespace {

using namespace velmar::test;

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
            EXPECT_EQ(RestrictIds(table, b.Property(relop, c.tag, c.probe)), ids)
                << c.name << " relop " << relop;
    }
}

TEST(MapiRestriction, BooleansOrderFalseBeforeTrue) {
    CRestrictions b;
    CComPtr<IMAPITable> table =
        MakeTable(RowsOf({{Id(0), {PR_HASATTACH, true}}, {Id(1)}, {Id(2), {PR_HASATTACH, false}}}));
    ASSERT_TRUE(table);
    const SPropValue yes = Bool(PR_HASATTACH, true);
    const std::pair<ULONG, Ids> expected[] = {
        {RELOP_EQ, {0}}, {RELOP_NE, {2}}, {RELOP_LT, {2}}, {RELOP_GT, {}}};
    for (const auto& [relop, ids] : expected)
        EXPECT_EQ(RestrictIds(table, b.Property(relop, PR_HASATTACH, yes)), ids) << "relop " << relop;
    EXPECT_EQ(RestrictIds(table, b.Property(RELOP_GE, PR_HASATTACH, Bool(PR_HASATTACH, false))), Ids({0, 2}));
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
    const std::pair<SRestriction, Ids> cases[] = {
        // An 8-bit restriction finds wide values and a wide one finds 8-bit values.
        {b.Property(RELOP_EQ, PR_SUBJECT_A, b.String8(PR_SUBJECT_A, "\xC3\xA4pfel")), {0, 1}},
        {b.Property(RELOP_EQ, PR_SUBJECT_W, b.Unicode(PR_SUBJECT_W, L"apple")), {3}},
        // U+1F600 > U+FFFD whether compared as UTF-8 bytes or as wide characters.
        {b.Property(RELOP_GT, PR_SUBJECT_A, b.String8(PR_SUBJECT_A, "\xEF\xBF\xBD")), {2}},
        {b.Property(RELOP_GT, PR_SUBJECT_W, b.Unicode(PR_SUBJECT_W, L"\ufffd")), {2}},
        {b.Property(RELOP_LT, PR_SUBJECT_W, b.Unicode(PR_SUBJECT_W, L"b")), {3}},
        // A value of another type is not equal to anything.
        {b.Property(RELOP_NE, PR_SUBJECT_W, Long(CHANGE_PROP_TYPE(PR_SUBJECT_W, PT_LONG), 1)), {}},
    };
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(RestrictIds(table, cases[i].first), cases[i].second) << "case " << i;
}

TEST(MapiRestriction, AndOrNotExistNest) {
    CRestrictions b;
    CComPtr<IMAPITable> table = FolderTable();
    const SRestriction hasSender = b.Exist(PR_SENDER_NAME_A);
    const SRestriction big = b.Property(RELOP_GE, PR_MESSAGE_SIZE, Long(PR_MESSAGE_SIZE, 300));
    EXPECT_EQ(RestrictIds(table, b.And({hasSender, big})), Ids({0, 1, 4}));
    EXPECT_EQ(
        RestrictIds(table, b.Or({b.Content(FL_SUBSTRING, PR_SUBJECT_W, b.Unicode(PR_SUBJECT_W, L"report")),
                                 b.Property(RELOP_LT, PR_MESSAGE_SIZE, Long(PR_MESSAGE_SIZE, 100))})),
        Ids({0, 2, 3}));
    EXPECT_EQ(RestrictIds(table, b.Not(b.Exist(PR_SUBJECT_W))), Ids({3}));
    EXPECT_EQ(RestrictIds(table, b.And({})), Ids({0, 1, 2, 3, 4}));
    EXPECT_EQ(RestrictIds(table, b.Or({})), Ids({}));
    EXPECT_EQ(RestrictIds(table, b.Not(b.Or({}))), Ids({0, 1, 2, 3, 4}));
    // NOT of a comparison takes in the rows without the property: the comparison did not match them.
    EXPECT_EQ(
        RestrictIds(table, b.Not(b.Property(RELOP_EQ, PR_SENDER_NAME_A, b.String8(PR_SENDER_NAME_A, "Bob")))),
        Ids({0, 2, 3, 4}));
    const SRestriction attached = b.Property(RELOP_EQ, PR_HASATTACH, Bool(PR_HASATTACH, true));
    EXPECT_EQ(RestrictIds(table, b.Or({b.And({attached, b.Not(hasSender)}), b.Not(b.Exist(PR_HASATTACH))})),
              Ids({2, 3}));
}

TEST(MapiRestriction, ExistLooksForAValueAnsweringTheTag) {
    CComPtr<IMAPITable> table = FolderTable();
    for (const ULONG tag : {PR_SUBJECT_W, PR_SUBJECT_A, CHANGE_PROP_TYPE(PR_SUBJECT_W, PT_UNSPECIFIED)})
        EXPECT_EQ(RestrictIds(table, CRestrictions::Exist(tag)), Ids({0, 1, 2, 4})) << std::hex << tag;
    EXPECT_EQ(RestrictIds(table, CRestrictions::Exist(CHANGE_PROP_TYPE(PR_SUBJECT_W, PT_LONG))), Ids({}));
}

TEST(MapiRestriction, ContentMatchesFullStringSubstringAndPrefix) {
    CRestrictions b;
    CComPtr<IMAPITable> table = FolderTable();
    const auto subject = [&](ULONG level, const char* text) {
        return RestrictIds(table, b.Content(level, PR_SUBJECT_A, b.String8(PR_SUBJECT_A, text)));
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

// Content matches beyond ASCII, on binaries and on other types, each case with the rows it finds.
TEST(MapiRestriction, ContentIgnoresCaseBeyondAsciiAndMatchesBinaries) {
    CRestrictions b;
    CComPtr<IMAPITable> table = FolderTable();
    const SPropValue aerger = b.String8(PR_SUBJECT_A, "\xC3\xA4rger");
    const SPropValue lodz = b.Unicode(PR_SENDER_NAME_W, L"\u0142\u00f3d\u017a");
    const std::pair<SRestriction, Ids> cases[] = {
        // "ärger" in UTF-8 against the wide "ÄRGER ..."; the test runs in the C locale, where towlower is
        // ASCII only.
        {b.Content(FL_SUBSTRING | FL_IGNORECASE, PR_SUBJECT_A, aerger), {1}},
        {b.Content(FL_SUBSTRING, PR_SUBJECT_A, aerger), {}},
        {b.Content(FL_PREFIX, PR_SUBJECT_W, b.Unicode(PR_SUBJECT_W, L"\u00c4RGER")), {1}},
        // Cyrillic "привет" against the stored capitals.
        {b.Content(FL_FULLSTRING | FL_IGNORECASE, PR_SUBJECT_W,
                   b.Unicode(PR_SUBJECT_W, L"\u043f\u0440\u0438\u0432\u0435\u0442")),
         {4}},
        // A wide "łódź" against the 8-bit "ŁÓDŹ" (Latin Extended-A).
        {b.Content(FL_FULLSTRING | FL_IGNORECASE, PR_SENDER_NAME_W, lodz), {4}},
        {b.Content(FL_FULLSTRING, PR_SENDER_NAME_W, lodz), {}},
        {b.Content(FL_SUBSTRING, PR_ENTRYID, b.Binary(PR_ENTRYID, {0xBE, 0xEF})), {0, 1}},
        {b.Content(FL_PREFIX, PR_ENTRYID, b.Binary(PR_ENTRYID, {0xBE})), {1}},
        {b.Content(FL_FULLSTRING, PR_ENTRYID, b.Binary(PR_ENTRYID, {0xBE, 0xEF})), {1}},
        {b.Content(FL_SUBSTRING, PR_ENTRYID, b.Binary(PR_ENTRYID, {})), {0, 1, 2}},
        // A string pattern against a number matches nothing rather than failing.
        {b.Content(FL_SUBSTRING, PR_MESSAGE_SIZE, b.String8(PR_SUBJECT_A, "1")), {}},
    };
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(RestrictIds(table, cases[i].first), cases[i].second) << "case " << i;
}

TEST(MapiRestriction, UnsupportedKindsAreTooComplexAndLeaveTheViewAlone) {
    CRestrictions b;
    CComPtr<IMAPITable> table = FolderTable();
    ASSERT_EQ(RestrictIds(table, b.Exist(PR_HASATTACH)), Ids({0, 1, 2, 4}));

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
    EXPECT_EQ(ViewIds(table), Ids({0, 1, 2, 4}));
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
    EXPECT_EQ(ViewIds(table), Ids({0, 1, 2, 3, 4}));
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
    EXPECT_EQ(ViewIds(table), Ids({3}));
    std::vector<SRestriction> tooDeep = chain(65);
    EXPECT_EQ(table->Restrict(tooDeep.data(), 0), MAPI_E_TOO_COMPLEX);
    EXPECT_EQ(ViewIds(table), Ids({3}));

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

}  // namespace
