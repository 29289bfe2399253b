#include "mapi/provider/DraftContent.h"

#include <algorithm>
#include <cctype>
#include <new>
#include <span>

#include "mapi/mime/AddressList.h"
#include "mapi/mime/GMimeSupport.h"
#include "mapi/provider/EntryId.h"
#include "mapi/rtf/CompressedRtf.h"
#include "mapi/rtf/RtfDeencapsulate.h"
#include "mapitags.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

struct CAddress {
    std::string name;  // UTF-8; empty when it would only repeat the address
    std::string address;
};

std::string Utf8(const std::wstring& text) {
    return WideToUtf8(text);
}

// GMime writes a header value as it is given: a line break in a file name, a content id or a message id
// would end the field there and start one of the sender's choosing (a Bcc, a part of its own). Every value
// this file puts into a header goes through one of these first.

bool IsControl(wchar_t c) {
    return c < 0x20 || (c >= 0x7F && c <= 0x9F);
}

// Text of a header (a subject, a name, a file name): each control character (C0, DEL, C1) becomes a blank.
std::string HeaderText(std::wstring text) {
    for (wchar_t& c : text)
        if (IsControl(c)) c = L' ';
    return Utf8(text);
}

// An identifier between angle brackets (a message id, a content id): what such an id cannot hold is left
// out: control characters, blanks, the brackets and quotes that would end it, and what is not ASCII.
std::string HeaderIdentifier(const std::wstring& text) {
    std::string id;
    for (const wchar_t c : text)
        if (c > 0x20 && c < 0x7F && std::wstring_view(L"<>\"\\()[],;:").find(c) == std::wstring_view::npos)
            id += static_cast<char>(c);
    return id;
}

// An address as a header and an envelope take it: a local part and a domain (a name, or a literal in
// brackets), and nothing that would end or split it there. Any other is no address to write.
bool IsWritableAddress(const std::string& address) {
    const std::wstring wide = Utf8ToWide(address);
    const size_t at = wide.rfind(L'@');
    if (at == std::wstring::npos || at == 0 || at + 1 == wide.size()) return false;
    std::wstring domain = wide.substr(at + 1);
    if (domain.size() > 2 && domain.front() == L'[' && domain.back() == L']')
        domain = domain.substr(1, domain.size() - 2);
    const auto writable = [](std::wstring_view part) {
        return std::none_of(part.begin(), part.end(), [](wchar_t c) {
            return c == L' ' || IsControl(c) ||
                   std::wstring_view(L"<>\"\\(),;:[]").find(c) != std::wstring_view::npos;
        });
    };
    const std::wstring_view local = std::wstring_view(wide).substr(0, at);
    return local.find(L'@') == std::wstring_view::npos && writable(local) && writable(domain);
}

// The subject, as text of a header (HeaderText). GMime's encoder leaves ASCII that looks like the start of
// an encoded word ("=?") as it stands, and folds a long encoded word in the middle of an escape: a subject
// that is not plain words of ASCII is written here as encoded words of our own (RFC 2047, UTF-8, base64),
// none split inside a character, each on a line of its own.
void SetSubject(GMimeMessage* message, const std::string& subject) {
    constexpr size_t kLongestPlainWord = 60;
    constexpr size_t kWordBytes = 45;  // 60 characters of base64: a word within 75
    bool plain = subject.find("=?") == std::string::npos;
    size_t word = 0;
    for (const char c : subject) {
        plain = plain && c >= 0x20 && c < 0x7F;
        word = c == ' ' ? 0 : word + 1;
        plain = plain && word <= kLongestPlainWord;
    }
    if (plain) return g_mime_message_set_subject(message, subject.c_str(), "utf-8");
    g_mime_message_set_subject(message, "", "utf-8");
    std::string raw;
    for (size_t at = 0; at < subject.size();) {
        size_t end = std::min(subject.size(), at + kWordBytes);
        while (end < subject.size() && (static_cast<unsigned char>(subject[end]) & 0xC0) == 0x80) --end;
        const std::string encoded =
            TakeGString(g_base64_encode(reinterpret_cast<const guchar*>(subject.data() + at), end - at));
        raw += (raw.empty() ? " " : "\n ") + ("=?UTF-8?B?" + encoded + "?=");
        at = end;
    }
    GMimeHeader* header =
        g_mime_header_list_get_header(g_mime_object_get_header_list(GMIME_OBJECT(message)), "Subject");
    if (header) g_mime_header_set_raw_value(header, (raw + "\n").c_str());
}

// The SMTP address of a recipient row: the resolved address, else the display name when it is one
// ("a@b.example", "Name <a@b.example>"); nullopt for a name the address book could not resolve.
// An address that cannot be written is none.
std::optional<CAddress> RecipientAddress(const std::vector<CPropValue>& row) {
    const std::wstring name = TextOf(FindValue(row, PR_DISPLAY_NAME_W));
    std::string address = Utf8(TextOf(FindValue(row, PR_SMTP_ADDRESS_W)));
    if (address.empty() && TextOf(FindValue(row, PR_ADDRTYPE_W)) == L"SMTP")
        address = Utf8(TextOf(FindValue(row, PR_EMAIL_ADDRESS_W)));
    CAddress mailbox;
    if (!address.empty()) {
        mailbox = {Utf8(name) == address ? std::string() : HeaderText(name), address};
    } else {
        const std::vector<CMailboxText> parsed = ParseAddressList(HeaderText(name), "utf-8");
        if (parsed.size() != 1 || parsed.front().address.find('@') == std::string::npos) return std::nullopt;
        mailbox = {HeaderText(Utf8ToWide(parsed.front().name)), parsed.front().address};
    }
    if (!IsWritableAddress(mailbox.address)) return std::nullopt;
    return mailbox;
}

// The sender: the one-off entry of PR_SENT_REPRESENTING_ENTRYID, else the store's owner.
CAddress SenderAddress(const CDraftContent& content, const CStoreConfig& store) {
    const std::vector<BYTE> entryId = BytesOf(FindValue(content.props, PR_SENT_REPRESENTING_ENTRYID));
    if (const auto entry = DecodeOneOffEntryId(entryId.data(), entryId.size());
        entry && !entry->address.empty()) {
        const std::wstring name =
            entry->displayName == entry->address ? OwnerName(store) : entry->displayName;
        return {HeaderText(name), Utf8(entry->address)};
    }
    return {HeaderText(OwnerName(store)), Utf8(store.ownerAddress)};
}

std::string DomainOf(const std::string& address) {
    const size_t at = address.rfind('@');
    return at == std::string::npos || at + 1 == address.size() ? "localhost" : address.substr(at + 1);
}

void AddMailbox(InternetAddressList* list, const CAddress& mailbox) {
    InternetAddress* address = internet_address_mailbox_new(
        mailbox.name.empty() ? nullptr : mailbox.name.c_str(), mailbox.address.c_str());
    // Names are encoded as UTF-8, as everything this MAPI writes.
    internet_address_set_charset(address, "UTF-8");
    internet_address_list_add(list, address);
    g_object_unref(address);
}

// A parameter that is written encoded (RFC 2231) is written in UTF-8.
void UseUtf8(GMimeParamList* parameters, const char* name) {
    if (GMimeParam* parameter = parameters ? g_mime_param_list_get_parameter(parameters, name) : nullptr)
        g_mime_param_set_charset(parameter, "UTF-8");
}

// A stream over a copy of the bytes (GMime wants a buffer, even an empty one).
GObjectPtr<GMimeStream> MemoryStream(const void* bytes, size_t size) {
    return GObjectPtr<GMimeStream>(
        size ? g_mime_stream_mem_new_with_buffer(static_cast<const char*>(bytes), size)
             : g_mime_stream_mem_new());
}

// A text part holding utf8 as it is, declared as UTF-8 (the encoding is chosen when the message is
// encoded).
GObjectPtr<GMimeObject> TextPart(const char* subtype, const std::string& utf8) {
    GMimeTextPart* part = g_mime_text_part_new_with_subtype(subtype);
    GObjectPtr<GMimeObject> object(GMIME_OBJECT(part));
    GObjectPtr<GMimeStream> stream = MemoryStream(utf8.data(), utf8.size());
    GObjectPtr<GMimeDataWrapper> wrapper(
        g_mime_data_wrapper_new_with_stream(stream.get(), GMIME_CONTENT_ENCODING_DEFAULT));
    g_mime_part_set_content(GMIME_PART(part), wrapper.get());
    g_mime_text_part_set_charset(part, "utf-8");
    return object;
}

// The media type of an attachment: its own when it has one, else by the extension of its name.
std::string MediaTypeOf(const CDraftAttachment& attachment, const std::wstring& fileName) {
    // Type and subtype are tokens (RFC 2045) with one "/" between them, and an attachment is one part of
    // base64 bytes: a composite type (multipart, message) would make a reader look for parts inside it.
    std::string given = Utf8(TextOf(FindValue(attachment.props, PR_ATTACH_MIME_TAG_W)));
    for (char& c : given) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const size_t slash = given.find('/');
    const bool tokens = std::all_of(given.begin(), given.end(), [](char c) {
        return c > 0x20 && c < 0x7F && std::string_view("()<>@,;:\\\"[]?=").find(c) == std::string_view::npos;
    });
    if (tokens && slash != std::string::npos && slash > 0 && slash + 1 < given.size() &&
        given.find('/', slash + 1) == std::string::npos && !given.starts_with("multipart/") &&
        !given.starts_with("message/"))
        return given;
    static constexpr std::pair<const char*, const char*> kTypes[] = {
        {".pdf", "application/pdf"},
        {".txt", "text/plain"},
        {".htm", "text/html"},
        {".html", "text/html"},
        {".png", "image/png"},
        {".jpg", "image/jpeg"},
        {".jpeg", "image/jpeg"},
        {".gif", "image/gif"},
        {".zip", "application/zip"},
        {".csv", "text/csv"},
        {".xml", "application/xml"},
        {".json", "application/json"},
        {".eml", "message/rfc822"},
        {".ics", "text/calendar"},
        {".svg", "image/svg+xml"},
        {".doc", "application/msword"},
        {".xls", "application/vnd.ms-excel"},
        {".docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
        {".xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"}};
    std::string extension = Utf8(fileName.substr(std::min(fileName.size(), fileName.rfind(L'.'))));
    for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const auto& [suffix, type] : kTypes)
        if (extension == suffix) return type;
    return "application/octet-stream";
}

std::wstring AttachmentName(const CDraftAttachment& attachment) {
    for (ULONG tag : {PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_FILENAME_W, PR_DISPLAY_NAME_W}) {
        std::wstring name = TextOf(FindValue(attachment.props, tag));
        // A display name may be the whole path the file came from: only its last part names the file.
        if (const size_t slash = name.find_last_of(L"/\\"); slash != std::wstring::npos)
            name.erase(0, slash + 1);
        if (!name.empty()) return name;
    }
    return L"Attachment";
}

// contentId: the attachment's, as a header may hold it (HeaderIdentifier); empty for none.
GObjectPtr<GMimeObject> AttachmentPart(const CDraftAttachment& attachment, const std::string& contentId,
                                       bool inlined) {
    const std::wstring name = AttachmentName(attachment);
    const std::string mediaType = MediaTypeOf(attachment, name);
    const size_t slash = mediaType.find('/');
    GMimePart* part =
        g_mime_part_new_with_type(mediaType.substr(0, slash).c_str(), mediaType.substr(slash + 1).c_str());
    GObjectPtr<GMimeObject> object(GMIME_OBJECT(part));
    g_mime_object_set_disposition(object.get(), inlined ? "inline" : "attachment");
    g_mime_part_set_filename(part, HeaderText(name).c_str());
    UseUtf8(g_mime_content_disposition_get_parameters(g_mime_object_get_content_disposition(object.get())),
            "filename");
    UseUtf8(g_mime_content_type_get_parameters(g_mime_object_get_content_type(object.get())), "name");
    if (!contentId.empty()) g_mime_object_set_content_id(object.get(), contentId.c_str());
    const std::vector<BYTE> none;
    const std::vector<BYTE>& bytes = attachment.data ? *attachment.data : none;
    GObjectPtr<GMimeStream> stream = MemoryStream(bytes.data(), bytes.size());
    GObjectPtr<GMimeDataWrapper> wrapper(
        g_mime_data_wrapper_new_with_stream(stream.get(), GMIME_CONTENT_ENCODING_DEFAULT));
    g_mime_part_set_content(part, wrapper.get());
    // Base64 for every file, text ones too: their bytes come back exactly, line ends and all.
    g_mime_part_set_content_encoding(part, GMIME_CONTENT_ENCODING_BASE64);
    return object;
}

// The bodies as the message keeps them: PR_HTML and PR_BODY_W, or what an RTF-only body holds.
void BodiesOf(const CDraftContent& content, std::string& text, std::string& html) {
    const std::vector<BYTE> htmlBytes = BytesOf(FindValue(content.props, PR_HTML));
    html = SanitizeUtf8(std::string_view(reinterpret_cast<const char*>(htmlBytes.data()), htmlBytes.size()));
    text = Utf8(TextOf(FindValue(content.props, PR_BODY_W)));
    if (!html.empty() || !text.empty()) return;
    const std::vector<BYTE> packed = BytesOf(FindValue(content.props, PR_RTF_COMPRESSED));
    std::string rtf;
    if (packed.empty() || DecompressRtf(std::span<const std::uint8_t>(packed), rtf) != RtfCodecStatus::Ok)
        return;
    const RtfNativeBody native = DetectNativeBody(rtf);
    std::string body;
    if (native == RtfNativeBody::Rtf || !DeencapsulateRtf(rtf, native, body)) return;
    (native == RtfNativeBody::Html ? html : text) = SanitizeUtf8(body);
}

std::string WithLf(const std::string& text) {
    std::string lines;
    lines.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i)
        if (text[i] != '\r' || i + 1 == text.size() || text[i + 1] != '\n') lines += text[i];
    return lines;
}

bool ContainsNoCase(const std::string& text, const std::string& part) {
    return std::search(text.begin(), text.end(), part.begin(), part.end(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) ==
                      std::tolower(static_cast<unsigned char>(b));
           }) != text.end();
}

GObjectPtr<GMimeObject> Multipart(const char* subtype, std::vector<GObjectPtr<GMimeObject>> parts) {
    if (parts.size() == 1) return std::move(parts.front());
    GMimeMultipart* multipart = g_mime_multipart_new_with_subtype(subtype);
    for (const GObjectPtr<GMimeObject>& part : parts) g_mime_multipart_add(multipart, part.get());
    return GObjectPtr<GMimeObject>(GMIME_OBJECT(multipart));
}

}  // namespace

const CPropValue* FindValue(const std::vector<CPropValue>& props, ULONG tag) {
    for (const CPropValue& value : props)
        if (PROP_ID(value.ulPropTag) == PROP_ID(tag)) return &value;
    return nullptr;
}

void SetValue(std::vector<CPropValue>& props, CPropValue value) {
    for (CPropValue& existing : props) {
        if (PROP_ID(existing.ulPropTag) == PROP_ID(value.ulPropTag)) {
            existing = std::move(value);
            return;
        }
    }
    props.push_back(std::move(value));
}

bool RemoveValue(std::vector<CPropValue>& props, ULONG tag) {
    const auto removed = std::remove_if(props.begin(), props.end(), [&](const CPropValue& value) {
        return PROP_ID(value.ulPropTag) == PROP_ID(tag);
    });
    const bool any = removed != props.end();
    props.erase(removed, props.end());
    return any;
}

std::optional<CPropValue> FromMapi(const SPropValue& value) {
    // One value, filled in place: GCC 12 at -O3 takes the destruction of temporaries of the variant here
    // for a free of memory that was never allocated (-Wfree-nonheap-object).
    CPropValue result{value.ulPropTag, {}};
    switch (PROP_TYPE(value.ulPropTag)) {
        case PT_LONG:
            result.data.emplace<std::int32_t>(value.Value.l);
            break;
        case PT_BOOLEAN:
            result.data.emplace<bool>(value.Value.b != 0);
            break;
        case PT_I8:
            result.data.emplace<std::int64_t>(value.Value.li.QuadPart);
            break;
        case PT_DOUBLE:
            result.data.emplace<double>(value.Value.dbl);
            break;
        case PT_SYSTIME:
            result.data.emplace<CFileTime>(
                CFileTime{(static_cast<std::uint64_t>(value.Value.ft.dwHighDateTime) << 32) |
                          value.Value.ft.dwLowDateTime});
            break;
        case PT_STRING8:
            result.data.emplace<std::string>(value.Value.lpszA ? value.Value.lpszA : "");
            break;
        case PT_UNICODE:
            result.data.emplace<std::wstring>(value.Value.lpszW ? value.Value.lpszW : L"");
            break;
        case PT_BINARY: {
            auto& bytes = result.data.emplace<std::vector<BYTE>>();
            if (value.Value.bin.lpb)
                bytes.assign(value.Value.bin.lpb, value.Value.bin.lpb + value.Value.bin.cb);
            break;
        }
        default:
            return std::nullopt;
    }
    return result;
}

std::wstring TextOf(const CPropValue* value) {
    if (!value) return {};
    if (const auto* wide = std::get_if<std::wstring>(&value->data)) return *wide;
    if (const auto* narrow = std::get_if<std::string>(&value->data)) return Utf8ToWide(SanitizeUtf8(*narrow));
    return {};
}

std::vector<BYTE> BytesOf(const CPropValue* value) {
    if (!value) return {};
    if (const auto* bytes = std::get_if<std::vector<BYTE>>(&value->data)) return *bytes;
    return {};
}

std::string RenderMime(CDraftContent& content, const CStoreConfig& store, const CRenderOptions& options) {
    EnsureGMime();
    GObjectPtr<GMimeMessage> message(g_mime_message_new(TRUE));
    const CAddress sender = SenderAddress(content, store);
    if (IsWritableAddress(sender.address)) AddMailbox(g_mime_message_get_from(message.get()), sender);
    static constexpr std::pair<LONG, GMimeAddressType> kKinds[] = {{MAPI_TO, GMIME_ADDRESS_TYPE_TO},
                                                                   {MAPI_CC, GMIME_ADDRESS_TYPE_CC},
                                                                   {MAPI_BCC, GMIME_ADDRESS_TYPE_BCC}};
    for (const auto& [kind, field] : kKinds) {
        for (const std::vector<CPropValue>& row : content.recipients) {
            const CPropValue* type = FindValue(row, PR_RECIPIENT_TYPE);
            const auto* number = type ? std::get_if<std::int32_t>(&type->data) : nullptr;
            if ((number ? *number : MAPI_TO) != kind) continue;
            if (const std::optional<CAddress> address = RecipientAddress(row))
                AddMailbox(g_mime_message_get_addresses(message.get(), field), *address);
        }
    }
    SetSubject(message.get(), HeaderText(TextOf(FindValue(content.props, PR_SUBJECT_W))));
    if (!options.draft) {
        GDateTime* now = g_date_time_new_now_local();
        g_mime_message_set_date(message.get(), now);
        g_date_time_unref(now);
    }
    // The message id is made once and kept: a draft saved again, and a message sent again after a crash,
    // keep theirs.
    std::string messageId = HeaderIdentifier(TextOf(FindValue(content.props, PR_INTERNET_MESSAGE_ID_W)));
    if (messageId.empty())
        messageId = TakeGString(g_mime_utils_generate_message_id(DomainOf(sender.address).c_str()));
    SetValue(content.props, {PR_INTERNET_MESSAGE_ID_W, Utf8ToWide("<" + messageId + ">")});
    g_mime_message_set_message_id(message.get(), messageId.c_str());
    if (!options.sentFolder.empty() && HeaderText(Utf8ToWide(options.sentFolder)) == options.sentFolder)
        g_mime_object_set_header(GMIME_OBJECT(message.get()), kSentFolderField, options.sentFolder.c_str(),
                                 nullptr);

    std::string text;
    std::string html;
    BodiesOf(content, text, html);
    // The file's lines end in LF, as SMTP's end in CR LF: bodies as MAPI holds them (CR LF) are written
    // with the file's line ends.
    text = WithLf(text);
    html = WithLf(html);
    // A text body is lines, each with its end, as SMTP carries it anyway: the same text whichever
    // transfer encoding it gets.
    if (!text.empty() && text.back() != '\n') text += '\n';
    std::vector<GObjectPtr<GMimeObject>> alternatives;
    if (!text.empty() || html.empty()) alternatives.push_back(TextPart("plain", text));
    if (!html.empty()) alternatives.push_back(TextPart("html", html));
    std::vector<GObjectPtr<GMimeObject>> related;
    related.push_back(Multipart("alternative", std::move(alternatives)));
    std::vector<GObjectPtr<GMimeObject>> mixed;
    for (const CDraftAttachment& attachment : content.attachments) {
        const std::string contentId =
            HeaderIdentifier(TextOf(FindValue(attachment.props, PR_ATTACH_CONTENT_ID_W)));
        const bool referenced =
            !contentId.empty() && !html.empty() && ContainsNoCase(html, "cid:" + contentId);
        (referenced ? related : mixed).push_back(AttachmentPart(attachment, contentId, referenced));
    }
    mixed.insert(mixed.begin(), Multipart("related", std::move(related)));
    GObjectPtr<GMimeObject> body = Multipart("mixed", std::move(mixed));
    g_mime_message_set_mime_part(message.get(), body.get());
    g_mime_object_encode(GMIME_OBJECT(message.get()), GMIME_ENCODING_CONSTRAINT_7BIT);

    GObjectPtr<GMimeStream> output(g_mime_stream_mem_new());
    if (g_mime_object_write_to_stream(GMIME_OBJECT(message.get()), nullptr, output.get()) < 0)
        throw std::bad_alloc();
    GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(output.get()));
    return std::string(reinterpret_cast<const char*>(bytes->data), bytes->len);
}

}  // namespace velmar::mapi
