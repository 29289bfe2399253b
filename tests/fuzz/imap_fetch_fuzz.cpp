// The reader of an IMAP server's FETCH answer against whatever a server may send: it never reads outside
// what it was given, and the messages it hands on do not depend on how the bytes were split into reads.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "mapi/imap/ImapFetchReader.h"

namespace {

struct CSeen {
    std::uint32_t uid;
    std::uint32_t flags;
    std::string internalDate;
    std::uint64_t size;
    std::string headers;
    bool operator==(const CSeen&) const = default;
};

std::vector<CSeen> Read(std::string_view answer, size_t piece,
                        velmar::mapi::CImapFetchReader::EState& state) {
    std::vector<CSeen> seen;
    velmar::mapi::CImapFetchReader reader([&seen](const velmar::mapi::CFetchedMessage& message) {
        seen.push_back({message.uid, message.flags, std::string(message.internalDate), message.size,
                        std::string(message.headers)});
    });
    state = velmar::mapi::CImapFetchReader::EState::More;
    for (size_t at = 0; at < answer.size() && state == velmar::mapi::CImapFetchReader::EState::More;
         at += piece)
        state = reader.Feed(answer.substr(at, piece), "V1");
    return seen;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    if (size == 0) return 0;
    // The first byte chooses how the rest is cut into reads.
    const size_t piece = 1 + data[0] % 64;
    const std::string_view answer(reinterpret_cast<const char*>(data + 1), size - 1);
    velmar::mapi::CImapFetchReader::EState whole = velmar::mapi::CImapFetchReader::EState::More;
    velmar::mapi::CImapFetchReader::EState split = velmar::mapi::CImapFetchReader::EState::More;
    const std::vector<CSeen> atOnce = Read(answer, answer.size() + 1, whole);
    const std::vector<CSeen> inPieces = Read(answer, piece, split);
    if (whole != split || atOnce != inPieces) std::abort();
    return 0;
}
