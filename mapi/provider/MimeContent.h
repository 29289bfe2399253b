// A MIME message read through GMime into what MAPI shows of it: message properties, recipients,
// attachments and bodies. GMime finds the structure; header fields, charsets and transfer encodings are
// read by the provider's own code (HeaderText.h, AddressList.h, TextCharset.h, PartBytes.h), as a careful
// reader reads them. Text is kept as UTF-8 or wide.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "mapi/provider/GMimeSupport.h"
#include "mapi/runtime/PropValue.h"

namespace velmar::mapi {

struct CRecipientContent {
    std::wstring displayName;
    std::wstring address;
    ULONG type = 1;  // MAPI_TO, MAPI_CC, MAPI_BCC
};

struct CAttachmentContent {
    ULONG number = 0;
    ULONG method = 1;  // ATTACH_BY_VALUE, or ATTACH_EMBEDDED_MSG for message/rfc822
    std::wstring longFileName;
    std::wstring displayName;
    std::wstring contentId;  // without angle brackets
    std::wstring mimeTag;    // "image/png"
    std::wstring contentLocation;
    // Decoded bytes, when known without decoding (unpacked or embedded ones); else AttachmentSize decodes.
    std::optional<std::uint64_t> size;
    GObjectPtr<GMimeObject> part;  // a GMimePart, or a GMimeMessagePart for an embedded message
    std::shared_ptr<const std::vector<BYTE>> unpacked;  // the data of one unpacked from TNEF (no part)
};

struct CMessageContent {
    std::vector<CPropValue> properties;  // message properties, bodies included
    std::vector<CRecipientContent> recipients;
    std::vector<CAttachmentContent> attachments;
    std::wstring body;                 // PR_BODY_W
    std::string html;                  // PR_HTML, UTF-8, declaring charset=utf-8; empty when none
    std::vector<BYTE> rtfCompressed;   // PR_RTF_COMPRESSED from a TNEF part; empty when none
    GObjectPtr<GMimeMessage> message;  // keeps the parts alive
};

// Reads the message in an open file, taking over fd (closed when the content goes, or at once when
// parsing fails; -1 for none). A file GMime cannot read still gives a message: the given fallback
// properties (from the folder index) and no body.
std::shared_ptr<CMessageContent> ReadMessageFile(int fd, std::vector<CPropValue> fallback);
// The content of a message held in memory (an embedded message/rfc822 part).
std::shared_ptr<CMessageContent> ReadMimeMessage(GMimeMessage* message);

// A message's content, read when it is first asked for: a lookup that only finds a message (and perhaps
// marks it read) never parses it. The file is opened when the message is, so a later rename does not lose
// it. Safe to ask from several threads.
class CDeferredContent {
public:
    // Takes over fd (-1 for none), to be read as ReadMessageFile reads it.
    CDeferredContent(int fd, std::vector<CPropValue> fallback) : m_fd(fd), m_fallback(std::move(fallback)) {}
    // A file opened only when the content is first asked for (a message fetched from a server then):
    // open gives a descriptor the content takes over, or -1 (the fallback alone then).
    CDeferredContent(std::function<int()> open, std::vector<CPropValue> fallback)
        : m_open(std::move(open)), m_fallback(std::move(fallback)) {}
    explicit CDeferredContent(std::shared_ptr<CMessageContent> ready);
    ~CDeferredContent();
    CDeferredContent(const CDeferredContent&) = delete;
    CDeferredContent& operator=(const CDeferredContent&) = delete;

    const std::shared_ptr<CMessageContent>& Get() const;

private:
    mutable std::once_flag m_once;
    mutable int m_fd = -1;
    mutable std::function<int()> m_open;
    mutable std::vector<CPropValue> m_fallback;
    mutable std::shared_ptr<CMessageContent> m_content;
};

// The decoded bytes of an attachment's part (or its unpacked data).
std::vector<BYTE> DecodedBytes(const CAttachmentContent& attachment);
// How many bytes that is; a part is decoded (and the bytes thrown away) unless its size is known.
std::uint64_t AttachmentSize(const CAttachmentContent& attachment);

// Plain text from HTML: tags dropped, block ends as line breaks, entities decoded.
std::wstring HtmlToText(std::string_view html);

}  // namespace velmar::mapi
