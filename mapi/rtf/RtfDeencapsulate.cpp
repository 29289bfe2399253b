#include "mapi/rtf/RtfDeencapsulate.h"

#include "mapi/rtf/CodePageText.h"
#include "support/Utf8.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace velmar::mapi {
namespace {

constexpr std::string_view kRtfSignature = "{\\rtf";
constexpr std::size_t kHeaderTokens = 10;     // how far DetectNativeBody looks
constexpr std::size_t kMaxGroupDepth = 1024;  // deeper groups are dropped, not parsed
constexpr std::int64_t kParamLimit = 0x7FFFFFFF;

// ---------------------------------------------------------------------------------------------
// Tokenizer

enum class TokenKind { End, GroupOpen, GroupClose, Word, Symbol, HexByte, Text, Binary };

struct Token {
    TokenKind kind = TokenKind::End;
    std::string_view word;  // Word: the name without backslash
    bool hasParam = false;  // Word: a numeric parameter followed the name
    std::int32_t param = 0;
    char symbol = 0;        // Symbol: the character after the backslash
    std::uint8_t byte = 0;  // HexByte, Text
};

Token MakeToken(TokenKind kind) {
    Token t;
    t.kind = kind;
    return t;
}

bool IsAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}
int HexValue(char c) {
    if (IsDigit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

class Tokenizer {
public:
    explicit Tokenizer(std::string_view s) : m_text(s) {}

    Token Next() {
        while (m_pos < m_text.size()) {
            const char c = m_text[m_pos++];
            switch (c) {
                case '{':
                    return MakeToken(TokenKind::GroupOpen);
                case '}':
                    return MakeToken(TokenKind::GroupClose);
                case '\\':
                    return Control();
                case '\r':
                case '\n':
                case '\0':
                    continue;  // line breaks in RTF source carry no meaning
                default: {
                    Token t = MakeToken(TokenKind::Text);
                    t.byte = static_cast<std::uint8_t>(c);
                    return t;
                }
            }
        }
        return Token{};
    }

private:
    Token Control() {
        if (m_pos >= m_text.size()) return Token{};
        const char c = m_text[m_pos];
        if (!IsAlpha(c)) return Symbol();

        Token t = MakeToken(TokenKind::Word);
        const std::size_t start = m_pos;
        while (m_pos < m_text.size() && IsAlpha(m_text[m_pos])) ++m_pos;
        t.word = m_text.substr(start, m_pos - start);
        bool negative = false;
        if (m_pos + 1 < m_text.size() && m_text[m_pos] == '-' && IsDigit(m_text[m_pos + 1])) {
            negative = true;
            ++m_pos;
        }
        if (m_pos < m_text.size() && IsDigit(m_text[m_pos])) {
            std::int64_t v = 0;
            // Consume every digit but saturate, so absurd parameters cannot overflow.
            for (; m_pos < m_text.size() && IsDigit(m_text[m_pos]); ++m_pos)
                v = std::min(v * 10 + (m_text[m_pos] - '0'), kParamLimit);
            t.hasParam = true;
            t.param = static_cast<std::int32_t>(negative ? -v : v);
        }
        if (m_pos < m_text.size() && m_text[m_pos] == ' ')
            ++m_pos;  // the delimiting space belongs to the word
        if (t.word == "bin" && t.hasParam && t.param > 0) {
            // Raw binary data must not be tokenized; skip it (clamped to what is there).
            m_pos += std::min<std::size_t>(static_cast<std::size_t>(t.param), m_text.size() - m_pos);
            t.kind = TokenKind::Binary;
        }
        return t;
    }

    Token Symbol() {
        Token t = MakeToken(TokenKind::Symbol);
        t.symbol = m_text[m_pos++];
        if (t.symbol != '\'') return t;
        if (m_pos + 2 <= m_text.size() && HexValue(m_text[m_pos]) >= 0 && HexValue(m_text[m_pos + 1]) >= 0) {
            t.kind = TokenKind::HexByte;
            t.byte = static_cast<std::uint8_t>(HexValue(m_text[m_pos]) * 16 + HexValue(m_text[m_pos + 1]));
            m_pos += 2;
            return t;
        }
        // A cut or malformed \'hh escape: drop it together with the one hex digit it may have.
        if (m_pos < m_text.size() && HexValue(m_text[m_pos]) >= 0) ++m_pos;
        return t;
    }

    std::string_view m_text;
    std::size_t m_pos = 0;
};

// ---------------------------------------------------------------------------------------------
// Code pages

// \fcharsetN values and their Windows code pages. Symbol fonts (2) have no Unicode meaning; reading
// them as 1252 at least keeps the bytes visible. DEFAULT_CHARSET (1) and unknown values defer to the
// document code page.
constexpr std::pair<std::int32_t, int> kCharsetCodePages[] = {
    {0, 1252},   {2, 1252},   {77, 10000}, {128, 932},  {129, 949},  {130, 1361}, {134, 936},
    {136, 950},  {161, 1253}, {162, 1254}, {163, 1258}, {177, 1255}, {178, 1256}, {186, 1257},
    {204, 1251}, {222, 874},  {238, 1250}, {254, 437},  {255, 850}};

int CharsetCodePage(std::int32_t charset) {
    for (const auto& [set, codePage] : kCharsetCodePages) {
        if (set == charset) return codePage;
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// De-encapsulation

enum class Dest : std::uint8_t { Text, Skip, HtmlTag, FontTable };

struct Group {
    Dest dest = Dest::Text;
    bool htmlrtf = false;  // inside \htmlrtf ... \htmlrtf0: not part of the original content
    bool atStart = true;   // nothing but \* seen yet, so the destination is still undecided
    bool starred = false;
    std::int32_t font = -1;  // -1: the \deff font
    std::int32_t uc = 1;
};

struct FontInfo {
    int codePage = 0;  // from \cpgN, wins over \fcharsetN
    int charsetCodePage = 0;
};

// Destinations that carry no body text even though they are not marked with \*. \mhtmltag is one of
// them: it repeats the neighbouring \htmltag with rewritten URLs, and \htmltag holds the original.
constexpr std::string_view kSkippedDestinations =
    " annotation atnauthor atnid author bkmkend bkmkstart buptim category colortbl comment company creatim"
    " datastore doccomm fldinst footer footerf footerl footerr footnote generator header headerf headerl"
    " headerr info keywords latentstyles listoverridetable listtable listtext manager mhtmltag nonshppict"
    " object operator pict pntext revtbl rsidtbl stylesheet subject themedata title ";

bool IsSkippedDestination(std::string_view word) {
    std::string key(1, ' ');
    key.append(word).push_back(' ');
    return kSkippedDestinations.find(key) != std::string_view::npos;
}

struct NamedChar {
    std::string_view word;
    std::uint32_t cp;
};
constexpr NamedChar kNamedChars[] = {
    {"lquote", 0x2018}, {"rquote", 0x2019}, {"ldblquote", 0x201C}, {"rdblquote", 0x201D}, {"bullet", 0x2022},
    {"endash", 0x2013}, {"emdash", 0x2014}, {"enspace", 0x2002},   {"emspace", 0x2003},   {"qmspace", 0x2005},
    {"zwj", 0x200D},    {"zwnj", 0x200C},   {"ltrmark", 0x200E},   {"rtlmark", 0x200F}};

class Deencapsulator {
public:
    Deencapsulator(std::string_view rtf, bool html, std::string& out)
        : m_tokens(rtf), m_html(html), m_sink(out) {}

    void Run() {
        m_tokens.Next();  // the opening brace of "{\rtf", checked by the caller
        m_stack.reserve(64);
        m_stack.push_back(Group{});
        for (Token t = m_tokens.Next(); t.kind != TokenKind::End; t = m_tokens.Next()) {
            if (!Structure(t)) break;
        }
        m_sink.Finish();
    }

private:
    // Handles one token; returns false once the outermost group has closed.
    bool Structure(const Token& t) {
        if (m_overflowDepth > 0) {  // inside a group beyond kMaxGroupDepth: only count braces
            if (t.kind == TokenKind::GroupOpen) ++m_overflowDepth;
            if (t.kind == TokenKind::GroupClose) --m_overflowDepth;
            return true;
        }
        if (t.kind == TokenKind::GroupOpen) {
            m_ucSkip = 0;
            if (m_stack.size() >= kMaxGroupDepth) {
                m_overflowDepth = 1;
                return true;
            }
            Group child = m_stack.back();
            child.atStart = true;
            child.starred = false;
            m_stack.push_back(child);
            return true;
        }
        if (t.kind == TokenKind::GroupClose) {
            m_ucSkip = 0;
            m_stack.pop_back();
            return !m_stack.empty();
        }
        if (m_ucSkip > 0) {  // fallback characters after \uN, one token each
            --m_ucSkip;
            return true;
        }
        Group& g = m_stack.back();
        if (g.atStart) {
            if (t.kind == TokenKind::Symbol && t.symbol == '*') {
                g.starred = true;
                return true;
            }
            g.atStart = false;
            Classify(t, g);
        }
        Content(t, g);
        return true;
    }

    void Classify(const Token& t, Group& g) const {
        if (g.dest == Dest::Skip) return;
        if (t.kind != TokenKind::Word) {
            if (g.starred) g.dest = Dest::Skip;
            return;
        }
        if (t.word == "htmltag") {
            g.dest = m_html ? Dest::HtmlTag : Dest::Skip;
        } else if (t.word == "fonttbl") {
            g.dest = Dest::FontTable;
        } else if (g.starred || IsSkippedDestination(t.word)) {
            g.dest = Dest::Skip;
        }
    }

    int CodePageFor(const Group& g) const {
        // Inside \htmltag the document default applies; elsewhere the current font's code page.
        if (g.dest != Dest::HtmlTag) {
            auto it = m_fonts.find(g.font >= 0 ? g.font : m_defaultFont);
            if (it != m_fonts.end()) {
                if (it->second.codePage > 0) return it->second.codePage;
                if (it->second.charsetCodePage > 0) return it->second.charsetCodePage;
            }
        }
        return m_defaultCodePage;
    }

    void Content(const Token& t, Group& g) {
        if (g.dest == Dest::Skip) return;
        const bool emit = (g.dest == Dest::Text || g.dest == Dest::HtmlTag) && !g.htmlrtf;
        switch (t.kind) {
            case TokenKind::Word:
                Word(t, g, emit);
                break;
            case TokenKind::Symbol:
                Symbol(t, g, emit);
                break;
            case TokenKind::HexByte:
            case TokenKind::Text:
                if (emit) m_sink.Byte(t.byte, CodePageFor(g));
                break;
            default:
                break;
        }
    }

    void Word(const Token& t, Group& g, bool emit) {
        const std::string_view w = t.word;
        const std::int32_t p = t.param;
        if (w == "htmlrtf") {
            g.htmlrtf = !(t.hasParam && p == 0);
        } else if (w == "u") {
            if (!t.hasParam) return;
            const std::int64_t cp = p < 0 ? std::int64_t{p} + 65536 : p;
            if (emit && cp >= 0) m_sink.CodePoint(static_cast<std::uint32_t>(cp));
            m_ucSkip = g.uc;
        } else if (w == "uc") {
            if (t.hasParam) g.uc = std::max<std::int32_t>(p, 0);
        } else if (w == "ansicpg") {
            if (t.hasParam && p > 0 && p <= 65535) m_defaultCodePage = p;
        } else if (w == "deff") {
            if (t.hasParam) m_defaultFont = p;
        } else if (w == "plain") {
            g.font = -1;
        } else if (w == "f") {
            if (!t.hasParam) return;
            if (g.dest == Dest::FontTable) {
                m_definingFont = p;
            } else {
                g.font = p;
            }
        } else if (g.dest == Dest::FontTable) {
            if (w == "fcharset" && t.hasParam) m_fonts[m_definingFont].charsetCodePage = CharsetCodePage(p);
            if (w == "cpg" && t.hasParam && p > 0 && p <= 65535) m_fonts[m_definingFont].codePage = p;
        } else if (emit) {
            if (w == "par" || w == "line") {
                m_sink.Ascii("\r\n");
            } else if (w == "tab") {
                m_sink.Ascii("\t");
            } else {
                for (const NamedChar& sc : kNamedChars) {
                    if (sc.word == w) m_sink.CodePoint(sc.cp);
                }
            }
        }
    }

    void Symbol(const Token& t, const Group& g, bool emit) {
        if (!emit) return;
        switch (t.symbol) {
            case '\\':
            case '{':
            case '}':
                m_sink.Byte(static_cast<std::uint8_t>(t.symbol), CodePageFor(g));
                break;
            case '~':
                m_sink.CodePoint(0x00A0);
                break;
            case '_':
                m_sink.CodePoint(0x2011);
                break;
            case '\r':  // "\<newline>" is a paragraph break
            case '\n':
                m_sink.Ascii("\r\n");
                break;
            default:  // \- optional hyphen, \| \: index marks, a cut \'
                break;
        }
    }

    Tokenizer m_tokens;
    bool m_html;
    Utf8Sink m_sink;
    std::vector<Group> m_stack;
    std::map<std::int32_t, FontInfo> m_fonts;
    std::int32_t m_definingFont = -1;
    std::int32_t m_defaultFont = -1;
    int m_defaultCodePage = kDefaultCodePage;
    std::int64_t m_ucSkip = 0;
    std::size_t m_overflowDepth = 0;
};

bool LooksLikeRtf(std::string_view rtf) {
    return rtf.substr(0, kRtfSignature.size()) == kRtfSignature;
}

}  // namespace

RtfNativeBody DetectNativeBody(std::string_view rtf) noexcept {
    if (!LooksLikeRtf(rtf)) return RtfNativeBody::Rtf;
    Tokenizer tokens(rtf);
    int depth = 0;
    for (std::size_t count = 0; count < kHeaderTokens; ++count) {
        const Token t = tokens.Next();
        switch (t.kind) {
            case TokenKind::End:
                return RtfNativeBody::Rtf;
            case TokenKind::GroupOpen:
                ++depth;
                break;
            case TokenKind::GroupClose:
                if (--depth <= 0) return RtfNativeBody::Rtf;
                break;
            case TokenKind::Text:  // body text before the marker: an ordinary RTF document
                if (t.byte != ' ' && t.byte != '\t') return RtfNativeBody::Rtf;
                break;
            case TokenKind::Word:
                if (depth != 1) break;
                if (t.word == "fromhtml" && (!t.hasParam || t.param == 1)) return RtfNativeBody::Html;
                if (t.word == "fromtext") return RtfNativeBody::PlainText;
                break;
            default:
                break;
        }
    }
    return RtfNativeBody::Rtf;
}

bool DeencapsulateRtf(std::string_view rtf, RtfNativeBody kind, std::string& utf8Out) noexcept {
    utf8Out.clear();
    if (kind == RtfNativeBody::Rtf || !LooksLikeRtf(rtf)) return false;
    try {
        Deencapsulator(rtf, kind == RtfNativeBody::Html, utf8Out).Run();
        return true;
    } catch (...) {  // allocation failure
        utf8Out.clear();
        return false;
    }
}

}  // namespace velmar::mapi
