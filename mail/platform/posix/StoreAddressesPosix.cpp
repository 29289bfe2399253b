// The owners of the stores, on POSIX: our MAPI's profile file names each store's owner, so the map of
// display names to addresses comes from there, for the profile of the last logon.
#include "mail/VelmarMapi.h"
#include "mapi/provider/Profiles.h"

std::map<std::wstring, std::wstring> CVelmarMapi::StoreAddresses() {
    AddTrace(L"CVelmarMapi::OpenMessageStoreTable CreateDispatch");
    std::map<std::wstring, std::wstring> addresses;
    for (const velmar::mapi::CProfile& profile : velmar::mapi::LoadProfiles()) {
        if (m_strProfileName.empty() ? !profile.isDefault : profile.name != m_strProfileName) continue;
        for (const velmar::mapi::CStoreConfig& store : profile.stores) {
            AddTrace(L"Store DisplayName: " + store.displayName);
            AddTrace(L"Store email: " + store.ownerAddress);
            addresses[store.displayName] = store.ownerAddress;
        }
    }
    AddTrace(L"Found Folders finished");
    return addresses;
}
