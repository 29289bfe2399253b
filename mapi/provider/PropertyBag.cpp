#include "mapi/provider/PropertyBag.h"

#include <algorithm>
#include <cstring>

#include "mapi/runtime/Streams.h"

namespace velmar::mapi {
namespace {

// The bytes a property reads as in a stream: wide text as wchar_t units, as the provider's message streams
// give it; 8-bit text and binaries as they are.
std::vector<BYTE> StreamBytes(const CPropValue& value) {
    if (const auto* wide = std::get_if<std::wstring>(&value.data)) {
        const auto* begin = reinterpret_cast<const BYTE*>(wide->data());
        return std::vector<BYTE>(begin, begin + wide->size() * sizeof(wchar_t));
    }
    if (const auto* narrow = std::get_if<std::string>(&value.data)) return {narrow->begin(), narrow->end()};
    return BytesOf(&value);
}

CPropValue ValueOfStream(ULONG tag, const std::vector<BYTE>& bytes) {
    switch (PROP_TYPE(tag)) {
        case PT_UNICODE: {
            std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
            if (!text.empty()) std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
            return {tag, text.substr(0, text.find(L'\0'))};
        }
        case PT_STRING8: {
            std::string text(bytes.begin(), bytes.end());
            return {tag, text.substr(0, text.find('\0'))};
        }
        default:
            return {tag, bytes};
    }
}

}  // namespace

void CPropertyBag::Forget(ULONG tag) {
    RemoveValue(m_values, tag);
    std::erase_if(m_streams,
                  [&](const CStreamProperty& stream) { return PROP_ID(stream.tag) == PROP_ID(tag); });
}

HRESULT CPropertyBag::Set(ULONG count, LPSPropValue values) {
    if (count > 0 && !values) return MAPI_E_INVALID_PARAMETER;
    for (ULONG i = 0; i < count; ++i)
        if (std::optional<CPropValue> value = FromMapi(values[i])) Set(std::move(*value));
    return S_OK;
}

void CPropertyBag::Set(CPropValue value) {
    Forget(value.ulPropTag);
    m_values.push_back(std::move(value));
}

void CPropertyBag::SetShared(ULONG tag, std::shared_ptr<std::vector<BYTE>> bytes) {
    Forget(tag);
    m_streams.push_back({tag, std::move(bytes)});
}

HRESULT CPropertyBag::Remove(LPSPropTagArray tags) {
    if (!tags) return MAPI_E_INVALID_PARAMETER;
    for (ULONG i = 0; i < tags->cValues; ++i) Forget(tags->aulPropTag[i]);
    return S_OK;
}

HRESULT CPropertyBag::OpenStream(ULONG tag, LPCIID iid, ULONG ulInterfaceOptions, ULONG flags,
                                 LPUNKNOWN* out) {
    if (!out || !iid) return MAPI_E_INVALID_PARAMETER;
    *out = nullptr;
    if (*iid != IID_IStream) return MAPI_E_INTERFACE_NOT_SUPPORTED;
    const ULONG type = PROP_TYPE(tag);
    if (type != PT_BINARY && type != PT_UNICODE && type != PT_STRING8) return MAPI_E_INVALID_PARAMETER;
    const auto stream = std::find_if(m_streams.begin(), m_streams.end(), [&](const CStreamProperty& s) {
        return PROP_ID(s.tag) == PROP_ID(tag);
    });
    const CPropValue* value = FindValue(m_values, tag);
    std::vector<BYTE> current;
    if (stream != m_streams.end())
        current = *stream->bytes;
    else if (value)
        current = StreamBytes(*value);
    const bool write =
        (flags & (MAPI_CREATE | MAPI_MODIFY)) || (ulInterfaceOptions & (STGM_WRITE | STGM_READWRITE));
    if (!write) {
        if (stream == m_streams.end() && !value) return MAPI_E_NOT_FOUND;
        *out = MakeReadStream(std::move(current)).Detach();
        return S_OK;
    }
    if (!(flags & MAPI_CREATE) && stream == m_streams.end() && !value) return MAPI_E_NOT_FOUND;
    auto bytes = std::make_shared<std::vector<BYTE>>();
    if (!(flags & MAPI_CREATE) && !(ulInterfaceOptions & STGM_CREATE)) *bytes = std::move(current);
    Forget(tag);
    m_streams.push_back({tag, bytes});
    *out = MakeObject<CMemoryStream>(std::move(bytes), STGM_READWRITE).Detach();
    return S_OK;
}

std::vector<CPropValue> CPropertyBag::Values(ULONG except) const {
    std::vector<CPropValue> values;
    for (const CPropValue& value : m_values)
        if (except == 0 || PROP_ID(value.ulPropTag) != PROP_ID(except)) values.push_back(value);
    for (const CStreamProperty& stream : m_streams)
        if (except == 0 || PROP_ID(stream.tag) != PROP_ID(except))
            values.push_back(ValueOfStream(stream.tag, *stream.bytes));
    return values;
}

std::shared_ptr<std::vector<BYTE>> CPropertyBag::SharedBytes(ULONG tag) const {
    for (const CStreamProperty& stream : m_streams)
        if (PROP_ID(stream.tag) == PROP_ID(tag)) return stream.bytes;
    if (const CPropValue* value = FindValue(m_values, tag))
        if (const auto* bytes = std::get_if<std::vector<BYTE>>(&value->data))
            return std::make_shared<std::vector<BYTE>>(*bytes);
    return nullptr;
}

}  // namespace velmar::mapi
