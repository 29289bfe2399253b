// A MIME message read through GMime into what MAPI shows of it: message properties, recipients,
// attachments and bodies. GMime finds the structure; header fields, charsets and transfer encodings are
// read by our own code (HeaderText.h, AddressList.h, TextCharset.h, PartBytes.h), as a careful
// reader reads them. Text is kept as UTF-8 or wide.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "mapi/mime/GMimeSupport.h"
#include "mapi/runtime/PropValue.h"

namespace velmar::mapi {

struct CRecipientContent {
    std::wstring displayName;
    std::wstring address;
    ULONG type = 1;  // MAPI_TO, MAPI_CC, MAPI_BCC
};

// The bodies of parts a message file goes without (the large attachments of a message on an IMAP server),
// had from where the message lives when they are asked for.
class ILeftOutBodies {
public:
    virtual ~ILeftOutBodies() = default;
    // The size as sent (transfer-encoded) of the body of the part of this IMAP section ("2", "1.3") when the
    // file goes without it; nullopt for a part the file holds.
    virtual std::optional<std::uint64_t> LeftOut(const std::string& section) const = 0;
    // An open descriptor of that body as sent, the caller's; -1 when it cannot be had now.
    virtual int OpenBody(const std::string& section) = 0;
};

// A message file to read: its descriptor and what it goes without (null: nothing).
struct CMessageFile {
    int fd = -1;
    std::shared_ptr<ILeftOutBodies> leftOut;
};

// An attachment's body its message file goes without: fetched when first asked for, then kept.
class CLeftOutBody {
public:
    CLeftOutBody(std::shared_ptr<ILeftOutBodies> bodies, std::string section, std::uint64_t octets)
        : m_bodies(std::move(bodies)), m_section(std::move(section)), m_octets(octets) {}
    // Hands the body's decoded bytes to sink in order; false when the body cannot be had now (then asked
    // for again next time).
    bool Read(GMimeContentEncoding encoding, const std::function<void(std::string_view)>& sink);
    bool Fetched() const;
    std::uint64_t Octets() const { return m_octets; }

private:
    std::shared_ptr<ILeftOutBodies> m_bodies;
    std::string m_section;
    std::uint64_t m_octets;
    mutable std::mutex m_lock;  // guards m_stream, and its reading
    GObjectPtr<GMimeStream> m_stream;
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
    std::shared_ptr<CLeftOutBody> leftOut;              // the part's body, when its file goes without it
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

// Reads the message in an open file, taking over its descriptor (closed when the content goes, or at once
// when parsing fails; -1 for none). A file GMime cannot read still gives a message: the given fallback
// properties (from the folder index) and no body.
std::shared_ptr<CMessageContent> ReadMessageFile(CMessageFile file, std::vector<CPropValue> fallback);
// The content of a message held in memory (an embedded message/rfc822 part), or parsed from a file that
// goes without the bodies leftOut names.
std::shared_ptr<CMessageContent> ReadMimeMessage(GMimeMessage* message,
                                                 std::shared_ptr<ILeftOutBodies> leftOut = nullptr);

// A message's content, read when it is first asked for: a lookup that only finds a message (and perhaps
// marks it read) never parses it. The file is opened when the message is, so a later rename does not lose
// it. Safe to ask from several threads.
class CDeferredContent {
public:
    // Takes over fd (-1 for none), to be read as ReadMessageFile reads it.
    CDeferredContent(int fd, std::vector<CPropValue> fallback)
        : m_file{fd, nullptr}, m_fallback(std::move(fallback)) {}
    // A file opened only when the content is first asked for (a message fetched from a server then):
    // open gives a file the content takes over, or one without a descriptor (the fallback alone then).
    CDeferredContent(std::function<CMessageFile()> open, std::vector<CPropValue> fallback)
        : m_open(std::move(open)), m_fallback(std::move(fallback)) {}
    explicit CDeferredContent(std::shared_ptr<CMessageContent> ready);
    ~CDeferredContent();
    CDeferredContent(const CDeferredContent&) = delete;
    CDeferredContent& operator=(const CDeferredContent&) = delete;

    const std::shared_ptr<CMessageContent>& Get() const;

private:
    mutable std::once_flag m_once;
    mutable CMessageFile m_file;
    mutable std::function<CMessageFile()> m_open;
    mutable std::vector<CPropValue> m_fallback;
    mutable std::shared_ptr<CMessageContent> m_content;
};

// The decoded bytes of an attachment's part (or its unpacked data); nullopt when its body is left out and
// cannot be had now.
std::optional<std::vector<BYTE>> DecodedBytes(const CAttachmentContent& attachment);
// How many bytes that is; a part is decoded (and the bytes thrown away) unless its size is known. For a
// body left out and not fetched yet, what its size as sent makes likely.
std::uint64_t AttachmentSize(const CAttachmentContent& attachment);

// Plain text from HTML: tags dropped, block ends as line breaks, entities decoded.
std::wstring HtmlToText(std::string_view html);

}  // namespace velmar::mapi
