// IStream objects of this MAPI: over bytes in memory (property streams) and over files.
#pragma once

#include <memory>
#include <vector>

#include "mapi/runtime/ComObject.h"

namespace velmar::mapi {

// A stream over bytes in memory. Clones share the bytes and keep a position of their own. Write fails
// with STG_E_ACCESSDENIED unless mode allows writing (STGM_WRITE or STGM_READWRITE).
class CMemoryStream : public CComObject<IStream> {
public:
    CMemoryStream(std::shared_ptr<std::vector<BYTE>> bytes, DWORD mode)
        : m_bytes(std::move(bytes)), m_mode(mode) {}

    HRESULT Read(void* pv, ULONG cb, ULONG* pcbRead) override;
    HRESULT Write(const void* pv, ULONG cb, ULONG* pcbWritten) override;
    HRESULT Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) override;
    HRESULT SetSize(ULARGE_INTEGER libNewSize) override;
    HRESULT CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                   ULARGE_INTEGER* pcbWritten) override;
    HRESULT Commit(DWORD grfCommitFlags) override;
    HRESULT Revert() override { return S_OK; }
    HRESULT LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return STG_E_INVALIDFUNCTION; }
    HRESULT UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return STG_E_INVALIDFUNCTION; }
    HRESULT Stat(STATSTG* pstatstg, DWORD grfStatFlag) override;
    HRESULT Clone(IStream** ppstm) override;

    const std::shared_ptr<std::vector<BYTE>>& Bytes() const { return m_bytes; }

protected:
    bool SupportsInterface(REFIID riid) const override { return riid == IID_IStream; }

private:
    std::shared_ptr<std::vector<BYTE>> m_bytes;
    DWORD m_mode;
    size_t m_position = 0;
};

// A read-only stream over a copy of bytes.
CComPtr<IStream> MakeReadStream(std::vector<BYTE> bytes);

// Copies up to cb bytes from source's position into target in chunks; the shared body of CopyTo.
HRESULT CopyStream(IStream* source, IStream* target, ULONGLONG cb, ULARGE_INTEGER* pcbRead,
                   ULARGE_INTEGER* pcbWritten);

}  // namespace velmar::mapi
