// The owners of the stores, on POSIX: there is no mail client to automate, but our MAPI's store table
// carries each store's owner address, as a MAPI server's does, so the map comes from the session itself.
// The trace keeps the lines of the automation pass that it stands in for.
#include "mail/VelmarMapi.h"

using namespace velmar::mail;

std::map<std::wstring, std::wstring> CVelmarMapi::StoreAddresses() {
    AddTrace(L"CVelmarMapi::OpenMessageStoreTable CreateDispatch");
    std::map<std::wstring, std::wstring> addresses;
    CComPtr<IMAPITable> table;
    if (m_lpMAPISession && SUCCEEDED(m_lpMAPISession->GetMsgStoresTable(0, table.Put())) && table) {
        SizedSPropTagArray(2, columns) = {2, {PR_DISPLAY_NAME_W, PR_EMAIL_ADDRESS_W}};
        LPSRowSet rawRows = nullptr;
        if (const auto queryAll = BoundMapiFunction<PFN_HrQueryAllRows>(MapiSlot::HrQueryAllRows))
            queryAll(table.get(), reinterpret_cast<LPSPropTagArray>(&columns), nullptr, nullptr, 0, &rawRows);
        const RowSetPtr rows(rawRows);
        for (ULONG r = 0; rows && r < rows->cRows; ++r) {
            const SRow& row = rows->aRow[r];
            if (row.cValues < 2 || row.lpProps[0].ulPropTag != PR_DISPLAY_NAME_W) continue;
            const std::wstring name = row.lpProps[0].Value.lpszW ? row.lpProps[0].Value.lpszW : L"";
            const std::wstring address =
                row.lpProps[1].ulPropTag == PR_EMAIL_ADDRESS_W && row.lpProps[1].Value.lpszW
                    ? row.lpProps[1].Value.lpszW
                    : L"";
            AddTrace(L"Store DisplayName: " + name);
            AddTrace(L"Store email: " + address);
            addresses[name] = address;
        }
    }
    AddTrace(L"Found Folders finished");
    return addresses;
}
