#include "mapi/runtime/Table.h"
#include "mapi/runtime/ProviderBuffers.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <numeric>

#include "mapi/runtime/Guarded.h"
#include "mapi/runtime/Restriction.h"
#include "mapiutil.h"

namespace velmar::mapi {
namespace {

constexpr ULONG kDirBackward = 0x00000001;  // FindRow's flag; our headers do not name it

template <class T>
HRESULT AllocateBuffer(size_t size, MapiBuffer<T>& out) {
    if (size > 0xFFFFFFFFu) return MAPI_E_NOT_ENOUGH_MEMORY;
    LPVOID block = nullptr;
    if (const SCODE sc = MAPIAllocateBuffer(static_cast<ULONG>(size), &block); FAILED(sc)) return sc;
    out.reset(static_cast<T*>(block));
    return S_OK;
}

// How two rows' values of one sort column order; a row without the value comes first in either direction.
std::weak_ordering CompareSortKeys(const CPropValue* left, const CPropValue* right, const SSortOrder& sort,
                                   CViewScratch& leftScratch, CViewScratch& rightScratch) {
    SPropValue leftView;
    SPropValue rightView;
    const bool hasLeft = left && ViewAs(*left, sort.ulPropTag, leftView, leftScratch);
    const bool hasRight = right && ViewAs(*right, sort.ulPropTag, rightView, rightScratch);
    if (!hasLeft || !hasRight) return hasLeft <=> hasRight;
    const std::weak_ordering order = CompareProps(leftView, rightView);
    return sort.ulOrder == TABLE_SORT_DESCEND ? 0 <=> order : order;
}

}  // namespace

CMapiTable::CMapiTable(std::shared_ptr<const ITableRows> rows)
    : m_rows(std::move(rows)), m_columns(m_rows->DefaultColumns()) {}

bool CMapiTable::SupportsInterface(REFIID riid) const {
    return IsOneOf(riid, {IID_IMAPITable});
}

size_t CMapiTable::ViewSize() const {
    return m_view ? m_view->size() : m_rows->RowCount();
}

size_t CMapiTable::SourceRow(size_t position) const {
    return m_view ? (*m_view)[position] : position;
}

std::optional<size_t> CMapiTable::Origin(BOOKMARK bookmark) const {
    switch (bookmark) {
        case BOOKMARK_BEGINNING:
            return 0;
        case BOOKMARK_CURRENT:
            return std::min(m_cursor, ViewSize());
        case BOOKMARK_END:
            return ViewSize();
        default:
            return std::nullopt;
    }
}

std::vector<size_t> CMapiTable::AllRows() const {
    std::vector<size_t> rows(m_rows->RowCount());
    std::iota(rows.begin(), rows.end(), size_t{0});
    return rows;
}

std::vector<size_t> CMapiTable::Matches(const SRestriction& restriction) const {
    if (restriction.rt == RES_PROPERTY && restriction.res.resProperty.relop == RELOP_EQ) {
        // An equality on an indexed property (a message id in a large folder) is answered without a scan.
        SPropValue wanted = *restriction.res.resProperty.lpProp;
        wanted.ulPropTag =
            CHANGE_PROP_TYPE(restriction.res.resProperty.ulPropTag, PROP_TYPE(wanted.ulPropTag));
        if (std::optional<std::vector<size_t>> indexed = m_rows->IndexedEqual(wanted))
            return std::move(*indexed);
    }
    std::vector<size_t> matches;
    for (size_t row = 0, count = m_rows->RowCount(); row < count; ++row)
        if (MatchesRestriction(restriction, *m_rows, row)) matches.push_back(row);
    return matches;
}

void CMapiTable::Sort(std::vector<size_t>& rows, const std::vector<SSortOrder>& order) const {
    std::ranges::sort(rows);  // so that rows with equal keys keep their source order
    if (order.empty()) return;
    // Each key is looked up once rather than at every comparison; a source that makes its values makes
    // them in slots, which live as long as the keys.
    const size_t width = order.size();
    std::vector<const CPropValue*> keys(rows.size() * width);
    std::vector<CPropValue> slots(rows.size() * width);
    for (size_t i = 0; i < rows.size(); ++i)
        for (size_t k = 0; k < width; ++k)
            keys[i * width + k] = m_rows->Find(rows[i], order[k].ulPropTag, slots[i * width + k]);
    std::vector<size_t> positions(rows.size());
    std::iota(positions.begin(), positions.end(), size_t{0});
    CViewScratch leftScratch;
    CViewScratch rightScratch;
    std::ranges::stable_sort(positions, [&](size_t left, size_t right) {
        for (size_t k = 0; k < width; ++k) {
            const std::weak_ordering byKey = CompareSortKeys(keys[left * width + k], keys[right * width + k],
                                                             order[k], leftScratch, rightScratch);
            if (byKey != 0) return byKey < 0;
        }
        return false;
    });
    std::vector<size_t> sorted(rows.size());
    for (size_t i = 0; i < positions.size(); ++i) sorted[i] = rows[positions[i]];
    rows = std::move(sorted);
}

HRESULT CMapiTable::CopyRow(size_t sourceRow, SRow& out) const {
    MapiBuffer<SPropValue> props;
    if (const HRESULT hr = AllocateBuffer(sizeof(SPropValue) * m_columns.size(), props); FAILED(hr))
        return hr;
    CPropValue slot{};
    for (size_t i = 0; i < m_columns.size(); ++i) {
        const ULONG tag = m_columns[i];
        const CPropValue* value = m_rows->Find(sourceRow, tag, slot);
        const HRESULT hr = value ? CopyToMapi(*value, tag, props.get()[i], props.get()) : MAPI_E_NOT_FOUND;
        if (hr == MAPI_E_NOT_ENOUGH_MEMORY) return hr;
        if (FAILED(hr)) props.get()[i] = ErrorValue(tag, hr);
    }
    out.ulAdrEntryPad = 0;
    out.cValues = static_cast<ULONG>(m_columns.size());
    out.lpProps = props.release();
    return S_OK;
}

HRESULT CMapiTable::GetLastError(HRESULT, ULONG, LPMAPIERROR* lppMAPIError) {
    if (lppMAPIError) *lppMAPIError = nullptr;
    return MAPI_E_NO_SUPPORT;
}

// A snapshot never changes, so there is nothing to notify.
HRESULT CMapiTable::Advise(ULONG, LPMAPIADVISESINK, ULONG*) {
    return MAPI_E_NO_SUPPORT;
}
HRESULT CMapiTable::Unadvise(ULONG) {
    return MAPI_E_NO_SUPPORT;
}

HRESULT CMapiTable::GetStatus(ULONG* lpulTableStatus, ULONG* lpulTableType) {
    if (!lpulTableStatus || !lpulTableType) return MAPI_E_INVALID_PARAMETER;
    *lpulTableStatus = TBLSTAT_COMPLETE;
    *lpulTableType = TBLTYPE_SNAPSHOT;
    return S_OK;
}

HRESULT CMapiTable::SetColumns(LPSPropTagArray lpPropTagArray, ULONG) {
    if (!lpPropTagArray || lpPropTagArray->cValues == 0) return MAPI_E_INVALID_PARAMETER;
    return Guarded([&]() -> HRESULT {
        m_columns.assign(lpPropTagArray->aulPropTag, lpPropTagArray->aulPropTag + lpPropTagArray->cValues);
        return S_OK;
    });
}

// TBL_ALL_COLUMNS gets the same answer: a row source does not list every property its rows might have.
HRESULT CMapiTable::QueryColumns(ULONG, LPSPropTagArray* lpPropTagArray) {
    if (!lpPropTagArray) return MAPI_E_INVALID_PARAMETER;
    *lpPropTagArray = nullptr;
    MapiBuffer<SPropTagArray> tags;
    if (const HRESULT hr = AllocateBuffer(CbNewSPropTagArray(m_columns.size()), tags); FAILED(hr)) return hr;
    tags->cValues = static_cast<ULONG>(m_columns.size());
    std::ranges::copy(m_columns, tags->aulPropTag);
    *lpPropTagArray = tags.release();
    return S_OK;
}

HRESULT CMapiTable::GetRowCount(ULONG, ULONG* lpulCount) {
    if (!lpulCount) return MAPI_E_INVALID_PARAMETER;
    *lpulCount = static_cast<ULONG>(std::min<size_t>(ViewSize(), 0xFFFFFFFFu));
    return S_OK;
}

HRESULT CMapiTable::SeekRow(BOOKMARK bkOrigin, LONG lRowCount, LONG* lplRowsSought) {
    const std::optional<size_t> origin = Origin(bkOrigin);
    if (!origin) return MAPI_E_INVALID_BOOKMARK;
    const auto start = static_cast<std::int64_t>(*origin);
    const std::int64_t target =
        std::clamp<std::int64_t>(start + lRowCount, 0, static_cast<std::int64_t>(ViewSize()));
    m_cursor = static_cast<size_t>(target);
    if (lplRowsSought) *lplRowsSought = static_cast<LONG>(target - start);
    return S_OK;
}

HRESULT CMapiTable::SeekRowApprox(ULONG ulNumerator, ULONG ulDenominator) {
    if (ulDenominator == 0) return MAPI_E_INVALID_PARAMETER;
    // A table counts its rows in a ULONG, so the product fits in 64 bits.
    const std::uint64_t count = std::min<size_t>(ViewSize(), 0xFFFFFFFFu);
    m_cursor = static_cast<size_t>(count * std::min(ulNumerator, ulDenominator) / ulDenominator);
    return S_OK;
}

HRESULT CMapiTable::QueryPosition(ULONG* lpulRow, ULONG* lpulNumerator, ULONG* lpulDenominator) {
    if (!lpulRow || !lpulNumerator || !lpulDenominator) return MAPI_E_INVALID_PARAMETER;
    const auto row = static_cast<ULONG>(std::min<size_t>(std::min(m_cursor, ViewSize()), 0xFFFFFFFFu));
    *lpulRow = row;
    *lpulNumerator = row;
    *lpulDenominator = static_cast<ULONG>(std::min<size_t>(ViewSize(), 0xFFFFFFFFu));
    return S_OK;
}

HRESULT CMapiTable::FindRow(LPSRestriction lpRestriction, BOOKMARK bkOrigin, ULONG ulFlags) {
    if (const HRESULT hr = ValidateRestriction(lpRestriction); FAILED(hr)) return hr;
    const std::optional<size_t> origin = Origin(bkOrigin);
    if (!origin) return MAPI_E_INVALID_BOOKMARK;
    if (ulFlags & kDirBackward) return MAPI_E_NO_SUPPORT;
    return Guarded([&]() -> HRESULT {
        for (size_t position = *origin, count = ViewSize(); position < count; ++position) {
            if (MatchesRestriction(*lpRestriction, *m_rows, SourceRow(position))) {
                m_cursor = position;
                return S_OK;
            }
        }
        return MAPI_E_NOT_FOUND;
    });
}

HRESULT CMapiTable::Restrict(LPSRestriction lpRestriction, ULONG) {
    if (lpRestriction) {
        if (const HRESULT hr = ValidateRestriction(lpRestriction); FAILED(hr)) return hr;
    }
    return Guarded([&]() -> HRESULT {
        // Always from the whole source: a new restriction replaces the old one rather than narrowing it.
        std::optional<std::vector<size_t>> view;
        if (lpRestriction) view = Matches(*lpRestriction);
        if (!m_sortOrder.empty()) {
            if (!view) view = AllRows();
            Sort(*view, m_sortOrder);
        }
        m_view = std::move(view);
        m_restricted = lpRestriction != nullptr;
        m_cursor = 0;
        return S_OK;
    });
}

HRESULT CMapiTable::CreateBookmark(BOOKMARK* lpbkPosition) {
    if (lpbkPosition) *lpbkPosition = BOOKMARK_BEGINNING;
    return MAPI_E_NO_SUPPORT;
}

HRESULT CMapiTable::FreeBookmark(BOOKMARK) {
    return MAPI_E_NO_SUPPORT;
}

HRESULT CMapiTable::SortTable(LPSSortOrderSet lpSortCriteria, ULONG) {
    if (!lpSortCriteria) return MAPI_E_INVALID_PARAMETER;
    if (lpSortCriteria->cCategories > 0) return MAPI_E_TOO_COMPLEX;
    for (ULONG i = 0; i < lpSortCriteria->cSorts; ++i) {
        const SSortOrder& sort = lpSortCriteria->aSort[i];
        if (sort.ulOrder != TABLE_SORT_ASCEND && sort.ulOrder != TABLE_SORT_DESCEND)
            return MAPI_E_TOO_COMPLEX;
        if (sort.ulPropTag & MV_FLAG) return MAPI_E_TOO_COMPLEX;  // sorting on each value is categorising
    }
    return Guarded([&]() -> HRESULT {
        std::vector<SSortOrder> order(lpSortCriteria->aSort, lpSortCriteria->aSort + lpSortCriteria->cSorts);
        std::optional<std::vector<size_t>> view;
        if (m_restricted || !order.empty()) {
            view = m_view ? *m_view : AllRows();
            Sort(*view, order);
        }
        m_view = std::move(view);
        m_sortOrder = std::move(order);
        m_cursor = 0;
        return S_OK;
    });
}

HRESULT CMapiTable::QuerySortOrder(LPSSortOrderSet* lppSortCriteria) {
    if (!lppSortCriteria) return MAPI_E_INVALID_PARAMETER;
    *lppSortCriteria = nullptr;
    MapiBuffer<SSortOrderSet> set;
    if (const HRESULT hr = AllocateBuffer(CbNewSSortOrderSet(m_sortOrder.size()), set); FAILED(hr)) return hr;
    set->cSorts = static_cast<ULONG>(m_sortOrder.size());
    set->cCategories = 0;
    set->cExpanded = 0;
    std::ranges::copy(m_sortOrder, set->aSort);
    *lppSortCriteria = set.release();
    return S_OK;
}

HRESULT CMapiTable::QueryRows(LONG lRowCount, ULONG ulFlags, LPSRowSet* lppRows) {
    if (!lppRows) return MAPI_E_INVALID_PARAMETER;
    *lppRows = nullptr;
    return Guarded([&]() -> HRESULT {
        // A negative count moves back that many rows and reads forward from there, as MAPI does.
        const size_t cursor = std::min(m_cursor, ViewSize());
        const auto wanted = static_cast<size_t>(std::abs(static_cast<std::int64_t>(lRowCount)));
        const size_t first = lRowCount < 0 ? cursor - std::min(wanted, cursor) : cursor;
        const size_t last = lRowCount < 0 ? cursor : cursor + std::min(wanted, ViewSize() - cursor);

        MapiBuffer<SRowSet> block;
        if (const HRESULT hr = AllocateBuffer(CbNewSRowSet(last - first), block); FAILED(hr)) return hr;
        block->cRows = 0;
        RowSetPtr rows(block.release());  // from here on, freeing takes the rows copied so far with it
        for (size_t position = first; position < last; ++position) {
            if (const HRESULT hr = CopyRow(SourceRow(position), rows->aRow[rows->cRows]); FAILED(hr))
                return hr;
            ++rows->cRows;
        }
        if (!(ulFlags & TBL_NOADVANCE)) m_cursor = lRowCount < 0 ? first : last;
        *lppRows = rows.release();
        return S_OK;
    });
}

HRESULT CMapiTable::Abort() {
    return S_OK;
}

HRESULT CMapiTable::ExpandRow(ULONG, LPBYTE, ULONG, ULONG, LPSRowSet* lppRows, ULONG* lpulMoreRows) {
    if (lppRows) *lppRows = nullptr;
    if (lpulMoreRows) *lpulMoreRows = 0;
    return MAPI_E_NO_SUPPORT;
}

HRESULT CMapiTable::CollapseRow(ULONG, LPBYTE, ULONG, ULONG* lpulRowCount) {
    if (lpulRowCount) *lpulRowCount = 0;
    return MAPI_E_NO_SUPPORT;
}

HRESULT CMapiTable::WaitForCompletion(ULONG, ULONG, ULONG* lpulTableStatus) {
    if (lpulTableStatus) *lpulTableStatus = TBLSTAT_COMPLETE;
    return S_OK;
}

HRESULT CMapiTable::GetCollapseState(ULONG, ULONG, LPBYTE, ULONG* lpcbCollapseState,
                                     LPBYTE* lppbCollapseState) {
    if (lpcbCollapseState) *lpcbCollapseState = 0;
    if (lppbCollapseState) *lppbCollapseState = nullptr;
    return MAPI_E_NO_SUPPORT;
}

HRESULT CMapiTable::SetCollapseState(ULONG, ULONG, LPBYTE, BOOKMARK*) {
    return MAPI_E_NO_SUPPORT;
}

CComPtr<IMAPITable> MakeTable(std::shared_ptr<const ITableRows> rows) {
    if (!rows) return {};
    return CComPtr<IMAPITable>(MakeObject<CMapiTable>(std::move(rows)).Detach());
}

HRESULT MakeRowListTable(std::vector<ULONG> columns, std::vector<std::vector<CPropValue>> rows,
                         LPMAPITABLE* out) {
    if (!out) return MAPI_E_INVALID_PARAMETER;
    *out = nullptr;
    return Guarded([&]() -> HRESULT {
        *out = MakeTable(std::make_shared<CRowList>(std::move(columns), std::move(rows))).Detach();
        return S_OK;
    });
}

}  // namespace velmar::mapi
