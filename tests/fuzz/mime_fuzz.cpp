// Arbitrary bytes as a mail file: parsed into MAPI content (bodies, recipients, attachments, embedded
// messages), read as TNEF, scanned as a header block, and taken as an entry id, which must encode back
// to itself.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "mapi/provider/EntryId.h"
#include "mapi/provider/MaildirIndex.h"
#include "mapi/provider/MimeContent.h"
#include "mapi/provider/Tnef.h"

namespace {

using namespace velmar::mapi;

void ReadContent(const CMessageContent& content, int depth) {
    for (const CAttachmentContent& attachment : content.attachments) {
        if (attachment.method == 5 && depth < 4) {
            GMimeMessage* embedded =
                g_mime_message_part_get_message(GMIME_MESSAGE_PART(attachment.part.get()));
            ReadContent(*ReadMimeMessage(embedded), depth + 1);
        } else if (DecodedBytes(attachment).size() != attachment.size) {
            std::abort();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    EnsureGMime();
    GObjectPtr<GMimeStream> stream(
        g_mime_stream_mem_new_with_buffer(reinterpret_cast<const char*>(data), size));
    GObjectPtr<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    GObjectPtr<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), nullptr));
    if (message) ReadContent(*ReadMimeMessage(message.get()), 0);

    // Nothing unpacked from TNEF can be larger than the stream it came from.
    if (auto tnef = ReadTnef(std::span<const std::uint8_t>(data, size))) {
        for (const CTnefAttachment& attachment : tnef->attachments)
            if (attachment.data.size() > size) std::abort();
    }
    const std::string text(reinterpret_cast<const char*>(data), size);
    DecodeHeaderText(HeaderValue(text, "Subject"));
    if (auto id = DecodeEntryId(data, size)) {
        const std::vector<BYTE> again = EncodeEntryId(*id);
        if (again.size() != size || !std::equal(again.begin(), again.end(), data)) std::abort();
    }
    return 0;
}
