// One kind of message store (a Maildir tree on this machine, a mailbox on an IMAP server): everything the
// session and the spooler do with a store that depends on its kind goes through here. A new kind is one
// implementation of IStoreKind in a folder of its own, and one line where the session chooses kinds.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "mapi/provider/EntryId.h"
#include "mapi/provider/Profiles.h"
#include "mapidefs.h"

namespace velmar::mapi {

class IStoreKind {
public:
    // PR_PROVIDER_DISPLAY_W of the kind's stores.
    virtual std::wstring ProviderName() const = 0;
    // Opens the store (making its standard folders where that is the kind's way); MAPI_E_NOT_FOUND when
    // it cannot be had.
    virtual HRESULT OpenStore(const CStoreConfig& store, LPMDB* lppMDB) const = 0;
    // Opens a folder or message of the store by its decoded entry id, as the interface asked for.
    virtual HRESULT OpenEntry(const CStoreConfig& store, const CEntryId& id, LPCIID lpInterface,
                              ULONG* lpulObjType, LPUNKNOWN* lppUnk) const = 0;
    // Puts a delivered message (or a delivery report) into the store's inbox; false with problem set when
    // it could not be put there.
    virtual bool FileInInbox(const CStoreConfig& store, std::string_view message,
                             std::string& problem) const = 0;
    // Files a sent message, read, in the sent-items folder: sentFolder as the queued message names it, else
    // the store's own. False with problem set when it could not be filed (the message then stays queued).
    virtual bool FileAsSent(const CStoreConfig& store, const std::string& sentFolder,
                            std::string_view message, std::string& problem) const = 0;
    // Keeps the store current from a logon on; nothing for a kind that is current by itself.
    virtual void StartSync(const CStoreConfig& store) const = 0;
    // Brings every store of the kind in use up to date now and waits for that (at most a while).
    virtual void SyncAllNow() const = 0;
    // What keeps the kind's stores in use from their mail, "Name: problem" each, joined by "; "; empty while
    // all is well.
    virtual std::wstring Problems() const = 0;
    // Ends what StartSync started, for every store of the kind.
    virtual void StopAll() const = 0;

protected:
    ~IStoreKind() = default;
};

// The kinds there are, and which one a store is: the session's choice, handed to the spooler.
class IStoreKinds {
public:
    virtual const IStoreKind& Of(const CStoreConfig& store) const = 0;
    virtual std::vector<const IStoreKind*> All() const = 0;

protected:
    ~IStoreKinds() = default;
};

}  // namespace velmar::mapi
