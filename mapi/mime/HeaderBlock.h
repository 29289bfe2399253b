// The header block of a message file as the folder index reads it: a few fields picked out while the file
// is read, without holding the block, which may be far larger than the fields wanted.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace velmar::mapi {

// How much of a header block the index reads; a message whose header lines go on longer is listed with
// what was found before.
inline constexpr size_t kMaxHeaderBlockBytes = 16 * 1024 * 1024;
// How much of one field's value is kept: a value that long is no real Message-ID or subject, and a
// resident index should not hold megabytes for one message.
inline constexpr size_t kMaxHeaderValueBytes = 64 * 1024;

// Picks the first field of each of a few names (case-insensitive) out of a header block fed in pieces of
// any size: the lines up to the first empty one (LF or CRLF line ends).
class CHeaderScanner {
public:
    explicit CHeaderScanner(std::initializer_list<std::string_view> names);

    // Takes the next bytes of the message; false once the header block has ended (feed nothing more).
    bool Feed(std::string_view bytes);
    // The unfolded value of the first field of the name at that index, white space trimmed, at most
    // kMaxHeaderValueBytes long; empty when there was none.
    std::string Value(size_t index) const;
    // The same, untrimmed: all that followed the colon.
    const std::string& Unfolded(size_t index) const { return m_values[index]; }

private:
    enum class EState : unsigned char { LineStart, LineStartCr, Name, Value, Skip, Done };

    void StartField();
    void Append(std::string_view text);

    std::vector<std::string> m_names;
    std::vector<std::string> m_values;
    std::vector<bool> m_found;
    size_t m_longestName = 0;
    std::string m_name;  // the current line's field name as far as it is read, at most m_longestName + 1
    size_t m_capturing;  // the index of the field whose lines are being collected, or npos
    EState m_state = EState::LineStart;
};

// The unfolded value of the first field of that name (case-insensitive) in a header block, or empty.
std::string HeaderValue(std::string_view headers, std::string_view name);
// An unstructured header value (what followed the colon) as a message's PR_SUBJECT reads it: see
// UnstructuredText, with no charset hint.
std::string DecodeHeaderText(const std::string& raw);

}  // namespace velmar::mapi
