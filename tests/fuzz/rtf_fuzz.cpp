// DecompressRtf must accept or refuse any bytes without crashing; whatever it accepts must survive
// CompressRtf and DecompressRtf again unchanged, as LZFu and as MELA. The same bytes also go to the
// de-encapsulator as RTF.
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mapi/rtf/CompressedRtf.h"
#include "mapi/rtf/RtfDeencapsulate.h"

namespace {

using namespace velmar::mapi;

void CheckRoundTrip(const std::string& rtf) {
    for (const bool compressed : {true, false}) {
        const std::vector<std::uint8_t> stream = CompressRtf(rtf, compressed);
        std::string again;
        if (DecompressRtf(stream, again) != RtfCodecStatus::Ok || again != rtf) std::abort();
    }
}

void CheckDecompress(std::span<const std::uint8_t> in) {
    std::string rtf;
    const RtfCodecStatus status = DecompressRtf(in, rtf);
    if (status == RtfCodecStatus::Ok) CheckRoundTrip(rtf);
    // Besides the RawSize limit, decoded output can only come from a stream that has a header.
    if (in.size() >= 8 && rtf.size() > (in[4] | (in[5] << 8) | (in[6] << 16) | (std::uint32_t{in[7]} << 24)))
        std::abort();
}

// Random bytes almost never carry a matching CRC, so also decode them with the header made consistent;
// otherwise the fuzzer would hardly ever get past the CRC check into the LZFu decoder.
void CheckWithRepairedHeader(std::span<const std::uint8_t> data) {
    if (data.size() < 16) return;
    std::vector<std::uint8_t> stream(data.begin(), data.end());
    const auto put = [&](std::size_t at, std::uint32_t v) {
        for (std::size_t i = 0; i < 4; ++i) stream[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
    };
    put(0, static_cast<std::uint32_t>(stream.size() - 4));
    put(8, (data[8] & 1) ? 0x75465A4CU : 0x414C454DU);
    put(12, RtfCrc32(std::span<const std::uint8_t>(stream).subspan(16)));
    CheckDecompress(stream);
}

void CheckDeencapsulate(std::string_view text) {
    const RtfNativeBody kind = DetectNativeBody(text);
    std::string out;
    if (kind != RtfNativeBody::Rtf && !DeencapsulateRtf(text, kind, out))
        std::abort();  // a detected body is RTF, so it must de-encapsulate
    DeencapsulateRtf(text, RtfNativeBody::Html, out);
    DeencapsulateRtf(text, RtfNativeBody::PlainText, out);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);
    CheckDecompress(bytes);
    CheckWithRepairedHeader(bytes);

    const std::string_view text(reinterpret_cast<const char*>(data), size);
    CheckDeencapsulate(text);
    // Most random inputs do not start with "{\rtf"; give the parser a valid opening as well.
    CheckDeencapsulate("{\\rtf1\\ansi\\fromhtml1 " + std::string(text));
    return 0;
}
