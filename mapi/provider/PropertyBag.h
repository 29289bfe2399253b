// The properties of an object being written: values set by SetProps, and properties written through
// streams (bodies, attachment data), whose bytes the stream and the object share, so what a stream writes is
// the property's value at once, committed or not.
#pragma once

#include <memory>
#include <vector>

#include "mapi/provider/DraftContent.h"

namespace velmar::mapi {

class CPropertyBag {
public:
    // SetProps: values of a type this MAPI does not keep (PT_ERROR among them) are skipped.
    HRESULT Set(ULONG count, LPSPropValue values);
    HRESULT Remove(LPSPropTagArray tags);
    void Set(CPropValue value);
    // A binary property whose bytes are shared with their owner (attachment data, not copied).
    void SetShared(ULONG tag, std::shared_ptr<std::vector<BYTE>> bytes);
    // OpenProperty as IID_IStream: for writing when the flags or the mode ask for it (MAPI_CREATE starts
    // it empty), else a read-only copy; MAPI_E_NOT_FOUND for a property that is not there to read.
    HRESULT OpenStream(ULONG tag, LPCIID iid, ULONG ulInterfaceOptions, ULONG flags, LPUNKNOWN* out);
    // Every value, stream properties as values; but the one of except (0: none), which can be large.
    std::vector<CPropValue> Values(ULONG except = 0) const;
    // The bytes of a binary property, shared where a stream wrote them; null when there is none.
    std::shared_ptr<std::vector<BYTE>> SharedBytes(ULONG tag) const;

private:
    struct CStreamProperty {
        ULONG tag;
        std::shared_ptr<std::vector<BYTE>> bytes;
    };
    void Forget(ULONG tag);

    std::vector<CPropValue> m_values;
    std::vector<CStreamProperty> m_streams;
};

}  // namespace velmar::mapi
