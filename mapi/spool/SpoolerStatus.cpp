#include "mapi/spool/SpoolerStatus.h"

#include "mapi/provider/EntryId.h"
#include "mapi/spool/Spooler.h"
#include "mapitags.h"

namespace velmar::mapi {
namespace {

// PR_STATUS_CODE bits.
constexpr std::int32_t kStatusAvailable = 0x00000001;
constexpr std::int32_t kStatusOutboundActive = 0x00000008;

class CSpoolerStatus : public CMapiProp<IMAPIStatus> {
public:
    HRESULT ValidateState(ULONG_PTR, ULONG) override { return S_OK; }
    HRESULT SettingsDialog(ULONG_PTR, ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT ChangePassword(LPTSTR, LPTSTR, ULONG) override { return MAPI_E_NO_SUPPORT; }
    // Upload sends the queue and waits for that. Download brings the stores that are kept in sync up to
    // date now.
    HRESULT FlushQueues(ULONG_PTR, ULONG, LPENTRYID, ULONG ulFlags) override {
        if (ulFlags & FLUSH_UPLOAD) CSpooler::Instance().Flush();
        if (ulFlags & FLUSH_DOWNLOAD) CSpooler::Instance().SyncStoresNow();
        return S_OK;
    }

protected:
    std::vector<CPropValue> Properties() const override { return SpoolerStatusRow(); }
    bool SupportsInterface(REFIID riid) const override {
        return IsOneOf(riid, {IID_IMAPIStatus, IID_IMAPIProp});
    }
};

}  // namespace

std::vector<CPropValue> SpoolerStatusRow() {
    // What waits in the queue, and what keeps a store from its mail.
    std::wstring status = CSpooler::Instance().StatusText();
    if (const std::wstring stores = CSpooler::Instance().StoreProblems(); !stores.empty())
        status += (status.empty() ? L"" : L"; ") + stores;
    return {{PR_ENTRYID, EncodeEntryId({EntryKind::Spooler, 0, {}, {}})},
            {PR_RESOURCE_TYPE, static_cast<std::int32_t>(MAPI_SPOOLER)},
            {PR_DISPLAY_NAME_W, std::wstring(L"Velmar Spooler")},
            {PR_STATUS_CODE, kStatusAvailable | (status.empty() ? 0 : kStatusOutboundActive)},
            {PR_STATUS_STRING_W, status},
            {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_STATUS)}};
}

CComPtr<IMAPIStatus> MakeSpoolerStatus() {
    return CComPtr<IMAPIStatus>(MakeObject<CSpoolerStatus>().Detach());
}

}  // namespace velmar::mapi
