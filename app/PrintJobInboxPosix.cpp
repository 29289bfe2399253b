#include "app/PrintJobInbox.h"

#include "support/PrintJobChannel.h"

namespace {

constexpr int kJobReadTimeoutMilliseconds = 5000;

}  // namespace

CPrintJobInbox::CPrintJobInbox(CActivityList& activity, std::function<bool(std::vector<std::wstring>)> accept)
    : m_activity(activity), m_accept(std::move(accept)) {}

CPrintJobInbox::~CPrintJobInbox() {
    Stop();
}

bool CPrintJobInbox::Start() {
    std::wstring error;
    m_listener = velmar::service::CreateSocketListener(velmar::PrintJobSocketPath(),
                                                       kJobReadTimeoutMilliseconds, error);
    if (!m_listener) {
        m_activity.AddLine(L"Druckaufträge anderer Programmstarts werden nicht angenommen: " + error);
        return false;
    }
    m_thread = std::thread([this] { Serve(); });
    return true;
}

void CPrintJobInbox::Stop() {
    m_bStop = true;
    if (m_listener) m_listener->Close();
    if (m_thread.joinable()) m_thread.join();
    m_listener.reset();
}

void CPrintJobInbox::Serve() {
    while (!m_bStop) {
        std::wstring error;
        std::unique_ptr<velmar::service::IPipeConnection> connection = m_listener->Accept(error);
        if (!connection) {
            if (!error.empty()) m_activity.AddLine(error);
            continue;
        }
        std::string text;
        std::vector<std::wstring> job;
        if (!connection->ReadRequest(text, error)) continue;
        const bool accepted = velmar::DecodePrintJob(text, job) && m_accept(std::move(job));
        if (!accepted) m_activity.AddLine(L"Druckauftrag abgelehnt");
        connection->WriteReply(accepted ? velmar::kPrintJobAccepted : "FAILED", error);
        connection->End();
    }
}
