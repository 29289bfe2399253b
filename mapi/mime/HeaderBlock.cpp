#include "mapi/mime/HeaderBlock.h"

#include <algorithm>
#include <cctype>

#include "mapi/mime/HeaderText.h"

namespace velmar::mapi {
namespace {

constexpr size_t kNone = std::string::npos;

std::string Trim(std::string_view text) {
    const auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return std::string(text);
}

bool EqualIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

}  // namespace

CHeaderScanner::CHeaderScanner(std::initializer_list<std::string_view> names)
    : m_values(names.size()), m_found(names.size(), false), m_capturing(kNone) {
    for (const std::string_view name : names) {
        m_names.emplace_back(name);
        m_longestName = std::max(m_longestName, name.size());
    }
}

void CHeaderScanner::StartField() {
    m_capturing = kNone;
    m_name.clear();
    m_state = EState::Name;
}

void CHeaderScanner::Append(std::string_view text) {
    std::string& value = m_values[m_capturing];
    value.append(text.substr(0, std::min(text.size(), kMaxHeaderValueBytes - value.size())));
}

bool CHeaderScanner::Feed(std::string_view bytes) {
    size_t pos = 0;
    while (pos < bytes.size() && m_state != EState::Done) {
        const char c = bytes[pos];
        switch (m_state) {
            case EState::LineStart:
                if (c == '\n') {
                    m_state = EState::Done;
                } else if (c == '\r') {
                    m_state = EState::LineStartCr;
                    ++pos;
                } else if (c == ' ' || c == '\t') {
                    // A folded line goes on with the field before it, its leading white space included.
                    m_state = m_capturing != kNone ? EState::Value : EState::Skip;
                } else {
                    StartField();
                }
                break;
            case EState::LineStartCr:
                if (c == '\n') {
                    m_state = EState::Done;
                } else {  // a lone CR at the start of a line: no field, and not the end either
                    m_capturing = kNone;
                    m_state = EState::Skip;
                }
                break;
            case EState::Name:
                if (c == ':') {
                    m_state = EState::Skip;
                    for (size_t i = 0; i < m_names.size(); ++i) {
                        if (m_found[i] || !EqualIgnoringCase(m_name, m_names[i])) continue;
                        m_found[i] = true;
                        m_capturing = i;
                        m_state = EState::Value;
                        break;
                    }
                    ++pos;
                } else if (c == '\n' || m_name.size() == m_longestName) {
                    m_state = EState::Skip;  // a line without a field name wanted; Skip ends it
                } else {
                    m_name += c;
                    ++pos;
                }
                break;
            case EState::Value: {
                const size_t end = bytes.find('\n', pos);
                Append(bytes.substr(pos, (end == std::string_view::npos ? bytes.size() : end) - pos));
                if (end == std::string_view::npos) {
                    pos = bytes.size();
                    break;
                }
                // Unfolding drops the line break, and the CR of a CRLF with it.
                std::string& value = m_values[m_capturing];
                if (!value.empty() && value.back() == '\r') value.pop_back();
                m_state = EState::LineStart;
                pos = end + 1;
                break;
            }
            case EState::Skip: {
                const size_t end = bytes.find('\n', pos);
                if (end == std::string_view::npos) {
                    pos = bytes.size();
                } else {
                    m_state = EState::LineStart;
                    pos = end + 1;
                }
                break;
            }
            case EState::Done:
                break;
        }
    }
    return m_state != EState::Done;
}

std::string CHeaderScanner::Value(size_t index) const {
    return Trim(m_values[index]);
}

std::string HeaderValue(std::string_view headers, std::string_view name) {
    CHeaderScanner scanner({name});
    (void)scanner.Feed(headers);  // whether the block ended within headers does not matter here
    return scanner.Value(0);
}

std::string DecodeHeaderText(const std::string& raw) {
    return UnstructuredText(raw, {});
}

}  // namespace velmar::mapi
