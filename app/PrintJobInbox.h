// POSIX: the main window's socket for print jobs handed over by later starts of the program and by
// "velmar-client print" (see print/PrintJobChannel.h). One thread takes one job per connection and gives
// it to the window; a client that sends nothing within a few seconds is dropped.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "service/PipeChannel.h"
#include "support/ActivityList.h"

class CPrintJobInbox {
public:
    // accept: from the inbox's thread, puts the job into the window's list; false when it could not.
    CPrintJobInbox(CActivityList& activity, std::function<bool(std::vector<std::wstring>)> accept);
    ~CPrintJobInbox();
    CPrintJobInbox(const CPrintJobInbox&) = delete;
    CPrintJobInbox& operator=(const CPrintJobInbox&) = delete;

    // Opens the socket and starts taking jobs; false, with a line in the activity list, when the socket
    // cannot be had.
    bool Start();
    void Stop();

private:
    void Serve();

    CActivityList& m_activity;
    std::function<bool(std::vector<std::wstring>)> m_accept;
    std::unique_ptr<velmar::service::IPipeListener> m_listener;
    std::atomic<bool> m_bStop{false};
    std::thread m_thread;
};
