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
    // Upload sends the queue and waits for that; new mail arrives in Maildir folders by itself, and the
    // folders are read afresh whenever they are listed, so download has nothing more to fetch.
    HRESULT FlushQueues(ULONG_PTR, ULONG, LPENTRYID, ULONG ulFlags) override {
        if (ulFlags & FLUSH_UPLOAD) CSpooler::Instance().Flush();
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
    const std::wstring status = CSpooler::Instance().StatusText();
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
