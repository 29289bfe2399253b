// The reference count of a COM object of ours that answers several interfaces (a form, a message site, a
// browser's host): one count for all of them, one reference (its maker's) at the start, and the object
// deleted with the last. A class answers AddRef and Release of its interfaces with AddReference and
// ReleaseReference; the count is thread-safe.
#pragma once

#include <atomic>

namespace velmar {

class CRefCounted {
public:
    CRefCounted(const CRefCounted&) = delete;
    CRefCounted& operator=(const CRefCounted&) = delete;

protected:
    CRefCounted() = default;
    virtual ~CRefCounted() = default;

    unsigned long AddReference() { return ++m_references; }
    unsigned long ReleaseReference() {
        const unsigned long left = --m_references;
        if (left == 0) delete this;
        return left;
    }

private:
    std::atomic<unsigned long> m_references{1};
};

}  // namespace velmar
