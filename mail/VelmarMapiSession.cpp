// CVelmarMapi: construction and destruction, MAPI initialisation, profiles, logon and logoff, and the trace.
#include <cwchar>

#include "mail/MapiHelpers.h"
#include "mail/VelmarMapi.h"
#include "support/ActivityList.h"
#include "support/CodePage.h"
#include "support/IniFile.h"

using namespace velmar::mail;

namespace {

std::wstring FormattedHex(const wchar_t* format, unsigned long long value) {
    wchar_t text[32] = {};
    std::swprintf(text, 32, format, static_cast<unsigned>(value & 0xFFFFFFFFu));
    return text;
}

}  // namespace

std::wstring HexTrace(unsigned long long value) {
    return FormattedHex(L"0x%X", value);
}

std::wstring LowerHexTrace(unsigned long long value) {
    return FormattedHex(L"0x%x", value);
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
    const CTraceScope trace(*this, L"CVelmarMapi::~CVelmarMapi");
    Logoff();
    m_lpProfAdmin.Reset();
    m_lpAddrBook.Reset();
    m_lpMAPISession.Reset();
    const CTraceScope uninitializeTrace(*this, L"CVelmarMapi::MAPIUninitialize");
    if (m_bMAPIInitialized) {
        if (const auto uninitialize = BoundMapiFunction<PFN_MAPIUninitialize>(MapiSlot::MAPIUninitialize))
            uninitialize();
        m_bMAPIInitialized = false;
    }
}

void CVelmarMapi::AddTrace(std::wstring text) {
    if (m_pActivityList) m_pActivityList->AddTraceLine(std::move(text));
}

void CVelmarMapi::OutputError(const std::wstring& text) {
    const CTraceScope trace(*this, L"CVelmarMapi::OutputError");
    // Deliberate: the text is written twice.
    AddTrace(text);
    AddTrace(text);
}

void CVelmarMapi::MAPIInitialize() {
    const CTraceScope trace(*this, L"CVelmarMapi::MAPIInitialize");
    if (m_bMAPIInitialized) return;
    if (const auto initialize = BoundMapiFunction<PFN_MAPIInitialize>(MapiSlot::MAPIInitialize)) {
        MAPIINIT_0 init{0, 0};
        if (SUCCEEDED(initialize(&init))) m_bMAPIInitialized = true;
    }
}

std::vector<std::wstring> CVelmarMapi::GetProfileNames(int& nDefaultProfile) {
    const CTraceScope trace(*this, L"CVelmarMapi::GetProfileNames");
    nDefaultProfile = -1;
    // The list is built once for the life of the object.
    if (!m_ProfileNames.empty() || m_lpProfAdmin) return m_ProfileNames;
    trace.Step(L"MAPIAdminProfiles start");
    const auto adminProfiles = BoundMapiFunction<PFN_MAPIAdminProfiles>(MapiSlot::MAPIAdminProfiles);
    if (!adminProfiles) return m_ProfileNames;
    const HRESULT hrAdmin = adminProfiles(0, m_lpProfAdmin.Put());
    // Deliberate: the closing line repeats the opening text.
    trace.Step(L"MAPIAdminProfiles start");
    if (FAILED(hrAdmin) || !m_lpProfAdmin) return m_ProfileNames;

    trace.Step(L"GetProfileTable start");
    CComPtr<IMAPITable> table;
    const HRESULT hrTable = m_lpProfAdmin->GetProfileTable(0, table.Put());
    trace.Step(L"GetProfileTable end");
    if (FAILED(hrTable) || !table) return m_ProfileNames;
    ULONG count = 0;
    table->GetRowCount(0, &count);
    table->SeekRow(BOOKMARK_BEGINNING, 0, nullptr);
    trace.Step(L"QueryRows start");
    RowSetPtr rows;
    const HRESULT hrRows = table->QueryRows(static_cast<LONG>(count), 0, OutPtr(rows));
    trace.Step(L"QueryRows end");
    if (FAILED(hrRows) || !rows) return m_ProfileNames;
    for (ULONG r = 0; r < rows->cRows; ++r) {
        const SRow& row = rows->aRow[r];
        // Column order decides: each row gives its first name column, and the default flag names the row
        // whatever its value (so with the column on every row, the last row is reported).
        for (ULONG c = 0; c < row.cValues; ++c) {
            const SPropValue& value = row.lpProps[c];
            if (m_ProfileNames.size() <= r) {
                if (value.ulPropTag == PR_DISPLAY_NAME_W)
                    m_ProfileNames.push_back(value.Value.lpszW ? value.Value.lpszW : L"");
                else if (value.ulPropTag == PR_DISPLAY_NAME_A || value.ulPropTag == 0x30000003)
                    m_ProfileNames.push_back(velmar::AnsiToWide(value.Value.lpszA ? value.Value.lpszA : ""));
            }
            if (value.ulPropTag == PR_DEFAULT_PROFILE) nDefaultProfile = static_cast<int>(r);
        }
    }
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
        m_strSessionProfileName = strProfile;
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

namespace {

// The session lock this thread holds, for the release after the lookup.
thread_local CVelmarMapi::CSessionLock* t_pHeldSessionLock = nullptr;

}  // namespace

CVelmarMapi::CSessionLock::CSessionLock(CVelmarMapi& mapi) : m_mapi(mapi), m_lock(mapi.m_sessionMutex) {
    t_pHeldSessionLock = this;
}

CVelmarMapi::CSessionLock::~CSessionLock() {
    if (t_pHeldSessionLock == this) t_pHeldSessionLock = nullptr;
}

CVelmarMapi::CSessionLockGap::CSessionLockGap(CVelmarMapi& mapi) {
    CSessionLock* held = t_pHeldSessionLock;
    if (!held || &held->m_mapi != &mapi || !held->m_lock.owns_lock()) return;
    m_pGivenUp = held;
    held->m_lock.unlock();
}

CVelmarMapi::CSessionLockGap::~CSessionLockGap() {
    if (m_pGivenUp) m_pGivenUp->m_lock.lock();
}

void CVelmarMapi::ReleaseSessionLock() {
    if (t_pHeldSessionLock && &t_pHeldSessionLock->m_mapi == this && t_pHeldSessionLock->m_lock.owns_lock())
        t_pHeldSessionLock->m_lock.unlock();
}

bool CVelmarMapi::IsLoggedOnTo(const std::wstring& strProfile) const {
    return m_lpMAPISession && m_strSessionProfileName == strProfile;
}

bool CVelmarMapi::IsInitialized() {
    AddTrace(L"CVelmarMapi::IsInitialized");
    return m_lpMAPISession && m_nStoreIndex != -1;
}

void CVelmarMapi::Logoff() {
    const CTraceScope trace(*this, L"CVelmarMapi::Logoff");
    trace.Step(L"SetAddrBook");
    SetAddrBook();
    trace.Step(L"ReleaseSessionData start");
    ReleaseSessionData();
    trace.Step(L"ReleaseSessionData end");
    if (m_lpMAPISession) {
        const HRESULT hr = m_lpMAPISession->Logoff(0, MAPI_LOGOFF_UI, 0);
        AddTrace(L"m_lpMAPISession->Logoff returns " + HexTrace(static_cast<unsigned>(hr)) +
                 L" m_lpMAPISession = " + HexTrace(reinterpret_cast<std::uintptr_t>(m_lpMAPISession.get())));
        m_lpMAPISession.Reset();
    }
}

void CVelmarMapi::SetAddrBook() {
    const CTraceScope trace(*this, L"CVelmarMapi::SetAddrBook");
    m_lpAddrBook.Reset();
}

void CVelmarMapi::ReleaseSessionData() {
    const CTraceScope trace(*this, L"CVelmarMapi::ReleaseSessionData");
    m_nDefaultStore = -1;
    for (std::unique_ptr<MsgStoreEntry>& entry : m_MsgStores) {
        if (!entry) continue;
        entry->lpEntryID.reset();
        entry->lpInboxFolder.Reset();
        entry->lpMsgStore.Reset();
    }
    m_MsgStores.clear();
}
