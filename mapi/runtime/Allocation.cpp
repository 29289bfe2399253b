// MAPI buffers: a root block from MAPIAllocateBuffer owns every block MAPIAllocateMore links to it, and
// MAPIFreeBuffer on the root frees the whole chain at once.
#include <atomic>
#include <cstdlib>
#include <new>

#include "mapix.h"

namespace {

constexpr std::uint32_t kRootMagic = 0x564D5242;  // "VMRB"
constexpr std::uint32_t kMoreMagic = 0x564D4D42;  // "VMMB"

// Sits in front of every block; its size keeps the caller's memory 16-byte aligned.
struct alignas(16) CBlockHeader {
    std::uint32_t magic;
    CBlockHeader* root;                  // the root a More block belongs to; itself for a root
    std::atomic<CBlockHeader*> chained;  // root: first More block; More: the next one
};
static_assert(sizeof(CBlockHeader) % 16 == 0);

CBlockHeader* HeaderOf(LPVOID buffer) {
    return reinterpret_cast<CBlockHeader*>(static_cast<char*>(buffer) - sizeof(CBlockHeader));
}

LPVOID Allocate(ULONG cbSize, std::uint32_t magic, CBlockHeader* root) {
    void* memory = std::malloc(sizeof(CBlockHeader) + (cbSize ? cbSize : 1));
    if (!memory) return nullptr;
    auto* header = new (memory) CBlockHeader{magic, root, {nullptr}};
    if (!root) header->root = header;
    return static_cast<char*>(memory) + sizeof(CBlockHeader);
}

}  // namespace

STDAPI_(SCODE) MAPIAllocateBuffer(ULONG cbSize, LPVOID* lppBuffer) {
    if (!lppBuffer) return MAPI_E_INVALID_PARAMETER;
    *lppBuffer = Allocate(cbSize, kRootMagic, nullptr);
    return *lppBuffer ? S_OK : MAPI_E_NOT_ENOUGH_MEMORY;
}

STDAPI_(SCODE) MAPIAllocateMore(ULONG cbSize, LPVOID lpObject, LPVOID* lppBuffer) {
    if (!lppBuffer) return MAPI_E_INVALID_PARAMETER;
    *lppBuffer = nullptr;
    if (!lpObject) return MAPI_E_INVALID_PARAMETER;
    CBlockHeader* parent = HeaderOf(lpObject);
    if (parent->magic != kRootMagic && parent->magic != kMoreMagic) return MAPI_E_INVALID_PARAMETER;
    CBlockHeader* root = parent->root;
    LPVOID buffer = Allocate(cbSize, kMoreMagic, root);
    if (!buffer) return MAPI_E_NOT_ENOUGH_MEMORY;
    // Pushed onto the root's list without a lock: blocks of one root may be added from several threads.
    CBlockHeader* header = HeaderOf(buffer);
    CBlockHeader* head = root->chained.load(std::memory_order_relaxed);
    do {
        header->chained.store(head, std::memory_order_relaxed);
    } while (!root->chained.compare_exchange_weak(head, header, std::memory_order_release,
                                                  std::memory_order_relaxed));
    *lppBuffer = buffer;
    return S_OK;
}

STDAPI_(ULONG) MAPIFreeBuffer(LPVOID lpBuffer) {
    if (!lpBuffer) return S_OK;
    CBlockHeader* header = HeaderOf(lpBuffer);
    // A More block goes with its root; freeing it alone is a no-op, as MAPI allows.
    if (header->magic != kRootMagic) return S_OK;
    CBlockHeader* more = header->chained.load(std::memory_order_acquire);
    while (more) {
        CBlockHeader* next = more->chained.load(std::memory_order_relaxed);
        more->magic = 0;
        std::free(more);
        more = next;
    }
    header->magic = 0;
    std::free(header);
    return S_OK;
}
