// A message on the server opened part by part: its structure (BODYSTRUCTURE) says which sections to fetch,
// and the message is put together again from them, large attachments left on the server with an empty body
// until one is asked for. The headers of every part are fetched, so the message reads as before: the same
// tree, names and types; only the bodies left out are missing.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace velmar::mapi {

class CImapConnection;

// A part as BODYSTRUCTURE describes it.
struct CImapPart {
    std::string header;  // the section of its header: "HEADER" for the message's own, else "2.MIME"
    std::string body;    // the section of its body: "1", "2.1"; empty for the root multipart
    bool multipart = false;
    bool leftOutable =
        false;             // a leaf whose body the reader can do without: not text/, message/, winmail.dat
    std::string boundary;  // a multipart's
    std::uint64_t octets = 0;  // a leaf's body as sent (transfer-encoded)
    std::vector<CImapPart> parts;
};

// Bodies of at least this many bytes as sent are left on the server until they are asked for.
inline constexpr std::uint64_t kLeftOutOctets = 64 * 1024;

// The sections to fetch for the message, and in leftOut the bodies it goes without: those that can be left
// out of at least leftOutFrom bytes as sent (section and size as sent). Empty when the whole message is the
// better fetch: nothing to leave out, or a multipart without a boundary to put it together with.
std::vector<std::string> SectionsToFetch(const CImapPart& root, std::uint64_t leftOutFrom,
                                         std::map<std::string, std::uint64_t>& leftOut);

// The message put together from the fetched sections, in the order of the structure; nullopt when a
// section is missing.
std::optional<std::string> AssembleMessage(const CImapPart& root,
                                           const std::map<std::string, std::string>& sections);

// Fetches the message with the bodies that can be left out of at least leftOutFrom bytes as sent left on
// the server (named in leftOut), put together as AssembleMessage does; nullopt (error set when the server
// failed) when the whole message is the better fetch: nothing to leave out, a structure the server or its
// parser had trouble with, a cache line too long to name what is left out, or a message that GMime reads
// otherwise than the server's structure says (broken mail, two Content-Type fields say), which whole reads
// as a Maildir file of it would.
std::optional<std::string> FetchInParts(CImapConnection& connection, std::uint32_t uid,
                                        std::uint64_t leftOutFrom,
                                        std::map<std::string, std::uint64_t>& leftOut, std::string& error);

// The longest line that names what a cached message file goes without.
inline constexpr size_t kLongestLeftOutLine = 16383;
// The line a cached message file begins with, naming the bodies it goes without ("left-out: 2=81234").
std::string LeftOutLine(const std::map<std::string, std::uint64_t>& leftOut);
// That line read back (without its line break); nullopt for another line.
std::optional<std::map<std::string, std::uint64_t>> ParseLeftOutLine(std::string_view line);

}  // namespace velmar::mapi
