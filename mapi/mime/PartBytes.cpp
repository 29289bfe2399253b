#include "mapi/mime/PartBytes.h"

#include <optional>

#include "mapi/mime/Base64.h"
#include "mapi/mime/GMimeSupport.h"

namespace velmar::mapi {
namespace {

// The transfer decoding: base64 our own, quoted-printable and uuencode GMime's filters.
class CTransferDecoder {
public:
    explicit CTransferDecoder(GMimeContentEncoding encoding) : m_encoding(encoding) {
        if (encoding == GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE || encoding == GMIME_CONTENT_ENCODING_UUENCODE)
            m_filter.reset(g_mime_filter_basic_new(encoding, FALSE));
    }

    void Step(std::string_view encoded, std::string& out) {
        if (m_encoding == GMIME_CONTENT_ENCODING_BASE64) {
            m_base64.Step(encoded, out);
        } else if (m_filter) {
            Filter(encoded, out, false);
        } else {
            out.append(encoded);
        }
    }

    void Finish(std::string& out) {
        if (m_encoding == GMIME_CONTENT_ENCODING_BASE64) {
            m_base64.Finish(out);
        } else if (m_filter) {
            Filter({}, out, true);
        }
    }

private:
    void Filter(std::string_view encoded, std::string& out, bool complete) {
        char* filtered = nullptr;
        size_t length = 0;
        size_t prespace = 0;
        char* in = const_cast<char*>(encoded.data());
        (complete ? g_mime_filter_complete : g_mime_filter_filter)(m_filter.get(), in, encoded.size(), 0,
                                                                   &filtered, &length, &prespace);
        if (filtered && length > 0) out.append(filtered, length);
    }

    GMimeContentEncoding m_encoding;
    CBase64Decoder m_base64;
    GObjectPtr<GMimeFilter> m_filter;
};

// Whether the byte just after the stream's end in the file it is part of is an LF: then a CR at the
// stream's end is the first half of the line break before a boundary, which GMime, having taken the
// file's line ends for LF, left in the part.
bool EndsBeforeLineFeed(GMimeStream* stream) {
    GMimeStream* whole = stream->super_stream;
    if (!whole || stream->bound_end < 0) return false;
    // A memory stream reads past its buffer when asked for bytes beyond its end.
    const gint64 length = g_mime_stream_length(whole);
    if (length < 0 || stream->bound_end >= whole->bound_start + length) return false;
    GObjectPtr<GMimeStream> next(g_mime_stream_substream(whole, stream->bound_end, stream->bound_end + 1));
    char byte = 0;
    return next && g_mime_stream_read(next.get(), &byte, 1) == 1 && byte == '\n';
}

}  // namespace

void ReadPartBytes(GMimePart* part, const std::function<void(std::string_view)>& sink) {
    GMimeDataWrapper* wrapper = part ? g_mime_part_get_content(part) : nullptr;
    GMimeStream* raw = wrapper ? g_mime_data_wrapper_get_stream(wrapper) : nullptr;
    if (raw) ReadEncodedBytes(raw, g_mime_data_wrapper_get_encoding(wrapper), sink);
}

void ReadEncodedBytes(GMimeStream* raw, GMimeContentEncoding encoding,
                      const std::function<void(std::string_view)>& sink) {
    CTransferDecoder decoder(encoding);
    g_mime_stream_reset(raw);
    char buffer[65536];
    bool heldCr = false;  // a CR that ended the last read, given on only once more follows
    std::string decoded;
    for (;;) {
        const ssize_t got = g_mime_stream_read(raw, buffer, sizeof buffer);
        if (got <= 0) break;
        std::string_view chunk(buffer, static_cast<size_t>(got));
        decoded.clear();
        if (heldCr) decoder.Step("\r", decoded);
        heldCr = chunk.back() == '\r';
        if (heldCr) chunk.remove_suffix(1);
        decoder.Step(chunk, decoded);
        if (!decoded.empty()) sink(decoded);
    }
    decoded.clear();
    if (heldCr && !EndsBeforeLineFeed(raw)) decoder.Step("\r", decoded);
    decoder.Finish(decoded);
    if (!decoded.empty()) sink(decoded);
}

std::string PartBytes(GMimePart* part) {
    std::string bytes;
    ReadPartBytes(part, [&](std::string_view piece) { bytes.append(piece); });
    return bytes;
}

}  // namespace velmar::mapi
