#include "mapi/mime/Tnef.h"

#include <functional>

#include "mapi/rtf/CodePageText.h"
#include "mapidefs.h"
#include "mapitags.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

using namespace tnef;
constexpr size_t kMaxAttachments = 4096;  // more than any mail client packs; the rest stays in the stream
constexpr size_t kObjectIidSize = 16;     // a PT_OBJECT value starts with the IID of its interface
// A property list of a hostile stream may claim any count; no real message has this many properties.
constexpr std::uint32_t kMaxProperties = 1u << 16;

// Reads little-endian values; every read checks the bytes that remain first, so nothing reads past the end.
class CTnefReader {
public:
    explicit CTnefReader(std::span<const std::uint8_t> data) : m_data(data) {}

    size_t Remaining() const { return m_data.size() - m_pos; }
    bool U16(std::uint16_t& value) { return Read(value, 2); }
    bool U32(std::uint32_t& value) { return Read(value, 4); }
    bool Skip(size_t count) {
        if (count > Remaining()) return false;
        m_pos += count;
        return true;
    }
    bool Bytes(size_t count, std::span<const std::uint8_t>& out) {
        if (count > Remaining()) return false;
        out = m_data.subspan(m_pos, count);
        m_pos += count;
        return true;
    }

private:
    template <class T>
    bool Read(T& value, size_t size) {
        if (size > Remaining()) return false;
        value = 0;
        for (size_t i = 0; i < size; ++i)
            value |= static_cast<T>(static_cast<T>(m_data[m_pos + i]) << (8 * i));
        m_pos += size;
        return true;
    }

    std::span<const std::uint8_t> m_data;
    size_t m_pos = 0;
};

size_t Padded(size_t size) {
    return (size + 3) & ~size_t{3};
}

// The size of one fixed-size value as TNEF stores it (padded to four bytes); 0 for variable-size types.
size_t FixedSize(std::uint16_t type) {
    switch (type) {
        case PT_I2:
        case PT_LONG:
        case PT_R4:
        case PT_ERROR:
        case PT_BOOLEAN:
            return 4;
        case PT_DOUBLE:
        case PT_CURRENCY:
        case PT_APPTIME:
        case PT_I8:
        case PT_SYSTIME:
            return 8;
        case PT_CLSID:
            return 16;
        default:
            return 0;
    }
}

bool IsVariable(std::uint16_t type) {
    return type == PT_STRING8 || type == PT_UNICODE || type == PT_BINARY || type == PT_OBJECT;
}

using PropertyVisitor = std::function<void(std::uint32_t tag, std::span<const std::uint8_t> value)>;

// Hands every value of a property list to visit (each value of a multi-valued property on its own, a
// variable-size value without its length and padding); false when the list is malformed.
bool WalkProperties(std::span<const std::uint8_t> list, const PropertyVisitor& visit) {
    CTnefReader reader(list);
    std::uint32_t count = 0;
    if (!reader.U32(count) || count > kMaxProperties) return false;
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint16_t type = 0;
        std::uint16_t id = 0;
        if (!reader.U16(type) || !reader.U16(id)) return false;
        if (id >= 0x8000) {  // a named property: its name comes first
            std::uint32_t kind = 0;
            if (!reader.Skip(16) || !reader.U32(kind)) return false;
            std::uint32_t nameLength = 0;
            if (kind == 0 ? !reader.Skip(4) : (!reader.U32(nameLength) || !reader.Skip(Padded(nameLength))))
                return false;
        }
        const std::uint16_t baseType = type & ~MV_FLAG;
        const std::uint32_t tag = PROP_TAG(baseType, id);
        std::uint32_t values = 1;
        if ((type & MV_FLAG) || IsVariable(baseType)) {
            if (!reader.U32(values)) return false;
        }
        if (const size_t size = FixedSize(baseType); size != 0) {
            if (values > reader.Remaining() / size) return false;
            for (std::uint32_t v = 0; v < values; ++v) {
                std::span<const std::uint8_t> bytes;
                reader.Bytes(size, bytes);
                visit(tag, bytes);
            }
            continue;
        }
        if (!IsVariable(baseType)) return false;  // a type we cannot size
        for (std::uint32_t v = 0; v < values; ++v) {
            std::uint32_t length = 0;
            std::span<const std::uint8_t> bytes;
            if (!reader.U32(length) || !reader.Bytes(length, bytes) || !reader.Skip(Padded(length) - length))
                return false;
            visit(tag, bytes);
        }
    }
    return true;
}

std::uint32_t LittleEndian32(std::span<const std::uint8_t> bytes) {
    std::uint32_t value = 0;
    CTnefReader(bytes).U32(value);
    return value;
}

// Text of a string value or attribute, which ends at its first terminator: 8-bit text in the code page the
// stream names (Windows-1252 when it names none), or UTF-16LE.
std::wstring Text(std::span<const std::uint8_t> bytes, bool utf16, std::uint32_t codePage) {
    size_t length = 0;
    if (utf16) {
        while (length + 1 < bytes.size() && (bytes[length] != 0 || bytes[length + 1] != 0)) length += 2;
    } else {
        while (length < bytes.size() && bytes[length] != 0) ++length;
    }
    const std::span<const std::uint8_t> text = bytes.first(length);
    return Utf8ToWide(utf16 ? Utf16LeToUtf8(text) : CodePageToUtf8(text, static_cast<int>(codePage)));
}

// One attachment as its attributes arrive; the names are resolved when it is complete.
struct CAttachmentParts {
    std::wstring title;
    std::wstring longFileName;
    std::wstring shortFileName;
    std::wstring displayName;
    std::wstring mimeTag;
    std::wstring contentId;
    std::vector<std::uint8_t> data;
    bool dataFromProperties = false;  // PR_ATTACH_DATA_* wins over the data attribute
    bool dataSeen = false;

    CTnefAttachment Finish() {
        CTnefAttachment attachment;
        attachment.longFileName = !longFileName.empty() ? longFileName
                                  : !title.empty()      ? title
                                                        : shortFileName;
        attachment.displayName = !displayName.empty() ? displayName : attachment.longFileName;
        attachment.mimeTag = std::move(mimeTag);
        attachment.contentId = std::move(contentId);
        attachment.data = std::move(data);
        return attachment;
    }
};

void ReadAttachmentProperties(std::span<const std::uint8_t> list, std::uint32_t codePage,
                              CAttachmentParts& parts) {
    static constexpr std::pair<ULONG, std::wstring CAttachmentParts::*> kTexts[] = {
        {PROP_ID(PR_ATTACH_LONG_FILENAME), &CAttachmentParts::longFileName},
        {PROP_ID(PR_ATTACH_FILENAME), &CAttachmentParts::shortFileName},
        {PROP_ID(PR_DISPLAY_NAME), &CAttachmentParts::displayName},
        {PROP_ID(PR_ATTACH_MIME_TAG), &CAttachmentParts::mimeTag},
        {PROP_ID(PR_ATTACH_CONTENT_ID), &CAttachmentParts::contentId}};
    WalkProperties(list, [&](std::uint32_t tag, std::span<const std::uint8_t> value) {
        const ULONG type = PROP_TYPE(tag);
        if (type == PT_UNICODE || type == PT_STRING8) {
            for (const auto& [id, member] : kTexts)
                if (PROP_ID(tag) == id) parts.*member = Text(value, type == PT_UNICODE, codePage);
            return;
        }
        if (PROP_ID(tag) != PROP_ID(PR_ATTACH_DATA_BIN)) return;
        if (type == PT_BINARY) {
            parts.data.assign(value.begin(), value.end());
            parts.dataFromProperties = parts.dataSeen = true;
        } else if (type == PT_OBJECT && value.size() >= kObjectIidSize) {
            parts.data.assign(value.begin() + kObjectIidSize, value.end());
            parts.dataFromProperties = parts.dataSeen = true;
        }
    });
}

}  // namespace

std::optional<CTnefContent> ReadTnef(std::span<const std::uint8_t> tnef) {
    CTnefReader reader(tnef);
    std::uint32_t signature = 0;
    std::uint16_t key = 0;
    if (!reader.U32(signature) || signature != kSignature || !reader.U16(key)) return std::nullopt;
    CTnefContent content;
    std::uint32_t codePage = 0;
    std::uint32_t htmlCodePage = 0;  // PR_INTERNET_CPID: the HTML's own charset
    std::span<const std::uint8_t> html;
    std::optional<CAttachmentParts> attachment;
    const auto finishAttachment = [&] {
        if (attachment) content.attachments.push_back(attachment->Finish());
        attachment.reset();
    };
    content.complete = true;
    while (reader.Remaining() > 0) {
        std::span<const std::uint8_t> levelByte;
        std::uint32_t id = 0;
        std::uint32_t length = 0;
        std::span<const std::uint8_t> data;
        if (!reader.Bytes(1, levelByte) || !reader.U32(id) || !reader.U32(length) ||
            !reader.Bytes(length, data) || !reader.Skip(2)) {
            content.complete = false;
            break;
        }
        const std::uint8_t level = levelByte[0];
        if (level == kLevelMessage) {
            if (id == kAttOemCodepage) codePage = LittleEndian32(data);
            if (id == kAttBody) content.body = Text(data, false, codePage);
            if (id == kAttMsgProps) {
                WalkProperties(data, [&](std::uint32_t tag, std::span<const std::uint8_t> value) {
                    if (tag == PR_RTF_COMPRESSED && content.rtfCompressed.empty())
                        content.rtfCompressed.assign(value.begin(), value.end());
                    if (tag == PR_HTML && html.empty()) html = value;
                    if (tag == PR_INTERNET_CPID) htmlCodePage = LittleEndian32(value);
                    if ((tag == PR_BODY_W || tag == PR_BODY_A) && content.body.empty())
                        content.body = Text(value, tag == PR_BODY_W, codePage);
                });
            }
            continue;
        }
        if (level != kLevelAttachment) continue;
        // Every attachment begins with its rendering attribute; one that lacks it still counts.
        if (id == kAttAttachRenddata) {
            finishAttachment();
            if (content.attachments.size() == kMaxAttachments) {
                content.complete = false;
                break;
            }
        }
        if (!attachment) attachment.emplace();
        if (id == kAttAttachTitle) attachment->title = Text(data, false, codePage);
        if (id == kAttAttachData && !attachment->dataFromProperties) {
            attachment->data.assign(data.begin(), data.end());
            attachment->dataSeen = true;
        }
        if (id == kAttAttachment) ReadAttachmentProperties(data, codePage, *attachment);
    }
    // The last attachment counts once its data has arrived whole: a stream cut right after an attribute
    // looks complete.
    if (attachment && attachment->dataSeen) finishAttachment();
    content.html = CodePageToUtf8(html, static_cast<int>(htmlCodePage ? htmlCodePage : codePage));
    return content;
}

}  // namespace velmar::mapi
