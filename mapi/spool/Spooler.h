// The spooler of this MAPI: one thread per process that delivers the messages queued in the Outboxes of
// the profiles whose sessions logged on. A recipient who owns a store of the profile gets the message in
// that store's inbox; the others get it through the profile's SMTP server (smtp.* keys, SmtpSettings.h),
// else through /usr/sbin/sendmail, else it stays queued. Once every recipient is served (delivered, or
// refused for good and reported to the sender), the message is filed in the sent-items folder with its
// read flag, and only then leaves the queue: a crash at any moment leaves it queued, so it is delivered at
// worst twice, never lost. Temporary failures are tried again after growing pauses.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "mapi/provider/Profiles.h"
#include "mapi/provider/StoreKind.h"
#include "support/Backoff.h"

namespace velmar::mapi {

class CSpooler {
public:
    static CSpooler& Instance();
    ~CSpooler();
    CSpooler(const CSpooler&) = delete;
    CSpooler& operator=(const CSpooler&) = delete;

    // The kinds of the stores it files into (the session's choice); set before the first Watch.
    void UseStoreKinds(const IStoreKinds& kinds);
    // Brings every store in use up to date now, as far as its kind keeps one in sync, and waits for that.
    void SyncStoresNow();
    // What keeps stores in use from their mail (see IStoreKind::Problems); empty while all is well.
    std::wstring StoreProblems() const;
    // Delivers the queues of profile's stores from now on (a profile seen again replaces its settings), and
    // looks at them at once: messages queued before a restart go out now.
    void Watch(const CProfile& profile);
    // Looks at the queues now.
    void Wake();
    // Sends every queued message at once, pauses after failures aside, and waits until that pass is done.
    void Flush();
    // Stops the thread (after the delivery under way, if any); Watch starts it again.
    void Stop();
    // What the last pass left queued and why; empty when nothing waits.
    std::wstring StatusText() const;

private:
    CSpooler() = default;

    void Run();
    // One look at every queue; returns when the next message is due again (time_point::max when none).
    std::chrono::steady_clock::time_point Pass(bool force);

    mutable std::mutex m_lock;
    std::condition_variable m_changed;
    std::map<std::wstring, CProfile> m_profiles;
    std::map<std::string, CBackoff> m_retries;  // by queue file key
    std::wstring m_status;
    bool m_wakeRequested = false;
    bool m_forceRequested = false;
    bool m_stopRequested = false;
    std::atomic<const IStoreKinds*> m_kinds{nullptr};
    std::atomic<bool> m_cancel{false};  // ends a transfer under way when the spooler stops
    std::uint64_t m_passesStarted = 0;
    std::uint64_t m_passesDone = 0;
    std::thread m_thread;
};

}  // namespace velmar::mapi
