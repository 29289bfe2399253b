#include "json/JsonWriter.h"

#include "json/JsonChars.h"

namespace velmar::json {
namespace {

class CJsonWriter {
public:
    CJsonWriter(JsonWriteOptions options, std::string& out) : m_options(options), m_out(out) {}

    void Write(const JsonNode& root) {
        Open(root);
        while (!m_stack.empty()) {
            Frame& frame = m_stack.back();
            const JsonNode& container = *frame.node;
            const size_t count =
                container.kind == JsonKind::Object ? container.members.size() : container.elements.size();
            if (frame.next == count) {
                m_stack.pop_back();
                LineBreak();
                m_out += container.kind == JsonKind::Object ? '}' : ']';
                continue;
            }
            const size_t index = frame.next++;  // before Open, which may grow the stack under frame
            if (index > 0) m_out += ',';
            LineBreak();
            if (container.kind == JsonKind::Object) {
                AppendQuoted(m_out, container.members[index].name);
                m_out += m_options.compact ? ":" : ": ";
                Open(*container.members[index].value);
            } else {
                Open(*container.elements[index]);
            }
        }
    }

private:
    struct Frame {
        const JsonNode* node;
        size_t next;
    };

    void Open(const JsonNode& node) {
        switch (node.kind) {
            case JsonKind::String:
                AppendQuoted(m_out, node.text);
                return;
            case JsonKind::Number:
            case JsonKind::Bool:
            case JsonKind::Null:
                m_out += node.text;
                return;
            case JsonKind::Object:
            case JsonKind::Array:
                break;
        }
        // An empty container gets its frame too: indented, its closing bracket goes on a line of its own.
        m_out += node.kind == JsonKind::Object ? '{' : '[';
        m_stack.push_back({&node, 0});
    }

    // A line break followed by the indentation of the current nesting level (indented mode only).
    void LineBreak() {
        if (m_options.compact) return;
        m_out += m_options.crLfLineBreaks ? "\r\n" : "\n";
        m_out.append(2 * m_stack.size(), ' ');
    }

    JsonWriteOptions m_options;
    std::string& m_out;
    std::vector<Frame> m_stack;
};

}  // namespace

void AppendQuoted(std::string& out, std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    out += '"';
    for (size_t pos = 0;;) {
        // Runs without anything to escape are most of a mail body; they go over in one piece.
        const size_t runEnd = PlainRunEnd(text, pos);
        out.append(text.data() + pos, runEnd - pos);
        if (runEnd == text.size()) break;
        const char c = text[runEnd];
        pos = runEnd + 1;
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:  // the other control characters
                out += "\\u00";
                out += kHex[(c >> 4) & 0x0F];
                out += kHex[c & 0x0F];
        }
    }
    out += '"';
}

std::string WriteJson(const JsonNode& node, JsonWriteOptions options) {
    std::string out;
    CJsonWriter(options, out).Write(node);
    return out;
}

}  // namespace velmar::json
