// The channel the request service listens on: on Windows the named pipe
// "\\.\pipe\velmartaskschedulernamedpipe" (message mode, unlimited instances, 1,000,000-byte buffers); on
// POSIX a Unix-domain socket of the same name where a request and a reply each end with a zero byte, since
// a stream has no message boundaries.
#pragma once

#include <memory>
#include <string>

namespace velmar::service {

class IPipeConnection {
public:
    virtual ~IPipeConnection() = default;
    // The next request's text, up to its zero byte. False when the connection ended or failed; error is then
    // the line to add to the activity list.
    virtual bool ReadRequest(std::string& request, std::wstring& error) = 0;
    // Writes one reply in one piece; false with error text when that fails.
    virtual bool WriteReply(const std::string& reply, std::wstring& error) = 0;
    // Ends the connection as its request thread finishes with it: what the client has not read yet is
    // flushed to it first, unless Interrupt cuts that short.
    virtual void End() = 0;
    // Ends a connection from another thread, so that its reader, writer or End returns (used at shutdown).
    virtual void Interrupt() = 0;
};

class IPipeListener {
public:
    virtual ~IPipeListener() = default;
    // Offers an instance of the channel and waits for a client. Null when none was accepted; error is then
    // the line to add for a client that was refused, else empty (failures of the channel itself are not
    // reported, and a closed listener returns at once).
    virtual std::unique_ptr<IPipeConnection> Accept(std::wstring& error) = 0;
    // Makes a waiting Accept return, so that a stopping service can end.
    virtual void Close() = 0;
};

// The channel of this platform. Null with error text when it cannot be offered (on POSIX: another running
// copy answers on the socket).
std::unique_ptr<IPipeListener> CreatePipeListener(std::wstring& error);
// POSIX only: a listener with the same rules on another socket of the program's (the window's own), whose
// connections give up reading after readTimeoutMilliseconds (< 0: never).
std::unique_ptr<IPipeListener> CreateSocketListener(const std::string& path, int readTimeoutMilliseconds,
                                                    std::wstring& error);

// The resident size of this process in bytes; false when it cannot be read.
bool ProcessWorkingSet(unsigned long long& bytes);

}  // namespace velmar::service
