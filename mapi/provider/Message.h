// Messages and attachments of this MAPI: read-only views of MIME content; a message of a folder also knows
// its place there (IMessagePlace: a Maildir file, a UID on an IMAP server), which gives its entry ids and
// keeps its read flag.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "mapi/mime/MimeContent.h"
#include "mapi/provider/MapiProp.h"

namespace velmar::mapi {

// Where a message of a folder lives, for the message object: what the folder knows of it and its read flag.
// Called under the message's lock, never from two threads at once.
class IMessagePlace {
public:
    virtual ~IMessagePlace() = default;
    // Adds the message's entry ids, times and size to props, and MSGFLAG_READ to flags when it is read.
    // Throws std::bad_alloc.
    virtual void AddProperties(std::vector<CPropValue>& props, std::int32_t& flags) const = 0;
    virtual HRESULT SetReadFlag(bool read) = 0;
};

class CMimeMessage : public CMapiProp<IMessage> {
public:
    // A message in memory (an embedded one: place is null).
    CMimeMessage(std::shared_ptr<CMessageContent> content, std::unique_ptr<IMessagePlace> place)
        : m_content(std::move(content)), m_place(std::move(place)) {}
    // A message file, open as fd (taken over), read when its content is first asked for; fallback holds
    // what the folder index knows, for a file that cannot be parsed.
    CMimeMessage(int fd, std::vector<CPropValue> fallback, std::unique_ptr<IMessagePlace> place)
        : m_content(fd, std::move(fallback)), m_place(std::move(place)) {}
    // A message whose file is opened only when its content is first asked for (see CDeferredContent).
    CMimeMessage(std::function<CMessageFile()> open, std::vector<CPropValue> fallback,
                 std::unique_ptr<IMessagePlace> place)
        : m_content(std::move(open), std::move(fallback)), m_place(std::move(place)) {}

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
    mutable std::mutex m_lock;  // guards m_place, which SetReadFlag changes
    std::unique_ptr<IMessagePlace> m_place;
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
    // The attachment's decoded bytes, made once for its size and its data stream alike; null while a body
    // its message file goes without cannot be had.
    const std::vector<BYTE>* Decoded() const;

    std::shared_ptr<CMessageContent> m_content;
    size_t m_index;
    mutable std::mutex m_decodedLock;
    mutable std::optional<std::vector<BYTE>> m_decoded;
};

// The properties of an attachment, as its table row and its object show them; PR_ATTACH_SIZE only when the
// size is given.
std::vector<CPropValue> AttachmentProperties(const CAttachmentContent& attachment,
                                             std::optional<std::uint64_t> size);

}  // namespace velmar::mapi
