// CVelmarMapi: the session's message-store table and the choice of a store.
#include <cstring>
#include <cwchar>

#include "mail/MapiHelpers.h"
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
    const CTraceScope trace(*this, L"CVelmarMapi::OpenMessageStoreTable");
    std::map<std::wstring, std::wstring> addresses = StoreAddresses();
    if (!m_lpMAPISession) return;
    trace.Step(L"GetMsgStoresTable start");
    CComPtr<IMAPITable> table;
    if (FAILED(m_lpMAPISession->GetMsgStoresTable(0, table.Put()))) return;
    trace.Step(L"GetMsgStoresTable end");
    if (!table) return;
    trace.Step(L"GetRowCount");
    ULONG count = 0;
    table->GetRowCount(0, &count);
    trace.Step(L"QueryColumns");
    // The table's own column set, only freed at the end.
    MapiBufferPtr<SPropTagArray> columns;
    if (FAILED(table->QueryColumns(0, OutPtr(columns)))) return;
    trace.Step(L"SeekRow start");
    table->SeekRow(BOOKMARK_BEGINNING, 0, nullptr);
    trace.Step(L"SeekRow end");
    trace.Step(L"QueryRows start");
    RowSetPtr rows;
    const HRESULT hrRows = table->QueryRows(static_cast<LONG>(count), 0, OutPtr(rows));
    if (SUCCEEDED(hrRows) && rows) {
        trace.Step(L"QueryRows end");
        for (ULONG r = 0; r < rows->cRows; ++r) AddStoreRow(rows->aRow[r], static_cast<int>(r), addresses);
        trace.Step(L"FreeRows start");
        rows.reset();
        trace.Step(L"FreeRows end");
    }
    trace.Step(L"MAPIFreeBuffer start");
    columns.reset();
    trace.Step(L"MAPIFreeBuffer end");
}

bool CVelmarMapi::SetMessageStore(std::wstring strDisplayName) {
    const CTraceScope trace(*this, L"CVelmarMapi::SetMessageStore");
    if (m_MsgStores.empty()) {
        trace.Step(L"OpenMessageStoreTable start");
        OpenMessageStoreTable();
        trace.Step(L"OpenMessageStoreTable end");
    }
    int found = -1;
    for (size_t i = 0; i < m_MsgStores.size() && found < 0; ++i)
        if (m_MsgStores[i] && m_MsgStores[i]->strDisplayName == strDisplayName) found = static_cast<int>(i);
    trace.Step(L"SetMessageStore start");
    if (found >= 0) {
        // Deliberate: the selection is traced as a call of its own, so a success writes the end line twice.
        const CTraceScope selection(*this, L"CVelmarMapi::SetMessageStore");
        m_nStoreIndex = found;
    }
    return found >= 0;
}

void CVelmarMapi::RefreshMessageStoreTable() {
    // The table appends to the list, so a second reading starts from an empty one.
    if (!m_MsgStores.empty()) ReleaseSessionData();
    OpenMessageStoreTable();
}

int CVelmarMapi::SetMessageStoreByIndex(int nIndex) {
    const CTraceScope trace(*this, L"CVelmarMapi::SetMessageStore");
    const int oldIndex = m_nStoreIndex;
    if (nIndex >= 0 && static_cast<size_t>(nIndex) < m_MsgStores.size()) m_nStoreIndex = nIndex;
    return oldIndex;
}

std::vector<MsgStoreInfo> CVelmarMapi::MessageStores() const {
    std::vector<MsgStoreInfo> stores;
    for (const std::unique_ptr<MsgStoreEntry>& entry : m_MsgStores)
        if (entry) stores.push_back({entry->strDisplayName, entry->strEMailAddress});
    return stores;
}
