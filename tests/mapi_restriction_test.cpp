// Restrictions of our MAPI: every relation on every type, and nesting that is refused.
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
