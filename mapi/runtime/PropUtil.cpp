// MAPI's property and row utilities: finding, counting, copying and freeing property values and rows.
#include <cstring>
#include <cwchar>

#include "mapinls.h"
#include "mapiutil.h"

namespace {

constexpr size_t kAlignment = 8;
constexpr size_t Aligned(size_t size) {
    return (size + kAlignment - 1) & ~(kAlignment - 1);
}

// Hands out memory for the data a property value points to. Counting mode hands out nothing real:
// Data() is then never written through, and Total() says how much a copy needs.
class CDataAllocator {
public:
    virtual ~CDataAllocator() = default;
    virtual void* Allocate(size_t size) = 0;
    virtual bool Counting() const { return false; }
};

class CCountingAllocator : public CDataAllocator {
public:
    void* Allocate(size_t size) override {
        m_total += Aligned(size);
        return &m_total;  // any non-null pointer: counting never writes
    }
    bool Counting() const override { return true; }
    size_t Total() const { return m_total; }

private:
    size_t m_total = 0;
};

// Consecutive memory after a property array (ScCopyProps).
class CBumpAllocator : public CDataAllocator {
public:
    explicit CBumpAllocator(char* next) : m_next(next) {}
    void* Allocate(size_t size) override {
        void* block = m_next;
        m_next += Aligned(size);
        return block;
    }

private:
    char* m_next;
};

class CMoreAllocator : public CDataAllocator {
public:
    CMoreAllocator(ALLOCATEMORE* allocateMore, LPVOID parent)
        : m_allocateMore(allocateMore), m_parent(parent) {}
    void* Allocate(size_t size) override {
        LPVOID block = nullptr;
        if (size > 0xFFFFFFFFu ||
            FAILED(m_allocateMore(static_cast<ULONG>(size ? size : 1), m_parent, &block)))
            return nullptr;
        return block;
    }

private:
    ALLOCATEMORE* m_allocateMore;
    LPVOID m_parent;
};

// Copies bytes into newly allocated memory; returns the copy (null when out of memory).
void* CopyOut(CDataAllocator& allocator, const void* bytes, size_t size) {
    void* block = allocator.Allocate(size);
    if (block && !allocator.Counting() && size) std::memcpy(block, bytes, size);
    return block;
}

size_t ElementSize(ULONG mvType) {
    switch (mvType) {
        case PT_MV_I2:
            return sizeof(short);
        case PT_MV_LONG:
            return sizeof(LONG);
        case PT_MV_R4:
            return sizeof(float);
        case PT_MV_DOUBLE:
        case PT_MV_APPTIME:
            return sizeof(double);
        case PT_MV_CURRENCY:
            return sizeof(CURRENCY);
        case PT_MV_SYSTIME:
            return sizeof(FILETIME);
        case PT_MV_I8:
            return sizeof(LARGE_INTEGER);
        case PT_MV_CLSID:
            return sizeof(GUID);
        case PT_MV_BINARY:
            return sizeof(SBinary);
        case PT_MV_STRING8:
            return sizeof(LPSTR);
        case PT_MV_UNICODE:
            return sizeof(LPWSTR);
        default:
            return 0;
    }
}

// Copies what src points to, setting dst's pointers to the copies (dst is only written when copying).
SCODE CopyPropData(const SPropValue& src, SPropValue& dst, CDataAllocator& allocator) {
    const bool write = !allocator.Counting();
    if (write) dst = src;
    const ULONG type = PROP_TYPE(src.ulPropTag);
    switch (type) {
        case PT_STRING8: {
            void* copy = CopyOut(allocator, src.Value.lpszA, std::strlen(src.Value.lpszA) + 1);
            if (!copy) return MAPI_E_NOT_ENOUGH_MEMORY;
            if (write) dst.Value.lpszA = static_cast<LPSTR>(copy);
            return S_OK;
        }
        case PT_UNICODE: {
            void* copy =
                CopyOut(allocator, src.Value.lpszW, (std::wcslen(src.Value.lpszW) + 1) * sizeof(WCHAR));
            if (!copy) return MAPI_E_NOT_ENOUGH_MEMORY;
            if (write) dst.Value.lpszW = static_cast<LPWSTR>(copy);
            return S_OK;
        }
        case PT_BINARY: {
            void* copy = CopyOut(allocator, src.Value.bin.lpb, src.Value.bin.cb);
            if (!copy) return MAPI_E_NOT_ENOUGH_MEMORY;
            if (write) dst.Value.bin.lpb = static_cast<LPBYTE>(copy);
            return S_OK;
        }
        case PT_CLSID: {
            void* copy = CopyOut(allocator, src.Value.lpguid, sizeof(GUID));
            if (!copy) return MAPI_E_NOT_ENOUGH_MEMORY;
            if (write) dst.Value.lpguid = static_cast<LPGUID>(copy);
            return S_OK;
        }
        default:
            break;
    }
    const size_t elementSize = ElementSize(type);
    if (elementSize == 0) return S_OK;  // a value without pointers
    // Every multi-valued array starts with its count and its pointer, whatever the element type.
    const ULONG count = src.Value.MVl.cValues;
    void* array = CopyOut(allocator, src.Value.MVl.lpl, elementSize * count);
    if (!array) return MAPI_E_NOT_ENOUGH_MEMORY;
    if (write) dst.Value.MVl.lpl = static_cast<LONG*>(array);
    for (ULONG i = 0; i < count; ++i) {
        SPropValue element{};
        SPropValue copied{};
        element.ulPropTag = PROP_TAG(type & ~MV_FLAG, 0);
        if (type == PT_MV_STRING8)
            element.Value.lpszA = src.Value.MVszA.lppszA[i];
        else if (type == PT_MV_UNICODE)
            element.Value.lpszW = src.Value.MVszW.lppszW[i];
        else if (type == PT_MV_BINARY)
            element.Value.bin = src.Value.MVbin.lpbin[i];
        else
            break;  // fixed-size elements were copied with the array
        if (const SCODE sc = CopyPropData(element, copied, allocator); FAILED(sc)) return sc;
        if (!write) continue;
        if (type == PT_MV_STRING8) static_cast<LPSTR*>(array)[i] = copied.Value.lpszA;
        if (type == PT_MV_UNICODE) static_cast<LPWSTR*>(array)[i] = copied.Value.lpszW;
        if (type == PT_MV_BINARY) static_cast<SBinary*>(array)[i] = copied.Value.bin;
    }
    return S_OK;
}

}  // namespace

STDAPI_(LPSPropValue) PpropFindProp(LPSPropValue lpPropArray, ULONG cValues, ULONG ulPropTag) {
    if (!lpPropArray) return nullptr;
    for (ULONG i = 0; i < cValues; ++i) {
        const ULONG tag = lpPropArray[i].ulPropTag;
        if (PROP_ID(tag) != PROP_ID(ulPropTag)) continue;
        if (PROP_TYPE(ulPropTag) == PT_UNSPECIFIED || tag == ulPropTag) return &lpPropArray[i];
    }
    return nullptr;
}

STDAPI_(SCODE) ScCountProps(int cValues, LPSPropValue lpPropArray, ULONG* lpcb) {
    if (cValues < 0 || (cValues > 0 && !lpPropArray)) return MAPI_E_INVALID_PARAMETER;
    CCountingAllocator counter;
    counter.Allocate(sizeof(SPropValue) * static_cast<size_t>(cValues));
    for (int i = 0; i < cValues; ++i) {
        SPropValue unused;
        if (const SCODE sc = CopyPropData(lpPropArray[i], unused, counter); FAILED(sc)) return sc;
    }
    if (counter.Total() > 0xFFFFFFFFu) return MAPI_E_NOT_ENOUGH_MEMORY;
    if (lpcb) *lpcb = static_cast<ULONG>(counter.Total());
    return S_OK;
}

STDAPI_(SCODE) ScCopyProps(int cValues, LPSPropValue lpPropArray, LPVOID lpvDst, ULONG* lpcb) {
    if (cValues < 0 || !lpvDst || (cValues > 0 && !lpPropArray)) return MAPI_E_INVALID_PARAMETER;
    auto* target = static_cast<LPSPropValue>(lpvDst);
    CBumpAllocator allocator(static_cast<char*>(lpvDst) +
                             Aligned(sizeof(SPropValue) * static_cast<size_t>(cValues)));
    for (int i = 0; i < cValues; ++i)
        if (const SCODE sc = CopyPropData(lpPropArray[i], target[i], allocator); FAILED(sc)) return sc;
    if (lpcb) {
        char* end = static_cast<char*>(allocator.Allocate(0));
        *lpcb = static_cast<ULONG>(end - static_cast<char*>(lpvDst));
    }
    return S_OK;
}

STDAPI_(SCODE)
ScDupPropset(int cValues, LPSPropValue lpPropArray, LPALLOCATEBUFFER lpAllocateBuffer,
             LPSPropValue* lppPropArray) {
    if (!lpAllocateBuffer || !lppPropArray) return MAPI_E_INVALID_PARAMETER;
    *lppPropArray = nullptr;
    ULONG size = 0;
    if (const SCODE sc = ScCountProps(cValues, lpPropArray, &size); FAILED(sc)) return sc;
    LPVOID block = nullptr;
    if (const SCODE sc = lpAllocateBuffer(size, &block); FAILED(sc)) return sc;
    if (const SCODE sc = ScCopyProps(cValues, lpPropArray, block, nullptr); FAILED(sc)) return sc;
    *lppPropArray = static_cast<LPSPropValue>(block);
    return S_OK;
}

STDAPI_(SCODE)
PropCopyMore(LPSPropValue lpSPropValueDest, LPSPropValue lpSPropValueSrc, ALLOCATEMORE* lpfAllocMore,
             LPVOID lpvObject) {
    if (!lpSPropValueDest || !lpSPropValueSrc || !lpfAllocMore || !lpvObject) return MAPI_E_INVALID_PARAMETER;
    CMoreAllocator allocator(lpfAllocMore, lpvObject);
    return CopyPropData(*lpSPropValueSrc, *lpSPropValueDest, allocator);
}

STDAPI HrGetOneProp(LPMAPIPROP lpMapiProp, ULONG ulPropTag, LPSPropValue* lppProp) {
    if (!lpMapiProp || !lppProp) return MAPI_E_INVALID_PARAMETER;
    *lppProp = nullptr;
    SizedSPropTagArray(1, tags) = {1, {ulPropTag}};
    ULONG count = 0;
    LPSPropValue values = nullptr;
    const ULONG flags = PROP_TYPE(ulPropTag) == PT_UNICODE ? MAPI_UNICODE : 0;
    HRESULT hr = lpMapiProp->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), flags, &count, &values);
    if (FAILED(hr)) return hr;
    if (!values || count != 1) {
        MAPIFreeBuffer(values);
        return MAPI_E_NOT_FOUND;
    }
    if (PROP_TYPE(values->ulPropTag) == PT_ERROR) {
        hr = values->Value.err;
        MAPIFreeBuffer(values);
        return hr;
    }
    *lppProp = values;
    return S_OK;
}

STDAPI HrSetOneProp(LPMAPIPROP lpMapiProp, LPSPropValue lpProp) {
    if (!lpMapiProp || !lpProp) return MAPI_E_INVALID_PARAMETER;
    LPSPropProblemArray problems = nullptr;
    HRESULT hr = lpMapiProp->SetProps(1, lpProp, &problems);
    if (SUCCEEDED(hr) && problems && problems->cProblem > 0) hr = problems->aProblem[0].scode;
    MAPIFreeBuffer(problems);
    return hr;
}

STDAPI_(void) FreeProws(LPSRowSet lpRows) {
    if (!lpRows) return;
    for (ULONG i = 0; i < lpRows->cRows; ++i) MAPIFreeBuffer(lpRows->aRow[i].lpProps);
    MAPIFreeBuffer(lpRows);
}

STDAPI_(void) FreePadrlist(LPADRLIST lpAdrlist) {
    if (!lpAdrlist) return;
    for (ULONG i = 0; i < lpAdrlist->cEntries; ++i) MAPIFreeBuffer(lpAdrlist->aEntries[i].rgPropVals);
    MAPIFreeBuffer(lpAdrlist);
}

STDAPI HrQueryAllRows(LPMAPITABLE lpTable, LPSPropTagArray lpPropTags, LPSRestriction lpRestriction,
                      LPSSortOrderSet lpSortOrderSet, LONG crowsMax, LPSRowSet* lppRows) {
    if (!lpTable || !lppRows) return MAPI_E_INVALID_PARAMETER;
    *lppRows = nullptr;
    HRESULT hr = S_OK;
    if (lpPropTags && FAILED(hr = lpTable->SetColumns(lpPropTags, TBL_BATCH))) return hr;
    if (lpRestriction && FAILED(hr = lpTable->Restrict(lpRestriction, TBL_BATCH))) return hr;
    if (lpSortOrderSet && FAILED(hr = lpTable->SortTable(lpSortOrderSet, TBL_BATCH))) return hr;
    if (FAILED(hr = lpTable->SeekRow(BOOKMARK_BEGINNING, 0, nullptr))) return hr;
    ULONG count = 0;
    if (FAILED(hr = lpTable->GetRowCount(0, &count))) return hr;
    if (crowsMax > 0 && count > static_cast<ULONG>(crowsMax)) return MAPI_E_TABLE_TOO_BIG;
    // QueryRows takes a signed count; a table never holds more rows than that.
    const LONG wanted = count > 0x7FFFFFFFu ? 0x7FFFFFFF : static_cast<LONG>(count);
    return lpTable->QueryRows(wanted, 0, lppRows);
}

STDAPI_(int) MNLS_lstrlenW(LPCWSTR lpString) {
    return lpString ? static_cast<int>(std::wcslen(lpString)) : 0;
}
