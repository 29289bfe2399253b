// Send and receive at once, on POSIX: our MAPI's spooler is a status object of the session, as MAPI's own
// spooler is, and FlushQueues on it sends the outgoing queue and looks for new mail. Failures are not
// reported, as with the mail client.
#include "mail/MapiHelpers.h"
#include "mail/VelmarMapi.h"

using namespace velmar::mail;

void CVelmarMapi::OutlookForceSend() {
    const CTraceScope trace(*this, L"CVelmarMapi::OutlookForceSend");
    IMAPISession* session = SendSession();
    if (!session) return;
    trace.Step(L"GetStatusTable");
    CComPtr<IMAPITable> table;
    if (FAILED(session->GetStatusTable(0, table.Put())) || !table) return;
    SizedSPropTagArray(2, columns) = {2, {PR_RESOURCE_TYPE, PR_ENTRYID}};
    RowSetPtr rows;
    if (const auto queryAll = BoundMapiFunction<PFN_HrQueryAllRows>(MapiSlot::HrQueryAllRows))
        queryAll(table.get(), reinterpret_cast<LPSPropTagArray>(&columns), nullptr, nullptr, 0, OutPtr(rows));
    for (ULONG r = 0; rows && r < rows->cRows; ++r) {
        const SPropValue* type = FindProp(rows->aRow[r], PR_RESOURCE_TYPE);
        const SPropValue* entryId = FindProp(rows->aRow[r], PR_ENTRYID);
        if (!type || type->Value.l != static_cast<LONG>(MAPI_SPOOLER) || !entryId) continue;
        trace.Step(L"OpenEntry");
        CComPtr<IUnknown> opened;
        ULONG objectType = 0;
        if (FAILED(session->OpenEntry(entryId->Value.bin.cb,
                                      reinterpret_cast<LPENTRYID>(entryId->Value.bin.lpb), &IID_IMAPIStatus,
                                      0, &objectType, opened.Put())) ||
            !opened)
            return;
        // OpenEntry hands out the interface asked for.
        auto* status = static_cast<IMAPIStatus*>(opened.get());
        trace.Step(L"FlushQueues start");
        {
            // The pass may wait on a server for minutes; nothing of the session is needed meanwhile.
            const CSessionLockGap gap(*this);
            status->FlushQueues(0, 0, nullptr, FLUSH_UPLOAD | FLUSH_DOWNLOAD);
        }
        trace.Step(L"FlushQueues end");
        // What still waits in the queue, and why: the mail client would show it in its status bar.
        MapiBufferPtr<SPropValue> waiting;
        if (SUCCEEDED(GetOneProp(status, PR_STATUS_STRING_W, 0, waiting)) && waiting &&
            waiting->Value.lpszW && *waiting->Value.lpszW)
            trace.Step(waiting->Value.lpszW);
        return;
    }
}
