// IMAPITable over a snapshot of rows (ITableRows): columns, restriction, sorting and a cursor. Each table
// keeps its own view and cursor, so several tables may share one row source and be used from different
// threads at once; one table is used from one thread at a time.
//
// QueryRows hands back a row set the caller frees with FreeProws: each row's values are one MAPI buffer, and
// a column a row lacks reads PT_ERROR/MAPI_E_NOT_FOUND. QueryColumns and QuerySortOrder hand back one MAPI
// buffer each. Restrict and FindRow take what ValidateRestriction accepts; Restrict and SortTable leave the
// view as it was when they fail. Rows without a sort value sort first in either direction. Bookmarks,
// notifications, expanding and collapsing, and backward FindRow answer MAPI_E_NO_SUPPORT; categories are
// MAPI_E_TOO_COMPLEX.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "mapi/runtime/ComObject.h"
#include "mapi/runtime/TableRows.h"
#include "mapidefs.h"

namespace velmar::mapi {

class CMapiTable : public CComObject<IMAPITable> {
public:
    // rows must not be null. Throws std::bad_alloc.
    explicit CMapiTable(std::shared_ptr<const ITableRows> rows);
    CMapiTable(const CMapiTable&) = delete;
    CMapiTable& operator=(const CMapiTable&) = delete;

    HRESULT GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) override;
    HRESULT Advise(ULONG ulEventMask, LPMAPIADVISESINK lpAdviseSink, ULONG* lpulConnection) override;
    HRESULT Unadvise(ULONG ulConnection) override;
    HRESULT GetStatus(ULONG* lpulTableStatus, ULONG* lpulTableType) override;
    HRESULT SetColumns(LPSPropTagArray lpPropTagArray, ULONG ulFlags) override;
    HRESULT QueryColumns(ULONG ulFlags, LPSPropTagArray* lpPropTagArray) override;
    HRESULT GetRowCount(ULONG ulFlags, ULONG* lpulCount) override;
    HRESULT SeekRow(BOOKMARK bkOrigin, LONG lRowCount, LONG* lplRowsSought) override;
    HRESULT SeekRowApprox(ULONG ulNumerator, ULONG ulDenominator) override;
    HRESULT QueryPosition(ULONG* lpulRow, ULONG* lpulNumerator, ULONG* lpulDenominator) override;
    HRESULT FindRow(LPSRestriction lpRestriction, BOOKMARK bkOrigin, ULONG ulFlags) override;
    HRESULT Restrict(LPSRestriction lpRestriction, ULONG ulFlags) override;
    HRESULT CreateBookmark(BOOKMARK* lpbkPosition) override;
    HRESULT FreeBookmark(BOOKMARK bkPosition) override;
    HRESULT SortTable(LPSSortOrderSet lpSortCriteria, ULONG ulFlags) override;
    HRESULT QuerySortOrder(LPSSortOrderSet* lppSortCriteria) override;
    HRESULT QueryRows(LONG lRowCount, ULONG ulFlags, LPSRowSet* lppRows) override;
    HRESULT Abort() override;
    HRESULT ExpandRow(ULONG cbInstanceKey, LPBYTE pbInstanceKey, ULONG ulRowCount, ULONG ulFlags,
                      LPSRowSet* lppRows, ULONG* lpulMoreRows) override;
    HRESULT CollapseRow(ULONG cbInstanceKey, LPBYTE pbInstanceKey, ULONG ulFlags,
                        ULONG* lpulRowCount) override;
    HRESULT WaitForCompletion(ULONG ulFlags, ULONG ulTimeout, ULONG* lpulTableStatus) override;
    HRESULT GetCollapseState(ULONG ulFlags, ULONG cbInstanceKey, LPBYTE lpbInstanceKey,
                             ULONG* lpcbCollapseState, LPBYTE* lppbCollapseState) override;
    HRESULT SetCollapseState(ULONG ulFlags, ULONG cbCollapseState, LPBYTE pbCollapseState,
                             BOOKMARK* lpbkLocation) override;

protected:
    bool SupportsInterface(REFIID riid) const override;

private:
    size_t ViewSize() const;
    size_t SourceRow(size_t position) const;
    // The view position a bookmark names, or nullopt for a bookmark we do not know.
    std::optional<size_t> Origin(BOOKMARK bookmark) const;
    std::vector<size_t> Matches(const SRestriction& restriction) const;
    std::vector<size_t> AllRows() const;
    void Sort(std::vector<size_t>& rows, const std::vector<SSortOrder>& order) const;
    HRESULT CopyRow(size_t sourceRow, SRow& out) const;

    std::shared_ptr<const ITableRows> m_rows;
    std::vector<ULONG> m_columns;
    // Source rows in view order; nullopt while the view is every row in source order, so a table over a
    // large folder costs nothing until it is restricted or sorted.
    std::optional<std::vector<size_t>> m_view;
    bool m_restricted = false;
    std::vector<SSortOrder> m_sortOrder;
    size_t m_cursor = 0;
};

// A new table over rows with one reference owned by the caller; empty when rows is null. Throws
// std::bad_alloc, which the MAPI method handing the table out turns into MAPI_E_NOT_ENOUGH_MEMORY.
CComPtr<IMAPITable> MakeTable(std::shared_ptr<const ITableRows> rows);

// A table over rows held in memory, handed to the caller's out parameter; MAPI_E_NOT_ENOUGH_MEMORY when it
// cannot be made.
HRESULT MakeRowListTable(std::vector<ULONG> columns, std::vector<std::vector<CPropValue>> rows,
                         LPMAPITABLE* out);

}  // namespace velmar::mapi
