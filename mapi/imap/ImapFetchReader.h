// The FETCH responses of the index's big UID FETCHes, read as they arrive: libetpan builds the whole answer
// in memory and parses it only at its end, which for a large mailbox costs more than the server's own work.
// This reads the untagged FETCH responses off the stream in pieces and hands each message's items on at
// once; anything else (other untagged responses, items not asked for) is stepped over. Only the items the
// index asks for are understood: UID, FLAGS, INTERNALDATE, RFC822.SIZE and BODY[HEADER.FIELDS (...)].
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace velmar::mapi {

struct CFetchedMessage {
    std::uint32_t uid = 0;
    std::uint32_t flags = 0;        // ImapFlag bits
    std::string_view internalDate;  // "17-Jul-1996 02:44:25 -0700", without its quotes
    std::uint64_t size = 0;         // RFC822.SIZE
    std::string_view headers;       // the header fields, as the server sent them
    // The views are valid during the call.
};

class CImapFetchReader {
public:
    // message is called for each FETCH response as it is complete.
    explicit CImapFetchReader(std::function<void(const CFetchedMessage&)> message)
        : m_message(std::move(message)) {}

    enum class EState { More, Done, Failed };
    // Takes the next bytes of the answer to the command tagged tag. Done once its tagged OK came; Failed
    // for a tagged NO or BAD (status then holds the server's words) or an answer that cannot be read.
    EState Feed(std::string_view bytes, std::string_view tag);
    const std::string& Status() const { return m_status; }

private:
    // Reads one complete response at the start of text (consumed: its length); false when more bytes are
    // needed.
    bool ReadResponse(std::string_view text, size_t& consumed, EState& state, std::string_view tag);

    std::function<void(const CFetchedMessage&)> m_message;
    std::string m_pending;
    std::string m_status;
};

}  // namespace velmar::mapi
