#include "mapi/mime/HeaderText.h"

#include <glib.h>

#include <map>
#include <vector>

#include "mapi/mime/EncodedWords.h"
#include "mapi/mime/TextCharset.h"

namespace velmar::mapi {
namespace {

bool IsSpace(char c) {
    return c == ' ' || c == '\t';
}

std::string_view TrimSpace(std::string_view text) {
    while (!text.empty() && IsSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && IsSpace(text.back())) text.remove_suffix(1);
    return text;
}

std::string Lower(std::string_view text) {
    std::string lower;
    for (const char c : text) lower += g_ascii_tolower(c);
    return lower;
}

int HexValue(char c) {
    return g_ascii_xdigit_value(c);
}

// "%XX" escapes of RFC 2231; a "%" not followed by two hex digits stands for itself.
std::string PercentDecoded(std::string_view text) {
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
            HexValue(text[i + 2]) >= 0) {
            bytes += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
            i += 2;
        } else {
            bytes += text[i];
        }
    }
    return bytes;
}

struct CParameter {
    std::string name;   // lower case, with its "*" parts
    std::string value;  // unquoted
};

// The parameters after the first ";" of an unfolded field value. Lenient as mail clients are: a value
// that is neither token nor quoted string runs to the next ";", an unterminated quoted string to the end.
std::vector<CParameter> Parameters(std::string_view text) {
    std::vector<CParameter> parameters;
    size_t pos = text.find(';');
    while (pos != std::string_view::npos && pos < text.size()) {
        ++pos;  // past the ";"
        const size_t equals = text.find_first_of("=;", pos);
        if (equals == std::string_view::npos || text[equals] == ';') {
            pos = equals;
            continue;
        }
        CParameter parameter{Lower(TrimSpace(text.substr(pos, equals - pos))), {}};
        pos = equals + 1;
        while (pos < text.size() && IsSpace(text[pos])) ++pos;
        if (pos < text.size() && text[pos] == '"') {
            for (++pos; pos < text.size() && text[pos] != '"'; ++pos) {
                if (text[pos] == '\\' && pos + 1 < text.size()) ++pos;
                parameter.value += text[pos];
            }
            pos = text.find(';', pos);
        } else {
            const size_t end = text.find(';', pos);
            parameter.value = std::string(TrimSpace(
                text.substr(pos, end == std::string_view::npos ? std::string_view::npos : end - pos)));
            pos = end;
        }
        if (!parameter.name.empty()) parameters.push_back(std::move(parameter));
    }
    return parameters;
}

// An RFC 2231 extended value "charset'language'text": its charset, and its text percent-decoded.
std::pair<std::string, std::string> ExtendedValue(std::string_view value) {
    const size_t first = value.find('\'');
    const size_t second = first == std::string_view::npos ? first : value.find('\'', first + 1);
    if (second == std::string_view::npos) return {std::string(), PercentDecoded(value)};
    return {std::string(value.substr(0, first)), PercentDecoded(value.substr(second + 1))};
}

}  // namespace

std::string UnfoldHeader(std::string_view raw) {
    std::string text;
    text.reserve(raw.size());
    for (const char c : raw)
        if (c != '\r' && c != '\n') text += c;
    return text;
}

std::string UnstructuredText(std::string_view raw, std::string_view hint) {
    const std::string unfolded = UnfoldHeader(raw);
    const size_t start = unfolded.find_first_not_of(" \t");
    if (start == std::string::npos) return std::string();
    return DecodeEncodedWords(std::string_view(unfolded).substr(start), hint);
}

std::optional<std::string> HeaderParameter(std::string_view raw, std::string_view name,
                                           std::string_view hint) {
    const std::string wanted = Lower(name);
    const std::vector<CParameter> parameters = Parameters(UnfoldHeader(raw));
    const CParameter* plain = nullptr;
    const CParameter* extended = nullptr;
    std::map<unsigned, const CParameter*> sections;  // name*N and name*N*, by N
    for (const CParameter& parameter : parameters) {
        if (parameter.name.compare(0, wanted.size(), wanted) != 0) continue;
        const std::string_view rest = std::string_view(parameter.name).substr(wanted.size());
        if (rest.empty()) {
            if (!plain) plain = &parameter;
        } else if (rest == "*") {
            if (!extended) extended = &parameter;
        } else if (rest.size() >= 2 && rest[0] == '*' && g_ascii_isdigit(rest[1])) {
            const size_t star = rest.find('*', 1);
            const std::string_view number =
                rest.substr(1, star == std::string_view::npos ? std::string_view::npos : star - 1);
            if (number.size() > 4 || number.find_first_not_of("0123456789") != std::string_view::npos)
                continue;
            sections.emplace(static_cast<unsigned>(std::stoul(std::string(number))), &parameter);
        }
    }
    if (extended) {
        const auto [charset, bytes] = ExtendedValue(extended->value);
        return CharsetToUtf8(bytes, charset);
    }
    if (!sections.empty() && sections.begin()->first == 0) {
        // Sections in order from 0 up to the first one missing; the charset is the first section's.
        std::string charset;
        std::string bytes;
        bool anyExtended = false;
        unsigned expected = 0;
        for (const auto& [number, parameter] : sections) {
            if (number != expected++) break;
            const bool isExtended = parameter->name.back() == '*';
            if (isExtended && number == 0) {
                auto [declared, text] = ExtendedValue(parameter->value);
                charset = std::move(declared);
                bytes += text;
            } else {
                bytes += isExtended ? PercentDecoded(parameter->value) : parameter->value;
            }
            anyExtended = anyExtended || isExtended;
        }
        // Without an extended section the value is plain text, which some mailers split within an encoded
        // word.
        return anyExtended ? CharsetToUtf8(bytes, charset) : DecodeEncodedWords(bytes, hint);
    }
    if (plain) return DecodeEncodedWords(plain->value, hint);
    return std::nullopt;
}

}  // namespace velmar::mapi
