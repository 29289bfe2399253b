// A message being written, as IMAPIFolder::CreateMessage hands it out: properties, recipients, attachments
// and body streams are kept in memory; SaveChanges keeps the message as a draft file in its folder, and
// SubmitMessage queues it in the store's Outbox for the spooler.
//
// A client that saves after every change (a recipient at a time, say) must not pay a whole rendering and a
// synced file each time: SaveChanges with KEEP_OPEN_* only notes that the message is saved, and the draft
// file is written once it is wanted: when the message is released, saved without KEEP_OPEN_*, or asked for
// its entry id (by which it can then be opened). A submit writes the queued file instead, synced before it
// returns. Changes made after the last save go into the draft with it.
#pragma once

#include <memory>
#include <mutex>

#include "mapi/provider/DraftContent.h"
#include "mapi/provider/MapiProp.h"
#include "mapi/provider/PropertyBag.h"

namespace velmar::mapi {

class CDraftMessage : public CMapiProp<IMessage> {
public:
    CDraftMessage(CStoreConfig store, std::string folderName)
        : m_store(std::move(store)), m_folderName(std::move(folderName)) {}
    ~CDraftMessage() override;

    HRESULT GetProps(LPSPropTagArray lpPropTagArray, ULONG ulFlags, ULONG* lpcValues,
                     LPSPropValue* lppPropArray) override;
    HRESULT SetProps(ULONG cValues, LPSPropValue lpPropArray, LPSPropProblemArray* lppProblems) override;
    HRESULT DeleteProps(LPSPropTagArray lpPropTagArray, LPSPropProblemArray* lppProblems) override;
    HRESULT OpenProperty(ULONG ulPropTag, LPCIID lpiid, ULONG ulInterfaceOptions, ULONG ulFlags,
                         LPUNKNOWN* lppUnk) override;
    HRESULT SaveChanges(ULONG ulFlags) override;

    HRESULT GetAttachmentTable(ULONG ulFlags, LPMAPITABLE* lppTable) override;
    HRESULT OpenAttach(ULONG ulAttachmentNum, LPCIID lpInterface, ULONG ulFlags,
                       LPATTACH* lppAttach) override;
    HRESULT CreateAttach(LPCIID lpInterface, ULONG ulFlags, ULONG* lpulAttachmentNum,
                         LPATTACH* lppAttach) override;
    HRESULT DeleteAttach(ULONG ulAttachmentNum, ULONG_PTR, LPMAPIPROGRESS, ULONG) override;
    HRESULT GetRecipientTable(ULONG ulFlags, LPMAPITABLE* lppTable) override;
    HRESULT ModifyRecipients(ULONG ulFlags, LPADRLIST lpMods) override;
    HRESULT SubmitMessage(ULONG ulFlags) override;
    HRESULT SetReadFlag(ULONG ulFlags) override;

    // An attachment's changes, saved into the message (IAttach::SaveChanges).
    void StoreAttachment(CDraftAttachment attachment);

protected:
    std::vector<CPropValue> Properties() const override;
    bool SupportsInterface(REFIID riid) const override {
        return IsOneOf(riid, {IID_IMessage, IID_IMAPIProp});
    }

private:
    // Writes the content as a new file (a draft in its folder, or a queued message in the Outbox) and
    // removes the draft file written before, if any. Called with m_lock held.
    HRESULT WriteFile(bool submit);
    // Writes the draft of a save not written yet. Called with m_lock held.
    HRESULT WritePendingSave();

    const CStoreConfig m_store;
    const std::string m_folderName;
    mutable std::mutex m_lock;
    CPropertyBag m_props;
    std::vector<std::vector<CPropValue>> m_recipients;  // each row with its PR_ROWID
    std::vector<CDraftAttachment> m_attachments;
    std::int32_t m_nextRowId = 0;
    ULONG m_nextAttachNum = 0;
    std::int32_t m_flags = MSGFLAG_UNSENT;
    std::string m_draftPath;  // the draft file last saved; empty when none
    std::string m_draftKey;
    bool m_submitted = false;
    bool m_savePending = false;  // saved, its draft file not written yet
};

class CDraftAttach : public CMapiProp<IAttach> {
public:
    // Over a copy of an attachment of the message (a new one has only its number).
    CDraftAttach(CComPtr<CDraftMessage> message, const CDraftAttachment& attachment);

    HRESULT SetProps(ULONG cValues, LPSPropValue lpPropArray, LPSPropProblemArray* lppProblems) override;
    HRESULT DeleteProps(LPSPropTagArray lpPropTagArray, LPSPropProblemArray* lppProblems) override;
    HRESULT OpenProperty(ULONG ulPropTag, LPCIID lpiid, ULONG ulInterfaceOptions, ULONG ulFlags,
                         LPUNKNOWN* lppUnk) override;
    HRESULT SaveChanges(ULONG ulFlags) override;

protected:
    std::vector<CPropValue> Properties() const override;
    bool SupportsInterface(REFIID riid) const override {
        return IsOneOf(riid, {IID_IAttachment, IID_IMAPIProp});
    }

private:
    // The attachment as it is now, into the message: an attachment's changes count at once, saved or not.
    void StoreInMessage();

    CComPtr<CDraftMessage> m_message;
    const ULONG m_number;
    mutable std::mutex m_lock;
    CPropertyBag m_props;
};

}  // namespace velmar::mapi
