#include "json/JsonParser.h"

#include <cstdint>

#include "json/JsonChars.h"
#include "support/Utf8.h"

namespace velmar::json {
namespace {

class CJsonParser {
public:
    explicit CJsonParser(std::string_view text) : m_text(text) {}

    JsonNodePtr Parse(std::string& error);

private:
    enum class State { ExpectValue, ExpectName, AfterValue };

    bool AtEnd() const { return m_pos >= m_text.size(); }
    char Peek() const { return m_text[m_pos]; }
    void SkipWhiteSpace();
    bool Fail(const char* what);
    bool ParseValue(State& state);
    bool ParseString(std::string& out);
    bool ParseHex4(std::uint32_t& value);
    bool ParseNumber();
    bool ParseLiteral(std::string_view literal, JsonKind kind);
    bool Attach(JsonNodePtr node);
    bool CloseContainer(char closer);

    std::string_view m_text;
    size_t m_pos = 0;
    std::vector<JsonNode*> m_open;
    JsonNodePtr m_root;
    std::string m_pendingName;
    std::string m_error;
};

void CJsonParser::SkipWhiteSpace() {
    while (!AtEnd() && (Peek() == ' ' || Peek() == '\t' || Peek() == '\n' || Peek() == '\r')) ++m_pos;
}

bool CJsonParser::Fail(const char* what) {
    m_error = std::string(what) + " at offset " + std::to_string(m_pos);
    return false;
}

bool CJsonParser::Attach(JsonNodePtr node) {
    JsonNode* raw = node.get();
    if (m_open.empty()) {
        m_root = std::move(node);
    } else if (m_open.back()->kind == JsonKind::Object) {
        m_open.back()->members.push_back({std::move(m_pendingName), std::move(node)});
        m_pendingName.clear();
    } else {
        m_open.back()->elements.push_back(std::move(node));
    }
    if (raw->IsContainer()) {
        if (m_open.size() >= kMaxJsonDepth) return Fail("nesting too deep");
        m_open.push_back(raw);
    }
    return true;
}

bool CJsonParser::ParseHex4(std::uint32_t& value) {
    if (m_pos + 4 > m_text.size()) return Fail("truncated \\u escape");
    value = 0;
    for (int i = 0; i < 4; ++i) {
        const char c = m_text[m_pos++];
        value <<= 4;
        if (c >= '0' && c <= '9')
            value |= static_cast<std::uint32_t>(c - '0');
        else if (c >= 'a' && c <= 'f')
            value |= static_cast<std::uint32_t>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            value |= static_cast<std::uint32_t>(c - 'A' + 10);
        else
            return Fail("invalid \\u escape");
    }
    return true;
}

bool CJsonParser::ParseString(std::string& out) {
    ++m_pos;  // opening quote
    for (;;) {
        // Copy the run up to the next quote, backslash or control character in one step.
        const size_t runStart = m_pos;
        m_pos = PlainRunEnd(m_text, m_pos);
        out.append(m_text.substr(runStart, m_pos - runStart));
        if (AtEnd()) return Fail("unterminated string");
        const char c = m_text[m_pos++];
        if (c == '"') return true;
        if (c != '\\') return Fail("control character in string");
        if (AtEnd()) return Fail("unterminated escape");
        switch (m_text[m_pos++]) {
            case '"':
                out += '"';
                break;
            case '\\':
                out += '\\';
                break;
            case '/':
                out += '/';
                break;
            case 'b':
                out += '\b';
                break;
            case 'f':
                out += '\f';
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            case 't':
                out += '\t';
                break;
            case 'u': {
                std::uint32_t unit = 0;
                if (!ParseHex4(unit)) return false;
                char32_t codePoint = unit;
                // A high surrogate pairs with an immediately following \u low surrogate; a lone half
                // is legal JSON but has no UTF-8 form, so it reads as U+FFFD.
                if (unit >= 0xD800 && unit <= 0xDBFF && m_pos + 1 < m_text.size() && m_text[m_pos] == '\\' &&
                    m_text[m_pos + 1] == 'u') {
                    const size_t save = m_pos;
                    m_pos += 2;
                    std::uint32_t low = 0;
                    if (!ParseHex4(low)) return false;
                    if (low >= 0xDC00 && low <= 0xDFFF)
                        codePoint = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                    else
                        m_pos = save;
                }
                AppendUtf8(out, codePoint);
                break;
            }
            default:
                return Fail("invalid escape");
        }
    }
}

bool CJsonParser::ParseNumber() {
    const size_t start = m_pos;
    const auto digits = [&] {
        const size_t from = m_pos;
        while (!AtEnd() && Peek() >= '0' && Peek() <= '9') ++m_pos;
        return m_pos > from;
    };
    if (Peek() == '-') ++m_pos;
    if (AtEnd()) return Fail("truncated number");
    if (Peek() == '0') {
        ++m_pos;
    } else if (!digits()) {
        return Fail("invalid number");
    }
    if (!AtEnd() && Peek() == '.') {
        ++m_pos;
        if (!digits()) return Fail("invalid fraction");
    }
    if (!AtEnd() && (Peek() == 'e' || Peek() == 'E')) {
        ++m_pos;
        if (!AtEnd() && (Peek() == '+' || Peek() == '-')) ++m_pos;
        if (!digits()) return Fail("invalid exponent");
    }
    return Attach(MakeNode(JsonKind::Number, std::string(m_text.substr(start, m_pos - start))));
}

bool CJsonParser::ParseLiteral(std::string_view literal, JsonKind kind) {
    if (m_text.substr(m_pos, literal.size()) != literal) return Fail("invalid literal");
    m_pos += literal.size();
    return Attach(MakeNode(kind, std::string(literal)));
}

bool CJsonParser::ParseValue(State& state) {
    if (AtEnd()) return Fail("value expected");
    state = State::AfterValue;
    switch (Peek()) {
        case '{':
        case '[': {
            const bool isObject = Peek() == '{';
            ++m_pos;
            if (!Attach(MakeNode(isObject ? JsonKind::Object : JsonKind::Array))) return false;
            SkipWhiteSpace();
            if (!AtEnd() && Peek() == (isObject ? '}' : ']')) {
                ++m_pos;
                m_open.pop_back();
            } else {
                state = isObject ? State::ExpectName : State::ExpectValue;
            }
            return true;
        }
        case '"': {
            std::string text;
            return ParseString(text) && Attach(MakeNode(JsonKind::String, std::move(text)));
        }
        case 't':
            return ParseLiteral("true", JsonKind::Bool);
        case 'f':
            return ParseLiteral("false", JsonKind::Bool);
        case 'n':
            return ParseLiteral("null", JsonKind::Null);
        default:
            if (Peek() == '-' || (Peek() >= '0' && Peek() <= '9')) return ParseNumber();
            return Fail("unexpected character");
    }
}

bool CJsonParser::CloseContainer(char closer) {
    const char expected = m_open.back()->kind == JsonKind::Object ? '}' : ']';
    if (closer != expected) return Fail("mismatched bracket");
    m_open.pop_back();
    return true;
}

JsonNodePtr CJsonParser::Parse(std::string& error) {
    State state = State::ExpectValue;
    bool ok = true;
    for (;;) {
        SkipWhiteSpace();
        if (state == State::ExpectValue) {
            ok = ParseValue(state);
        } else if (state == State::ExpectName) {
            if (AtEnd() || Peek() != '"') {
                ok = Fail("member name expected");
            } else if ((ok = ParseString(m_pendingName))) {
                SkipWhiteSpace();
                if (AtEnd() || Peek() != ':') {
                    ok = Fail("':' expected");
                } else {
                    ++m_pos;
                    state = State::ExpectValue;
                }
            }
        } else if (m_open.empty()) {
            if (!AtEnd()) ok = Fail("text after the top value");
            break;
        } else if (AtEnd()) {
            ok = Fail("unterminated container");
        } else if (Peek() == ',') {
            ++m_pos;
            state = m_open.back()->kind == JsonKind::Object ? State::ExpectName : State::ExpectValue;
        } else {
            ok = CloseContainer(Peek());
            ++m_pos;
        }
        if (!ok) break;
    }
    if (!ok) {
        error = m_error;
        return nullptr;
    }
    return std::move(m_root);
}

}  // namespace

JsonNodePtr ParseJson(std::string_view text, std::string& error) {
    return CJsonParser(text).Parse(error);
}

}  // namespace velmar::json
