#include "mapi/spool/QueuedMessage.h"

#include <algorithm>
#include <cctype>

#include "mapi/mime/AddressList.h"
#include "mapi/mime/HeaderBlock.h"
#include "mapi/provider/DraftContent.h"

namespace velmar::mapi {
namespace {

struct CField {
    std::string_view name;
    std::string_view value;  // all after the colon, continuation lines included
    size_t begin = 0;        // where the field starts in the message
    size_t end = 0;          // past its last line end
};

bool EqualNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// The fields of the header block, up to the first empty line.
std::vector<CField> Fields(std::string_view bytes) {
    std::vector<CField> fields;
    std::vector<size_t> valueBegins;
    size_t at = 0;
    while (at < bytes.size()) {
        const size_t lineEnd = bytes.find('\n', at);
        const size_t next = lineEnd == std::string_view::npos ? bytes.size() : lineEnd + 1;
        const std::string_view line = bytes.substr(at, next - at);
        if (line == "\n" || line == "\r\n") break;
        if ((line.front() == ' ' || line.front() == '\t') && !fields.empty()) {
            fields.back().end = next;
        } else if (const size_t colon = line.find(':'); colon != std::string_view::npos) {
            fields.push_back({line.substr(0, colon), {}, at, next});
            valueBegins.push_back(at + colon + 1);
        }
        at = next;
    }
    for (size_t i = 0; i < fields.size(); ++i)
        fields[i].value = bytes.substr(valueBegins[i], fields[i].end - valueBegins[i]);
    return fields;
}

std::string Trimmed(std::string text) {
    const auto blank = [](unsigned char c) { return std::isspace(c) != 0; };
    while (!text.empty() && blank(static_cast<unsigned char>(text.back()))) text.pop_back();
    size_t start = 0;
    while (start < text.size() && blank(static_cast<unsigned char>(text[start]))) ++start;
    return text.substr(start);
}

}  // namespace

bool SameAddress(std::string_view a, std::string_view b) {
    const size_t atA = a.rfind('@');
    const size_t atB = b.rfind('@');
    if (atA == std::string_view::npos || atB == std::string_view::npos) return EqualNoCase(a, b);
    return a.substr(0, atA) == b.substr(0, atB) && EqualNoCase(a.substr(atA), b.substr(atB));
}

CQueuedMessage ReadQueuedMessage(std::string_view bytes) {
    CQueuedMessage message;
    std::string sender;
    for (const CField& field : Fields(bytes)) {
        const auto addresses = [&] { return ParseAddressList(field.value, "utf-8"); };
        if (EqualNoCase(field.name, "From") && message.from.empty()) {
            for (const CMailboxText& mailbox : addresses())
                if (message.from.empty()) message.from = mailbox.address;
        } else if (EqualNoCase(field.name, "Sender") && sender.empty()) {
            for (const CMailboxText& mailbox : addresses())
                if (sender.empty()) sender = mailbox.address;
        } else if (EqualNoCase(field.name, "To") || EqualNoCase(field.name, "Cc") ||
                   EqualNoCase(field.name, "Bcc")) {
            for (const CMailboxText& mailbox : addresses()) {
                if (mailbox.address.find('@') == std::string::npos) continue;
                const bool known =
                    std::any_of(message.recipients.begin(), message.recipients.end(),
                                [&](const std::string& r) { return SameAddress(r, mailbox.address); });
                if (!known) message.recipients.push_back(mailbox.address);
            }
        } else if (EqualNoCase(field.name, "Subject") && message.subject.empty()) {
            message.subject = DecodeHeaderText(std::string(field.value));
        } else if (EqualNoCase(field.name, "Message-ID") && message.messageId.empty()) {
            message.messageId = Trimmed(std::string(field.value));
        } else if (EqualNoCase(field.name, kSentFolderField) && message.sentFolder.empty()) {
            message.sentFolder = Trimmed(std::string(field.value));
        }
    }
    if (message.from.empty()) message.from = sender;
    return message;
}

std::string WithoutFields(std::string_view bytes, std::initializer_list<std::string_view> names) {
    std::string out;
    out.reserve(bytes.size());
    size_t copied = 0;
    for (const CField& field : Fields(bytes)) {
        const bool dropped = std::any_of(
            names.begin(), names.end(), [&](std::string_view name) { return EqualNoCase(field.name, name); });
        if (!dropped) continue;
        out.append(bytes.substr(copied, field.begin - copied));
        copied = field.end;
    }
    out.append(bytes.substr(copied));
    return out;
}

std::string ToCrlf(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size() + bytes.size() / 32);
    // Line by line, each copied in one piece.
    size_t at = 0;
    while (at < bytes.size()) {
        const size_t end = bytes.find('\n', at);
        if (end == std::string_view::npos) {
            out.append(bytes.substr(at));
            break;
        }
        out.append(bytes.substr(at, end - at));
        if (end == 0 || bytes[end - 1] != '\r') out += '\r';
        out += '\n';
        at = end + 1;
    }
    return out;
}

}  // namespace velmar::mapi
