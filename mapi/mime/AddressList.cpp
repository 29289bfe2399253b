#include "mapi/mime/AddressList.h"

#include <algorithm>
#include <cstring>

#include "mapi/mime/EncodedWords.h"
#include "mapi/mime/HeaderText.h"
#include "mapi/mime/TextCharset.h"

namespace velmar::mapi {
namespace {

enum class EToken { Atom, Quoted, Comment, Literal, Special };

struct CToken {
    EToken kind;
    std::string text;   // an atom or domain literal as written; a quoted string's or comment's content
    std::string space;  // the white space just before it
};

bool IsSpace(char c) {
    return c == ' ' || c == '\t';
}

bool IsSpecial(char c) {
    return std::strchr("()<>@,;:\"[]", c) != nullptr;
}

// Comments nest; a backslash quotes the next character in comments and quoted strings alike.
std::vector<CToken> Tokenize(std::string_view text) {
    std::vector<CToken> tokens;
    std::string space;
    size_t pos = 0;
    const auto push = [&](EToken kind, std::string value) {
        tokens.push_back({kind, std::move(value), std::move(space)});
        space.clear();
    };
    while (pos < text.size()) {
        const char c = text[pos];
        if (IsSpace(c)) {
            space += c;
            ++pos;
        } else if (c == '"' || c == '(') {
            std::string content;
            int depth = 1;
            for (++pos; pos < text.size(); ++pos) {
                const char d = text[pos];
                if (d == '\\' && pos + 1 < text.size()) {
                    content += text[++pos];
                    continue;
                }
                if (c == '"' && d == '"') break;
                if (c == '(' && d == '(') ++depth;
                if (c == '(' && d == ')' && --depth == 0) break;
                content += d;
            }
            ++pos;  // past the closing quote or parenthesis
            push(c == '"' ? EToken::Quoted : EToken::Comment, std::move(content));
        } else if (c == '[') {
            const size_t close = text.find(']', pos);
            const size_t end = close == std::string_view::npos ? text.size() : close + 1;
            push(EToken::Literal, std::string(text.substr(pos, end - pos)));
            pos = end;
        } else if (IsSpecial(c)) {
            push(EToken::Special, std::string(1, c));
            ++pos;
        } else {
            // An encoded word is one atom even when specials stand in it ("=?utf-8?Q?Doe,_John?="), which
            // a phrase's words should not hold but often do.
            const size_t start = pos;
            while (pos < text.size() && !IsSpace(text[pos]) && !IsSpecial(text[pos])) {
                const size_t word = text[pos] == '=' ? EncodedWordLength(text, pos) : 0;
                const bool spaced =
                    word && text.substr(pos, word).find_first_of(" \t") != std::string_view::npos;
                pos += word && !spaced ? word : 1;
            }
            push(EToken::Atom, std::string(text.substr(start, pos - start)));
        }
    }
    return tokens;
}

bool IsWord(const CToken& token) {
    return token.kind == EToken::Atom || token.kind == EToken::Quoted;
}

class CAddressParser {
public:
    CAddressParser(std::string_view text, std::string_view hint) : m_tokens(Tokenize(text)), m_hint(hint) {}

    std::vector<CMailboxText> Parse() {
        while (m_pos < m_tokens.size()) Next(false);
        return std::move(m_mailboxes);
    }

private:
    bool Is(size_t at, char special) const {
        return at < m_tokens.size() && m_tokens[at].kind == EToken::Special &&
               m_tokens[at].text[0] == special;
    }
    bool IsAnyOf(size_t at, const char* specials) const {
        return at < m_tokens.size() && m_tokens[at].kind == EToken::Special &&
               std::strchr(specials, m_tokens[at].text[0]);
    }
    // The first token at or after from that is one of the specials, or the end.
    size_t Find(size_t from, const char* specials) const {
        while (from < m_tokens.size() && !IsAnyOf(from, specials)) ++from;
        return from;
    }

    // The address at m_pos, or past a separator or a stray special.
    void Next(bool inGroup) {
        const size_t before = m_pos;
        if (!IsAnyOf(m_pos, ",;>")) Address(inGroup);
        if (m_pos == before) ++m_pos;
    }

    // One address at m_pos: a mailbox, or a group when not already in one.
    void Address(bool inGroup) {
        const size_t start = m_pos;
        size_t stop = Find(start, inGroup ? "<@,;" : "<:@,;");
        // "Doe, John <j@x>": words and a comma, then a name and an address: the comma is the name's.
        while (Is(stop, ',') && OnlyWords(start, stop) && HasWords(start, stop)) {
            const size_t next = Find(stop + 1, inGroup ? "<@,;" : "<:@,;");
            if (!Is(next, '<') || !HasWords(stop + 1, next)) break;
            stop = next;
        }
        if (Is(stop, '<')) {
            std::string name = Phrase(start, stop);
            const size_t close = Find(stop + 1, ">");
            std::string address = AddressText(stop + 1, close);
            m_pos = std::min(close + 1, m_tokens.size());
            Finish(std::move(name), std::move(address), inGroup);
        } else if (Is(stop, ':')) {
            m_pos = stop + 1;
            while (m_pos < m_tokens.size() && !Is(m_pos, ';')) Next(true);
            m_pos = std::min(m_pos + 1, m_tokens.size());  // past the ";"
        } else if (Is(stop, '@')) {
            BareAddress(start, stop, inGroup);
        } else {
            PhraseOnly(start, stop);
            m_pos = stop;
        }
    }

    // "local@domain" without angle brackets; words before the local part are the name.
    void BareAddress(size_t start, size_t at, bool inGroup) {
        size_t local = at;
        while (local > start && IsWord(m_tokens[local - 1]) && (local == at || m_tokens[local].space.empty()))
            --local;
        size_t end = at + 1;
        while (end < m_tokens.size() &&
               (m_tokens[end].kind == EToken::Atom || m_tokens[end].kind == EToken::Literal) &&
               (end == at + 1 || m_tokens[end].space.empty()))
            ++end;
        // "a@b <c@d>": what stood before the angle brackets was a name.
        size_t next = end;
        while (next < m_tokens.size() && m_tokens[next].kind == EToken::Comment) ++next;
        if (Is(next, '<')) {
            std::string name = Phrase(start, next);
            const size_t close = Find(next + 1, ">");
            std::string address = AddressText(next + 1, close);
            m_pos = std::min(close + 1, m_tokens.size());
            Finish(std::move(name), std::move(address), inGroup);
            return;
        }
        std::string address = AddressText(local, end);
        if (local == at) address.clear();  // no local part: no address
        std::string name = Phrase(start, local);
        m_pos = end;
        Finish(std::move(name), std::move(address), inGroup);
    }

    // Words without an address: a lone atom is taken for the address, more words for a name.
    void PhraseOnly(size_t start, size_t stop) {
        if (!HasWords(start, stop)) return;
        size_t words = 0;
        bool oneAtom = true;
        for (size_t i = start; i < stop; ++i) {
            if (!IsWord(m_tokens[i])) continue;
            ++words;
            oneAtom = oneAtom && m_tokens[i].kind == EToken::Atom;
        }
        if (words == 1 && oneAtom) {
            for (size_t i = start; i < stop; ++i)
                if (IsWord(m_tokens[i])) Add({std::string(), HeaderBytesToUtf8(m_tokens[i].text, m_hint)});
            return;
        }
        Add({Phrase(start, stop), std::string()});
    }

    // The rest of a mailbox up to the next comma (or a group's end): a comment there names a mailbox that
    // has no name. A word there starts the next address, as where a comma was left out ("a@b c@d").
    void Finish(std::string name, std::string address, bool inGroup) {
        size_t stop = Find(m_pos, inGroup ? ",;" : ",");
        for (size_t i = m_pos; i < stop; ++i) {
            if (IsWord(m_tokens[i])) {
                stop = i;
                break;
            }
            if (m_tokens[i].kind == EToken::Comment && name.empty())
                name = DecodeEncodedWords(UnfoldHeader(m_tokens[i].text), m_hint);
        }
        m_pos = stop;
        Add({std::move(name), std::move(address)});
    }

    void Add(CMailboxText mailbox) {
        if (!mailbox.name.empty() || !mailbox.address.empty()) m_mailboxes.push_back(std::move(mailbox));
    }

    bool HasWords(size_t from, size_t to) const {
        for (size_t i = from; i < to; ++i)
            if (IsWord(m_tokens[i])) return true;
        return false;
    }
    bool OnlyWords(size_t from, size_t to) const {
        for (size_t i = from; i < to; ++i)
            if (!IsWord(m_tokens[i]) && m_tokens[i].kind != EToken::Comment) return false;
        return true;
    }

    // The display name of the tokens [from, to): words with the white space between them as written,
    // comments left out, quoted strings without their quotes (and so with the white space inside them),
    // encoded words decoded.
    std::string Phrase(size_t from, size_t to) const {
        std::string raw;
        bool first = true;
        bool commentSince = false;
        for (size_t i = from; i < to; ++i) {
            const CToken& token = m_tokens[i];
            if (token.kind == EToken::Comment) {
                commentSince = true;
                continue;
            }
            if (token.kind == EToken::Special && (token.text[0] == '<' || token.text[0] == '>')) continue;
            if (!first) raw += token.space.empty() && commentSince ? std::string(" ") : token.space;
            raw += token.text;
            first = false;
            commentSince = false;
        }
        return DecodeEncodedWords(raw, m_hint);
    }

    // An address as written, without white space and comments; an obsolete route ("@a,@b:") is dropped.
    std::string AddressText(size_t from, size_t to) const {
        for (size_t i = to; i > from; --i)
            if (Is(i - 1, ':')) {
                from = i;
                break;
            }
        std::string text;
        for (size_t i = from; i < to && i < m_tokens.size(); ++i) {
            const CToken& token = m_tokens[i];
            if (token.kind == EToken::Comment) continue;
            if (token.kind == EToken::Quoted) {
                text += '"';
                for (const char c : token.text) {
                    if (c == '"' || c == '\\') text += '\\';
                    text += c;
                }
                text += '"';
            } else {
                text += token.text;
            }
        }
        // A dot that ends the domain ends nothing.
        while (!text.empty() && text.back() == '.') text.pop_back();
        return HeaderBytesToUtf8(text, m_hint);
    }

    std::vector<CToken> m_tokens;
    std::string_view m_hint;
    size_t m_pos = 0;
    std::vector<CMailboxText> m_mailboxes;
};

}  // namespace

std::vector<CMailboxText> ParseAddressList(std::string_view raw, std::string_view hint) {
    return CAddressParser(UnfoldHeader(raw), hint).Parse();
}

}  // namespace velmar::mapi
