// CVelmarMapi: the session's message-store table and the choice of a store.
#include <cstring>
#include <cwchar>

#include "mail/VelmarMapi.h"

using namespace velmar::mail;

// One row of the store table: traced column by column; kept when it has a name and an entry id.
void CVelmarMapi::AddStoreRow(const SRow& row, int rowIndex,
                              std::map<std::wstring, std::wstring>& addresses) {
    std::wstring name;
    const SBinary* entryId = nullptr;
    for (ULONG c = 0; c < row.cValues; ++c) {
        const SPropValue& value = row.lpProps[c];
        wchar_t line[96] = {};
        std::swprintf(line, 96, L"Loop RowIndex: %d,  PropIndex: %d -> Value: %x", rowIndex,
                      static_cast<int>(c), static_cast<unsigned>(value.ulPropTag));
        AddTrace(line);
        if (value.ulPropTag == PR_PROVIDER_DISPLAY_W || value.ulPropTag == PR_DISPLAY_NAME_W) {
            name = value.Value.lpszW ? value.Value.lpszW : L"";
            AddTrace(L"Found: " + name);
        } else if (value.ulPropTag == PR_ENTRYID) {
            entryId = &value.Value.bin;
        } else if (value.ulPropTag == PR_DEFAULT_STORE && value.Value.b) {
            // The row number, not the list position: skipped rows shift the two apart.
            m_nDefaultStore = rowIndex;
            m_nStoreIndex = rowIndex;
        }
    }
    if (name.empty() || !entryId) return;
    auto entry = std::make_unique<MsgStoreEntry>();
    entry->strDisplayName = name;
    entry->strEMailAddress = addresses[name];  // an unknown name gets an empty address
    LPVOID block = nullptr;
    if (FAILED(VMAPIAllocateBuffer(sizeof(SBinary), &block))) return;
    entry->lpEntryID.reset(static_cast<SBinary*>(block));
    entry->lpEntryID->cb = entryId->cb;
    entry->lpEntryID->lpb = nullptr;
    if (entryId->cb > 0) {
        LPVOID bytes = nullptr;
        if (FAILED(VMAPIAllocateMore(entryId->cb, block, &bytes))) return;
        std::memcpy(bytes, entryId->lpb, entryId->cb);
        entry->lpEntryID->lpb = static_cast<LPBYTE>(bytes);
    }
    m_MsgStores.push_back(std::move(entry));
}

void CVelmarMapi::OpenMessageStoreTable() {
    AddTrace(L"CVelmarMapi::OpenMessageStoreTable start");
    std::map<std::wstring, std::wstring> addresses = StoreAddresses();
    if (m_lpMAPISession) {
        AddTrace(L"CVelmarMapi::OpenMessageStoreTable GetMsgStoresTable start");
        CComPtr<IMAPITable> table;
        const HRESULT hrTable = m_lpMAPISession->GetMsgStoresTable(0, table.Put());
        if (SUCCEEDED(hrTable)) AddTrace(L"CVelmarMapi::OpenMessageStoreTable GetMsgStoresTable end");
        if (SUCCEEDED(hrTable) && table) {
            AddTrace(L"CVelmarMapi::OpenMessageStoreTable GetRowCount");
            ULONG count = 0;
            table->GetRowCount(0, &count);
            AddTrace(L"CVelmarMapi::OpenMessageStoreTable QueryColumns");
            LPSPropTagArray rawColumns = nullptr;
            if (SUCCEEDED(table->QueryColumns(0, &rawColumns))) {
                MapiBufferPtr<SPropTagArray> columns(rawColumns);
                AddTrace(L"CVelmarMapi::OpenMessageStoreTable SeekRow start");
                table->SeekRow(BOOKMARK_BEGINNING, 0, nullptr);
                AddTrace(L"CVelmarMapi::OpenMessageStoreTable SeekRow end");
                AddTrace(L"CVelmarMapi::OpenMessageStoreTable QueryRows start");
                LPSRowSet rawRows = nullptr;
                const HRESULT hrRows = table->QueryRows(static_cast<LONG>(count), 0, &rawRows);
                RowSetPtr rows(rawRows);
                if (SUCCEEDED(hrRows) && rows) {
                    AddTrace(L"CVelmarMapi::OpenMessageStoreTable QueryRows end");
                    for (ULONG r = 0; r < rows->cRows; ++r)
                        AddStoreRow(rows->aRow[r], static_cast<int>(r), addresses);
                    AddTrace(L"CVelmarMapi::OpenMessageStoreTable FreeRows start");
                    rows.reset();
                    AddTrace(L"CVelmarMapi::OpenMessageStoreTable FreeRows end");
                }
                AddTrace(L"CVelmarMapi::OpenMessageStoreTable MAPIFreeBuffer start");
                columns.reset();
                AddTrace(L"CVelmarMapi::OpenMessageStoreTable MAPIFreeBuffer end");
            }
        }
    }
    AddTrace(L"CVelmarMapi::OpenMessageStoreTable end");
}

bool CVelmarMapi::SetMessageStore(std::wstring strDisplayName) {
    AddTrace(L"CVelmarMapi::SetMessageStore start");
    if (m_MsgStores.empty()) {
        AddTrace(L"CVelmarMapi::SetMessageStore OpenMessageStoreTable start");
        OpenMessageStoreTable();
        AddTrace(L"CVelmarMapi::SetMessageStore OpenMessageStoreTable end");
    }
    int found = -1;
    for (size_t i = 0; i < m_MsgStores.size(); ++i) {
        if (m_MsgStores[i] && m_MsgStores[i]->strDisplayName == strDisplayName) {
            found = static_cast<int>(i);
            break;
        }
    }
    AddTrace(L"CVelmarMapi::SetMessageStore SetMessageStore start");
    if (found >= 0) {
        AddTrace(L"CVelmarMapi::SetMessageStore start");
        m_nStoreIndex = found;
        AddTrace(L"CVelmarMapi::SetMessageStore end");
    }
    AddTrace(L"CVelmarMapi::SetMessageStore end");
    return found >= 0;
}
