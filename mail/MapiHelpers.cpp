#include "mail/MapiHelpers.h"

#include <algorithm>

#include "mail/VelmarMapi.h"

namespace velmar::mail {

HRESULT GetOneProp(IMAPIProp* prop, ULONG ulPropTag, ULONG ulFlags, MapiBufferPtr<SPropValue>& value) {
    value.reset();
    if (!prop) return E_INVALIDARG;
    SizedSPropTagArray(1, tags) = {1, {ulPropTag}};
    ULONG count = 0;
    const HRESULT hr =
        prop->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), ulFlags, &count, OutPtr(value));
    if (FAILED(hr) || !FindProp(value.get(), count, ulPropTag)) value.reset();
    return hr;
}

HRESULT ReadStream(IStream* stream, std::string& bytes, size_t maxBytes) {
    bytes.clear();
    char buffer[64 * 1024];
    while (bytes.size() < maxBytes) {
        const ULONG want = static_cast<ULONG>(std::min(sizeof buffer, maxBytes - bytes.size()));
        ULONG got = 0;
        const HRESULT hr = stream->Read(buffer, want, &got);
        if (FAILED(hr)) return hr;
        if (got == 0) break;
        bytes.append(buffer, std::min(got, want));
    }
    return S_OK;
}

CTraceScope::CTraceScope(CVelmarMapi& mapi, std::wstring name, std::wstring_view startWords)
    : m_mapi(mapi), m_name(std::move(name)) {
    Step(startWords);
}

CTraceScope::~CTraceScope() {
    if (m_bEnd) m_mapi.AddTrace(m_name + L" end");
}

void CTraceScope::Step(std::wstring_view step) const {
    std::wstring line;
    line.reserve(m_name.size() + 1 + step.size());
    line.append(m_name).append(1, L' ').append(step);
    m_mapi.AddTrace(std::move(line));
}

}  // namespace velmar::mail
