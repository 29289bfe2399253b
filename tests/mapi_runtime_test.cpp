// The runtime entry points of our MAPI, called as a client calls them: buffers, property utilities,
// streams on files and the compressed-RTF wrappers.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "harness/TestFiles.h"
#include "imessage.h"
#include "mapiform.h"
#include "mapinls.h"
#include "mapiutil.h"
#include "tests/MapiTestSupport.h"

namespace {

using velmar::CComPtr;
using velmar::test::ReadStream;
namespace fs = std::filesystem;

const fs::path kCorpora = VELMAR_CORPORA_DIR;

std::string FileText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

CComPtr<IStream> OpenFile(const fs::path& path, ULONG mode, HRESULT expected = S_OK) {
    CComPtr<IStream> stream;
    EXPECT_EQ(OpenStreamOnFileW(MAPIAllocateBuffer, MAPIFreeBuffer, mode, path.wstring().c_str(), nullptr,
                                stream.Put()),
              expected)
        << path;
    return stream;
}

TEST(MapiBuffers, ChainedBlocksGoWithTheirRoot) {
    LPVOID root = nullptr;
    ASSERT_EQ(MAPIAllocateBuffer(64, &root), S_OK);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(root) % 16, 0u);
    LPVOID parent = root;
    for (int i = 0; i < 1000; ++i) {
        LPVOID more = nullptr;
        // Chaining to a chained block links to the same root.
        ASSERT_EQ(MAPIAllocateMore(static_cast<ULONG>(i % 7 + 1), parent, &more), S_OK);
        std::memset(more, 0xAB, static_cast<size_t>(i % 7 + 1));
        parent = more;
    }
    EXPECT_EQ(MAPIFreeBuffer(root), 0u);  // everything goes at once; the leak checker sees the rest
    EXPECT_EQ(MAPIFreeBuffer(nullptr), 0u);
    LPVOID orphan = nullptr;
    EXPECT_EQ(MAPIAllocateMore(8, nullptr, &orphan), MAPI_E_INVALID_PARAMETER);
    LPMALLOC malloc = MAPIGetDefaultMalloc();
    ASSERT_NE(malloc, nullptr);
    void* block = malloc->Alloc(32);
    ASSERT_NE(block, nullptr);
    malloc->Free(block);
    EXPECT_EQ(MNLS_lstrlenW(L"K\u00f6ln"), 4);
    EXPECT_EQ(MNLS_lstrlenW(nullptr), 0);
}

TEST(MapiProperties, DuplicateCopyAndFind) {
    BYTE bytes[] = {1, 2, 3, 0, 5};
    wchar_t subject[] = L"Gr\u00fc\u00dfe";
    LPWSTR names[] = {const_cast<LPWSTR>(L"eins"), const_cast<LPWSTR>(L"zwei")};
    SPropValue source[4]{};
    source[0].ulPropTag = PR_SUBJECT_W;
    source[0].Value.lpszW = subject;
    source[1].ulPropTag = PR_ENTRYID;
    source[1].Value.bin = {sizeof bytes, bytes};
    source[2].ulPropTag = PROP_TAG(PT_MV_UNICODE, 0x6000);
    source[2].Value.MVszW = {2, names};
    source[3].ulPropTag = PR_MESSAGE_FLAGS;
    source[3].Value.l = 9;

    ULONG size = 0;
    ASSERT_EQ(ScCountProps(4, source, &size), S_OK);
    EXPECT_GE(size, 4 * sizeof(SPropValue) + sizeof bytes + 2 * sizeof(LPWSTR));
    LPSPropValue copy = nullptr;
    ASSERT_EQ(ScDupPropset(4, source, MAPIAllocateBuffer, &copy), S_OK);
    subject[0] = L'X';  // the copy must not share the source's memory
    bytes[0] = 99;
    EXPECT_STREQ(copy[0].Value.lpszW, L"Gr\u00fc\u00dfe");
    EXPECT_EQ(copy[1].Value.bin.cb, sizeof bytes);
    EXPECT_EQ(copy[1].Value.bin.lpb[0], 1);
    EXPECT_STREQ(copy[2].Value.MVszW.lppszW[1], L"zwei");
    EXPECT_EQ(copy[3].Value.l, 9);
    // Every pointer of the copy lies inside its one block.
    const auto* begin = reinterpret_cast<const char*>(copy);
    for (const void* inside :
         {static_cast<const void*>(copy[0].Value.lpszW), static_cast<const void*>(copy[1].Value.bin.lpb),
          static_cast<const void*>(copy[2].Value.MVszW.lppszW[0])}) {
        EXPECT_GE(static_cast<const char*>(inside), begin);
        EXPECT_LT(static_cast<const char*>(inside), begin + size);
    }
    EXPECT_EQ(PpropFindProp(copy, 4, PROP_TAG(PT_UNSPECIFIED, PROP_ID(PR_ENTRYID))), &copy[1]);
    EXPECT_EQ(PpropFindProp(copy, 4, PR_SUBJECT_A), nullptr) << "a typed tag must match its type";

    SPropValue single{};
    ASSERT_EQ(PropCopyMore(&single, &copy[2], MAPIAllocateMore, copy), S_OK);
    EXPECT_STREQ(single.Value.MVszW.lppszW[0], L"eins");
    EXPECT_NE(single.Value.MVszW.lppszW[0], copy[2].Value.MVszW.lppszW[0]);
    MAPIFreeBuffer(copy);
}

class MapiFileStreams : public ::testing::Test {
protected:
    velmar::test::CTempDir m_dir;
};

TEST_F(MapiFileStreams, CreatingNeverFollowsASymbolicLink) {
    velmar::test::WriteFile(m_dir / "victim.txt", "keep me");
    ASSERT_EQ(symlink((m_dir / "victim.txt").c_str(), (m_dir / "trap.txt").c_str()), 0);
    CComPtr<IStream> stream;
    EXPECT_TRUE(FAILED(OpenStreamOnFileW(MAPIAllocateBuffer, MAPIFreeBuffer, STGM_CREATE | STGM_READWRITE,
                                         (m_dir / "trap.txt").wstring().c_str(), nullptr, stream.Put())));
    EXPECT_EQ(FileText(m_dir / "victim.txt"), "keep me");
}

TEST_F(MapiFileStreams, CompressedRtfReadWriteAndNativeBody) {
    if (!fs::is_directory(kCorpora)) GTEST_SKIP() << "no corpora";
    const fs::path vectors = kCorpora / "compressed_rtf/_vectors";
    CComPtr<IStream> compressed = OpenFile(vectors / "hello_world.compressed.bin", STGM_READ);
    CComPtr<IStream> plain;
    ASSERT_EQ(WrapCompressedRTFStream(compressed.get(), 0, plain.Put()), S_OK);
    EXPECT_EQ(ReadStream(plain.get()), FileText(vectors / "hello_world.expected.rtf"));
    CComPtr<IStream> bad = OpenFile(vectors / "bad_crc.invalid.bin", STGM_READ);
    CComPtr<IStream> refused;
    EXPECT_EQ(WrapCompressedRTFStream(bad.get(), 0, refused.Put()), MAPI_E_CORRUPT_DATA);

    // Writing through the wrapper compresses on Commit; reading it back with MAPI_NATIVE_BODY gives the
    // HTML the RTF encapsulates.
    const fs::path examples = kCorpora / "rtf-stream-parser/test/examples";
    const std::string rtf = FileText(examples / "encapsulated.rtf");
    {
        CComPtr<IStream> file = OpenFile(m_dir / "body.rtf.lzfu", STGM_CREATE | STGM_READWRITE);
        CComPtr<IStream> writer;
        ASSERT_EQ(WrapCompressedRTFStream(file.get(), MAPI_MODIFY, writer.Put()), S_OK);
        ULONG written = 0;
        ASSERT_EQ(writer->Write(rtf.data(), static_cast<ULONG>(rtf.size()), &written), S_OK);
        ASSERT_EQ(writer->Commit(STGC_DEFAULT), S_OK);
    }
    EXPECT_EQ(FileText(m_dir / "body.rtf.lzfu").substr(8, 4), "LZFu");
    CComPtr<IStream> stored = OpenFile(m_dir / "body.rtf.lzfu", STGM_READ);
    RTF_WCSINFO info{sizeof(RTF_WCSINFO), MAPI_NATIVE_BODY, 0, 0};
    RTF_WCSRETINFO result{sizeof(RTF_WCSRETINFO), 0};
    CComPtr<IStream> native;
    ASSERT_EQ(WrapCompressedRTFStreamEx(stored.get(), &info, native.Put(), &result), S_OK);
    EXPECT_EQ(result.ulStreamFlags, MAPI_NATIVE_BODY_TYPE_HTML);
    EXPECT_EQ(ReadStream(native.get()), FileText(examples / "encapsulated.html"));

    CComPtr<IStream> again = OpenFile(m_dir / "body.rtf.lzfu", STGM_READ);
    info.ulFlags = 0;
    CComPtr<IStream> asRtf;
    ASSERT_EQ(WrapCompressedRTFStreamEx(again.get(), &info, asRtf.Put(), &result), S_OK);
    EXPECT_EQ(ReadStream(asRtf.get()), rtf);
}

}  // namespace
