// What the service and its clients agree on about the channel between them.
//   Windows: the named pipe kServicePipeName, in message mode.
//   POSIX:   a Unix-domain stream socket at ServiceSocketPath(), where each request and each reply ends
//            with one zero byte, since a stream has no message boundaries.
#pragma once

#include <cstddef>
#include <string>

namespace velmar {

inline constexpr wchar_t kServicePipeName[] = L"\\\\.\\pipe\\velmartaskschedulernamedpipe";
inline constexpr char kServiceSocketName[] = "velmartaskschedulernamedpipe";

// A request, its zero byte included, fits in this many bytes (the pipe's buffer); a longer one ends the
// connection.
inline constexpr size_t kMaxRequestBytes = 1000000;
// Replies carry whole message bodies and are not bound by the request buffer; a client takes this much.
inline constexpr size_t kMaxReplyBytes = 512u * 1024 * 1024;

// POSIX only: $VELMAR_PIPE, else kServiceSocketName in $XDG_RUNTIME_DIR, else in the user's private folder
// under /tmp (PrivateTempFolder). Empty when no such folder can be had.
std::string ServiceSocketPath();

}  // namespace velmar
