#include "mapi/spool/StoreFiling.h"

#include <cstring>

#include "mapi/imap/ImapSync.h"
#include "mapi/provider/Maildir.h"
#include "mapi/provider/MaildirWriter.h"

namespace velmar::mapi {

bool FileInInbox(const CStoreConfig& store, std::string_view message, std::string& problem) {
    if (store.imap) return CImapSync::ForStore(store)->Append(kImapInbox, message, 0, problem);
    if (!EnsureMaildir(store.path, kInboxFolder)) {
        problem = "cannot open the inbox of " + store.path;
        return false;
    }
    const CWrittenFile written = WriteMaildirMessage(FolderPath(store.path, kInboxFolder), message, true, "");
    if (written.error != 0)
        problem = std::string("cannot write into ") + store.path + ": " + std::strerror(written.error);
    return written.error == 0;
}

bool FileAsSent(const CStoreConfig& store, const std::string& sentFolder, std::string_view message,
                std::string& problem) {
    if (store.imap) {
        const std::shared_ptr<CImapSync> sync = CImapSync::ForStore(store);
        sync->AwaitFirstPass();
        // The folder the message names, unless that is only the usual name its store gave before the server
        // was asked: then the one the server has for sent messages.
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

}  // namespace velmar::mapi
