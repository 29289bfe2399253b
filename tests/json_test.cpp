#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "harness/TestFiles.h"
#include "json/CkJsonArray.h"
#include "json/CkJsonObject.h"
#include "support/CodePage.h"

namespace {

std::string Emitted(CkJsonObject& json, bool compact) {
    json.SetCompactOutput(compact);
    const char* text = json.Emit();
    return text ? text : "<null>";
}

// ---------------------------------------------------------------------------------------------- emission

TEST(JsonEmit, ReplyIdiomsNestAndIndent) {
    CkJsonObject reply;
    reply.AppendString("messageId", "<m@x>");
    reply.AddIntAt(-1, "storeIndex", 2);
    ASSERT_TRUE(reply.AddArrayAt(-1, "attachments"));
    std::unique_ptr<CkJsonArray> attachments = reply.ArrayAt(reply.Count() - 1);
    ASSERT_NE(attachments, nullptr);
    ASSERT_TRUE(attachments->AddObjectAt(-1));
    std::unique_ptr<CkJsonObject> first = attachments->ObjectAt(attachments->Count() - 1);
    ASSERT_NE(first, nullptr);
    first->AddStringAt(-1, "fileName", "a.pdf");
    first->AddIntAt(-1, "index", 0);
    attachments->AddStringAt(-1, "plain");
    reply.AddArrayAt(-1, "empty");
    reply.AppendString("status", "OK");

    EXPECT_EQ(Emitted(reply, false),
              "{\r\n"
              "  \"messageId\": \"<m@x>\",\r\n"
              "  \"storeIndex\": 2,\r\n"
              "  \"attachments\": [\r\n"
              "    {\r\n"
              "      \"fileName\": \"a.pdf\",\r\n"
              "      \"index\": 0\r\n"
              "    },\r\n"
              "    \"plain\"\r\n"
              "  ],\r\n"
              "  \"empty\": [\r\n"
              "  ],\r\n"
              "  \"status\": \"OK\"\r\n"
              "}");
    EXPECT_EQ(Emitted(reply, true),
              R"({"messageId":"<m@x>","storeIndex":2,"attachments":[{"fileName":"a.pdf","index":0},"plain"],)"
              R"("empty":[],"status":"OK"})");
    reply.SetCrLfLineBreaks(false);
    EXPECT_EQ(Emitted(reply, false).find('\r'), std::string::npos);
    EXPECT_NE(Emitted(reply, false).find("[\n    {\n      \"fileName\""), std::string::npos);
}

TEST(JsonEmit, StatusRepliesAndEmptyContainersAreByteExact) {
    CkJsonObject root;
    EXPECT_EQ(Emitted(root, false), "{\r\n}");
    EXPECT_EQ(Emitted(root, true), "{}");
    CkJsonObject reply;
    ASSERT_TRUE(reply.AppendString("status", "OK"));
    EXPECT_EQ(Emitted(reply, false), "{\r\n  \"status\": \"OK\"\r\n}");
    EXPECT_EQ(Emitted(reply, true), "{\"status\":\"OK\"}");

    CkJsonObject failed;
    ASSERT_TRUE(failed.AddArrayAt(-1, "arraystrings"));
    failed.AppendString("status", "FAILED");
    EXPECT_EQ(Emitted(failed, false), "{\r\n  \"arraystrings\": [\r\n  ],\r\n  \"status\": \"FAILED\"\r\n}");
    EXPECT_EQ(Emitted(failed, true), R"({"arraystrings":[],"status":"FAILED"})");
    failed.SetCrLfLineBreaks(false);
    EXPECT_EQ(Emitted(failed, false), "{\n  \"arraystrings\": [\n  ],\n  \"status\": \"FAILED\"\n}");
}

TEST(JsonEmit, EscapesPerRfc8259) {
    CkJsonObject json;
    json.SetUtf8Strings(true);
    json.AppendString("q\"uote", "back\\slash \"q\" \b\f\n\r\t \x01\x1f / \xC3\xA9");
    EXPECT_EQ(Emitted(json, true),
              "{\"q\\\"uote\":\"back\\\\slash \\\"q\\\" \\b\\f\\n\\r\\t \\u0001\\u001f / \xC3\xA9\"}");
    // And the escaped text reads back to the same characters.
    CkJsonObject again;
    again.SetUtf8Strings(true);
    ASSERT_TRUE(again.Load(Emitted(json, true)));
    EXPECT_STREQ(again.StringOf("q\"uote"), "back\\slash \"q\" \b\f\n\r\t \x01\x1f / \xC3\xA9");
}

TEST(JsonHandles, IllFormedUtf8IsRepairedAtAnyOffset) {
    for (size_t offset = 0; offset < 19; ++offset) {
        const std::string value = std::string(offset, 'a') + "\xFF" + std::string(9, 'b');
        const std::string repaired = std::string(offset, 'a') + "\xEF\xBF\xBD" + std::string(9, 'b');
        CkJsonObject json;
        json.SetUtf8Strings(true);
        ASSERT_TRUE(json.AppendString("v", value.c_str()));
        EXPECT_EQ(std::string(json.StringOf("v")), repaired) << offset;
        ASSERT_TRUE(json.LoadText("{\"v\":\"" + value + "\"}"));
        EXPECT_EQ(std::string(json.StringOf("v")), repaired) << offset;
    }
}

// ---------------------------------------------------------------------------------------------- lookups

class JsonLookup : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_json.Load(R"({
            "command": "GetMessageData", "count": "12abc", "letters": "abc", "negative": -17,
            "big": 99999999999, "flagTrue": "True", "flagBool": true, "flagOne": 1, "flagText": "yes",
            "nothing": null, "list": ["x", {"inner": "y", "deep": [10, 20]}, ["z"]],
            "obj": {"a": {"b": "ab"}}
        })"));
    }
    CkJsonObject m_json;
};

TEST_F(JsonLookup, MissingMembers) {
    EXPECT_EQ(m_json.StringOf("missing"), nullptr);
    EXPECT_FALSE(m_json.LastCallSucceeded());
    EXPECT_STREQ(m_json.LastErrorText(), "JSON member not found.");
    EXPECT_EQ(m_json.IntOf("missing"), 0);
    EXPECT_FALSE(m_json.BoolOf("missing"));
    EXPECT_FALSE(m_json.HasMember("missing"));
    EXPECT_EQ(m_json.ArrayOf("missing"), nullptr);
    EXPECT_TRUE(m_json.HasMember("command"));
    EXPECT_TRUE(m_json.LastCallSucceeded());
}

TEST_F(JsonLookup, ScalarConversions) {
    const char* command = m_json.StringOf("command");
    const char* path = m_json.StringOf("obj.a.b");
    EXPECT_STREQ(command, "GetMessageData") << "a result string survives the next call";
    EXPECT_STREQ(path, "ab");
    EXPECT_EQ(m_json.IntOf("count"), 12);
    EXPECT_EQ(m_json.IntOf("letters"), 0);
    EXPECT_EQ(m_json.IntOf("negative"), -17);
    EXPECT_EQ(m_json.IntOf("big"), 2147483647);
    EXPECT_STREQ(m_json.StringOf("big"), "99999999999") << "numbers keep their text";
    EXPECT_TRUE(m_json.BoolOf("flagTrue"));
    EXPECT_TRUE(m_json.BoolOf("flagBool"));
    EXPECT_FALSE(m_json.BoolOf("flagOne"));
    EXPECT_FALSE(m_json.BoolOf("flagText"));
    EXPECT_STREQ(m_json.StringOf("nothing"), "null");
    EXPECT_STREQ(m_json.StringOf("obj"), R"({"a":{"b":"ab"}})");
}

TEST_F(JsonLookup, PathsWalkObjectsAndArrays) {
    EXPECT_STREQ(m_json.StringOf("obj.a.b"), "ab");
    EXPECT_STREQ(m_json.StringOf("list[0]"), "x");
    EXPECT_STREQ(m_json.StringOf("list[1].inner"), "y");
    EXPECT_EQ(m_json.IntOf("list[1].deep[1]"), 20);
    EXPECT_STREQ(m_json.StringOf("list[2][0]"), "z");
    EXPECT_EQ(m_json.StringOf("list[3]"), nullptr);
    EXPECT_STREQ(m_json.LastErrorText(), "JSON array index out-of-bounds");
    for (const char* malformed :
         {"", "obj.", ".obj", "obj..a", "list[", "list[x]", "list[]", "list[0]x", "list[99999999999]"}) {
        EXPECT_EQ(m_json.StringOf(malformed), nullptr) << malformed;
        EXPECT_FALSE(m_json.HasMember(malformed)) << malformed;
    }
    EXPECT_EQ(m_json.StringOf("command.x"), nullptr);
    EXPECT_STREQ(m_json.LastErrorText(), "JSON path error: expected an object.");
    EXPECT_EQ(m_json.StringOf(nullptr), nullptr);
}

TEST_F(JsonLookup, ArrayHandles) {
    std::unique_ptr<CkJsonArray> list = m_json.ArrayOf("list");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->Count(), 3);
    EXPECT_STREQ(list->StringAt(0), "x");
    EXPECT_EQ(list->StringAt(3), nullptr);
    EXPECT_EQ(list->StringAt(-1), nullptr);
    EXPECT_EQ(list->ObjectAt(0), nullptr) << "a string is not an object";
    std::unique_ptr<CkJsonObject> inner = list->ObjectAt(1);
    ASSERT_NE(inner, nullptr);
    EXPECT_STREQ(inner->StringOf("inner"), "y");
    EXPECT_EQ(m_json.ArrayOf("command"), nullptr);
    EXPECT_STREQ(m_json.LastErrorText(), "Path did not end at a JSON array.");

    CkJsonObject three;
    three.AppendString("a", "1");
    three.AddIntAt(-1, "b", 2);
    three.AppendString("c", "3");
    ASSERT_TRUE(three.AddArrayAt(-1, "x"));
    EXPECT_EQ(three.Count(), 4);
    EXPECT_NE(three.ArrayAt(3), nullptr);
    EXPECT_EQ(three.ArrayAt(2), nullptr);
    EXPECT_EQ(three.ArrayAt(4), nullptr);
}

// ---------------------------------------------------------------------------------------------- parsing

TEST(JsonLoad, AcceptsRfc8259) {
    CkJsonObject json;
    json.SetUtf8Strings(true);
    ASSERT_TRUE(
        json.Load(" \t\r\n{ \"e\" : \"\\u00e9\\u20AC\\ud83d\\ude00\\/\" , \"n\":[-0.5e-7,0,1E+2,"
                  "123456789012345678901234567890123456789], \"lone\":\"\\ud800x\", \"t\":true,"
                  "\"f\":false,\"z\":null,\"o\":{},\"a\":[] } \n"));
    EXPECT_STREQ(json.StringOf("e"), "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80/");
    EXPECT_STREQ(json.StringOf("n[0]"), "-0.5e-7");
    EXPECT_STREQ(json.StringOf("n[3]"), "123456789012345678901234567890123456789");
    EXPECT_STREQ(json.StringOf("lone"), "\xEF\xBF\xBDx") << "a lone surrogate has no UTF-8 form";
    EXPECT_EQ(json.Count(), 8);
    EXPECT_EQ(Emitted(json, true),
              "{\"e\":\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80/\",\"n\":[-0.5e-7,0,1E+2,"
              "123456789012345678901234567890123456789],\"lone\":\"\xEF\xBF\xBDx\",\"t\":true,\"f\":false,"
              "\"z\":null,\"o\":{},\"a\":[]}");
}

TEST(JsonLoad, RefusesMalformedText) {
    // Structure, values, strings, and what comes around the document.
    std::vector<std::string> cases = {
        "",          "   ",   "{",     "{\"a\"",       "{\"a\":",    "{\"a\":1", "{\"a\":1,}", "{,}",
        "{\"a\" 1}", "{a:1}", "[1,2]", "{\"a\":[1,2}", "{\"a\":{]}", "\"text\"", "42",         "{'a':1}"};
    cases.insert(cases.end(),
                 {"{\"a\":01}", "{\"a\":-}", "{\"a\":1.}", "{\"a\":.5}", "{\"a\":1e}", "{\"a\":+1}",
                  "{\"a\":tru}", "{\"a\":NaN}", "{\"a\":Infinity}", "{\"a\":\x01}"});
    cases.insert(cases.end(), {"{\"a\":\"x}", "{\"a\":\"\\x\"}", "{\"a\":\"\\u12g4\"}", "{\"a\":\"\\u12\"}",
                               "{\"a\":\"tab\there\"}"});
    cases.insert(cases.end(), {"{\"a\":1} x", "{} {}", "\xFF{}", "{\"a\":1}\xC0",
                               std::string("{\"a\":\"nul\0inside\"}", 19), std::string("{\"a\":1}\0", 8)});
    for (const std::string& text : cases) {
        CkJsonObject json;
        json.AppendString("kept", "yes");
        EXPECT_FALSE(json.Load(text)) << text;
        EXPECT_FALSE(json.LastCallSucceeded());
        EXPECT_STREQ(json.StringOf("kept"), "yes") << "a failed Load leaves the document as it was";
    }
}

TEST(JsonLoad, NestingIsBoundedWithoutRecursion) {
    const int depth = 200000;
    CkJsonObject json;
    EXPECT_FALSE(json.Load("{\"a\":" + std::string(depth, '[') + std::string(depth, ']') + "}"));
    EXPECT_FALSE(json.Load("{\"a\":" + std::string(depth, '[')));
    std::string objects;
    for (int i = 0; i < depth; ++i) objects += "{\"a\":";
    EXPECT_FALSE(json.Load(objects));
    // Moderate nesting is fine.
    EXPECT_TRUE(json.Load("{\"a\":" + std::string(100, '[') + std::string(100, ']') + "}"));
}

TEST(JsonLoad, ReplacesMembersAndKeepsOldHandlesValid) {
    CkJsonObject json;
    ASSERT_TRUE(json.Load(R"({"list":["a","b"],"x":"1"})"));
    std::unique_ptr<CkJsonArray> oldList = json.ArrayOf("list");
    ASSERT_TRUE(json.Load(R"({"y":"2"})"));
    EXPECT_EQ(json.Count(), 1);
    EXPECT_FALSE(json.HasMember("x"));
    ASSERT_NE(oldList, nullptr);
    EXPECT_EQ(oldList->Count(), 2) << "a handle on a replaced node still reads it";
    EXPECT_STREQ(oldList->StringAt(1), "b");

    // A handle outlives its document, and writes through it still land.
    std::unique_ptr<CkJsonArray> list;
    {
        CkJsonObject gone;
        ASSERT_TRUE(gone.Load(R"({"list":[{"k":"v"}]})"));
        list = gone.ArrayOf("list");
    }
    ASSERT_NE(list, nullptr);
    std::unique_ptr<CkJsonObject> element = list->ObjectAt(0);
    ASSERT_NE(element, nullptr);
    EXPECT_STREQ(element->StringOf("k"), "v");
    element->AppendString("added", "later");
    EXPECT_STREQ(list->StringAt(0), R"({"k":"v","added":"later"})");
}

TEST(JsonLoad, ShortTextWithoutBraceNamesAFileForLoadOnly) {
    velmar::test::CTempDir dir;
    const auto file = dir / "request.json";
    velmar::test::WriteFile(file, "\xEF\xBB\xBF{\"command\":\"IsInitialized\"}");
    CkJsonObject loaded;
    ASSERT_TRUE(loaded.Load(file.string()));
    EXPECT_STREQ(loaded.StringOf("command"), "IsInitialized");

    CkJsonObject missing;
    EXPECT_FALSE(missing.Load((dir / "absent.json").string()));
    EXPECT_NE(
        std::string(missing.LastErrorText()).find("Attention: The contents of the JSON should be passed"),
        std::string::npos);
    CkJsonObject folder;
    EXPECT_FALSE(folder.Load(dir.Path().string())) << "a folder is not a file";
    // Text with a brace, or 512 bytes and more, is JSON text however it looks.
    velmar::test::WriteFile(dir / "{odd}.json", "{\"a\":1}");
    CkJsonObject brace;
    EXPECT_FALSE(brace.Load((dir / "{odd}.json").string()));

    // LoadText never reads a file.
    CkJsonObject json;
    json.AppendString("kept", "yes");
    EXPECT_FALSE(json.LoadText(file.string())) << "a file name is not JSON text";
    EXPECT_FALSE(json.LastCallSucceeded());
    EXPECT_FALSE(json.HasMember("command"));
    EXPECT_STREQ(json.StringOf("kept"), "yes") << "a failed LoadText leaves the document as it was";
    EXPECT_FALSE(json.LoadText(file.string().c_str()));
    EXPECT_FALSE(json.HasMember("command"));
    EXPECT_FALSE(json.LoadText(static_cast<const char*>(nullptr)));

    // Text is parsed as Load parses it: members replaced, a leading byte-order mark skipped, only objects.
    ASSERT_TRUE(json.LoadText("\xEF\xBB\xBF{\"command\":\"Logon\",\"n\":[1]}"));
    EXPECT_EQ(json.Count(), 2);
    EXPECT_FALSE(json.HasMember("kept"));
    EXPECT_STREQ(json.StringOf("command"), "Logon");
    EXPECT_FALSE(json.LoadText("[1]"));
    EXPECT_FALSE(json.LoadText("{\"a\":1} x"));
    EXPECT_STREQ(json.StringOf("command"), "Logon");
}

// ---------------------------------------------------------------------------------------------- handles

TEST(JsonHandles, OneDocumentFromManyThreads) {
    CkJsonObject root;
    ASSERT_TRUE(root.AddArrayAt(-1, "items"));
    constexpr int kThreads = 8;
    constexpr int kPerThread = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&root] {
            std::unique_ptr<CkJsonArray> items = root.ArrayAt(0);
            for (int i = 0; i < kPerThread; ++i) {
                items->AddObjectAt(-1);
                std::unique_ptr<CkJsonObject> added = items->ObjectAt(0);
                added->AddIntAt(-1, "i", i);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::unique_ptr<CkJsonArray> items = root.ArrayOf("items");
    EXPECT_EQ(items->Count(), kThreads * kPerThread);
    std::unique_ptr<CkJsonObject> first = items->ObjectAt(0);
    EXPECT_EQ(first->Count(), kThreads * kPerThread);
}

TEST(JsonHandles, EightBitStringsFollowTheHandleEncoding) {
    CkJsonObject json;
    EXPECT_FALSE(json.Utf8Strings()) << "the system's 8-bit code page is the default";
    ASSERT_TRUE(json.Load(R"({"name":"Gr\u00fc\u00dfe"})"));
    EXPECT_EQ(std::string(json.StringOf("name")), velmar::WideToAnsi(L"Gr\u00fc\u00dfe"));
    json.SetUtf8Strings(true);
    EXPECT_STREQ(json.StringOf("name"), "Grüße");
    json.AddArrayAt(-1, "list");
    EXPECT_TRUE(json.ArrayOf("list")->Utf8Strings()) << "accessor handles inherit the encoding";
    // Ill-formed UTF-8 handed in never reaches the document as such.
    json.AppendString("bad",
                      "a\xFF"
                      "b");
    EXPECT_STREQ(json.StringOf("bad"),
                 "a\xEF\xBF\xBD"
                 "b");
}

}  // namespace
