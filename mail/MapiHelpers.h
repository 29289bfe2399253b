// The small moves the mail layer makes on every MAPI object, written once: typed OpenEntry, OpenProperty
// and QueryInterface that hand back an owning pointer, an out parameter that fills a MAPI buffer holder,
// the search for a property in a row, a stream read to its end, and the trace of an operation's start and
// end.
#pragma once

#include <limits>
#include <memory>
#include <string>
#include <string_view>

#include "mail/ClientMapiHolders.h"

class CVelmarMapi;

namespace velmar::mail {

// The interface identifier of an interface type.
template <class T>
const IID& InterfaceIdOf();
template <>
inline const IID& InterfaceIdOf<IMsgStore>() {
    return IID_IMsgStore;
}
template <>
inline const IID& InterfaceIdOf<IMAPIFolder>() {
    return IID_IMAPIFolder;
}
template <>
inline const IID& InterfaceIdOf<IMessage>() {
    return IID_IMessage;
}
template <>
inline const IID& InterfaceIdOf<IAttach>() {
    return IID_IAttachment;
}
template <>
inline const IID& InterfaceIdOf<IStream>() {
    return IID_IStream;
}
template <>
inline const IID& InterfaceIdOf<IStorage>() {
    return IID_IStorage;
}

// The object as interface T, with a reference of its own; null when it does not offer T.
template <class T>
CComPtr<T> QueryInterfaceAs(IUnknown* object) {
    CComPtr<T> typed;
    if (object) object->QueryInterface(InterfaceIdOf<T>(), reinterpret_cast<LPVOID*>(typed.Put()));
    return typed;
}

// OpenEntry of a session, store or container, asking for no interface (the object's own, as MAPI hands
// it out), then for T. On success out holds the object; a failed open keeps its HRESULT, an object that
// is no T gives MAPI_E_INTERFACE_NOT_SUPPORTED.
template <class T, class Source>
[[nodiscard]] HRESULT OpenEntryAs(Source* source, ULONG cbEntryId, LPENTRYID lpEntryId, ULONG ulFlags,
                                  CComPtr<T>& out) {
    out.Reset();
    ULONG objectType = 0;
    CComPtr<IUnknown> opened;
    const HRESULT hr = source->OpenEntry(cbEntryId, lpEntryId, nullptr, ulFlags, &objectType, opened.Put());
    if (FAILED(hr)) return hr;
    out = QueryInterfaceAs<T>(opened.get());
    return out ? hr : MAPI_E_INTERFACE_NOT_SUPPORTED;
}

// IMAPIProp::OpenProperty for interface T (or for interfaceId, which must be one T stands for, such as
// IID_IStreamDocfile for a stream). On success out holds the object; a success without one is
// MAPI_E_NOT_FOUND.
template <class T>
[[nodiscard]] HRESULT OpenPropertyAs(IMAPIProp* prop, ULONG ulPropTag, ULONG ulInterfaceOptions,
                                     ULONG ulFlags, CComPtr<T>& out,
                                     const IID& interfaceId = InterfaceIdOf<T>()) {
    out.Reset();
    LPUNKNOWN opened = nullptr;
    const HRESULT hr = prop->OpenProperty(ulPropTag, &interfaceId, ulInterfaceOptions, ulFlags, &opened);
    // OpenProperty hands out exactly the interface asked for.
    out.Reset(static_cast<T*>(opened));
    if (FAILED(hr)) {
        out.Reset();
        return hr;
    }
    return out ? hr : MAPI_E_NOT_FOUND;
}

// An out parameter for a MAPI call that fills a holder (a buffer or a row set): the holder takes what
// the call wrote when the full expression ends, whatever the call returned. So look at the holder only
// in a later statement:
//   const HRESULT hr = lpMessage->GetProps(tags, MAPI_UNICODE, &count, OutPtr(values));
//   if (SUCCEEDED(hr) && values) ...
template <class Holder>
class COutPtr {
public:
    using Pointer = typename Holder::pointer;
    explicit COutPtr(Holder& holder) : m_holder(holder) {}
    ~COutPtr() { m_holder.reset(m_raw); }
    COutPtr(const COutPtr&) = delete;
    COutPtr& operator=(const COutPtr&) = delete;
    operator Pointer*() { return &m_raw; }

private:
    Holder& m_holder;
    Pointer m_raw = nullptr;
};
template <class Holder>
COutPtr<Holder> OutPtr(Holder& holder) {
    return COutPtr<Holder>(holder);
}

// The first value of ulPropTag among count values (a row, or what GetProps returned); null when there is
// none. A value that came back as an error carries another tag and is not found.
inline const SPropValue* FindProp(const SPropValue* values, ULONG count, ULONG ulPropTag) {
    for (ULONG i = 0; values && i < count; ++i)
        if (values[i].ulPropTag == ulPropTag) return &values[i];
    return nullptr;
}
inline const SPropValue* FindProp(const SRow& row, ULONG ulPropTag) {
    return FindProp(row.lpProps, row.cValues, ulPropTag);
}
// The text of a PT_UNICODE value of that tag, empty when there is none.
inline std::wstring FindText(const SPropValue* values, ULONG count, ULONG ulPropTag) {
    const SPropValue* value = FindProp(values, count, ulPropTag);
    return value && value->Value.lpszW ? std::wstring(value->Value.lpszW) : std::wstring();
}
inline std::wstring FindText(const SRow& row, ULONG ulPropTag) {
    return FindText(row.lpProps, row.cValues, ulPropTag);
}

// GetProps of the one property ulPropTag (ulFlags as for GetProps): value holds it when it came back under
// that tag, and is null when it is missing, came back as an error value or the call failed. Returns what
// GetProps returned (MAPI_W_ERRORS_RETURNED too).
[[nodiscard]] HRESULT GetOneProp(IMAPIProp* prop, ULONG ulPropTag, ULONG ulFlags,
                                 MapiBufferPtr<SPropValue>& value);

// Reads stream from its position to its end, or until maxBytes are read, into bytes (replacing what was
// there). A failed Read ends the loop with its HRESULT; bytes then holds what came before it.
[[nodiscard]] HRESULT ReadStream(IStream* stream, std::string& bytes,
                                 size_t maxBytes = std::numeric_limits<size_t>::max());

// The trace of one operation: "<name> start" when made, "<name> <step>" for each Step, and "<name> end"
// when the scope is left, by whatever way.
class CTraceScope {
public:
    // startWords replace "start" for an operation whose first line says more.
    CTraceScope(CVelmarMapi& mapi, std::wstring name, std::wstring_view startWords = L"start");
    ~CTraceScope();
    CTraceScope(const CTraceScope&) = delete;
    CTraceScope& operator=(const CTraceScope&) = delete;

    void Step(std::wstring_view step) const;
    // For the exits after which the operation writes no end line: the caller says why where it calls it.
    void SkipEnd() { m_bEnd = false; }

private:
    CVelmarMapi& m_mapi;
    std::wstring m_name;
    bool m_bEnd = true;
};

}  // namespace velmar::mail
