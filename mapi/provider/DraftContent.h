// What a message being written holds: its properties, recipient rows and attachments as MAPI's write calls
// leave them, and the rendering of all that as a MIME message.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mapi/provider/Profiles.h"
#include "mapi/runtime/PropValue.h"

namespace velmar::mapi {

struct CDraftAttachment {
    ULONG number = 0;
    std::vector<CPropValue> props;
    std::shared_ptr<std::vector<BYTE>> data;  // PR_ATTACH_DATA_BIN; null when none was written
};

struct CDraftContent {
    std::vector<CPropValue> props;
    std::vector<std::vector<CPropValue>> recipients;
    std::vector<CDraftAttachment> attachments;
};

// The value of tag's property id among props (any type); null when there is none.
const CPropValue* FindValue(const std::vector<CPropValue>& props, ULONG tag);
// Sets a value, replacing one of the same property id.
void SetValue(std::vector<CPropValue>& props, CPropValue value);
// Removes the value of tag's property id; false when there was none.
bool RemoveValue(std::vector<CPropValue>& props, ULONG tag);
// A MAPI value as this MAPI keeps it; nullopt for PT_ERROR and types it does not keep.
std::optional<CPropValue> FromMapi(const SPropValue& value);
// A string value as wide text (8-bit values are UTF-8); empty for other types.
std::wstring TextOf(const CPropValue* value);
std::vector<BYTE> BytesOf(const CPropValue* value);

struct CRenderOptions {
    bool draft = false;      // a draft carries no Date of sending
    std::string sentFolder;  // where the spooler files the sent message; empty for the store's default
};

// The message as MIME (LF line ends): From the sent-representing entry, else the store's owner; To, Cc and
// Bcc with names and addresses (Bcc is for the envelope: the spooler takes it out before sending); Subject,
// Date, the Message-ID of PR_INTERNET_MESSAGE_ID (made and set when missing); text and HTML bodies as
// multipart/alternative, attachments the HTML names by content id in multipart/related, the rest in
// multipart/mixed. Recipients without an SMTP address are left out. Throws std::bad_alloc.
std::string RenderMime(CDraftContent& content, const CStoreConfig& store, const CRenderOptions& options);

// The header field the queue keeps the sent-items folder in, for the spooler; never sent.
inline constexpr const char* kSentFolderField = "X-Velmar-Sent-Folder";

}  // namespace velmar::mapi
