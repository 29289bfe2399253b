#include "mapi/spool/Spooler.h"

#include <dirent.h>

#include <algorithm>
#include <vector>

#include "mapi/provider/Maildir.h"
#include "mapi/spool/QueueDelivery.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kFirstPause = std::chrono::seconds(30);
constexpr auto kLongestPause = std::chrono::hours(1);
constexpr auto kLongestFlush = std::chrono::minutes(5);

struct CQueuedFile {
    std::string path;
    std::string key;
};

// The queue of a store: the files of its Outbox, drafts (flag D) aside, oldest name first.
std::vector<CQueuedFile> QueuedFiles(const CStoreConfig& store) {
    std::vector<CQueuedFile> files;
    const std::string outbox = FolderPath(store.path, kOutboxFolder);
    for (const char* sub : {"new", "cur"}) {
        DIR* dir = opendir((outbox + "/" + sub).c_str());
        if (!dir) continue;
        while (const dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name.empty() || name.front() == '.') continue;
            const CMaildirName parts = SplitMaildirName(name);
            if (parts.flags.find('D') != std::string::npos) continue;
            files.push_back({outbox + "/" + sub + "/" + name, parts.key});
        }
        closedir(dir);
    }
    std::sort(files.begin(), files.end(),
              [](const CQueuedFile& a, const CQueuedFile& b) { return a.key < b.key; });
    return files;
}

}  // namespace

CSpooler& CSpooler::Instance() {
    static CSpooler spooler;
    return spooler;
}

CSpooler::~CSpooler() {
    Stop();
}

void CSpooler::UseStoreKinds(const IStoreKinds& kinds) {
    m_kinds.store(&kinds);
}

void CSpooler::SyncStoresNow() {
    if (const IStoreKinds* kinds = m_kinds.load())
        for (const IStoreKind* kind : kinds->All()) kind->SyncAllNow();
}

std::wstring CSpooler::StoreProblems() const {
    std::wstring problems;
    if (const IStoreKinds* kinds = m_kinds.load())
        for (const IStoreKind* kind : kinds->All())
            if (const std::wstring more = kind->Problems(); !more.empty())
                problems += (problems.empty() ? L"" : L"; ") + more;
    return problems;
}

void CSpooler::Watch(const CProfile& profile) {
    std::lock_guard lock(m_lock);
    m_profiles[profile.name] = profile;
    m_wakeRequested = true;
    if (!m_thread.joinable()) {
        m_stopRequested = false;
        m_cancel = false;
        m_thread = std::thread([this] { Run(); });
    }
    m_changed.notify_all();
}

void CSpooler::Wake() {
    std::lock_guard lock(m_lock);
    m_wakeRequested = true;
    m_changed.notify_all();
}

void CSpooler::Flush() {
    std::unique_lock lock(m_lock);
    if (!m_thread.joinable()) return;
    m_wakeRequested = true;
    m_forceRequested = true;
    // A pass that starts after this request sees every message queued before it.
    const std::uint64_t wanted = m_passesStarted + 1;
    m_changed.notify_all();
    m_changed.wait_for(lock, kLongestFlush, [&] { return m_passesDone >= wanted || m_stopRequested; });
}

void CSpooler::Stop() {
    std::thread thread;
    {
        std::lock_guard lock(m_lock);
        m_stopRequested = true;
        m_cancel = true;
        m_changed.notify_all();
        thread = std::move(m_thread);
    }
    if (thread.joinable()) thread.join();
}

std::wstring CSpooler::StatusText() const {
    std::lock_guard lock(m_lock);
    return m_status;
}

void CSpooler::Run() {
    std::unique_lock lock(m_lock);
    Clock::time_point due = Clock::time_point::max();
    while (!m_stopRequested) {
        const auto ready = [&] { return m_stopRequested || m_wakeRequested; };
        if (due == Clock::time_point::max())
            m_changed.wait(lock, ready);
        else
            m_changed.wait_until(lock, due, ready);
        if (m_stopRequested) break;
        const bool force = m_forceRequested;
        m_wakeRequested = false;
        m_forceRequested = false;
        ++m_passesStarted;
        lock.unlock();
        due = Pass(force);
        lock.lock();
        ++m_passesDone;
        m_changed.notify_all();
    }
}

Clock::time_point CSpooler::Pass(bool force) {
    // Nothing is filed before the session has said what kinds its stores are.
    const IStoreKinds* kinds = m_kinds.load();
    if (!kinds) return Clock::time_point::max();
    std::vector<CProfile> profiles;
    {
        std::lock_guard lock(m_lock);
        for (const auto& [name, profile] : m_profiles) profiles.push_back(profile);
    }
    // The profile file as it is now: a password put right or a server changed counts from the next pass on,
    // without a new logon.
    for (const CProfile& now : LoadProfiles())
        for (CProfile& profile : profiles)
            if (profile.name == now.name) profile = now;
    Clock::time_point next = Clock::time_point::max();
    std::wstring status;
    size_t waiting = 0;
    for (const CProfile& profile : profiles) {
        for (const CStoreConfig& store : profile.stores) {
            for (const CQueuedFile& file : QueuedFiles(store)) {
                {
                    std::lock_guard lock(m_lock);
                    if (m_stopRequested) return next;
                    const auto retry = m_retries.find(file.key);
                    if (!force && retry != m_retries.end() && retry->second.Pausing()) {
                        next = std::min(next, retry->second.Due());
                        ++waiting;
                        continue;
                    }
                }
                std::string problem;
                const QueueOutcome outcome =
                    DeliverQueuedFile(*kinds, profile, store, file.path, file.key, m_cancel, problem);
                std::lock_guard lock(m_lock);
                if (outcome == QueueOutcome::Waiting) {
                    CBackoff& retry =
                        m_retries.try_emplace(file.key, kFirstPause, kLongestPause).first->second;
                    retry.Fail();
                    next = std::min(next, retry.Due());
                    ++waiting;
                    status = Utf8ToWide(SanitizeUtf8(problem));
                } else {
                    m_retries.erase(file.key);
                    // Another process holds it: look again soon, it may die before it is done.
                    if (outcome == QueueOutcome::Busy) next = std::min(next, Clock::now() + kFirstPause);
                }
            }
        }
    }
    std::lock_guard lock(m_lock);
    m_status = waiting == 0 ? std::wstring()
                            : std::to_wstring(waiting) + L" message(s) queued" +
                                  (status.empty() ? L"" : L": " + status);
    return next;
}

}  // namespace velmar::mapi
