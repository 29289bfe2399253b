// WrapCompressedRTFStream(Ex): PR_RTF_COMPRESSED read as plain RTF (or, with MAPI_NATIVE_BODY, as the HTML
// or text the RTF encapsulates), and plain RTF written back compressed when the wrapper is committed.
#include <new>
#include <span>

#include "mapi/rtf/CompressedRtf.h"
#include "mapi/rtf/RtfDeencapsulate.h"
#include "mapi/runtime/Guarded.h"
#include "mapi/runtime/Streams.h"
#include "mapiutil.h"

namespace velmar::mapi {
namespace {

// Takes plain RTF; Commit compresses it into the wrapped stream, replacing what was there.
class CCompressingStream : public CMemoryStream {
public:
    CCompressingStream(CComPtr<IStream> target, bool compress)
        : CMemoryStream(std::make_shared<std::vector<BYTE>>(), STGM_READWRITE),
          m_target(std::move(target)),
          m_bCompress(compress) {}

    HRESULT Commit(DWORD grfCommitFlags) override {
        const std::vector<BYTE>& rtf = *Bytes();
        const std::vector<std::uint8_t> packed =
            CompressRtf(std::string_view(reinterpret_cast<const char*>(rtf.data()), rtf.size()), m_bCompress);
        if (packed.empty()) return MAPI_E_NOT_ENOUGH_MEMORY;
        HRESULT hr = S_OK;
        if (FAILED(hr = m_target->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr))) return hr;
        if (FAILED(hr = m_target->SetSize(ULARGE_INTEGER{}))) return hr;
        ULONG written = 0;
        if (FAILED(hr = m_target->Write(packed.data(), static_cast<ULONG>(packed.size()), &written)))
            return hr;
        return m_target->Commit(grfCommitFlags);
    }

private:
    CComPtr<IStream> m_target;
    bool m_bCompress;
};

HRESULT ReadAll(IStream* stream, std::vector<BYTE>& bytes) {
    STATSTG stat{};
    HRESULT hr = stream->Stat(&stat, STATFLAG_NONAME);
    if (FAILED(hr)) return hr;
    if (stat.cbSize.QuadPart > 0x7FFFFFFF) return MAPI_E_TOO_BIG;
    if (FAILED(hr = stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr))) return hr;
    bytes.resize(static_cast<size_t>(stat.cbSize.QuadPart));
    ULONG got = 0;
    if (FAILED(hr = stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &got))) return hr;
    bytes.resize(got);
    return S_OK;
}

HRESULT Wrap(LPSTREAM compressed, ULONG flags, bool nativeBody, LPSTREAM* wrapped, ULONG* bodyType) {
    if (!compressed || !wrapped) return MAPI_E_INVALID_PARAMETER;
    *wrapped = nullptr;
    if (flags & MAPI_MODIFY) {
        CComPtr<IStream> target = CComPtr<IStream>::AddRefed(compressed);
        *wrapped =
            MakeObject<CCompressingStream>(std::move(target), !(flags & STORE_UNCOMPRESSED_RTF)).Detach();
        return S_OK;
    }
    std::vector<BYTE> packed;
    if (const HRESULT hr = ReadAll(compressed, packed); FAILED(hr)) return hr;
    std::string rtf;
    if (!packed.empty() && DecompressRtf(std::span<const std::uint8_t>(packed), rtf) != RtfCodecStatus::Ok)
        return MAPI_E_CORRUPT_DATA;
    ULONG type = MAPI_NATIVE_BODY_TYPE_RTF;
    if (nativeBody) {
        const RtfNativeBody native = DetectNativeBody(rtf);
        std::string text;
        if (native != RtfNativeBody::Rtf && DeencapsulateRtf(rtf, native, text)) {
            rtf = std::move(text);
            type =
                native == RtfNativeBody::Html ? MAPI_NATIVE_BODY_TYPE_HTML : MAPI_NATIVE_BODY_TYPE_PLAINTEXT;
        }
    }
    if (bodyType) *bodyType = type;
    *wrapped = MakeReadStream(std::vector<BYTE>(rtf.begin(), rtf.end())).Detach();
    return S_OK;
}

}  // namespace
}  // namespace velmar::mapi

STDAPI WrapCompressedRTFStream(LPSTREAM lpCompressedRTFStream, ULONG ulFlags,
                               LPSTREAM* lpUncompressedRTFStream) {
    return velmar::mapi::Guarded([&]() -> HRESULT {
        return velmar::mapi::Wrap(lpCompressedRTFStream, ulFlags, false, lpUncompressedRTFStream, nullptr);
    });
}

// The de-encapsulated HTML or text comes out in UTF-8, the code page of the system, whatever output code
// page is asked for.
STDAPI WrapCompressedRTFStreamEx(LPSTREAM lpCompressedRTFStream, const RTF_WCSINFO* pWCSInfo,
                                 LPSTREAM* lppUncompressedRTFStream, RTF_WCSRETINFO* pRetInfo) {
    if (!pWCSInfo || pWCSInfo->size < sizeof(RTF_WCSINFO)) return MAPI_E_INVALID_PARAMETER;
    if (pRetInfo && pRetInfo->size < sizeof(RTF_WCSRETINFO)) return MAPI_E_INVALID_PARAMETER;
    return velmar::mapi::Guarded([&]() -> HRESULT {
        ULONG type = MAPI_NATIVE_BODY_TYPE_RTF;
        const HRESULT hr =
            velmar::mapi::Wrap(lpCompressedRTFStream, pWCSInfo->ulFlags & ~MAPI_NATIVE_BODY,
                               (pWCSInfo->ulFlags & MAPI_NATIVE_BODY) != 0, lppUncompressedRTFStream, &type);
        if (SUCCEEDED(hr) && pRetInfo) pRetInfo->ulStreamFlags = type;
        return hr;
    });
}
