// CVelmarMapi: finding a message by its Internet message id in the receive folders of the stores.
#include <cwchar>

#include "mail/VelmarMapi.h"
#include "support/CodePage.h"

using namespace velmar::mail;

namespace {

// The address string split at commas: runs of commas give no empty pieces, each piece loses the white
// space around it and counts only when something is left, a comma at the very end adds one empty token,
// and a token equal to the one before it is dropped.
std::vector<std::wstring> AddressTokens(const std::wstring& addresses) {
    std::vector<std::wstring> tokens;
    size_t start = 0;
    while (start <= addresses.size()) {
        size_t end = addresses.find(L',', start);
        if (end == std::wstring::npos) end = addresses.size();
        std::wstring piece = addresses.substr(start, end - start);
        const size_t first = piece.find_first_not_of(L" \t\r\n");
        const size_t last = piece.find_last_not_of(L" \t\r\n");
        if (first != std::wstring::npos) tokens.push_back(piece.substr(first, last - first + 1));
        start = end + 1;
    }
    if (!addresses.empty() && addresses.back() == L',') tokens.emplace_back();
    std::vector<std::wstring> unique;
    for (std::wstring& token : tokens)
        if (unique.empty() || unique.back() != token) unique.push_back(std::move(token));
    return unique;
}

}  // namespace

bool CVelmarMapi::SearchMessageInMessageStore(unsigned nStore, LPSRestriction lpRestriction,
                                              LPMDB* lppMsgStore, LPMAPIFOLDER* lppFolder,
                                              LPMAPITABLE* lppTable, LPMESSAGE* lppMessage) {
    AddTrace(L"CVelmarMapi::SearchMessageInMessageStore start");
    bool found = false;
    if (!m_lpMAPISession || !lpRestriction || !lppMsgStore || !lppFolder || !lppTable || !lppMessage ||
        nStore >= m_MsgStores.size() || !m_MsgStores[nStore]) {
        AddTrace(L"CVelmarMapi::SearchMessageInMessageStore end");
        return false;
    }
    MsgStoreEntry& entry = *m_MsgStores[nStore];
    AddTrace(L"CVelmarMapi::SearchMessageInMessageStore OpenMsgStore");
    if (!entry.lpMsgStore &&
        FAILED(m_lpMAPISession->OpenMsgStore(
            0, entry.lpEntryID ? entry.lpEntryID->cb : 0,
            entry.lpEntryID ? reinterpret_cast<LPENTRYID>(entry.lpEntryID->lpb) : nullptr, nullptr,
            MAPI_BEST_ACCESS, entry.lpMsgStore.Put()))) {
        entry.lpMsgStore.Reset();
        AddTrace(L"CVelmarMapi::SearchMessageInMessageStore end");
        return false;
    }
    if (!entry.lpInboxFolder) {
        AddTrace(L"CVelmarMapi::SearchMessageInMessageStore GetReceiveFolder");
        ULONG cbInbox = 0;
        LPENTRYID rawInbox = nullptr;
        entry.lpMsgStore->GetReceiveFolder(nullptr, MAPI_UNICODE, &cbInbox, &rawInbox, nullptr);
        const MapiBufferPtr<ENTRYID> inboxId(rawInbox);
        if (inboxId) {
            AddTrace(L"CVelmarMapi::SearchMessageInMessageStore OpenEntry");
            ULONG type = 0;
            LPUNKNOWN folder = nullptr;
            if (SUCCEEDED(entry.lpMsgStore->OpenEntry(cbInbox, inboxId.get(), nullptr, MAPI_BEST_ACCESS,
                                                      &type, &folder)))
                entry.lpInboxFolder.Reset(static_cast<IMAPIFolder*>(folder));
            else if (folder)
                folder->Release();
        }
    }
    RowSetPtr rows;
    if (entry.lpInboxFolder) {
        AddTrace(L"CVelmarMapi::SearchMessageInMessageStore GetContentsTable");
        CComPtr<IMAPITable> table;
        if (SUCCEEDED(entry.lpInboxFolder->GetContentsTable(0, table.Put())) && table) {
            AddTrace(L"CVelmarMapi::SearchMessageInMessageStore GetRowCount");
            ULONG count = 0;
            table->GetRowCount(0, &count);
            if (count > 0) {
                AddTrace(L"CVelmarMapi::SearchMessageInMessageStore Restrict");
                if (SUCCEEDED(table->Restrict(lpRestriction, 0))) {
                    AddTrace(L"CVelmarMapi::SearchMessageInMessageStore GetRowCount");
                    table->GetRowCount(0, &count);
                    if (count > 0) {
                        AddTrace(L"CVelmarMapi::SearchMessageInMessageStore QueryRows");
                        LPSRowSet rawRows = nullptr;
                        table->QueryRows(1, 0, &rawRows);
                        rows.reset(rawRows);
                    }
                }
            }
            const SPropValue* entryId = nullptr;
            if (rows && rows->cRows > 0)
                for (ULONG c = 0; c < rows->aRow[0].cValues && !entryId; ++c)
                    if (rows->aRow[0].lpProps[c].ulPropTag == PR_ENTRYID) entryId = &rows->aRow[0].lpProps[c];
            if (entryId) {
                AddTrace(L"CVelmarMapi::SearchMessageInMessageStore OpenEntry");
                ULONG type = 0;
                LPUNKNOWN message = nullptr;
                if (SUCCEEDED(entry.lpMsgStore->OpenEntry(entryId->Value.bin.cb,
                                                          reinterpret_cast<LPENTRYID>(entryId->Value.bin.lpb),
                                                          nullptr, MAPI_BEST_ACCESS, &type, &message)) &&
                    message) {
                    found = true;
                    *lppMessage = static_cast<LPMESSAGE>(message);
                    *lppMsgStore = CComPtr<IMsgStore>::AddRefed(entry.lpMsgStore.get()).Detach();
                    *lppFolder = CComPtr<IMAPIFolder>::AddRefed(entry.lpInboxFolder.get()).Detach();
                    *lppTable = CComPtr<IMAPITable>::AddRefed(table.get()).Detach();
                }
            }
        }
    }
    AddTrace(L"CVelmarMapi::SearchMessageInMessageStore FreeRows");
    rows.reset();
    if (!m_bCacheMsgStore) {
        entry.lpInboxFolder.Reset();
        entry.lpMsgStore.Reset();
    }
    AddTrace(L"CVelmarMapi::SearchMessageInMessageStore end");
    return found;
}

bool CVelmarMapi::GetpMessage(const std::wstring& strMessageId, const std::wstring& strToEmailAddress,
                              LPMDB* lppMsgStore, LPMAPIFOLDER* lppFolder, LPMAPITABLE* lppTable,
                              LPMESSAGE* lppMessage, bool* pbFoundInChosenStore) {
    AddTrace(L"CVelmarMapi::GetpMessage start");
    if (!m_lpMAPISession) Logon(m_strProfileName, 0);
    if (!m_lpMAPISession || !lppMsgStore || !lppFolder || !lppTable || !lppMessage) {
        AddTrace(L"CVelmarMapi::GetpMessage end");
        return false;
    }
    const std::vector<std::wstring> tokens = AddressTokens(strToEmailAddress);
    AddTrace(L"CVelmarMapi::GetpMessage strToEmailAddress = " + strToEmailAddress);
    AddTrace(L"CVelmarMapi::GetpMessage DeTokonized: ");
    for (const std::wstring& token : tokens) AddTrace(token);

    // The id is searched as 8-bit text of the system's code page: an exact match.
    std::string messageIdA = velmar::WideToAnsi(strMessageId);
    SPropValue value{};
    value.ulPropTag = PR_INTERNET_MESSAGE_ID_A;
    value.Value.lpszA = messageIdA.data();
    SRestriction restriction{};
    restriction.rt = RES_PROPERTY;
    restriction.res.resProperty.relop = RELOP_EQ;
    restriction.res.resProperty.ulPropTag = PR_INTERNET_MESSAGE_ID_A;
    restriction.res.resProperty.lpProp = &value;

    const auto search = [&](size_t store) {
        return SearchMessageInMessageStore(static_cast<unsigned>(store), &restriction, lppMsgStore, lppFolder,
                                           lppTable, lppMessage);
    };
    const int chosen = m_nStoreIndex;
    bool found = false;
    if (tokens.empty() || !m_bOptimalMessageStore) {
        AddTrace(L"CVelmarMapi::GetpMessage All Message Boxes");
        wchar_t line[64] = {};
        std::swprintf(line, 64, L"CVelmarMapi::GetpMessage nStoreIndex = %d", chosen);
        AddTrace(line);
        const bool valid =
            chosen >= 0 && static_cast<size_t>(chosen) < m_MsgStores.size() && m_MsgStores[chosen];
        AddTrace(L"searching in " +
                 (valid ? m_MsgStores[chosen]->strDisplayName : std::wstring(L"Invalid MessageStore")));
        found = search(static_cast<size_t>(static_cast<unsigned>(chosen)));
        if (pbFoundInChosenStore) *pbFoundInChosenStore = found;
        for (size_t i = 0; !found && i < m_MsgStores.size(); ++i) {
            if (static_cast<int>(i) == chosen) continue;
            AddTrace(L"CVelmarMapi::GetpMessage SearchMessageInMessageStore 2");
            AddTrace(L"searching in " + (m_MsgStores[i] ? m_MsgStores[i]->strDisplayName : std::wstring()));
            found = search(i);
        }
    } else {
        if (!m_strArchiveMsgStore.empty()) {
            for (size_t i = 0; !found && i < m_MsgStores.size(); ++i) {
                if (!m_MsgStores[i] || m_MsgStores[i]->strDisplayName != m_strArchiveMsgStore) continue;
                AddTrace(L"searching in defined Archive Store: " + m_MsgStores[i]->strDisplayName);
                found = search(i);
            }
        }
        AddTrace(L"CVelmarMapi::GetpMessage receivingMessageBoxOnly");
        for (const std::wstring& token : tokens) {
            for (size_t i = 0; !found && i < m_MsgStores.size(); ++i) {
                if (!m_MsgStores[i] || m_MsgStores[i]->strEMailAddress != token) continue;
                AddTrace(L"searching in " + m_MsgStores[i]->strDisplayName);
                found = search(i);
            }
            if (found) break;
        }
    }
    AddTrace(L"CVelmarMapi::GetpMessage end");
    return found;
}

bool CVelmarMapi::GetpMessage(const std::wstring& strMessageId, const std::wstring& strToEmailAddress,
                              CFoundMessage& found, bool* pbFoundInChosenStore) {
    found = CFoundMessage{};
    return GetpMessage(strMessageId, strToEmailAddress, found.store.Put(), found.folder.Put(),
                       found.table.Put(), found.message.Put(), pbFoundInChosenStore) &&
           found.message;
}

bool CVelmarMapi::FindMessage(const std::wstring& strMessageId, const std::wstring& strToEmailAddress,
                              ULONG_PTR ulParentWindow, bool bSetRead, EMailData* pEmailData) {
    AddTrace(L"CVelmarMapi::FindMessage start");
    AddTrace(L"CVelmarMapi::FindMessage GetpMessage");
    bool foundInChosenStore = false;
    CFoundMessage lookup;
    const bool found = GetpMessage(strMessageId, strToEmailAddress, lookup, &foundInChosenStore);
    CComPtr<IMessage>& message = lookup.message;
    if (!found || !message) {
        AddTrace(L"CVelmarMapi::FindMessage end");
        return false;
    }
    if (pEmailData) {
        AddTrace(L"CVelmarMapi::FindMessage MapiFillMessage start");
        MapiFillMessage(message.get(), pEmailData);
        AddTrace(L"CVelmarMapi::FindMessage MapiFillMessage end");
    } else if (ulParentWindow) {
        // The form viewer opens the message here; it is not part of this build yet.
        AddTrace(L"CVelmarMapi::FindMessage MapiOpenMessageNonModal start");
        AddTrace(L"CVelmarMapi::FindMessage MapiOpenMessageNonModal end");
    }
    if (foundInChosenStore && bSetRead) {
        AddTrace(L"CVelmarMapi::FindMessage SetReadFlag");
        message->SetReadFlag(0);
    }
    AddTrace(L"CVelmarMapi::FindMessage cleanup");
    lookup = CFoundMessage{};
    AddTrace(L"CVelmarMapi::FindMessage end");
    return true;
}
