#include "mail/MapiHelpers.h"

#include <algorithm>

#include "mail/VelmarMapi.h"

namespace velmar::mail {

HRESULT ReadStream(IStream* stream, std::string& bytes, size_t maxBytes) {
    constexpr size_t kChunk = 256 * 1024;
    bytes.clear();
    while (bytes.size() < maxBytes) {
        const size_t want = std::min(kChunk, maxBytes - bytes.size());
        const size_t before = bytes.size();
        bytes.resize(before + want);
        ULONG got = 0;
        const HRESULT hr = stream->Read(bytes.data() + before, static_cast<ULONG>(want), &got);
        bytes.resize(before + (SUCCEEDED(hr) ? std::min<size_t>(got, want) : 0));
        if (FAILED(hr)) return hr;
        if (got == 0) break;
    }
    return S_OK;
}

CTraceScope::CTraceScope(CVelmarMapi& mapi, std::wstring name) : m_mapi(mapi), m_name(std::move(name)) {
    m_mapi.AddTrace(m_name + L" start");
}

CTraceScope::~CTraceScope() {
    if (m_bEnd) m_mapi.AddTrace(m_name + L" end");
}

void CTraceScope::Step(const std::wstring& step) const {
    m_mapi.AddTrace(m_name + L" " + step);
}

}  // namespace velmar::mail
