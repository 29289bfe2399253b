#include "mapi/provider/MaildirStoreKind.h"

#include <cstring>

#include "mapi/provider/Maildir.h"
#include "mapi/provider/MaildirWriter.h"
#include "mapi/provider/Store.h"

namespace velmar::mapi {
namespace {

// New mail arrives in the folders by itself, and they are read afresh whenever they are listed: there is
// nothing to keep in sync.
class CMaildirStoreKind final : public IStoreKind {
public:
    std::wstring ProviderName() const override { return kMaildirProviderName; }
    HRESULT OpenStore(const CStoreConfig& store, LPMDB* lppMDB) const override {
        return OpenMaildirStore(store, lppMDB);
    }
    HRESULT OpenEntry(const CStoreConfig& store, const CEntryId& id, LPCIID lpInterface, ULONG* lpulObjType,
                      LPUNKNOWN* lppUnk) const override {
        return OpenStoreEntry(store, id, lpInterface, lpulObjType, lppUnk);
    }
    bool FileInInbox(const CStoreConfig& store, std::string_view message,
                     std::string& problem) const override {
        if (!EnsureMaildir(store.path, kInboxFolder)) {
            problem = "cannot open the inbox of " + store.path;
            return false;
        }
        const CWrittenFile written =
            WriteMaildirMessage(FolderPath(store.path, kInboxFolder), message, true, "");
        if (written.error != 0)
            problem = std::string("cannot write into ") + store.path + ": " + std::strerror(written.error);
        return written.error == 0;
    }
    bool FileAsSent(const CStoreConfig& store, const std::string& sentFolder, std::string_view message,
                    std::string& problem) const override {
        const std::string folder =
            IsValidFolderName(sentFolder) && !sentFolder.empty() ? sentFolder : kSentFolder;
        if (!EnsureMaildir(store.path, folder)) {
            problem = "cannot open the sent-items folder";
            return false;
        }
        const CWrittenFile filed = WriteMaildirMessage(FolderPath(store.path, folder), message, false, "S");
        if (filed.error != 0)
            problem = std::string("cannot file the sent message: ") + std::strerror(filed.error);
        return filed.error == 0;
    }
    void StartSync(const CStoreConfig&) const override {}
    void SyncAllNow() const override {}
    std::wstring Problems() const override { return {}; }
    void StopAll() const override {}
};

}  // namespace

const IStoreKind& MaildirStoreKind() {
    static const CMaildirStoreKind kind;
    return kind;
}

}  // namespace velmar::mapi
