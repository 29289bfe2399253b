// Messages and attachments of this MAPI: read-only views of MIME content; a message of a Maildir folder
// also knows its file, so SetReadFlag can rename it.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "mapi/provider/MapiProp.h"
#include "mapi/provider/MimeContent.h"

namespace velmar::mapi {

// Where a message of a folder lives; none for an embedded message.
struct CMessageLocation {
    std::uint64_t storeId = 0;
    std::string folderName;
    std::string folderPath;
    std::string key;
    std::string fileName;  // current name in new/ or cur/
    bool inNew = false;
    std::string flags;
    CFileTime delivered;
    std::uint64_t size = 0;
    std::optional<std::uint64_t> file{};  // for a key with several files, which (CEntryId::file)
    std::uint64_t inode = 0;  // of the file as it was opened (0: unknown), by which a rename is followed
};

class CMimeMessage : public CMapiProp<IMessage> {
public:
    CMimeMessage(std::shared_ptr<CMessageContent> content, std::optional<CMessageLocation> location)
        : m_content(std::move(content)), m_location(std::move(location)) {}
    // A message file, open as fd (taken over), read when its content is first asked for; fallback holds
    // what the folder index knows, for a file that cannot be parsed.
    CMimeMessage(int fd, std::vector<CPropValue> fallback, CMessageLocation location)
        : m_content(fd, std::move(fallback)), m_location(std::move(location)) {}

    HRESULT OpenProperty(ULONG ulPropTag, LPCIID lpiid, ULONG ulInterfaceOptions, ULONG ulFlags,
                         LPUNKNOWN* lppUnk) override;
    HRESULT GetAttachmentTable(ULONG ulFlags, LPMAPITABLE* lppTable) override;
    HRESULT OpenAttach(ULONG ulAttachmentNum, LPCIID lpInterface, ULONG ulFlags,
                       LPATTACH* lppAttach) override;
    HRESULT CreateAttach(LPCIID, ULONG, ULONG*, LPATTACH*) override { return MAPI_E_NO_ACCESS; }
    HRESULT DeleteAttach(ULONG, ULONG_PTR, LPMAPIPROGRESS, ULONG) override { return MAPI_E_NO_ACCESS; }
    HRESULT GetRecipientTable(ULONG ulFlags, LPMAPITABLE* lppTable) override;
    HRESULT ModifyRecipients(ULONG, LPADRLIST) override { return MAPI_E_NO_ACCESS; }
    HRESULT SubmitMessage(ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT SetReadFlag(ULONG ulFlags) override;

protected:
    std::vector<CPropValue> Properties() const override;
    bool SupportsInterface(REFIID riid) const override {
        return IsOneOf(riid, {IID_IMessage, IID_IMAPIProp});
    }

private:
    const std::shared_ptr<CMessageContent>& Content() const { return m_content.Get(); }

    CDeferredContent m_content;
    mutable std::mutex m_lock;  // guards m_location, which SetReadFlag changes
    std::optional<CMessageLocation> m_location;
};

class CMimeAttach : public CMapiProp<IAttach> {
public:
    CMimeAttach(std::shared_ptr<CMessageContent> content, size_t index)
        : m_content(std::move(content)), m_index(index) {}

    HRESULT OpenProperty(ULONG ulPropTag, LPCIID lpiid, ULONG ulInterfaceOptions, ULONG ulFlags,
                         LPUNKNOWN* lppUnk) override;

protected:
    std::vector<CPropValue> Properties() const override;
    bool SupportsInterface(REFIID riid) const override {
        return IsOneOf(riid, {IID_IAttachment, IID_IMAPIProp});
    }

private:
    // The attachment's decoded bytes, made once for its size and its data stream alike.
    const std::vector<BYTE>& Decoded() const;

    std::shared_ptr<CMessageContent> m_content;
    size_t m_index;
    mutable std::once_flag m_decodedOnce;
    mutable std::vector<BYTE> m_decoded;
};

// The properties of an attachment, as its table row and its object show them; PR_ATTACH_SIZE only when the
// size is given.
std::vector<CPropValue> AttachmentProperties(const CAttachmentContent& attachment,
                                             std::optional<std::uint64_t> size);

}  // namespace velmar::mapi
