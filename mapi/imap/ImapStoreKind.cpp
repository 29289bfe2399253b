#include "mapi/imap/ImapStoreKind.h"

#include "mapi/imap/ImapStore.h"
#include "mapi/imap/ImapSync.h"

namespace velmar::mapi {
namespace {

class CImapStoreKind final : public IStoreKind {
public:
    std::wstring ProviderName() const override { return kImapProviderName; }
    HRESULT OpenStore(const CStoreConfig& store, LPMDB* lppMDB) const override {
        return OpenImapStore(store, lppMDB);
    }
    HRESULT OpenEntry(const CStoreConfig& store, const CEntryId& id, LPCIID lpInterface, ULONG* lpulObjType,
                      LPUNKNOWN* lppUnk) const override {
        return OpenImapEntry(store, id, lpInterface, lpulObjType, lppUnk);
    }
    bool FileInInbox(const CStoreConfig& store, std::string_view message,
                     std::string& problem) const override {
        return CImapSync::ForStore(store)->Append(kImapInbox, message, 0, problem);
    }
    // Appended with \Seen.
    bool FileAsSent(const CStoreConfig& store, const std::string& sentFolder, std::string_view message,
                    std::string& problem) const override {
        const std::shared_ptr<CImapSync> sync = CImapSync::ForStore(store);
        sync->AwaitFirstPass();
        // The folder the message names ("/" and a folder on the server), unless that is only the usual name
        // its store gave before the server was asked: then the one the server has for sent messages.
        std::optional<std::string> folder = sync->FolderOfRole(EImapRole::Sent);
        if (sentFolder.size() > 1 && sentFolder.front() == '/' &&
            sentFolder.substr(1) != UsualFolderOfRole(EImapRole::Sent))
            folder = sentFolder.substr(1);
        // The copy waits in the queue until the server has a folder for it.
        if (!folder) {
            problem = "the server has no folder for sent messages";
            return false;
        }
        if (sync->Append(*folder, message, kImapSeen, problem)) return true;
        problem = "cannot file the sent message on the server: " + problem;
        return false;
    }
    // The inbox is synced from the logon on, so that lookups find it ready.
    void StartSync(const CStoreConfig& store) const override { CImapSync::ForStore(store); }
    void SyncAllNow() const override { CImapSync::ResyncAll(); }
    std::wstring Problems() const override { return CImapSync::AllProblems(); }
    void StopAll() const override { CImapSync::StopAll(); }
};

}  // namespace

const IStoreKind& ImapStoreKind() {
    static const CImapStoreKind kind;
    return kind;
}

}  // namespace velmar::mapi
