#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mapi/rtf/CompressedRtf.h"

namespace {

using velmar::mapi::CompressRtf;
using velmar::mapi::DecompressRtf;
using velmar::mapi::RtfCodecStatus;
using velmar::mapi::RtfCodecStatusName;
using velmar::mapi::RtfCrc32;
using Bytes = std::vector<std::uint8_t>;

const std::filesystem::path kVectors =
    std::filesystem::path(VELMAR_CORPORA_DIR) / "compressed_rtf" / "_vectors";

Bytes ReadBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string ReadText(const std::filesystem::path& path) {
    const Bytes bytes = ReadBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

std::span<const std::uint8_t> AsBytes(std::string_view s) {
    return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

std::uint32_t U32At(const Bytes& b, std::size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<std::uint32_t>(b[at + 3]) << 24);
}

void SetU32At(Bytes& b, std::size_t at, std::uint32_t v) {
    for (std::size_t i = 0; i < 4; ++i) b[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
}

// A complete LZFu stream around a hand-assembled body, with correct sizes and CRC.
Bytes LzfuStream(const Bytes& body, std::uint32_t rawSize) {
    Bytes out(16, 0);
    SetU32At(out, 0, static_cast<std::uint32_t>(body.size() + 12));
    SetU32At(out, 4, rawSize);
    SetU32At(out, 8, 0x75465A4C);
    SetU32At(out, 12, RtfCrc32(body));
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

struct Decoded {
    RtfCodecStatus status;
    std::string rtf;
};

Decoded Decode(std::span<const std::uint8_t> in) {
    Decoded d{RtfCodecStatus::Ok, "unchanged"};
    d.status = DecompressRtf(in, d.rtf);
    return d;
}

// ---------------------------------------------------------------------------------------------- vectors

TEST(CompressedRtfVectors, EveryCompressedVectorDecodesToItsExpectedRtf) {
    int checked = 0;
    for (const auto& entry : std::filesystem::directory_iterator(kVectors)) {
        const std::string name = entry.path().filename().string();
        const std::string suffix = ".compressed.bin";
        if (name.size() <= suffix.size() || name.substr(name.size() - suffix.size()) != suffix) continue;
        const std::string stem = name.substr(0, name.size() - suffix.size());
        SCOPED_TRACE(stem);
        const Decoded d = Decode(ReadBytes(entry.path()));
        EXPECT_EQ(d.status, RtfCodecStatus::Ok) << RtfCodecStatusName(d.status);
        EXPECT_EQ(d.rtf, ReadText(kVectors / (stem + ".expected.rtf")));
        ++checked;
    }
    EXPECT_GE(checked, 2);  // hello_world and repeated_tokens
}

TEST(CompressedRtfVectors, PublishedExamplesDecodeToTheirDocumentedText) {
    EXPECT_EQ(Decode(ReadBytes(kVectors / "hello_world.compressed.bin")).rtf,
              "{\\rtf1\\ansi\\ansicpg1252\\pard hello world}\r\n");
    EXPECT_EQ(Decode(ReadBytes(kVectors / "repeated_tokens.compressed.bin")).rtf,
              "{\\rtf1 WXYZWXYZWXYZWXYZWXYZ}");
}

TEST(CompressedRtfVectors, UncompressedMelaVectorIsCopied) {
    const Decoded d = Decode(ReadBytes(kVectors / "test_raw_mela.uncompressed.bin"));
    EXPECT_EQ(d.status, RtfCodecStatus::Ok);
    EXPECT_EQ(d.rtf, ReadText(kVectors / "test_raw_mela.expected.rtf"));
}

TEST(CompressedRtfVectors, InvalidVectorsAreRejectedWithTheirReason) {
    const Decoded crc = Decode(ReadBytes(kVectors / "bad_crc.invalid.bin"));
    EXPECT_EQ(crc.status, RtfCodecStatus::BadCrc) << RtfCodecStatusName(crc.status);
    EXPECT_TRUE(crc.rtf.empty());
    const Decoded magic = Decode(ReadBytes(kVectors / "bad_magic.invalid.bin"));
    EXPECT_EQ(magic.status, RtfCodecStatus::BadMagic) << RtfCodecStatusName(magic.status);
    EXPECT_TRUE(magic.rtf.empty());
}

// ---------------------------------------------------------------------------------------------- CRC

TEST(RtfCrc32, MatchesPublishedStreamsAndTheCrc32Family) {
    const Bytes hello = ReadBytes(kVectors / "hello_world.compressed.bin");
    EXPECT_EQ(RtfCrc32(std::span(hello).subspan(16)), 0xA7C7C5F1U);
    const Bytes repeated = ReadBytes(kVectors / "repeated_tokens.compressed.bin");
    EXPECT_EQ(RtfCrc32(std::span(repeated).subspan(16)), 0x514BD4E2U);

    EXPECT_EQ(RtfCrc32({}), 0U);
    EXPECT_EQ(RtfCrc32(AsBytes("123456789")), 0x2DFD2D88U);
    // Same table as zlib's CRC-32: with zlib's pre- and post-inversion it gives the standard check value.
    EXPECT_EQ(RtfCrc32(AsBytes("123456789"), 0xFFFFFFFFU) ^ 0xFFFFFFFFU, 0xCBF43926U);
}

// ----------------------------------------------------------------------------------------------
// hand-assembled streams

// ---------------------------------------------------------------------------------------------- round trips

std::vector<std::string> RoundTripInputs() {
    std::vector<std::string> inputs = {"", "x", "{\\rtf1\\ansi\\ansicpg1252\\pard hello world}\r\n",
                                       "{\\rtf1 WXYZWXYZWXYZWXYZWXYZ}", std::string(100000, 'a')};
    std::string prose;
    for (int i = 0; prose.size() < 20000; ++i)
        prose += "{\\par line " + std::to_string(i * 7919 % 1000) + " of text}";
    inputs.push_back(prose);  // far longer than the 4096-byte dictionary
    std::string window;       // repeats exactly at the dictionary distance, then just beyond it
    for (int i = 0; window.size() < 3 * 4096; ++i) window += static_cast<char>('A' + (i * 31 + i / 97) % 26);
    inputs.push_back(window.substr(0, 4096) + window.substr(0, 4096) + window.substr(0, 4100));
    std::mt19937 rng(12345);
    std::string random(10000, '\0');
    for (char& c : random) c = static_cast<char>(rng() & 0xFF);
    inputs.push_back(random);
    std::string all;
    for (int i = 0; i < 256 * 3; ++i) all += static_cast<char>(i & 0xFF);
    inputs.push_back(all);
    return inputs;
}

TEST(CompressedRtfRoundTrip, BothModesReproduceTheInputExactly) {
    for (const std::string& input : RoundTripInputs()) {
        for (const bool compressed : {true, false}) {
            SCOPED_TRACE(std::to_string(input.size()) + (compressed ? " bytes, LZFu" : " bytes, MELA"));
            const Bytes stream = CompressRtf(input, compressed);
            ASSERT_GE(stream.size(), 16U);
            EXPECT_EQ(U32At(stream, 0) + 4U, stream.size());
            EXPECT_EQ(U32At(stream, 4), input.size());
            EXPECT_EQ(U32At(stream, 8), compressed ? 0x75465A4CU : 0x414C454DU);
            EXPECT_EQ(U32At(stream, 12), compressed ? RtfCrc32(std::span(stream).subspan(16)) : 0U);
            const Decoded d = Decode(stream);
            EXPECT_EQ(d.status, RtfCodecStatus::Ok) << RtfCodecStatusName(d.status);
            EXPECT_TRUE(d.rtf == input);
        }
    }
}

// ---------------------------------------------------------------------------------------------- damage

TEST(CompressedRtfDamage, EveryTruncationFailsWithoutGrowingPastRawSize) {
    std::string text;
    for (int i = 0; i < 300; ++i) text += "{\\b bold " + std::to_string(i) + "}\\par ";
    for (const bool compressed : {true, false}) {
        const Bytes stream = CompressRtf(text, compressed);
        for (std::size_t len = 0; len < stream.size(); ++len) {
            const Decoded d = Decode(std::span(stream).first(len));
            ASSERT_NE(d.status, RtfCodecStatus::Ok) << len;
            ASSERT_LE(d.rtf.size(), text.size()) << len;
            if (len < 16 || !compressed) {
                ASSERT_EQ(d.status, RtfCodecStatus::Truncated) << len;
            } else {  // the CRC over the bytes present cannot match
                ASSERT_EQ(d.status, RtfCodecStatus::BadCrc) << len;
            }
        }
    }
}

TEST(CompressedRtfDamage, BodyCutWithConsistentHeaderIsTruncated) {
    const std::string text = "{\\rtf1\\ansi some text, some text, some more text}";
    const Bytes stream = CompressRtf(text, true);
    const Bytes body(stream.begin() + 16, stream.end());
    for (std::size_t len = 0; len < body.size(); ++len) {
        const Decoded d = Decode(LzfuStream(Bytes(body.begin(), body.begin() + len), U32At(stream, 4)));
        EXPECT_EQ(d.status, RtfCodecStatus::Truncated) << len;
        EXPECT_EQ(text.compare(0, d.rtf.size(), d.rtf), 0) << "decoded prefix must be a prefix of the input";
    }
}

TEST(CompressedRtfDamage, RawSizeDisagreeingWithTheDataIsBadSize) {
    const std::string text = "{\\rtf1 exactly forty-four bytes of RTF text}";
    Bytes stream = CompressRtf(text, true);
    SetU32At(stream, 4, static_cast<std::uint32_t>(text.size() - 1));  // the CRC does not cover the header
    Decoded d = Decode(stream);
    EXPECT_EQ(d.status, RtfCodecStatus::BadSize);
    EXPECT_EQ(d.rtf, text.substr(0, text.size() - 1));

    SetU32At(stream, 4, static_cast<std::uint32_t>(text.size() + 1));
    EXPECT_EQ(Decode(stream).status, RtfCodecStatus::BadSize);

    SetU32At(stream, 4, 0xFFFFFFFFU);  // must not try to reserve 4 GiB
    d = Decode(stream);
    EXPECT_EQ(d.status, RtfCodecStatus::BadSize);
    EXPECT_EQ(d.rtf, text);
}

TEST(CompressedRtfDamage, HeaderSizeFieldsAreValidated) {
    Bytes mela = CompressRtf("{\\rtf1 plain}", false);
    Bytes withTail = mela;
    withTail.insert(withTail.end(), {'j', 'u', 'n', 'k'});  // bytes beyond CompSize + 4 are not ours
    EXPECT_EQ(Decode(withTail).rtf, "{\\rtf1 plain}");

    Bytes tooSmall = mela;
    SetU32At(tooSmall, 0, 11);  // cannot even cover the rest of the header
    EXPECT_EQ(Decode(tooSmall).status, RtfCodecStatus::BadSize);

    SetU32At(mela, 4, U32At(mela, 4) + 1);  // RawSize beyond the stored data
    EXPECT_EQ(Decode(mela).status, RtfCodecStatus::BadSize);
}

}  // namespace
