#include "mapi/imap/ImapFetchReader.h"

#include <strings.h>

#include <cctype>

#include "mapi/imap/ImapConnection.h"

namespace velmar::mapi {
namespace {

// A reading position in one response; every step says whether the bytes it needs are there.
struct CCursor {
    std::string_view text;
    size_t at = 0;

    bool AtEnd() const { return at >= text.size(); }
    char Peek() const { return text[at]; }
    void SkipSpaces() {
        while (at < text.size() && text[at] == ' ') ++at;
    }
    // A number; false when its digits run to the end of what is there.
    bool Number(std::uint64_t& value) {
        value = 0;
        const size_t start = at;
        while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])))
            value = value * 10 + static_cast<unsigned>(text[at++] - '0');
        return at > start && at < text.size();
    }
    // An item name: up to a space, a parenthesis, or past a bracketed section ("BODY[HEADER.FIELDS (A B)]").
    bool Name(std::string_view& name) {
        const size_t start = at;
        int brackets = 0;
        while (at < text.size()) {
            const char c = text[at];
            if (c == '[') ++brackets;
            if (c == ']') --brackets;
            if (brackets == 0 && (c == ' ' || c == '(' || c == ')')) break;
            ++at;
        }
        name = text.substr(start, at - start);
        return at < text.size();
    }
};

// Whether word is name, in any case (item names and flags are case-insensitive).
bool IsItem(std::string_view word, const char* name) {
    return word.size() == std::char_traits<char>::length(name) &&
           strncasecmp(word.data(), name, word.size()) == 0;
}

std::uint32_t FlagOf(std::string_view flag) {
    if (IsItem(flag, "\\Seen")) return kImapSeen;
    if (IsItem(flag, "\\Answered")) return kImapAnswered;
    if (IsItem(flag, "\\Flagged")) return kImapFlagged;
    if (IsItem(flag, "\\Deleted")) return kImapDeleted;
    if (IsItem(flag, "\\Draft")) return kImapDraft;
    return 0;
}

}  // namespace

CImapFetchReader::EState CImapFetchReader::Feed(std::string_view bytes, std::string_view tag) {
    m_pending.append(bytes);
    EState state = EState::More;
    size_t start = 0;
    // Whole responses are taken from the front; a response whose bytes are not all there yet is read again
    // from its start once more have come.
    while (state == EState::More && start < m_pending.size()) {
        size_t consumed = 0;
        if (!ReadResponse(std::string_view(m_pending).substr(start), consumed, state, tag)) break;
        start += consumed;
    }
    m_pending.erase(0, start);
    return state;
}

bool CImapFetchReader::ReadResponse(std::string_view text, size_t& consumed, EState& state,
                                    std::string_view tag) {
    CCursor cursor{text};
    const size_t lineEnd = text.find("\r\n");
    if (lineEnd == std::string_view::npos) return false;
    const std::string_view line = text.substr(0, lineEnd);
    // The tagged end of the command.
    if (line.size() > tag.size() && line.substr(0, tag.size()) == tag && line[tag.size()] == ' ') {
        const std::string_view result = line.substr(tag.size() + 1);
        state = strncasecmp(result.data(), "OK", 2) == 0 ? EState::Done : EState::Failed;
        m_status = std::string(result);
        consumed = lineEnd + 2;
        return true;
    }
    // "* <n> FETCH (" and its items; any other line (with no literal in it) is stepped over.
    std::uint64_t number = 0;
    cursor.at = 2;
    const bool isFetch =
        line.starts_with("* ") && cursor.Number(number) && text.compare(cursor.at, 8, " FETCH (") == 0;
    if (!isFetch) {
        consumed = lineEnd + 2;
        if (line.ends_with("}")) {
            // A literal in a response not understood: the rest of the answer cannot be read.
            state = EState::Failed;
            m_status = "unerwartete Antwort des Servers: " + std::string(line.substr(0, 80));
        }
        return true;
    }
    cursor.at += 8;
    CFetchedMessage message;
    for (;;) {
        cursor.SkipSpaces();
        if (cursor.AtEnd()) return false;
        if (cursor.Peek() == ')') {
            ++cursor.at;
            break;
        }
        std::string_view name;
        if (!cursor.Name(name)) return false;
        cursor.SkipSpaces();
        if (cursor.AtEnd()) return false;
        if (IsItem(name, "UID")) {
            std::uint64_t uid = 0;
            if (!cursor.Number(uid)) return false;
            message.uid = static_cast<std::uint32_t>(uid);
        } else if (cursor.Peek() == '(') {
            // A list: FLAGS (...), MODSEQ (...).
            const size_t close = text.find(')', cursor.at);
            if (close == std::string_view::npos) return false;
            if (IsItem(name, "FLAGS")) {
                std::string_view flags = text.substr(cursor.at + 1, close - cursor.at - 1);
                while (!flags.empty()) {
                    const size_t space = flags.find(' ');
                    message.flags |= FlagOf(flags.substr(0, space));
                    flags = space == std::string_view::npos ? std::string_view() : flags.substr(space + 1);
                }
            }
            cursor.at = close + 1;
        } else if (cursor.Peek() == '{') {
            // A literal: {n}CRLF and n bytes.
            ++cursor.at;
            std::uint64_t length = 0;
            if (!cursor.Number(length)) return false;
            if (cursor.at + 3 > text.size()) return false;
            if (text.compare(cursor.at, 3, "}\r\n") != 0) {
                state = EState::Failed;
                m_status = "Literal des Servers nicht lesbar";
                consumed = text.size();
                return true;
            }
            cursor.at += 3;
            if (cursor.at + length > text.size()) return false;
            if (name.size() >= 4 && strncasecmp(name.data(), "BODY", 4) == 0)
                message.headers = text.substr(cursor.at, length);
            cursor.at += length;
        } else if (cursor.Peek() == '"') {
            // A quoted string; of those asked for only INTERNALDATE, which holds no quote or backslash.
            const size_t close = text.find('"', cursor.at + 1);
            if (close == std::string_view::npos) return false;
            if (IsItem(name, "INTERNALDATE"))
                message.internalDate = text.substr(cursor.at + 1, close - cursor.at - 1);
            cursor.at = close + 1;
        } else if (IsItem(name, "RFC822.SIZE")) {
            if (!cursor.Number(message.size)) return false;
        } else {
            // An atom or a number (NIL, MODSEQ's): up to the next space or the list's end.
            std::string_view value;
            if (!cursor.Name(value)) return false;
        }
    }
    const size_t end = text.find("\r\n", cursor.at);
    if (end == std::string_view::npos) return false;
    consumed = end + 2;
    if (message.uid != 0) m_message(message);
    return true;
}

}  // namespace velmar::mapi
