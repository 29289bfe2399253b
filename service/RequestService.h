// The request service: a listener thread offers the channel, and every accepted connection is served by a
// request thread of its own, which reads requests one after another and hands those addressed to "MAPI" to
// the dispatcher. A memory guard stops the service when the process grows past "MEM_LIMIT=".
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "service/Dispatcher.h"
#include "support/BinarySemaphore.h"

namespace velmar::service {

// What the service needs of the main window.
class IMainWindow {
public:
    virtual ~IMainWindow() = default;
    // Asks the window to close, which ends the program (asynchronously, as a posted WM_CLOSE does).
    virtual void PostClose() = 0;
};

class CRequestService {
public:
    // memoryLimit: megabytes; 0 or less switches the guard off.
    CRequestService(CVelmarMapi& mapi, CActivityList& activity, IMainWindow& window, int memoryLimit);
    ~CRequestService();
    CRequestService(const CRequestService&) = delete;
    CRequestService& operator=(const CRequestService&) = delete;

    // Offers the channel and starts the listener; false (with an activity line) when that is not possible.
    bool Start();
    // Sets the stop flag, ends the listener and every connection, and waits for their threads.
    void Stop();

private:
    struct CRequestThread {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };

    void ListenerLoop();
    void ServeConnection(const std::shared_ptr<std::atomic<bool>>& done);
    void ServeRequests(IPipeConnection& connection);
    void MarkEnding(IPipeConnection& connection);
    // Joins and forgets request threads that have ended; the caller holds the connection lock.
    void ReapFinishedThreads();
    void GuardMemory();

    CActivityList& m_activity;
    IMainWindow& m_window;
    CRequestDispatcher m_dispatcher;
    int m_nMemoryLimit;
    std::unique_ptr<IPipeListener> m_listener;
    std::thread m_listenerThread;

    // The connection lock: guards the pending connections and the thread list, with 10 s waits.
    velmar::CBinarySemaphore m_connectionLock;
    std::deque<std::unique_ptr<IPipeConnection>> m_pending;
    std::vector<CRequestThread> m_threads;
    // Connections the listener could not queue: they stay open, unanswered, until the service stops.
    std::vector<std::unique_ptr<IPipeConnection>> m_unqueued;

    // Connections being served, for Stop. One that is ending hands over its last reply, the answer to
    // the request that ends the program; Stop lets the client read it before it cuts the connection.
    struct CActiveConnection {
        IPipeConnection* connection;
        bool ending = false;
    };
    std::mutex m_activeLock;
    std::condition_variable m_activeChanged;
    std::vector<CActiveConnection> m_active;

    std::atomic<bool> m_bStop{false};
    std::atomic<bool> m_bStopSuppress{false};  // nothing sets it; the memory guard honours it
};

}  // namespace velmar::service
