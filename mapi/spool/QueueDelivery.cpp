#include "mapi/spool/QueueDelivery.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "mapi/provider/DraftContent.h"
#include "mapi/provider/Maildir.h"
#include "mapi/provider/MaildirWriter.h"
#include "mapi/spool/DeliveryReport.h"
#include "mapi/spool/QueuedMessage.h"
#include "mapi/spool/RemoteDelivery.h"
#include "mapi/spool/SendmailDelivery.h"
#include "support/FileBytes.h"
#include "support/FileDescriptor.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

constexpr size_t kMaxQueuedBytes = 512 * 1024 * 1024;

// Which recipients are served already: one address a line, appended and synced as each is served.
class CServedRecipients {
public:
    CServedRecipients(const CStoreConfig& store, const std::string& key)
        : m_folder(FolderPath(store.path, kOutboxFolder) + "/spool"), m_path(m_folder + "/" + key) {
        if (const auto bytes = ReadFileBytes(Utf8ToWide(m_path), 16 * 1024 * 1024)) {
            size_t at = 0;
            while (at < bytes->size()) {
                const size_t end = std::min(bytes->find('\n', at), bytes->size());
                if (end > at) m_served.push_back(bytes->substr(at, end - at));
                at = end + 1;
            }
        }
    }
    bool Has(const std::string& address) const {
        return std::any_of(m_served.begin(), m_served.end(),
                           [&](const std::string& s) { return SameAddress(s, address); });
    }
    // False when it could not be kept: the recipient is then served, but may be served again after a crash.
    bool Add(const std::string& address) {
        m_served.push_back(address);
        mkdir(m_folder.c_str(), 0700);
        CFileDescriptor fd(
            open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (fd.get() < 0) return false;
        const std::string line = address + "\n";
        return write(fd.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size()) &&
               fsync(fd.get()) == 0;
    }
    void Forget() { unlink(m_path.c_str()); }

private:
    std::string m_folder;
    std::string m_path;
    std::vector<std::string> m_served;
};

const CStoreConfig* StoreOwnedBy(const CProfile& profile, const std::string& address) {
    for (const CStoreConfig& store : profile.stores)
        if (!store.ownerAddress.empty() && SameAddress(WideToUtf8(store.ownerAddress), address))
            return &store;
    return nullptr;
}

CRemoteResult SendRemote(const CProfile& profile, const std::string& from,
                         const std::vector<std::string>& recipients, const std::string& bytes,
                         const std::atomic<bool>& cancel) {
    for (const IRemoteDelivery* way : {&SmtpDelivery(), &SendmailDelivery()})
        if (way->Available(profile)) return way->Deliver(profile, from, recipients, bytes, cancel);
    CRemoteResult result;
    result.problem = "no SMTP server (smtp.url in the profile file) and no " + std::string(kSendmailProgram) +
                     ": the message stays queued";
    return result;
}

}  // namespace

QueueOutcome DeliverQueuedFile(const IStoreKinds& kinds, const CProfile& profile, const CStoreConfig& store,
                               const std::string& path, const std::string& key,
                               const std::atomic<bool>& cancel, std::string& problem) {
    CFileDescriptor fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (fd.get() < 0)
        return errno == ENOENT ? QueueOutcome::Done : (problem = std::strerror(errno), QueueOutcome::Waiting);
    // One process delivers a message at a time; the lock goes with the process, should it die.
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return QueueOutcome::Busy;
    // Delivered meanwhile by the process that held the lock.
    struct stat info {};
    if (fstat(fd.get(), &info) != 0 || info.st_nlink == 0) return QueueOutcome::Done;
    std::string queued;
    if (static_cast<size_t>(info.st_size) > kMaxQueuedBytes) {
        problem = "the message is larger than " + std::to_string(kMaxQueuedBytes) + " bytes";
        return QueueOutcome::Waiting;
    }
    queued.resize(static_cast<size_t>(info.st_size));
    if (pread(fd.get(), queued.data(), queued.size(), 0) != static_cast<ssize_t>(queued.size())) {
        problem = "cannot read " + path;
        return QueueOutcome::Waiting;
    }
    const CQueuedMessage message = ReadQueuedMessage(queued);
    // What leaves: no Bcc (the envelope carries it) and not the spooler's own field.
    const std::string outgoing = WithoutFields(queued, {"Bcc", kSentFolderField});
    CServedRecipients served(store, key);
    std::vector<std::string> remote;
    std::vector<CFailedRecipient> refused;
    for (const std::string& recipient : message.recipients) {
        if (served.Has(recipient)) continue;
        if (const CStoreConfig* local = StoreOwnedBy(profile, recipient)) {
            std::string why;
            if (!kinds.Of(*local).FileInInbox(*local, outgoing, why)) {
                problem = "cannot deliver to " + recipient + ": " + why;
                continue;
            }
            served.Add(recipient);
        } else {
            remote.push_back(recipient);
        }
    }
    if (!remote.empty()) {
        const CRemoteResult sent = SendRemote(profile, message.from, remote, outgoing, cancel);
        for (const std::string& recipient : sent.accepted) served.Add(recipient);
        for (const CFailedRecipient& failed : sent.refused) refused.push_back(failed);
        if (!sent.problem.empty()) problem = sent.problem;
    }
    if (!refused.empty()) {
        // The sender learns of the refusals once; then those recipients count as served.
        const std::string report = MakeDeliveryReport(message, refused, outgoing);
        std::string why;
        if (kinds.Of(store).FileInInbox(store, report, why))
            for (const CFailedRecipient& failed : refused) served.Add(failed.address);
        else
            problem = "cannot write the delivery report: " + why;
    }
    for (const std::string& recipient : message.recipients)
        if (!served.Has(recipient)) return QueueOutcome::Waiting;

    // Filed first, so that a message leaves the queue only once it is in the sent-items folder; on a
    // server that is away it waits, its recipients served, until it can be filed.
    if (!kinds.Of(store).FileAsSent(store, message.sentFolder, WithoutFields(queued, {kSentFolderField}),
                                    problem))
        return QueueOutcome::Waiting;
    // Filed and synced: only now does the message leave the queue.
    RemoveDurably(path);
    served.Forget();
    return QueueOutcome::Done;
}

}  // namespace velmar::mapi
