// The one writer of mail: a message being written, its every text taken from the input (control characters,
// line breaks, quotes and brackets included), rendered as MIME and parsed back by GMime must have exactly the
// parts and header fields it was given:
// - the message's header fields are those a rendering writes, each once; a part's are those of a part;
// - as many leaf parts as bodies and attachments, each attachment with its bytes, in order;
// - read back as this MAPI reads mail, the subject and every file name are as they were given, control
//   characters as blanks (the subject without blanks at either end, as an unstructured value has none),
//   and there are no more recipients of each kind than were given.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cwctype>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "mapi/mime/GMimeSupport.h"
#include "mapi/mime/MimeContent.h"
#include "mapi/provider/DraftContent.h"
#include "mapitags.h"
#include "support/Utf8.h"

namespace {

using namespace velmar::mapi;

// A failed check says which, so that a crash found in CI can be read without a debugger.
#define Check(condition)                                                        \
    do {                                                                        \
        if (!(condition)) {                                                     \
            std::fprintf(stderr, "render_fuzz:%d: %s\n", __LINE__, #condition); \
            std::abort();                                                       \
        }                                                                       \
    } while (false)

std::wstring Text(FuzzedDataProvider& input, size_t longest) {
    return velmar::Utf8ToWide(velmar::SanitizeUtf8(input.ConsumeRandomLengthString(longest)));
}

// What the reader of a header gets back for a text: control characters are blanks there. An unstructured
// value (the subject) has no blanks at either end; a quoted one (a file name) keeps them.
std::string AsHeaderText(std::wstring text, bool unstructured) {
    for (wchar_t& c : text)
        if (c < 0x20 || (c >= 0x7F && c <= 0x9F)) c = L' ';
    if (unstructured) {
        const size_t first = text.find_first_not_of(L' ');
        text = first == std::wstring::npos ? std::wstring()
                                           : text.substr(first, text.find_last_not_of(L' ') + 1 - first);
    }
    return velmar::WideToUtf8(text);
}

// Text without its blanks and control characters: what folding cannot change.
std::string WithoutBlanks(std::wstring text) {
    std::erase_if(text, [](wchar_t c) { return c <= 0x20 || (c >= 0x7F && c <= 0x9F); });
    return velmar::WideToUtf8(text);
}

bool EndsInEml(const std::wstring& name) {
    if (name.size() < 4) return false;
    std::wstring end = name.substr(name.size() - 4);
    for (wchar_t& c : end) c = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c)));
    return end == L".eml";
}

std::set<std::string> FieldNames(GMimeObject* object, bool once) {
    std::set<std::string> names;
    GMimeHeaderList* headers = g_mime_object_get_header_list(object);
    for (int i = 0; i < g_mime_header_list_get_count(headers); ++i) {
        std::string name = g_mime_header_get_name(g_mime_header_list_get_header_at(headers, i));
        std::transform(name.begin(), name.end(), name.begin(), [](char c) { return std::tolower(c); });
        Check(names.insert(name).second || !once);
    }
    return names;
}

void CheckFields(GMimeObject* object, const std::set<std::string>& allowed, bool once) {
    for (const std::string& name : FieldNames(object, once)) Check(allowed.count(name) == 1);
}

void Leaves(GMimeObject* object, std::vector<GMimeObject*>& leaves) {
    if (GMIME_IS_MULTIPART(object)) {
        CheckFields(object, {"content-type", "content-transfer-encoding"}, true);
        GMimeMultipart* multipart = GMIME_MULTIPART(object);
        for (int i = 0; i < g_mime_multipart_get_count(multipart); ++i)
            Leaves(g_mime_multipart_get_part(multipart, i), leaves);
        return;
    }
    CheckFields(object, {"content-type", "content-disposition", "content-transfer-encoding", "content-id"},
                true);
    leaves.push_back(object);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    EnsureGMime();
    FuzzedDataProvider input(data, size);
    CDraftContent content;
    const std::wstring subject = Text(input, 80);
    content.props.push_back({PR_SUBJECT_W, subject});
    content.props.push_back({PR_BODY_W, Text(input, 40)});
    if (input.ConsumeBool()) content.props.push_back({PR_INTERNET_MESSAGE_ID_W, Text(input, 40)});
    std::map<ULONG, size_t> givenOfKind;
    for (int i = input.ConsumeIntegralInRange(0, 4); i > 0; --i) {
        const std::wstring name = Text(input, 30);
        const std::wstring address = Text(input, 30);
        const std::int32_t kind = input.ConsumeIntegralInRange<std::int32_t>(MAPI_TO, MAPI_BCC);
        ++givenOfKind[static_cast<ULONG>(kind)];
        content.recipients.push_back(
            {{PR_DISPLAY_NAME_W, name}, {PR_SMTP_ADDRESS_W, address}, {PR_RECIPIENT_TYPE, kind}});
    }
    std::vector<std::string> names;
    for (int i = input.ConsumeIntegralInRange(0, 3); i > 0; --i) {
        CDraftAttachment attachment;
        attachment.number = static_cast<ULONG>(content.attachments.size());
        // A name is taken after its last path separator: none is given here, so it comes back whole.
        std::wstring name = Text(input, 40);
        std::replace(name.begin(), name.end(), L'/', L'_');
        std::replace(name.begin(), name.end(), L'\\', L'_');
        // A ".eml" file goes as a message/rfc822 part, read back as an embedded message, not as its bytes.
        if (EndsInEml(name)) name += L'_';
        attachment.props.push_back({PR_ATTACH_LONG_FILENAME_W, name});
        attachment.props.push_back({PR_ATTACH_CONTENT_ID_W, Text(input, 30)});
        // A type of its own: made up, or one that names parts inside the attachment's bytes.
        if (input.ConsumeBool())
            attachment.props.push_back(
                {PR_ATTACH_MIME_TAG_W, input.ConsumeBool() ? Text(input, 30)
                                                           : std::wstring(input.PickValueInArray(
                                                                 {L"multipart/mixed", L"Message/RFC822",
                                                                  L"text/plain", L"image/png"}))});
        const std::string bytes = input.ConsumeRandomLengthString(64);
        attachment.data = std::make_shared<std::vector<BYTE>>(bytes.begin(), bytes.end());
        content.attachments.push_back(std::move(attachment));
        names.push_back(AsHeaderText(name, false));
    }
    CStoreConfig store;
    store.ownerAddress = L"owner@example.org";
    CRenderOptions options;
    options.sentFolder = velmar::SanitizeUtf8(input.ConsumeRandomLengthString(20));

    const std::string rendered = RenderMime(content, store, options);
    GObjectPtr<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(rendered.data(), rendered.size()));
    GObjectPtr<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    GObjectPtr<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), nullptr));
    Check(message != nullptr);
    CheckFields(GMIME_OBJECT(message.get()),
                {"date", "from", "to", "cc", "bcc", "subject", "message-id", "mime-version", "content-type",
                 "content-transfer-encoding", "x-velmar-sent-folder"},
                true);

    // What a client sees of it: the message as this MAPI reads it.
    const std::shared_ptr<CMessageContent> read = ReadMimeMessage(message.get());
    // Blanks aside: GMime's folding may put one where ASCII text looks like the start of an encoded word.
    Check(WithoutBlanks(TextOf(FindValue(read->properties, PR_SUBJECT_W))) ==
          WithoutBlanks(velmar::Utf8ToWide(AsHeaderText(subject, true))));
    // A recipient is written as given, or left out when it has no address that can be written.
    std::map<ULONG, size_t> backOfKind;
    for (const CRecipientContent& recipient : read->recipients) ++backOfKind[recipient.type];
    for (const auto& [kind, count] : backOfKind) Check(count <= givenOfKind[kind]);
    std::vector<GMimeObject*> leaves;
    Leaves(g_mime_message_get_mime_part(message.get()), leaves);
    const auto attachments = std::count_if(leaves.begin(), leaves.end(), [](GMimeObject* leaf) {
        return g_mime_object_get_disposition(leaf) != nullptr;
    });
    Check(static_cast<size_t>(attachments) == content.attachments.size());
    Check(leaves.size() - attachments >= 1 && leaves.size() - attachments <= 2);
    Check(read->attachments.size() == content.attachments.size());
    // Inline parts (those the HTML names) come before the others: compared as sets of name and bytes.
    std::multiset<std::pair<std::string, std::string>> given, back;
    for (size_t i = 0; i < content.attachments.size(); ++i) {
        const std::vector<BYTE>& bytes = *content.attachments[i].data;
        given.insert({names[i].empty() ? std::string("Attachment") : names[i],
                      std::string(bytes.begin(), bytes.end())});
        const std::optional<std::vector<BYTE>> decoded = DecodedBytes(read->attachments[i]);
        Check(decoded.has_value());
        back.insert({velmar::WideToUtf8(read->attachments[i].longFileName),
                     std::string(decoded->begin(), decoded->end())});
    }
    Check(given == back);
    return 0;
}
