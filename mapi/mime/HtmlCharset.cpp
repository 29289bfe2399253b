#include "mapi/mime/HtmlCharset.h"

#include <glib.h>

#include <algorithm>
#include <vector>

namespace velmar::mapi {
namespace {

// How much of a document is looked at for its head: the rest is body.
constexpr size_t kMaxHeadBytes = 64 * 1024;

bool IsHtmlSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

bool StartsWithIgnoringCase(std::string_view text, size_t pos, std::string_view prefix) {
    return text.size() - std::min(pos, text.size()) >= prefix.size() &&
           g_ascii_strncasecmp(text.data() + pos, prefix.data(), prefix.size()) == 0;
}

std::string Lower(std::string_view text) {
    std::string lower;
    for (const char c : text) lower += g_ascii_tolower(c);
    return lower;
}

struct CAttribute {
    std::string name;  // lower case
    size_t valueStart = 0;
    size_t valueEnd = 0;  // the value is html[valueStart, valueEnd), its quotes excluded
    bool quoted = false;
};

struct CTag {
    std::string name;  // lower case: "meta", "/head", "!doctype"
    size_t start = 0;  // at its "<"
    size_t end = 0;    // just after its ">"
    std::vector<CAttribute> attributes;
};

// The tags of the document's head in order, comments skipped; ends at <body> or after kMaxHeadBytes.
std::vector<CTag> HeadTags(std::string_view html) {
    std::vector<CTag> tags;
    const size_t limit = std::min(html.size(), kMaxHeadBytes);
    size_t pos = 0;
    while ((pos = html.find('<', pos)) != std::string_view::npos && pos < limit) {
        if (StartsWithIgnoringCase(html, pos, "<!--")) {
            const size_t close = html.find("-->", pos + 4);
            pos = close == std::string_view::npos ? html.size() : close + 3;
            continue;
        }
        CTag tag;
        tag.start = pos;
        size_t at = pos + 1;
        while (at < html.size() && !IsHtmlSpace(html[at]) && html[at] != '>' &&
               (html[at] != '/' || at == pos + 1))
            tag.name += g_ascii_tolower(html[at++]);
        if (tag.name.empty() || !(g_ascii_isalpha(tag.name[0]) || tag.name[0] == '/' || tag.name[0] == '!')) {
            ++pos;
            continue;
        }
        // Attributes: name, optionally "=" and a quoted or bare value.
        while (at < html.size() && html[at] != '>') {
            if (IsHtmlSpace(html[at]) || html[at] == '/') {
                ++at;
                continue;
            }
            CAttribute attribute;
            while (at < html.size() && !IsHtmlSpace(html[at]) && html[at] != '=' && html[at] != '>' &&
                   html[at] != '/')
                attribute.name += g_ascii_tolower(html[at++]);
            while (at < html.size() && IsHtmlSpace(html[at])) ++at;
            if (at < html.size() && html[at] == '=') {
                ++at;
                while (at < html.size() && IsHtmlSpace(html[at])) ++at;
                if (at < html.size() && (html[at] == '"' || html[at] == '\'')) {
                    const size_t close = html.find(html[at], at + 1);
                    attribute.quoted = true;
                    attribute.valueStart = at + 1;
                    attribute.valueEnd = close == std::string_view::npos ? html.size() : close;
                    at = std::min(html.size(), attribute.valueEnd + 1);
                } else {
                    attribute.valueStart = at;
                    while (at < html.size() && !IsHtmlSpace(html[at]) && html[at] != '>') ++at;
                    attribute.valueEnd = at;
                }
            } else {
                attribute.valueStart = attribute.valueEnd = at;
            }
            if (attribute.name.empty()) {
                ++at;
                continue;
            }
            tag.attributes.push_back(std::move(attribute));
        }
        tag.end = std::min(html.size(), at + 1);
        pos = tag.end;
        if (tag.name == "body") break;
        tags.push_back(std::move(tag));
    }
    return tags;
}

// Where the charset value in a Content-Type value (text/html; charset=x) is, relative to it: start and
// length, quotes included; npos when it names none.
std::pair<size_t, size_t> CharsetInContent(std::string_view content) {
    const std::string lower = Lower(content);
    for (size_t at = lower.find("charset"); at != std::string::npos; at = lower.find("charset", at + 7)) {
        size_t pos = at + 7;
        while (pos < content.size() && IsHtmlSpace(content[pos])) ++pos;
        if (pos >= content.size() || content[pos] != '=') continue;
        ++pos;
        while (pos < content.size() && IsHtmlSpace(content[pos])) ++pos;
        size_t end = pos;
        if (end < content.size() && (content[end] == '"' || content[end] == '\'')) {
            const size_t close = content.find(content[end], end + 1);
            end = close == std::string_view::npos ? content.size() : close + 1;
        } else {
            while (end < content.size() && !IsHtmlSpace(content[end]) && content[end] != ';') ++end;
        }
        if (end > pos) return {pos, end - pos};
    }
    return {std::string_view::npos, 0};
}

std::string_view ValueOf(std::string_view html, const CAttribute& attribute) {
    return html.substr(attribute.valueStart, attribute.valueEnd - attribute.valueStart);
}

// Where a meta tag's charset declaration is in the document (start and length, quotes included for a
// charset attribute), npos when it has none: a charset attribute, or the content of an http-equiv
// Content-Type.
std::pair<size_t, size_t> DeclarationOf(std::string_view html, const CTag& tag) {
    if (tag.name != "meta") return {std::string_view::npos, 0};
    bool pragma = false;
    std::pair<size_t, size_t> fromContent{std::string_view::npos, 0};
    for (const CAttribute& attribute : tag.attributes) {
        if (attribute.name == "charset" && attribute.valueEnd > attribute.valueStart) {
            const size_t quote = attribute.quoted ? 1 : 0;
            return {attribute.valueStart - quote, attribute.valueEnd - attribute.valueStart + 2 * quote};
        }
        if (attribute.name == "http-equiv") pragma = Lower(ValueOf(html, attribute)) == "content-type";
        if (attribute.name == "content") {
            const auto [at, length] = CharsetInContent(ValueOf(html, attribute));
            if (at != std::string_view::npos) fromContent = {attribute.valueStart + at, length};
        }
    }
    return pragma ? fromContent : std::pair<size_t, size_t>{std::string_view::npos, 0};
}

}  // namespace

std::string HtmlDeclaredCharset(std::string_view html) {
    for (const CTag& tag : HeadTags(html)) {
        const auto [at, length] = DeclarationOf(html, tag);
        if (at == std::string_view::npos) continue;
        std::string charset;
        for (const char c : html.substr(at, length))
            if (c != '"' && c != '\'' && !IsHtmlSpace(c)) charset += g_ascii_tolower(c);
        if (charset.rfind("utf-16", 0) == 0) return "utf-8";
        return charset;
    }
    return std::string();
}

std::string DeclareUtf8(std::string html) {
    const std::vector<CTag> tags = HeadTags(html);
    // Rewritten from the last, so that the places of the earlier ones stay.
    bool declared = false;
    for (auto tag = tags.rbegin(); tag != tags.rend(); ++tag) {
        const auto [at, length] = DeclarationOf(html, *tag);
        if (at == std::string::npos) continue;
        html.replace(at, length, "utf-8");
        declared = true;
    }
    if (declared) return html;

    static constexpr std::string_view kMeta =
        "<meta http-equiv=\"Content-Type\" content=\"text/html; charset=utf-8\">";
    const auto find = [&](std::string_view name) {
        return std::find_if(tags.begin(), tags.end(), [&](const CTag& tag) { return tag.name == name; });
    };
    if (const auto head = find("head"); head != tags.end()) return html.insert(head->end, kMeta);
    const std::string made = "<head>" + std::string(kMeta) + "</head>";
    if (const auto root = find("html"); root != tags.end()) return html.insert(root->end, made);
    if (const auto doctype = find("!doctype"); doctype != tags.end()) return html.insert(doctype->end, made);
    return made + html;
}

}  // namespace velmar::mapi
