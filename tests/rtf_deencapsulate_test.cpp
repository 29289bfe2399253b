#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "mapi/rtf/RtfDeencapsulate.h"

namespace {

using velmar::mapi::DeencapsulateRtf;
using velmar::mapi::DetectNativeBody;
using velmar::mapi::RtfNativeBody;

const std::filesystem::path kExamples =
    std::filesystem::path(VELMAR_CORPORA_DIR) / "rtf-stream-parser" / "test" / "examples";

std::string ReadText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// De-encapsulates as the document itself declares; "<not RTF>" if that fails.
std::string Native(std::string_view rtf) {
    std::string out = "stale";
    if (!DeencapsulateRtf(rtf, DetectNativeBody(rtf), out)) return "<not RTF>";
    return out;
}

std::string Text(std::string_view body) {
    return Native("{\\rtf1\\ansi\\ansicpg1252\\fromtext \\deff0 " + std::string(body) + "}");
}

std::string Html(std::string_view body) {
    return Native("{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 \\deff0 " + std::string(body) + "}");
}

// ---------------------------------------------------------------------------------------------- corpus

TEST(RtfDeencapsulateCorpus, EncapsulatedHtmlExampleIsRecoveredByteForByte) {
    const std::string rtf = ReadText(kExamples / "encapsulated.rtf");
    ASSERT_EQ(DetectNativeBody(rtf), RtfNativeBody::Html);
    std::string html;
    ASSERT_TRUE(DeencapsulateRtf(rtf, RtfNativeBody::Html, html));
    // The expected file has CRLF line ends, which is exactly what \par produces: no normalising needed.
    EXPECT_EQ(html, ReadText(kExamples / "encapsulated.html"));
}

TEST(RtfDeencapsulateCorpus, JapaneseFromTextUsesEachFontsCharset) {
    const std::string rtf = ReadText(kExamples / "jis-test.rtf");
    ASSERT_EQ(DetectNativeBody(rtf), RtfNativeBody::PlainText);
    std::string text;
    ASSERT_TRUE(DeencapsulateRtf(rtf, RtfNativeBody::PlainText, text));
    EXPECT_EQ(text, ReadText(kExamples / "jis-test.txt"));
    // \f4 is \fcharset128 (Shift-JIS), \f5 is \fcharset134 (GBK) in a \ansicpg1252 document.
    EXPECT_NE(text.find("WEB\u30C6\u30AD\u30B9\u30C8\u51E6\u7406\u6CD5\r\n"), std::string::npos);
    EXPECT_NE(text.find("2004\u5E745\u670818\u65E5\r\n"), std::string::npos);
    EXPECT_NE(text.find("Martin J. D\u00FCrst (\u30C6\u30E5\u30FC\u30EB\u30B9\u30C8"), std::string::npos);
}

TEST(RtfDeencapsulateCorpus, Cpg1200TextCombinesFontBytesAndSurrogatePairs) {
    const std::string rtf = ReadText(kExamples / "cpg1200.rtf");
    ASSERT_EQ(DetectNativeBody(rtf), RtfNativeBody::PlainText);
    std::string text;
    ASSERT_TRUE(DeencapsulateRtf(rtf, RtfNativeBody::PlainText, text));
    // \'80 \'a4 \'b4 \'bc \'bd are in \f0 (\fcharset0, so 1252); \u339 is oe; the \uN pairs are surrogates.
    EXPECT_EQ(text,
              "Plain text body: ! < > \" ' \u20AC \u0153 \u00A4 \u00B4 \u00BC \u00BD \U0002070E \U00029D98 "
              "\U0001F600\r\n");
}

// ---------------------------------------------------------------------------------------------- detection

TEST(RtfDetectNativeBody, ReadsTheMarkerInTheHeader) {
    EXPECT_EQ(DetectNativeBody("{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 \\deff0{\\fonttbl}}"),
              RtfNativeBody::Html);
    EXPECT_EQ(DetectNativeBody("{\\rtf1\\ansi\\fromtext \\deff0 text}"), RtfNativeBody::PlainText);
    EXPECT_EQ(DetectNativeBody("{\\rtf1\\ansi\\deff0{\\fonttbl{\\f0 Arial;}}\\pard hello\\par}"),
              RtfNativeBody::Rtf);
}

TEST(RtfDetectNativeBody, IgnoresMarkersOutsideTheHeader) {
    EXPECT_EQ(DetectNativeBody("{\\rtf1\\fromhtml0 x}"), RtfNativeBody::Rtf);                 // disabled
    EXPECT_EQ(DetectNativeBody("{\\rtf1\\ansi body text \\fromhtml1}"), RtfNativeBody::Rtf);  // after text
    EXPECT_EQ(DetectNativeBody("{\\rtf1{\\fromtext}}"), RtfNativeBody::Rtf);                  // nested group
    EXPECT_EQ(DetectNativeBody("{\\rtf1\\a\\b\\c\\d\\e\\f\\g\\fromtext}"),
              RtfNativeBody::PlainText);  // token 10
    EXPECT_EQ(DetectNativeBody("{\\rtf1\\a\\b\\c\\d\\e\\f\\g\\h\\fromtext}"),
              RtfNativeBody::Rtf);  // token 11
    EXPECT_EQ(DetectNativeBody("<html>\\fromhtml1</html>"), RtfNativeBody::Rtf);
    EXPECT_EQ(DetectNativeBody(""), RtfNativeBody::Rtf);
}

// ---------------------------------------------------------------------------------------------- HTML rules

TEST(RtfDeencapsulateHtml, HtmlrtfRegionsAreDroppedAndRestoredPerGroup) {
    EXPECT_EQ(Html("{\\*\\htmltag <p>}\\htmlrtf {\\b bold}\\par\\htmlrtf0 kept{\\*\\htmltag </p>}"),
              "<p>kept</p>");
    EXPECT_EQ(Html("a{\\htmlrtf b}c"), "ac");                          // state ends with its group
    EXPECT_EQ(Html("\\htmlrtf1 x{\\htmlrtf0 y}z\\htmlrtf0 w"), "yw");  // and is inherited into groups
    EXPECT_EQ(Html("\\htmlrtf {\\*\\htmltag <b>}\\htmlrtf0 t"), "t");  // suppression covers tags too
}

TEST(RtfDeencapsulateHtml, TagGroupsUseTheDocumentCodePageAndTextUsesTheFont) {
    const std::string rtf =
        "{\\rtf1\\ansi\\ansicpg1251\\fromhtml1 {\\fonttbl{\\f0\\fcharset0 Arial;}}\\f0"
        "{\\*\\htmltag84 <b title=\"\\'c0\">}\\'c0}";
    EXPECT_EQ(Native(rtf), "<b title=\"\u0410\">\u00C0");
}

TEST(RtfDeencapsulateHtml, SkipsIgnorableDestinationsButKeepsHtmltag) {
    EXPECT_EQ(
        Html("{\\*\\unknown secret}{\\colortbl;\\red1;}{\\stylesheet{\\s0 Normal;}}{\\info{\\title T}}v"),
        "v");
    EXPECT_EQ(Html("{\\*\\mhtmltag84 <img src=\"cid:a\">}{\\*\\htmltag84 <img src=\"a.png\">}"),
              "<img src=\"a.png\">");
    EXPECT_EQ(Html("{\\htmltag <br>}x"), "<br>x");  // without \*
    // A plain group inside a tag is still tag content.
    EXPECT_EQ(Html("{\\*\\htmltag <p>{\\f1 plain group}}"), "<p>plain group");
    EXPECT_EQ(Html("{\\*\\htmltag <a>\\par\\tab\\{\\}\\\\ \\b bold}"), "<a>\r\n\t{}\\ bold");  // \b ignored
}

// ---------------------------------------------------------------------------------------------- text rules

TEST(RtfDeencapsulateText, BytesAreDecodedFromTheRightCodePage) {
    EXPECT_EQ(Native("{\\rtf1\\ansi\\ansicpg1251\\fromtext \\'c0\\'e1}"), "\u0410\u0431");
    EXPECT_EQ(Native("{\\rtf1\\ansi\\ansicpg932\\fromtext \\'82\\'a0}"), "\u3042");
    EXPECT_EQ(Native("{\\rtf1\\ansi\\ansicpg65001\\fromtext \\'c3\\'a9}"), "\u00E9");
    EXPECT_EQ(Native("{\\rtf1\\ansi\\ansicpg20127\\fromtext ok}"), "ok");
    // An unknown code page falls back to 1252 (where 0x80 is the euro sign, unlike Latin-1).
    EXPECT_EQ(Native("{\\rtf1\\ansi\\ansicpg12345\\fromtext \\'80}"), "\u20AC");
    EXPECT_EQ(Text("{\\fonttbl{\\f0\\fcharset0 A;}{\\f1\\fcharset204 B;}}\\f0\\'e9\\f1\\'e9\\plain\\'e9"),
              "\u00E9\u0439\u00E9");  // \plain returns to the \deff font
    EXPECT_EQ(Text("{\\fonttbl{\\f0\\cpg65001 X;}}\\f0\\'e2\\'80\\'98hi"), "\u2018hi");
    EXPECT_EQ(Text("\\'81x"), "\uFFFDx");  // 0x81 is unassigned in 1252
}

TEST(RtfDeencapsulateText, RejectsWhatIsNotEncapsulatedRtf) {
    std::string out = "stale";
    EXPECT_FALSE(DeencapsulateRtf("plain text", RtfNativeBody::PlainText, out));
    EXPECT_TRUE(out.empty());
    EXPECT_FALSE(DeencapsulateRtf("{\\rtf1 x}", RtfNativeBody::Rtf, out));
    EXPECT_FALSE(DeencapsulateRtf("", RtfNativeBody::Html, out));
}

// ---------------------------------------------------------------------------------------------- hostile
// input

TEST(RtfDeencapsulateHostile, DeepNestingIsDroppedNotRecursed) {
    const std::string deep(100000, '{');
    const std::string close(100000, '}');
    EXPECT_EQ(Text("a" + deep + "deep" + close + "b"), "ab");
    EXPECT_EQ(Native("{\\rtf1\\fromtext x" + deep), "x");  // never closed at all
}

TEST(RtfDeencapsulateHostile, CutAndOversizedTokensEndCleanly) {
    EXPECT_EQ(Native("{\\rtf1\\fromtext abc{def"), "abcdef");
    EXPECT_EQ(Native("{\\rtf1\\fromtext x\\'"), "x");
    EXPECT_EQ(Native("{\\rtf1\\fromtext x\\'4"), "x");
    EXPECT_EQ(Native("{\\rtf1\\fromtext x\\'4zy}"), "xzy");
    EXPECT_EQ(Native("{\\rtf1\\fromtext x\\"), "x");
    EXPECT_EQ(Text("\\u99999999999999999999?x"), "\uFFFDx");  // saturated, out of Unicode range
    EXPECT_EQ(Text("\\uc99999999999 \\u65 abc}tail"), "A");   // skips to the end of the group
    EXPECT_EQ(Text("a\\bin3 {}}b"), "ab");                    // binary data is not parsed
    EXPECT_EQ(Text("a\\bin99999999999 {{{"), "a");            // clamped to the input
    EXPECT_EQ(Text("\\f99999999999\\'e9\\fonttbl\\fcharset-5 z"), "\u00E9z");
    EXPECT_EQ(Text(std::string(5000, 'x').insert(0, "\\") + " y"), "y");  // an absurdly long control word
}

}  // namespace
