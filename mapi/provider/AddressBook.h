// The address book of a session: no containers to browse, but ResolveName knows addresses, the owners of
// the profile's stores and the profile's contacts.
#pragma once

#include <optional>

#include "mapi/provider/MapiProp.h"
#include "mapi/provider/Profiles.h"

namespace velmar::mapi {

// The address a recipient text stands for: an address itself ("a@b.example", "Name <a@b.example>"), else
// a store owner's or contact's name (letter case aside); nullopt when it names nobody or more than one.
struct CResolvedName {
    std::wstring displayName;
    std::wstring address;
};
std::optional<CResolvedName> ResolveRecipientText(const CProfile& profile, const std::wstring& text);

CComPtr<IAddrBook> MakeAddressBook(const CProfile& profile);

}  // namespace velmar::mapi
