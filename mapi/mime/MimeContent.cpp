#include "mapi/mime/MimeContent.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cwctype>
#include <utility>

#include "mapi/mime/AddressList.h"
#include "mapi/mime/HeaderText.h"
#include "mapi/mime/HtmlCharset.h"
#include "mapi/mime/PartBytes.h"
#include "mapi/mime/TextCharset.h"
#include "mapi/mime/Tnef.h"
#include "mapitags.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

std::wstring Wide(const char* utf8) {
    return utf8 ? Utf8ToWide(SanitizeUtf8(utf8)) : std::wstring();
}

std::string Lower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower;
}

struct CMailbox {
    std::wstring name;
    std::wstring address;
};

// Every mailbox of every field of that name (GMime, too, reads all of them), group members included; a
// mailbox without a name is named by its address.
std::vector<CMailbox> Mailboxes(GMimeObject* object, const char* field, std::string_view hint) {
    std::vector<CMailbox> mailboxes;
    for (const std::string& raw : RawHeaderValues(object, field)) {
        for (CMailboxText& mailbox : ParseAddressList(raw, hint)) {
            CMailbox wide{Utf8ToWide(mailbox.name), Utf8ToWide(mailbox.address)};
            if (wide.name.empty()) wide.name = wide.address;
            mailboxes.push_back(std::move(wide));
        }
    }
    return mailboxes;
}

std::string CharsetOf(GMimeObject* object) {
    const char* charset = object ? g_mime_object_get_content_type_parameter(object, "charset") : nullptr;
    return charset ? charset : std::string();
}

// The charset the message declares for its text, by which raw 8-bit header text is read when it is not
// UTF-8 (as GMime reads it): the root's, else that of the first text part.
std::string HeaderHint(GMimeMessage* message) {
    std::vector<GMimeObject*> pending{g_mime_message_get_mime_part(message)};
    while (!pending.empty()) {
        GMimeObject* object = pending.back();
        pending.pop_back();
        if (!object) continue;
        if (std::string charset = CharsetOf(object); !charset.empty()) return charset;
        if (GMIME_IS_MULTIPART(object)) {
            const int count = g_mime_multipart_get_count(GMIME_MULTIPART(object));
            for (int i = count - 1; i >= 0; --i)
                pending.push_back(g_mime_multipart_get_part(GMIME_MULTIPART(object), i));
        }
    }
    return std::string();
}

// The subject: of several Subject fields the last, as GMime takes it.
std::wstring SubjectOf(GMimeMessage* message, std::string_view hint) {
    const std::vector<std::string> subjects = RawHeaderValues(GMIME_OBJECT(message), "Subject");
    return subjects.empty() ? std::wstring() : Utf8ToWide(UnstructuredText(subjects.back(), hint));
}

// The file name a part gives itself: Content-Disposition's filename, else Content-Type's name (the order
// GMime and mail clients take); nullopt when it has none.
std::optional<std::string> FileNameOf(GMimeObject* object, std::string_view hint) {
    const std::string own = CharsetOf(object);
    const std::string_view charset = own.empty() ? hint : std::string_view(own);
    for (const auto& [field, parameter] :
         {std::pair{"Content-Disposition", "filename"}, std::pair{"Content-Type", "name"}}) {
        const std::vector<std::string> values = RawHeaderValues(object, field);
        if (values.empty()) continue;
        if (std::optional<std::string> name = HeaderParameter(values.front(), parameter, charset))
            return name;
    }
    return std::nullopt;
}

std::wstring JoinNames(const std::vector<CRecipientContent>& recipients, ULONG type) {
    std::wstring joined;
    for (const CRecipientContent& recipient : recipients) {
        if (recipient.type != type) continue;
        if (!joined.empty()) joined += L"; ";
        joined += recipient.displayName;
    }
    return joined;
}

std::wstring MimeTypeOf(GMimeObject* object) {
    GMimeContentType* type = g_mime_object_get_content_type(object);
    return type ? Wide(TakeGString(g_mime_content_type_get_mime_type(type)).c_str()) : std::wstring();
}

bool IsAttachmentDisposition(GMimeObject* object) {
    const char* disposition = g_mime_object_get_disposition(object);
    return disposition && g_ascii_strcasecmp(disposition, "attachment") == 0;
}

// The decoded bytes of an attachment's part, its body read from where it is; false when that cannot be
// had now.
bool ReadAttachmentBytes(const CAttachmentContent& attachment,
                         const std::function<void(std::string_view)>& sink) {
    if (!attachment.part || !GMIME_IS_PART(attachment.part.get())) return true;
    GMimePart* part = GMIME_PART(attachment.part.get());
    if (attachment.leftOut) return attachment.leftOut->Read(g_mime_part_get_content_encoding(part), sink);
    ReadPartBytes(part, sink);
    return true;
}

// Walks the MIME tree: the first text/plain and text/html leaves that are not attachments are the
// bodies, every other leaf and every embedded message an attachment. Parts are named by their IMAP
// sections as it goes, for the bodies the file goes without.
class CMimeWalker {
public:
    CMimeWalker(CMessageContent& content, std::string hint, std::shared_ptr<ILeftOutBodies> leftOut)
        : m_content(content), m_hint(std::move(hint)), m_leftOut(std::move(leftOut)) {}

    void Walk(GMimeObject* root) {
        // A multipart root has no section of its own; the body of a single part is section 1.
        std::vector<std::pair<GMimeObject*, std::string>> pending{
            {root, GMIME_IS_MULTIPART(root) ? "" : "1"}};
        while (!pending.empty()) {
            auto [object, section] = std::move(pending.back());
            pending.pop_back();
            if (!object) continue;
            if (GMIME_IS_MULTIPART(object)) {
                const int count = g_mime_multipart_get_count(GMIME_MULTIPART(object));
                for (int i = count - 1; i >= 0; --i)
                    pending.emplace_back(g_mime_multipart_get_part(GMIME_MULTIPART(object), i),
                                         (section.empty() ? "" : section + ".") + std::to_string(i + 1));
            } else if (GMIME_IS_MESSAGE_PART(object)) {
                AddAttachment(object, ATTACH_EMBEDDED_MSG, section);
            } else if (GMIME_IS_PART(object)) {
                if (!TakeAsBody(object)) AddAttachment(object, ATTACH_BY_VALUE, section);
            }
        }
    }

private:
    bool TakeAsBody(GMimeObject* object) {
        if (!GMIME_IS_TEXT_PART(object) || IsAttachmentDisposition(object) || FileNameOf(object, m_hint))
            return false;
        GMimeContentType* type = g_mime_object_get_content_type(object);
        const bool isPlain = g_mime_content_type_is_type(type, "text", "plain");
        const bool isHtml = g_mime_content_type_is_type(type, "text", "html");
        if ((isPlain && m_bHavePlain) || (isHtml && m_bHaveHtml) || (!isPlain && !isHtml)) return false;
        const std::string bytes = PartBytes(GMIME_PART(object));
        std::string charset = CharsetOf(object);
        // For HTML the transport's declaration comes first, then the document's own, as in a browser.
        if (charset.empty() && isHtml) charset = HtmlDeclaredCharset(bytes);
        std::string text = CharsetToUtf8(bytes, charset);
        // Deliberate: the text ends at its first NUL, as a MAPI string does.
        if (const size_t nul = text.find('\0'); nul != std::string::npos) text.resize(nul);
        if (isPlain) {
            m_content.body = Utf8ToWide(text);
            m_bHavePlain = true;
        } else {
            m_content.html = DeclareUtf8(std::move(text));
            m_bHaveHtml = true;
        }
        return true;
    }

    void AddAttachment(GMimeObject* object, ULONG method, const std::string& section) {
        CAttachmentContent attachment;
        attachment.number = static_cast<ULONG>(m_content.attachments.size());
        attachment.method = method;
        attachment.mimeTag = MimeTypeOf(object);
        attachment.contentId = Wide(g_mime_object_get_content_id(object));
        attachment.contentLocation = Wide(g_mime_object_get_header(object, "Content-Location"));
        if (std::optional<std::string> name = FileNameOf(object, m_hint))
            attachment.longFileName = Utf8ToWide(*name);
        if (method == ATTACH_EMBEDDED_MSG) {
            // An attached e-mail is shown by its subject; its own file name (Fwd.eml) is still its file name.
            GMimeMessage* embedded = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
            attachment.displayName = embedded ? SubjectOf(embedded, HeaderHint(embedded)) : std::wstring();
        } else {
            attachment.displayName = attachment.longFileName;
        }
        attachment.part = RefObject(object);
        // A part's size costs decoding it, so it is left to whoever asks for it.
        if (method == ATTACH_EMBEDDED_MSG) attachment.size = 0;
        if (m_leftOut && method == ATTACH_BY_VALUE)
            if (const std::optional<std::uint64_t> octets = m_leftOut->LeftOut(section))
                attachment.leftOut = std::make_shared<CLeftOutBody>(m_leftOut, section, *octets);
        if (MayBeTnef(attachment) && UnpackTnef(attachment)) return;
        m_content.attachments.push_back(std::move(attachment));
    }

    // Some mailers send winmail.dat as application/octet-stream; the stream's signature decides.
    static bool MayBeTnef(const CAttachmentContent& attachment) {
        return attachment.mimeTag == L"application/ms-tnef" ||
               attachment.mimeTag == L"application/vnd.ms-tnef" ||
               Lower(WideToUtf8(attachment.longFileName)) == "winmail.dat";
    }

    // Outlook's TNEF carries the bodies and the attachments, which a mail client shows in place of the
    // winmail.dat itself. A part that is no TNEF stays an attachment, and so does a damaged one after what
    // could be unpacked from it, since it still holds the rest.
    bool UnpackTnef(CAttachmentContent& winmail) {
        const std::optional<std::vector<BYTE>> stream = DecodedBytes(winmail);
        std::optional<CTnefContent> tnef = stream ? ReadTnef(*stream) : std::nullopt;
        if (!tnef) return false;
        if (m_content.rtfCompressed.empty()) m_content.rtfCompressed = std::move(tnef->rtfCompressed);
        if (m_content.html.empty() && !tnef->html.empty())
            m_content.html = DeclareUtf8(std::move(tnef->html));
        if (m_content.body.empty()) m_content.body = std::move(tnef->body);
        for (CTnefAttachment& packed : tnef->attachments) {
            CAttachmentContent attachment;
            attachment.number = static_cast<ULONG>(m_content.attachments.size());
            attachment.longFileName = std::move(packed.longFileName);
            attachment.displayName = std::move(packed.displayName);
            attachment.mimeTag = std::move(packed.mimeTag);
            attachment.contentId = std::move(packed.contentId);
            attachment.size = packed.data.size();
            attachment.unpacked = std::make_shared<const std::vector<BYTE>>(std::move(packed.data));
            m_content.attachments.push_back(std::move(attachment));
        }
        if (!tnef->complete) {
            winmail.number = static_cast<ULONG>(m_content.attachments.size());
            m_content.attachments.push_back(std::move(winmail));
        }
        return true;
    }

    CMessageContent& m_content;
    std::string m_hint;  // the message's charset, for raw 8-bit text in the parts' header fields
    std::shared_ptr<ILeftOutBodies> m_leftOut;
    bool m_bHavePlain = false;
    bool m_bHaveHtml = false;
};

std::wstring NormalizedSubject(const std::wstring& subject, std::wstring& prefix) {
    // A reply or forward prefix is a short word followed by a colon and a space ("Re: ", "AW: ", "Fwd: ").
    const size_t colon = subject.find(L": ");
    if (colon != std::wstring::npos && colon > 0 && colon <= 3 &&
        std::all_of(subject.begin(), subject.begin() + static_cast<std::ptrdiff_t>(colon),
                    [](wchar_t c) { return std::iswalpha(static_cast<wint_t>(c)); })) {
        prefix = subject.substr(0, colon + 2);
        return subject.substr(colon + 2);
    }
    prefix.clear();
    return subject;
}

void FillProperties(GMimeMessage* message, const std::string& hint, CMessageContent& content) {
    GMimeObject* object = GMIME_OBJECT(message);
    const std::vector<CMailbox> from = Mailboxes(object, "From", hint);
    std::vector<CMailbox> sender = Mailboxes(object, "Sender", hint);
    if (sender.empty()) sender = from;

    static constexpr std::pair<const char*, ULONG> kKinds[] = {
        {"To", MAPI_TO}, {"Cc", MAPI_CC}, {"Bcc", MAPI_BCC}};
    for (const auto& [field, type] : kKinds) {
        for (CMailbox& mailbox : Mailboxes(object, field, hint))
            content.recipients.push_back({std::move(mailbox.name), std::move(mailbox.address), type});
    }

    const std::wstring subject = SubjectOf(message, hint);
    std::wstring prefix;
    const std::wstring normalized = NormalizedSubject(subject, prefix);
    auto& props = content.properties;
    props.push_back({PR_SUBJECT_W, subject});
    props.push_back({PR_SUBJECT_PREFIX_W, prefix});
    props.push_back({PR_NORMALIZED_SUBJECT_W, normalized});
    props.push_back({PR_CONVERSATION_TOPIC_W, normalized});
    if (!from.empty()) {
        props.push_back({PR_SENT_REPRESENTING_NAME_W, from.front().name});
        props.push_back({PR_SENT_REPRESENTING_EMAIL_ADDRESS_W, from.front().address});
        props.push_back({PR_SENT_REPRESENTING_ADDRTYPE_W, std::wstring(L"SMTP")});
    }
    if (!sender.empty()) {
        props.push_back({PR_SENDER_NAME_W, sender.front().name});
        props.push_back({PR_SENDER_EMAIL_ADDRESS_W, sender.front().address});
        props.push_back({PR_SENDER_ADDRTYPE_W, std::wstring(L"SMTP")});
    }
    if (const char* id = g_mime_message_get_message_id(message)) {
        // GMime hands the id without its angle brackets; the header form keeps them.
        props.push_back({PR_INTERNET_MESSAGE_ID_W, L"<" + Wide(id) + L">"});
    }
    if (GDateTime* date = g_mime_message_get_date(message))
        props.push_back({PR_CLIENT_SUBMIT_TIME, FileTimeFromUnix(g_date_time_to_unix(date))});
    props.push_back({PR_DISPLAY_TO_W, JoinNames(content.recipients, MAPI_TO)});
    props.push_back({PR_DISPLAY_CC_W, JoinNames(content.recipients, MAPI_CC)});
    props.push_back({PR_DISPLAY_BCC_W, JoinNames(content.recipients, MAPI_BCC)});
    props.push_back(
        {PR_TRANSPORT_MESSAGE_HEADERS_W,
         Utf8ToWide(HeaderBytesToUtf8(TakeGString(g_mime_object_get_headers(object, nullptr)), hint))});
}

// Text whose every line ends in CR LF, as MAPI bodies hold it: a message read from a Maildir file (LF) and
// the same message read from a server (CR LF) give one text.
template <class Text>
Text WithCrLf(const Text& text) {
    Text lines;
    lines.reserve(text.size() + text.size() / 32);
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) lines += '\r';
        lines += text[i];
    }
    return lines;
}

void FinishContent(CMessageContent& content) {
    if (content.body.empty() && !content.html.empty()) content.body = HtmlToText(content.html);
    content.body = WithCrLf(content.body);
    content.html = WithCrLf(content.html);
    auto& props = content.properties;
    props.push_back({PR_MESSAGE_CLASS_W, std::wstring(L"IPM.Note")});
    props.push_back({PR_BODY_W, content.body});
    if (!content.html.empty())
        props.push_back({PR_HTML, std::vector<BYTE>(content.html.begin(), content.html.end())});
    if (!content.rtfCompressed.empty()) props.push_back({PR_RTF_COMPRESSED, content.rtfCompressed});
    props.push_back({PR_INTERNET_CPID, std::int32_t{65001}});
    props.push_back({PR_HASATTACH, !content.attachments.empty()});
}

}  // namespace

std::shared_ptr<CMessageContent> ReadMimeMessage(GMimeMessage* message,
                                                 std::shared_ptr<ILeftOutBodies> leftOut) {
    auto content = std::make_shared<CMessageContent>();
    if (!message) {
        FinishContent(*content);
        return content;
    }
    content->message = RefObject(message);
    const std::string hint = HeaderHint(message);
    FillProperties(message, hint, *content);
    CMimeWalker(*content, hint, std::move(leftOut)).Walk(g_mime_message_get_mime_part(message));
    FinishContent(*content);
    return content;
}

std::shared_ptr<CMessageContent> ReadMessageFile(CMessageFile file, std::vector<CPropValue> fallback) {
    EnsureGMime();
    GObjectPtr<GMimeMessage> message;
    if (file.fd >= 0) {
        // The stream owns the descriptor and begins where it stands; parts refer to their bytes in the file
        // instead of copies.
        GObjectPtr<GMimeStream> stream(g_mime_stream_fs_new(file.fd));
        GObjectPtr<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
        message.reset(g_mime_parser_construct_message(parser.get(), nullptr));
    }
    if (!message) {
        auto content = std::make_shared<CMessageContent>();
        content->properties = std::move(fallback);
        FinishContent(*content);
        return content;
    }
    return ReadMimeMessage(message.get(), std::move(file.leftOut));
}

CDeferredContent::CDeferredContent(std::shared_ptr<CMessageContent> ready) {
    std::call_once(m_once, [&] { m_content = std::move(ready); });
}

CDeferredContent::~CDeferredContent() {
    if (m_file.fd >= 0) close(m_file.fd);
}

const std::shared_ptr<CMessageContent>& CDeferredContent::Get() const {
    std::call_once(m_once, [this] {
        if (m_open) m_file = std::exchange(m_open, nullptr)();
        m_content = ReadMessageFile(std::exchange(m_file, {}), std::move(m_fallback));
        m_fallback.clear();
    });
    return m_content;
}

bool CLeftOutBody::Read(GMimeContentEncoding encoding, const std::function<void(std::string_view)>& sink) {
    std::lock_guard lock(m_lock);
    if (!m_stream) {
        const int fd = m_bodies->OpenBody(m_section);
        if (fd < 0) return false;
        m_stream.reset(g_mime_stream_fs_new(fd));
    }
    ReadEncodedBytes(m_stream.get(), encoding, sink);
    return true;
}

bool CLeftOutBody::Fetched() const {
    std::lock_guard lock(m_lock);
    return m_stream != nullptr;
}

std::uint64_t AttachmentSize(const CAttachmentContent& attachment) {
    if (attachment.size) return *attachment.size;
    if (attachment.unpacked) return attachment.unpacked->size();
    if (attachment.leftOut && !attachment.leftOut->Fetched()) {
        // Base64 gives three bytes for four and breaks its lines after 76 of them.
        const std::uint64_t octets = attachment.leftOut->Octets();
        const bool base64 = g_mime_part_get_content_encoding(GMIME_PART(attachment.part.get())) ==
                            GMIME_CONTENT_ENCODING_BASE64;
        return base64 ? (octets - octets / 78 * 2) / 4 * 3 : octets;
    }
    std::uint64_t count = 0;
    ReadAttachmentBytes(attachment, [&](std::string_view piece) { count += piece.size(); });
    return count;
}

std::optional<std::vector<BYTE>> DecodedBytes(const CAttachmentContent& attachment) {
    if (attachment.unpacked) return *attachment.unpacked;
    std::vector<BYTE> bytes;
    if (!ReadAttachmentBytes(attachment, [&](std::string_view piece) {
            bytes.insert(bytes.end(), piece.begin(), piece.end());
        }))
        return std::nullopt;
    return bytes;
}

std::wstring HtmlToText(std::string_view html) {
    static constexpr std::pair<std::string_view, std::string_view> kEntities[] = {
        {"amp", "&"}, {"lt", "<"}, {"gt", ">"}, {"quot", "\""}, {"apos", "'"}, {"nbsp", "\xC2\xA0"}};
    std::string text;
    size_t pos = 0;
    while (pos < html.size()) {
        const char c = html[pos];
        if (c == '<') {
            const size_t close = html.find('>', pos);
            if (close == std::string_view::npos) break;
            const std::string tag = Lower(html.substr(pos + 1, close - pos - 1));
            pos = close + 1;
            const std::string name = tag.substr(0, tag.find_first_of(" \t\r\n/", tag[0] == '/' ? 1 : 0));
            if (name == "script" || name == "style") {
                const size_t end = Lower(html.substr(pos)).find("</" + name);
                pos = end == std::string::npos ? html.size() : pos + end;
            } else if (name == "br" || name == "/p" || name == "/div" || name == "/tr" || name == "li" ||
                       name == "/li" ||
                       (name.size() == 3 && name[0] == '/' && name[1] == 'h' && std::isdigit(name[2]))) {
                text += '\n';
            } else if (name == "td" || name == "th") {
                text += '\t';
            }
            continue;
        }
        if (c == '&') {
            const size_t semicolon = html.find(';', pos);
            if (semicolon != std::string_view::npos && semicolon - pos <= 10) {
                const std::string_view entity = html.substr(pos + 1, semicolon - pos - 1);
                bool decoded = false;
                if (entity.size() > 1 && entity[0] == '#') {
                    const bool hex = entity[1] == 'x' || entity[1] == 'X';
                    const std::string digits(entity.substr(hex ? 2 : 1));
                    char* end = nullptr;
                    const unsigned long code = std::strtoul(digits.c_str(), &end, hex ? 16 : 10);
                    if (!digits.empty() && end && *end == '\0' && code > 0 && code <= 0x10FFFF) {
                        AppendUtf8(text, static_cast<char32_t>(code));
                        decoded = true;
                    }
                } else {
                    for (const auto& [name, value] : kEntities)
                        if (entity == name) {
                            text += value;
                            decoded = true;
                        }
                }
                if (decoded) {
                    pos = semicolon + 1;
                    continue;
                }
            }
        }
        // Runs of white space in the source read as one space, as a browser shows them.
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
            if (!text.empty() && text.back() != ' ' && text.back() != '\n') text += ' ';
            ++pos;
            continue;
        }
        text += c;
        ++pos;
    }
    const size_t first = text.find_first_not_of(" \n");
    return Utf8ToWide(first == std::string::npos ? std::string() : text.substr(first));
}

}  // namespace velmar::mapi
