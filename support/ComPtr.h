// An owning pointer to a COM or MAPI interface: one reference, released when the holder goes.
// Move-only, so a reference is never released twice or leaked by a copy.
#pragma once

#include <utility>

namespace velmar {

template <class T>
class CComPtr {
public:
    CComPtr() = default;
    // Takes over a reference the caller already holds.
    explicit CComPtr(T* adopted) : m_p(adopted) {}
    CComPtr(CComPtr&& other) noexcept : m_p(std::exchange(other.m_p, nullptr)) {}
    CComPtr& operator=(CComPtr&& other) noexcept {
        if (this != &other) Reset(std::exchange(other.m_p, nullptr));
        return *this;
    }
    CComPtr(const CComPtr&) = delete;
    CComPtr& operator=(const CComPtr&) = delete;
    ~CComPtr() { Reset(); }

    // A second holder with a reference of its own.
    static CComPtr AddRefed(T* p) {
        if (p) p->AddRef();
        return CComPtr(p);
    }

    T* get() const { return m_p; }
    T* operator->() const { return m_p; }
    explicit operator bool() const { return m_p != nullptr; }

    // Releases what is held and returns the slot for an out parameter.
    T** Put() {
        Reset();
        return &m_p;
    }
    // Hands the reference to the caller.
    T* Detach() { return std::exchange(m_p, nullptr); }
    void Reset(T* adopted = nullptr) {
        if (T* old = std::exchange(m_p, adopted)) old->Release();
    }

private:
    T* m_p = nullptr;
};

}  // namespace velmar
