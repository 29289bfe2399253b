#include "mapi/runtime/Streams.h"
#include "mapi/runtime/Guarded.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace velmar::mapi {

HRESULT CMemoryStream::Read(void* pv, ULONG cb, ULONG* pcbRead) {
    if (!pv && cb) return STG_E_INVALIDPOINTER;
    const size_t available = m_position < m_bytes->size() ? m_bytes->size() - m_position : 0;
    const size_t count = std::min<size_t>(cb, available);
    if (count) std::memcpy(pv, m_bytes->data() + m_position, count);
    m_position += count;
    if (pcbRead) *pcbRead = static_cast<ULONG>(count);
    return S_OK;
}

HRESULT CMemoryStream::Write(const void* pv, ULONG cb, ULONG* pcbWritten) {
    if (pcbWritten) *pcbWritten = 0;
    if ((m_mode & (STGM_WRITE | STGM_READWRITE)) == 0) return STG_E_ACCESSDENIED;
    if (!pv && cb) return STG_E_INVALIDPOINTER;
    try {
        if (m_position + cb > m_bytes->size()) m_bytes->resize(m_position + cb);
    } catch (const std::bad_alloc&) {
        return STG_E_MEDIUMFULL;
    }
    if (cb) std::memcpy(m_bytes->data() + m_position, pv, cb);
    m_position += cb;
    if (pcbWritten) *pcbWritten = cb;
    return S_OK;
}

HRESULT CMemoryStream::Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) {
    std::int64_t base = 0;
    switch (dwOrigin) {
        case STREAM_SEEK_SET:
            base = 0;
            break;
        case STREAM_SEEK_CUR:
            base = static_cast<std::int64_t>(m_position);
            break;
        case STREAM_SEEK_END:
            base = static_cast<std::int64_t>(m_bytes->size());
            break;
        default:
            return STG_E_INVALIDFUNCTION;
    }
    if (dlibMove.QuadPart < -base) return STG_E_INVALIDFUNCTION;
    m_position = static_cast<size_t>(base + dlibMove.QuadPart);
    if (plibNewPosition) plibNewPosition->QuadPart = m_position;
    return S_OK;
}

HRESULT CMemoryStream::SetSize(ULARGE_INTEGER libNewSize) {
    if ((m_mode & (STGM_WRITE | STGM_READWRITE)) == 0) return STG_E_ACCESSDENIED;
    if (libNewSize.QuadPart > std::numeric_limits<std::uint32_t>::max()) return STG_E_MEDIUMFULL;
    try {
        m_bytes->resize(static_cast<size_t>(libNewSize.QuadPart));
    } catch (const std::bad_alloc&) {
        return STG_E_MEDIUMFULL;
    }
    return S_OK;
}

HRESULT CMemoryStream::CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                              ULARGE_INTEGER* pcbWritten) {
    return CopyStream(this, pstm, cb.QuadPart, pcbRead, pcbWritten);
}

HRESULT CMemoryStream::Commit(DWORD) {
    return S_OK;
}

HRESULT CMemoryStream::Stat(STATSTG* pstatstg, DWORD) {
    if (!pstatstg) return STG_E_INVALIDPOINTER;
    *pstatstg = STATSTG{};
    // No name is handed out (STATFLAG_NONAME or not): callers of property streams never ask for one.
    pstatstg->type = STGTY_STREAM;
    pstatstg->cbSize.QuadPart = m_bytes->size();
    pstatstg->grfMode = m_mode;
    return S_OK;
}

HRESULT CMemoryStream::Clone(IStream** ppstm) {
    if (!ppstm) return STG_E_INVALIDPOINTER;
    *ppstm = nullptr;
    return Guarded([&] {
        CComPtr<CMemoryStream> clone = MakeObject<CMemoryStream>(m_bytes, m_mode);
        clone->m_position = m_position;
        *ppstm = clone.Detach();
        return S_OK;
    });
}

CComPtr<IStream> MakeReadStream(std::vector<BYTE> bytes) {
    return CComPtr<IStream>(
        MakeObject<CMemoryStream>(std::make_shared<std::vector<BYTE>>(std::move(bytes)), STGM_READ).Detach());
}

HRESULT CopyStream(IStream* source, IStream* target, ULONGLONG cb, ULARGE_INTEGER* pcbRead,
                   ULARGE_INTEGER* pcbWritten) {
    if (!target) return STG_E_INVALIDPOINTER;
    std::vector<BYTE> chunk(64 * 1024);
    ULONGLONG totalRead = 0;
    ULONGLONG totalWritten = 0;
    HRESULT hr = S_OK;
    while (totalRead < cb) {
        const ULONG wanted = static_cast<ULONG>(std::min<ULONGLONG>(chunk.size(), cb - totalRead));
        ULONG got = 0;
        if (FAILED(hr = source->Read(chunk.data(), wanted, &got)) || got == 0) break;
        totalRead += got;
        ULONG written = 0;
        hr = target->Write(chunk.data(), got, &written);
        totalWritten += written;
        if (FAILED(hr)) break;
    }
    if (pcbRead) pcbRead->QuadPart = totalRead;
    if (pcbWritten) pcbWritten->QuadPart = totalWritten;
    return FAILED(hr) ? hr : S_OK;
}

}  // namespace velmar::mapi
