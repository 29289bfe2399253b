// The client's end of the service's channel (named pipe on Windows, Unix-domain socket on POSIX).
#pragma once

#include <memory>
#include <string>

namespace velmar::tools {

class IClientChannel {
public:
    virtual ~IClientChannel() = default;
    // Sends one request (the channel adds the framing).
    virtual bool Send(const std::string& request) = 0;
    // The next reply; false when none came within timeoutMilliseconds or the connection ended.
    virtual bool Receive(std::string& reply, int timeoutMilliseconds) = 0;
};

// Null with error text when the service cannot be reached.
std::unique_ptr<IClientChannel> ConnectToService(std::string& error);

}  // namespace velmar::tools
