// TNEF (application/ms-tnef, "winmail.dat", MS-OXTNEF): the message Outlook packs for another Outlook. We
// unpack what a mail client shows of it: the bodies (compressed RTF, HTML, plain text) and the attachments,
// which take the place of the winmail.dat part.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace velmar::mapi {

// The stream signature, the attribute levels and the attributes we read: an attribute id carries its type in
// the high word (MS-OXTNEF 2.1.3.2).
namespace tnef {
constexpr std::uint32_t kSignature = 0x223E9F78;
constexpr std::uint8_t kLevelMessage = 0x01;
constexpr std::uint8_t kLevelAttachment = 0x02;
constexpr std::uint32_t kAttMsgProps = 0x00069003;
constexpr std::uint32_t kAttOemCodepage = 0x00069007;
constexpr std::uint32_t kAttBody = 0x0002800C;
constexpr std::uint32_t kAttAttachRenddata = 0x00069002;
constexpr std::uint32_t kAttAttachTitle = 0x00018010;
constexpr std::uint32_t kAttAttachData = 0x0006800F;
constexpr std::uint32_t kAttAttachment = 0x00069005;
}  // namespace tnef

struct CTnefAttachment {
    std::wstring longFileName;  // PR_ATTACH_LONG_FILENAME, else the title, else PR_ATTACH_FILENAME
    std::wstring displayName;   // PR_DISPLAY_NAME, else the file name
    std::wstring mimeTag;
    std::wstring contentId;
    // PR_ATTACH_DATA_BIN or the data of PR_ATTACH_DATA_OBJ (an embedded message stays a TNEF stream),
    // else the attachment's data attribute.
    std::vector<std::uint8_t> data;
};

struct CTnefContent {
    std::vector<std::uint8_t> rtfCompressed;  // PR_RTF_COMPRESSED of the message; empty when it has none
    std::string html;                         // PR_HTML as UTF-8; empty when it has none
    std::wstring body;                        // the plain-text body attribute or PR_BODY
    std::vector<CTnefAttachment> attachments;
    bool complete = false;  // read to its end without damage: nothing is left in the stream alone
};

// What a TNEF stream holds, or nullopt when it is not one. A stream that is cut short or damaged keeps
// what came before the damage.
std::optional<CTnefContent> ReadTnef(std::span<const std::uint8_t> tnef);

}  // namespace velmar::mapi
