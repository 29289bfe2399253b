#include "service/RequestService.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "service/HandledException.h"
#include "support/ActivityList.h"
#include "support/CodePage.h"

namespace velmar::service {
namespace {

constexpr auto kLockWait = std::chrono::milliseconds(10000);
constexpr auto kThreadWait = std::chrono::milliseconds(60000);
constexpr auto kLastReplyWait = std::chrono::milliseconds(3000);
const wchar_t kConnectionError[] = L"Fehler bei Abarbeitung der Verbindungsanforderungen";
const wchar_t kThreadError[] = L"Kommunikationsthread konnte nicht gestartet werden.";
// Each connection has a thread of its own; past this many at once a new one is refused, so that clients
// that hold their connections open cannot take every thread the process may have.
constexpr size_t kMaxRequestThreads = 256;

}  // namespace

CRequestService::CRequestService(CVelmarMapi& mapi, CActivityList& activity, IMainWindow& window,
                                 int memoryLimit)
    : m_activity(activity), m_window(window), m_dispatcher(mapi, activity), m_nMemoryLimit(memoryLimit) {}

CRequestService::~CRequestService() {
    Stop();
}

bool CRequestService::Start() {
    std::wstring error;
    m_listener = CreatePipeListener(error);
    if (!m_listener) {
        m_activity.AddLine(error);
        return false;
    }
    try {
        m_listenerThread = std::thread(&CRequestService::ListenerLoop, this);
    } catch (const std::system_error&) {
        m_activity.AddLine(kThreadError);
        return false;
    }
    return true;
}

void CRequestService::Stop() {
    m_bStop = true;
    if (m_listener) m_listener->Close();
    if (m_listenerThread.joinable()) m_listenerThread.join();
    {
        std::unique_lock lock(m_activeLock);
        for (const CActiveConnection& active : m_active)
            if (!active.ending) active.connection->Interrupt();
        m_activeChanged.wait_for(lock, kLastReplyWait, [this] {
            return std::none_of(m_active.begin(), m_active.end(),
                                [](const CActiveConnection& active) { return active.ending; });
        });
        for (const CActiveConnection& active : m_active) active.connection->Interrupt();
    }
    std::vector<CRequestThread> threads;
    {
        std::lock_guard lock(m_connectionLock);
        threads.swap(m_threads);
        m_pending.clear();
    }
    for (CRequestThread& request : threads)
        if (request.thread.joinable()) request.thread.join();
    m_unqueued.clear();
    m_listener.reset();
}

void CRequestService::ListenerLoop() {
    while (!m_bStop) {
        std::wstring error;
        std::unique_ptr<IPipeConnection> connection = m_listener->Accept(error);
        if (connection) {
            if (!m_connectionLock.try_lock_for(kLockWait)) {
                m_activity.AddLine(kConnectionError);
                m_unqueued.push_back(std::move(connection));
            } else {
                ReapFinishedThreads();
                const bool full = m_threads.size() >= kMaxRequestThreads;
                if (!full) {
                    m_pending.push_back(std::move(connection));
                    auto done = std::make_shared<std::atomic<bool>>(false);
                    try {
                        m_threads.push_back(
                            {std::thread(&CRequestService::ServeConnection, this, done), done});
                    } catch (const std::system_error&) {
                        m_activity.AddLine(kThreadError);
                    }
                }
                m_connectionLock.unlock();
                if (full) {
                    m_activity.AddLine(L"Zu viele gleichzeitige Verbindungen (" +
                                       std::to_wstring(kMaxRequestThreads) +
                                       L"): eine weitere wurde abgelehnt");
                    connection.reset();
                }
            }
        } else if (!error.empty()) {
            m_activity.AddLine(error);
        }
        GuardMemory();
    }
    // The program ends with the listener, as when it closes the window.
    m_window.PostClose();
}

// A finished thread keeps its stack until it is joined; a resident service must not collect them.
void CRequestService::ReapFinishedThreads() {
    const auto finished = std::partition(m_threads.begin(), m_threads.end(),
                                         [](const CRequestThread& request) { return !*request.done; });
    for (auto it = finished; it != m_threads.end(); ++it)
        if (it->thread.joinable()) it->thread.join();
    m_threads.erase(finished, m_threads.end());
}

void CRequestService::GuardMemory() {
    unsigned long long bytes = 0;
    if (m_nMemoryLimit <= 0 || !ProcessWorkingSet(bytes) ||
        static_cast<long long>(bytes >> 20) <= m_nMemoryLimit)
        return;
    std::vector<std::shared_ptr<std::atomic<bool>>> running;
    {
        std::lock_guard lock(m_connectionLock);
        for (const CRequestThread& request : m_threads) running.push_back(request.done);
    }
    for (const auto& done : running) {
        const auto deadline = std::chrono::steady_clock::now() + kThreadWait;
        while (!*done && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!m_bStopSuppress) m_bStop = true;
}

void CRequestService::ServeConnection(const std::shared_ptr<std::atomic<bool>>& done) {
    std::unique_ptr<IPipeConnection> connection;
    if (m_connectionLock.try_lock_for(kLockWait)) {
        if (!m_pending.empty()) {
            connection = std::move(m_pending.front());
            m_pending.pop_front();
        }
        m_connectionLock.unlock();
    }
    if (!connection) {
        m_activity.AddLine(kConnectionError);
        *done = true;
        return;
    }
    {
        std::lock_guard lock(m_activeLock);
        m_active.push_back({connection.get()});
    }
    try {
        ServeRequests(*connection);
    } catch (...) {
        // Outside any command (reading, tracing, writing): this connection ends, the service goes on.
        m_activity.AddLine(L"Verbindung beendet: " + HandledExceptionText());
    }
    connection->End();  // while it is listed, so that Stop can cut a flush short
    {
        std::lock_guard lock(m_activeLock);
        m_active.erase(std::find_if(m_active.begin(), m_active.end(), [&](const CActiveConnection& active) {
            return active.connection == connection.get();
        }));
    }
    m_activeChanged.notify_all();
    connection.reset();  // the connection is closed before the thread counts as done
    *done = true;
}

void CRequestService::MarkEnding(IPipeConnection& connection) {
    std::lock_guard lock(m_activeLock);
    for (CActiveConnection& active : m_active)
        if (active.connection == &connection) active.ending = true;
}

// Reads and dispatches until the connection ends or the service stops; what the thread set up for the
// mail layer is undone when this returns.
void CRequestService::ServeRequests(IPipeConnection& connection) {
    const CVelmarMapi::CThreadContext threadContext;
    std::string text;
    std::wstring error;
    while (!m_bStop) {
        if (!connection.ReadRequest(text, error)) {
            m_activity.AddLine(error);
            break;
        }
        m_activity.AddLine(L"HandlePipeRequest");
        m_activity.AddLine(AnsiToWide(text));
        CkJsonObject request;
        // Only ever parsed: a request text that names a file is no way to read that file.
        request.LoadText(text);
        const char* target = request.StringOf("command-target");
        if (target && std::strcmp(target, "MAPI") == 0) {
            m_activity.AddLine(L"Mapi handling");
            bool endsProgram = false;
            m_dispatcher.Dispatch(request, connection, m_bStop, endsProgram);
            if (endsProgram) {
                MarkEnding(connection);  // before the close is posted, so that Stop waits for the reply
                m_window.PostClose();
                break;
            }
        }
    }
}

}  // namespace velmar::service
