// CVelmarMapi: finding a message by its Internet message id in the receive folders of the stores.
#include "mail/MailText.h"
#include "mail/MapiHelpers.h"
#include "mail/VelmarMapi.h"
#include "support/CodePage.h"

using namespace velmar::mail;

bool CVelmarMapi::SearchMessageInMessageStore(unsigned nStore, LPSRestriction lpRestriction,
                                              LPMDB* lppMsgStore, LPMAPIFOLDER* lppFolder,
                                              LPMAPITABLE* lppTable, LPMESSAGE* lppMessage) {
    const CTraceScope trace(*this, L"CVelmarMapi::SearchMessageInMessageStore");
    if (!m_lpMAPISession || !lpRestriction || !lppMsgStore || !lppFolder || !lppTable || !lppMessage ||
        nStore >= m_MsgStores.size() || !m_MsgStores[nStore])
        return false;
    MsgStoreEntry& entry = *m_MsgStores[nStore];
    trace.Step(L"OpenMsgStore");
    if (!entry.lpMsgStore &&
        FAILED(m_lpMAPISession->OpenMsgStore(
            0, entry.lpEntryID ? entry.lpEntryID->cb : 0,
            entry.lpEntryID ? reinterpret_cast<LPENTRYID>(entry.lpEntryID->lpb) : nullptr, nullptr,
            MAPI_BEST_ACCESS, entry.lpMsgStore.Put()))) {
        entry.lpMsgStore.Reset();
        return false;
    }
    if (!entry.lpInboxFolder) {
        trace.Step(L"GetReceiveFolder");
        ULONG cbInbox = 0;
        MapiBufferPtr<ENTRYID> inboxId;
        entry.lpMsgStore->GetReceiveFolder(nullptr, MAPI_UNICODE, &cbInbox, OutPtr(inboxId), nullptr);
        if (inboxId) {
            trace.Step(L"OpenEntry");
            // A failed open leaves the folder empty.
            (void)OpenEntryAs(entry.lpMsgStore.get(), cbInbox, inboxId.get(), MAPI_BEST_ACCESS,
                              entry.lpInboxFolder);
        }
    }
    bool found = false;
    RowSetPtr rows;
    if (entry.lpInboxFolder) {
        trace.Step(L"GetContentsTable");
        CComPtr<IMAPITable> table;
        if (SUCCEEDED(entry.lpInboxFolder->GetContentsTable(0, table.Put())) && table) {
            trace.Step(L"GetRowCount");
            ULONG count = 0;
            table->GetRowCount(0, &count);
            if (count > 0) {
                trace.Step(L"Restrict");
                if (SUCCEEDED(table->Restrict(lpRestriction, 0))) {
                    trace.Step(L"GetRowCount");
                    table->GetRowCount(0, &count);
                    if (count > 0) {
                        // Only the first matching row is ever looked at.
                        trace.Step(L"QueryRows");
                        table->QueryRows(1, 0, OutPtr(rows));
                    }
                }
            }
            const SPropValue* entryId =
                rows && rows->cRows > 0 ? FindProp(rows->aRow[0], PR_ENTRYID) : nullptr;
            if (entryId) {
                trace.Step(L"OpenEntry");
                CComPtr<IMessage> message;
                if (SUCCEEDED(OpenEntryAs(entry.lpMsgStore.get(), entryId->Value.bin.cb,
                                          reinterpret_cast<LPENTRYID>(entryId->Value.bin.lpb),
                                          MAPI_BEST_ACCESS, message))) {
                    found = true;
                    *lppMessage = message.Detach();
                    *lppMsgStore = CComPtr<IMsgStore>::AddRefed(entry.lpMsgStore.get()).Detach();
                    *lppFolder = CComPtr<IMAPIFolder>::AddRefed(entry.lpInboxFolder.get()).Detach();
                    *lppTable = table.Detach();
                }
            }
        }
    }
    trace.Step(L"FreeRows");
    rows.reset();
    if (!m_bCacheMsgStore) {
        entry.lpInboxFolder.Reset();
        entry.lpMsgStore.Reset();
    }
    return found;
}

bool CVelmarMapi::GetpMessage(const std::wstring& strMessageId, const std::wstring& strToEmailAddress,
                              LPMDB* lppMsgStore, LPMAPIFOLDER* lppFolder, LPMAPITABLE* lppTable,
                              LPMESSAGE* lppMessage, bool* pbFoundInChosenStore) {
    const CTraceScope trace(*this, L"CVelmarMapi::GetpMessage");
    if (!m_lpMAPISession) Logon(m_strProfileName, 0);
    if (!m_lpMAPISession || !lppMsgStore || !lppFolder || !lppTable || !lppMessage) return false;
    const std::vector<std::wstring> tokens = AddressTokens(strToEmailAddress);
    trace.Step(L"strToEmailAddress = " + strToEmailAddress);
    trace.Step(L"DeTokonized: ");
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
        trace.Step(L"All Message Boxes");
        trace.Step(L"nStoreIndex = " + std::to_wstring(chosen));
        const bool valid =
            chosen >= 0 && static_cast<size_t>(chosen) < m_MsgStores.size() && m_MsgStores[chosen];
        AddTrace(L"searching in " +
                 (valid ? m_MsgStores[chosen]->strDisplayName : std::wstring(L"Invalid MessageStore")));
        found = search(static_cast<size_t>(static_cast<unsigned>(chosen)));
        if (pbFoundInChosenStore) *pbFoundInChosenStore = found;
        for (size_t i = 0; !found && i < m_MsgStores.size(); ++i) {
            if (static_cast<int>(i) == chosen) continue;
            trace.Step(L"SearchMessageInMessageStore 2");
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
        trace.Step(L"receivingMessageBoxOnly");
        for (const std::wstring& token : tokens) {
            for (size_t i = 0; !found && i < m_MsgStores.size(); ++i) {
                if (!m_MsgStores[i] || m_MsgStores[i]->strEMailAddress != token) continue;
                AddTrace(L"searching in " + m_MsgStores[i]->strDisplayName);
                found = search(i);
            }
            if (found) break;
        }
    }
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
    const CTraceScope trace(*this, L"CVelmarMapi::FindMessage");
    trace.Step(L"GetpMessage");
    bool foundInChosenStore = false;
    CFoundMessage lookup;
    if (!GetpMessage(strMessageId, strToEmailAddress, lookup, &foundInChosenStore)) return false;
    if (pEmailData) {
        trace.Step(L"MapiFillMessage start");
        ReleaseSessionLock();
        MapiFillMessage(lookup.message.get(), pEmailData);
        trace.Step(L"MapiFillMessage end");
    } else if (ulParentWindow) {
        trace.Step(L"MapiOpenMessageNonModal start");
        OpenMessageForm(ulParentWindow, lookup);
        trace.Step(L"MapiOpenMessageNonModal end");
    }
    // Only a message of the chosen store is marked read.
    if (foundInChosenStore && bSetRead) {
        trace.Step(L"SetReadFlag");
        lookup.message->SetReadFlag(0);
    }
    trace.Step(L"cleanup");
    lookup = CFoundMessage{};
    return true;
}
