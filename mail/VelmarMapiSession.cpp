// CVelmarMapi: construction and destruction, MAPI initialisation, profiles, logon and logoff, and the trace.
#include <cwchar>

#include "app/ActivityList.h"
#include "app/IniFile.h"
#include "mail/VelmarMapi.h"
#include "support/CodePage.h"

using namespace velmar::mail;

std::wstring HexTrace(unsigned long long value) {
    wchar_t text[32] = {};
    std::swprintf(text, 32, L"0x%X", static_cast<unsigned>(value & 0xFFFFFFFFu));
    return text;
}

CVelmarMapi::CVelmarMapi(CActivityList* pActivityList) : m_pActivityList(pActivityList) {
    AddTrace(L"CVelmarMapi::CVelmarMapi");
    m_bCacheMsgStore = ReadIniInt(L"KESTA", L"MAPI_CACHE_MSGSTORE", 1) != 0;
    m_strArchiveMsgStore = ReadIniString(L"KESTA", L"ARCHIVE_MSGSTORE", L"");
    m_bMapiExtern = ReadIniInt(L"KESTA", L"MAPI_EXTERN", 0) != 0;
    if (!m_strArchiveMsgStore.empty())
        AddTrace(L"CVelmarMapi::CVelmarMapi ArchiveSMsgStore: " + m_strArchiveMsgStore);
    MAPIInitialize();
}

CVelmarMapi::~CVelmarMapi() {
    AddTrace(L"CVelmarMapi::~CVelmarMapi start");
    Logoff();
    m_lpProfAdmin.Reset();
    m_lpAddrBook.Reset();
    m_lpMAPISession.Reset();
    AddTrace(L"CVelmarMapi::MAPIUninitialize start");
    if (m_bMAPIInitialized) {
        if (const auto uninitialize = BoundMapiFunction<PFN_MAPIUninitialize>(MapiSlot::MAPIUninitialize))
            uninitialize();
        m_bMAPIInitialized = false;
    }
    AddTrace(L"CVelmarMapi::MAPIUninitialize end");
    AddTrace(L"CVelmarMapi::~CVelmarMapi end");
}

void CVelmarMapi::AddTrace(const std::wstring& text) {
    if (m_pActivityList) m_pActivityList->AddTraceLine(text);
}

void CVelmarMapi::OutputError(const std::wstring& text) {
    AddTrace(L"CVelmarMapi::OutputError start");
    AddTrace(text);
    AddTrace(text);
    AddTrace(L"CVelmarMapi::OutputError end");
}

void CVelmarMapi::MAPIInitialize() {
    AddTrace(L"CVelmarMapi::MAPIInitialize start");
    if (!m_bMAPIInitialized) {
        if (const auto initialize = BoundMapiFunction<PFN_MAPIInitialize>(MapiSlot::MAPIInitialize)) {
            MAPIINIT_0 init{0, 0};
            if (SUCCEEDED(initialize(&init))) m_bMAPIInitialized = true;
        }
    }
    AddTrace(L"CVelmarMapi::MAPIInitialize end");
}

std::vector<std::wstring> CVelmarMapi::GetProfileNames(int& nDefaultProfile) {
    AddTrace(L"CVelmarMapi::GetProfileNames start");
    nDefaultProfile = -1;
    // The list is built once for the life of the object.
    if (m_ProfileNames.empty() && !m_lpProfAdmin) {
        AddTrace(L"CVelmarMapi::GetProfileNames MAPIAdminProfiles start");
        const auto adminProfiles = BoundMapiFunction<PFN_MAPIAdminProfiles>(MapiSlot::MAPIAdminProfiles);
        const HRESULT hrAdmin = adminProfiles ? adminProfiles(0, m_lpProfAdmin.Put()) : E_FAIL;
        // The closing line repeats the opening text; a missing entry point writes it once.
        if (adminProfiles) AddTrace(L"CVelmarMapi::GetProfileNames MAPIAdminProfiles start");
        CComPtr<IMAPITable> table;
        HRESULT hr = E_FAIL;
        if (SUCCEEDED(hrAdmin) && m_lpProfAdmin) {
            AddTrace(L"CVelmarMapi::GetProfileNames GetProfileTable start");
            hr = m_lpProfAdmin->GetProfileTable(0, table.Put());
            AddTrace(L"CVelmarMapi::GetProfileNames GetProfileTable end");
        }
        if (SUCCEEDED(hr) && table) {
            ULONG count = 0;
            table->GetRowCount(0, &count);
            table->SeekRow(BOOKMARK_BEGINNING, 0, nullptr);
            AddTrace(L"CVelmarMapi::GetProfileNames QueryRows start");
            LPSRowSet rawRows = nullptr;
            hr = table->QueryRows(static_cast<LONG>(count), 0, &rawRows);
            const RowSetPtr rows(rawRows);
            AddTrace(L"CVelmarMapi::GetProfileNames QueryRows end");
            if (SUCCEEDED(hr) && rawRows) {
                for (ULONG r = 0; r < rawRows->cRows; ++r) {
                    const SRow& row = rawRows->aRow[r];
                    for (ULONG c = 0; c < row.cValues; ++c) {
                        const SPropValue& value = row.lpProps[c];
                        std::wstring name;
                        bool isName = true;
                        if (value.ulPropTag == PR_DISPLAY_NAME_W)
                            name = value.Value.lpszW ? value.Value.lpszW : L"";
                        else if (value.ulPropTag == PR_DISPLAY_NAME_A || value.ulPropTag == 0x30000003)
                            name = velmar::AnsiToWide(value.Value.lpszA ? value.Value.lpszA : "");
                        else
                            isName = false;
                        if (isName && m_ProfileNames.size() <= r) m_ProfileNames.push_back(name);
                        if (value.ulPropTag == PR_DEFAULT_PROFILE) nDefaultProfile = static_cast<int>(r);
                    }
                }
            }
        }
    }
    AddTrace(L"CVelmarMapi::GetProfileNames end");
    return m_ProfileNames;
}

void CVelmarMapi::Logon(std::wstring strProfile, ULONG_PTR ulUIParam) {
    AddTrace(L"CVelmarMapi::Logon start");
    AddTrace(L"CVelmarMapi::Logon Logoff");
    Logoff();
    AddTrace(L"CVelmarMapi::Logon MAPIInitialize start");
    MAPIInitialize();
    AddTrace(L"CVelmarMapi::Logon MAPIInitialize end");
    if (m_bMAPIInitialized) {
        m_lpMAPISession.Reset();
        m_strProfileName = strProfile;
        AddTrace(L"CVelmarMapi::Logon MAPILogonEx start");
        const auto logon = BoundMapiFunction<PFN_MAPILogonEx>(MapiSlot::MAPILogonEx);
        const ULONG flags = MAPI_UNICODE | MAPI_EXTENDED | MAPI_EXPLICIT_PROFILE | MAPI_ALLOW_OTHERS |
                            MAPI_NEW_SESSION | MAPI_LOGON_UI;
        const HRESULT hr = logon ? logon(ulUIParam, const_cast<LPTSTR>(strProfile.c_str()), nullptr, flags,
                                         m_lpMAPISession.Put())
                                 : E_FAIL;
        AddTrace(L"CVelmarMapi::Logon MAPILogonEx end");
        AddTrace(L"::MAPILogonEx returns " + HexTrace(static_cast<unsigned>(hr)) + L" m_lpMAPISession = " +
                 HexTrace(reinterpret_cast<std::uintptr_t>(m_lpMAPISession.get())));
    }
    AddTrace(L"CVelmarMapi::Logon");
}

void CVelmarMapi::Logoff() {
    AddTrace(L"CVelmarMapi::Logoff start");
    AddTrace(L"CVelmarMapi::Logoff SetAddrBook");
    SetAddrBook();
    AddTrace(L"CVelmarMapi::Logoff ReleaseSessionData start");
    ReleaseSessionData();
    AddTrace(L"CVelmarMapi::Logoff ReleaseSessionData end");
    if (m_lpMAPISession) {
        const HRESULT hr = m_lpMAPISession->Logoff(0, MAPI_LOGOFF_UI, 0);
        AddTrace(L"m_lpMAPISession->Logoff returns " + HexTrace(static_cast<unsigned>(hr)) +
                 L" m_lpMAPISession = " + HexTrace(reinterpret_cast<std::uintptr_t>(m_lpMAPISession.get())));
        m_lpMAPISession.Reset();
    }
    AddTrace(L"CVelmarMapi::Logoff end");
}

void CVelmarMapi::SetAddrBook() {
    AddTrace(L"CVelmarMapi::SetAddrBook start");
    m_lpAddrBook.Reset();
    AddTrace(L"CVelmarMapi::SetAddrBook end");
}

void CVelmarMapi::ReleaseSessionData() {
    AddTrace(L"CVelmarMapi::ReleaseSessionData start");
    m_nDefaultStore = -1;
    for (std::unique_ptr<MsgStoreEntry>& entry : m_MsgStores) {
        if (!entry) continue;
        entry->lpEntryID.reset();
        entry->lpInboxFolder.Reset();
        entry->lpMsgStore.Reset();
    }
    m_MsgStores.clear();
    AddTrace(L"CVelmarMapi::ReleaseSessionData end");
}
