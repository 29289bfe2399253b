// The FETCH responses of the index's one big UID FETCH, read as they arrive: libetpan builds the whole
// answer in memory and parses it only at its end, which for a large mailbox costs more than the server's
// own work. This reads the untagged FETCH responses off the stream in pieces and hands each message's UID,
// flags and header fields on at once; anything else (other untagged responses, items not asked for) is
// stepped over. Only what a server sends for "UID FLAGS BODY.PEEK[HEADER.FIELDS (...)]" is understood.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace velmar::mapi {

struct CFetchedHeaders {
    std::uint32_t uid = 0;
    std::uint32_t flags = 0;   // ImapFlag bits
    std::string_view headers;  // the header fields, as the server sent them; valid during the call
};

class CImapFetchReader {
public:
    // message is called for each FETCH response as it is complete.
    explicit CImapFetchReader(std::function<void(const CFetchedHeaders&)> message)
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

    std::function<void(const CFetchedHeaders&)> m_message;
    std::string m_pending;
    std::string m_status;
};

}  // namespace velmar::mapi
