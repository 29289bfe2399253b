// The IUnknown part of every object this MAPI hands out: a thread-safe reference count and an interface
// query over the object's single chain of interfaces (IMessage : IMAPIProp : IUnknown, ...).
#pragma once

#include <atomic>
#include <initializer_list>
#include <utility>

#include "mapidefs.h"
#include "support/ComPtr.h"

namespace velmar::mapi {

template <class Interface>
class CComObject : public Interface {
public:
    ULONG AddRef() override { return ++m_cRef; }
    ULONG Release() override {
        const ULONG remaining = --m_cRef;
        if (remaining == 0) delete this;
        return remaining;
    }
    HRESULT QueryInterface(REFIID riid, LPVOID* ppvObj) override {
        if (!ppvObj) return E_INVALIDARG;
        *ppvObj = nullptr;
        if (riid == IID_IUnknown || SupportsInterface(riid)) {
            AddRef();
            *ppvObj = static_cast<Interface*>(this);
            return S_OK;
        }
        return E_NOINTERFACE;
    }

protected:
    CComObject() = default;
    virtual ~CComObject() = default;
    // The identifiers of Interface and of each interface it derives from (IUnknown aside).
    virtual bool SupportsInterface(REFIID riid) const = 0;

private:
    std::atomic<ULONG> m_cRef{1};
};

// True when riid is one of ids.
inline bool IsOneOf(REFIID riid, std::initializer_list<IID> ids) {
    for (const IID& id : ids)
        if (riid == id) return true;
    return false;
}

// Creates an object with one reference, owned by the returned holder.
template <class T, class... Args>
CComPtr<T> MakeObject(Args&&... args) {
    return CComPtr<T>(new T(std::forward<Args>(args)...));
}

// Hands an object out through an out parameter: as it is when no interface was asked for, else through
// QueryInterface (E_NOINTERFACE when the object does not offer it).
template <class T>
HRESULT HandOut(CComPtr<T> object, LPCIID requested, LPUNKNOWN* out) {
    if (!requested) {
        *out = object.Detach();
        return S_OK;
    }
    return object->QueryInterface(*requested, reinterpret_cast<LPVOID*>(out));
}

}  // namespace velmar::mapi
