// CVelmarMapi: the one object through which the service talks to Extended MAPI. It owns MAPI's
// initialisation, the profile list, the session, the address book and the list of message stores, and
// writes every step to the activity list as a trace line. Split by topic over VelmarMapi*.cpp.
//
// Requests of several threads share the object. Each holds a CSessionLock while it reads or changes the
// session's state (profile, session, store list and index) and while it looks its message up; the long
// part of a message request (filling the record, writing files) needs nothing of that state and runs
// without the lock, so other requests go on meanwhile. Its state is its own; callers read and set it
// through the operations below.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "mail/ClientMapiHolders.h"
#include "mail/EMailData.h"
#include "mail/FormHost.h"
#include "mail/MapiThreadContext.h"

class CActivityList;
namespace velmar::mail {
class CTraceScope;
}

// A message that the lookup found, with the store, folder and contents table it came from; each holds a
// reference of its own.
struct CFoundMessage {
    velmar::CComPtr<IMsgStore> store;
    velmar::CComPtr<IMAPIFolder> folder;
    velmar::CComPtr<IMAPITable> table;
    velmar::CComPtr<IMessage> message;
};

// One file to attach to a new message.
struct AttachmentFileEntry {
    std::wstring strPath;                  // the whole path
    std::uint64_t ullSourceAttachNum = 0;  // for a copy of another message's attachment: its number there
    std::wstring strContentId;             // empty for a plain attachment
};

// What a caller sees of one message store of the session.
struct MsgStoreInfo {
    std::wstring strDisplayName;
    std::wstring strEMailAddress;
};

// One message store of the session.
struct MsgStoreEntry {
    std::wstring strDisplayName;
    std::wstring strEMailAddress;                    // owner's SMTP address; empty when unknown
    velmar::mail::MapiBufferPtr<SBinary> lpEntryID;  // the store's PR_ENTRYID, copied
    velmar::CComPtr<IMsgStore> lpMsgStore;           // opened on demand by the lookup
    velmar::CComPtr<IMAPIFolder> lpInboxFolder;      // opened on demand by the lookup
};

// What a message request names besides its message: the profile, the store to search first and the search
// mode. The request makes them the session's own before it looks, so later requests see them too.
struct CLookupRequest {
    std::wstring strProfileName;               // a lookup without a session logs on to it
    int nStoreIndex = -1;                      // taken unchecked: every use checks it against the list
    std::optional<bool> bOptimalMessageStore;  // absent: the session keeps what an earlier request set
};

class CVelmarMapi {
public:
    // pActivityList may be null: the trace is then dropped.
    explicit CVelmarMapi(CActivityList* pActivityList);
    ~CVelmarMapi();
    CVelmarMapi(const CVelmarMapi&) = delete;
    CVelmarMapi& operator=(const CVelmarMapi&) = delete;

    // What each thread that calls this object holds while it does (COM and MAPI on Windows).
    using CThreadContext = velmar::mail::CMapiThreadContext;

    // Held by a request for its work on the session (one at a time per thread); a message request gives
    // it up by itself once its message is found.
    class CSessionLock {
    public:
        explicit CSessionLock(CVelmarMapi& mapi);
        ~CSessionLock();
        CSessionLock(const CSessionLock&) = delete;
        CSessionLock& operator=(const CSessionLock&) = delete;

    private:
        friend class CVelmarMapi;
        CVelmarMapi& m_mapi;
        std::unique_lock<std::mutex> m_lock;
    };

    // While it lives, the session lock this thread holds (if any) is given up, and taken again when it
    // goes: for work that needs nothing of the session's shared state (a send once its outbox is open, the
    // spooler's pass, which may wait on a server for minutes), so that other requests go on meanwhile.
    class CSessionLockGap {
    public:
        explicit CSessionLockGap(CVelmarMapi& mapi);
        ~CSessionLockGap();
        CSessionLockGap(const CSessionLockGap&) = delete;
        CSessionLockGap& operator=(const CSessionLockGap&) = delete;

    private:
        CSessionLock* m_pGivenUp = nullptr;
    };

    // Session and profiles.
    std::vector<std::wstring> GetProfileNames(int& nDefaultProfile);
    void Logon(std::wstring strProfile, ULONG_PTR ulUIParam);
    void Logoff();
    void OutputError(const std::wstring& text);
    void AddTrace(std::wstring text);

    // Message stores.
    void OpenMessageStoreTable();
    // OpenMessageStoreTable on an empty list: a filled one is released first (ReleaseSessionData).
    void RefreshMessageStoreTable();
    bool SetMessageStore(std::wstring strDisplayName);
    // Selects the store at nIndex, traced as SetMessageStore; an index outside the list changes nothing.
    // Returns the index that was selected before.
    int SetMessageStoreByIndex(int nIndex);

    // The state the service reads and sets.
    bool IsMAPIInitialized() const { return m_bMAPIInitialized; }
    bool HasSession() const { return static_cast<bool>(m_lpMAPISession); }
    // A session is open on strProfile (the profile its logon named).
    bool IsLoggedOnTo(const std::wstring& strProfile) const;
    // Traced; a session is open and a store is selected.
    bool IsInitialized();
    const std::vector<std::wstring>& ProfileNames() const { return m_ProfileNames; }
    // The store list in order, without its empty entries.
    std::vector<MsgStoreInfo> MessageStores() const;
    size_t MessageStoreCount() const { return m_MsgStores.size(); }
    // The display name of store entry nIndex; empty for an empty entry or an index outside the list.
    std::wstring StoreDisplayName(size_t nIndex) const {
        return nIndex < m_MsgStores.size() && m_MsgStores[nIndex] ? m_MsgStores[nIndex]->strDisplayName : L"";
    }
    int StoreIndex() const { return m_nStoreIndex; }
    int DefaultStore() const { return m_nDefaultStore; }
    const std::wstring& ProfileName() const { return m_strProfileName; }

    // Message lookup. On success found holds the message and where it was found.
    bool GetpMessage(const std::wstring& strMessageId, const std::wstring& strToEmailAddress,
                     CFoundMessage& found, bool* pbFoundInChosenStore = nullptr);
    bool FindMessage(const std::wstring& strMessageId, const std::wstring& strToEmailAddress,
                     ULONG_PTR ulParentWindow, bool bSetRead, EMailData* pEmailData);

    // Message forms. The window that hosts the forms, set while it is there (null: none): a lookup with a
    // parent window then opens its message on the window's thread, and the request goes on at once.
    void SetFormHost(std::shared_ptr<velmar::mail::IFormHost> host);
    // The host's parent window; 0 without a host.
    ULONG_PTR FormParentWindow();
    // Shows the message in its form, non-modally, with the given session's form manager; the form then
    // holds what it needs. Runs on the thread that is to own the form's windows.
    void MapiOpenMessageNonModal(ULONG_PTR ulParentWindow, LPMAPISESSION lpMAPISession, LPMDB lpMDB,
                                 LPMAPIFOLDER lpFolder, LPMESSAGE lpMessage);

    // Message data.
    void GetMessageData(EMailData& emailData, const CLookupRequest& lookup, const std::wstring& strMessageId,
                        const std::wstring& strToEmailAddress, bool bSetRead);

    // Attachment export.
    std::wstring OpenAttachment2(const std::wstring& strMessageId, const std::wstring& strMailbox,
                                 ULONG ulAttachmentNum);
    void SaveToMSG(LPMESSAGE lpMessage, const std::wstring& strPath);

    // Composing and submitting. The outbox (and its store) is opened for one send and closed after it; each
    // thread has an outbox of its own, so a send runs without the session lock once its outbox is open.
    // The HRESULT of the step that failed, else S_OK.
    [[nodiscard]] HRESULT SendMail(const std::wstring& strSubject, const std::wstring& strBody,
                                   const std::vector<std::wstring>& to, const std::vector<std::wstring>& cc,
                                   const std::vector<std::wstring>& bcc,
                                   const std::vector<std::wstring>& attachmentPaths, bool bOutlookForceSend);

    // Forwarding.
    ULONG ForwardMail(const std::wstring& strMessageId, const std::wstring& strBrandingSubject,
                      const std::wstring& strSubject, const std::wstring& strSendNote,
                      const std::wstring& strToEmailAddress, const std::vector<std::wstring>& to,
                      const std::vector<std::wstring>& cc, const std::vector<std::wstring>& bcc,
                      const std::vector<std::wstring>& attachmentFiles, bool bOutlookForceSend);

private:
    // The helpers of the operations above, in their order.
    void MAPIInitialize();
    void SetAddrBook();
    void ReleaseSessionData();
    bool SearchMessageInMessageStore(unsigned nStore, LPSRestriction lpRestriction, LPMDB* lppMsgStore,
                                     LPMAPIFOLDER* lppFolder, LPMAPITABLE* lppTable, LPMESSAGE* lppMessage);
    bool GetpMessage(const std::wstring& strMessageId, const std::wstring& strToEmailAddress,
                     LPMDB* lppMsgStore, LPMAPIFOLDER* lppFolder, LPMAPITABLE* lppTable,
                     LPMESSAGE* lppMessage, bool* pbFoundInChosenStore = nullptr);
    void MapiFillMessage(LPMESSAGE lpMessage, EMailData* pEmailData);
    void FetchProps(LPMESSAGE lpMessage, EMailData* pEmailData);
    void FetchRecipients(LPMESSAGE lpMessage, EMailData* pEmailData);
    void FetchAttachments(LPMESSAGE lpMessage, EMailData* pEmailData);
    void FetchBody(LPMESSAGE lpMessage, EMailData* pEmailData);
    void PrepareEmbeddedImages(LPMESSAGE lpMessage, EMailData* pEmailData);
    // Deliberate: "1" and "2" are the names of the two attachment openers, not a leftover numbering.
    // strFolder: where the file goes instead of the export folder (a request's own, ending in a separator);
    // empty for the export folder.
    std::wstring OpenAttachment1(LPMESSAGE lpMessage, ULONG ulAttachmentNum,
                                 const std::wstring& strFolder = {});
    std::wstring WriteAttachmentToFile(LPATTACH lpAttach, const std::wstring& strFolder = {});
    std::wstring SanitizeFileName(const std::wstring& strFileName);
    [[nodiscard]] HRESULT WriteAttachStreamToFile(LPATTACH lpAttach, const std::wstring& strPath);
    [[nodiscard]] HRESULT WriteEmbeddedMSGToFile(LPATTACH lpAttach, const std::wstring& strPath);
    [[nodiscard]] HRESULT WriteOleToFile(LPATTACH lpAttach, const std::wstring& strPath);
    void CreateNewMSG(const std::wstring& strPath);
    void MyStgCreateStorageEx(const std::wstring& strPath);
    void OpenOutbox();
    void CloseOutbox();
    bool AddRecipient(LPMESSAGE lpMessage, const std::wstring& strRecipient, ULONG ulRecipientType);
    void AddRecipients(LPMESSAGE lpMessage, const std::vector<std::wstring>& to,
                       const std::vector<std::wstring>& cc, const std::vector<std::wstring>& bcc);
    [[nodiscard]] HRESULT HrAllocAdrList(ULONG ulNumProps, LPADRLIST* lppAdrList);
    void AddAttachments(LPMESSAGE lpMessage, std::vector<AttachmentFileEntry> attachments);
    void SetBody(LPMESSAGE lpMessage, const std::wstring& strHtmlBody, const std::wstring& strBody);
    // Makes the mail system send the queue and fetch new mail at once: the mail client's send/receive on
    // Windows, our MAPI's spooler on POSIX.
    void OutlookForceSend();
    void RemoveFiles(const std::vector<AttachmentFileEntry>& files);
    // The copies are written into strFolder, a folder of the forward's own (see OpenAttachment1).
    void CopyAttachments(LPMESSAGE lpSource, LPMESSAGE lpTarget, std::vector<AttachmentFileEntry>& copied,
                         const std::wstring& strFolder);
    // Deliberate: spelt "Attachements", beside AddAttachments; the name is this operation's, not a typo.
    void AddAttachements(LPMESSAGE lpTarget, const EMailData& source, LPMESSAGE lpSource,
                         std::vector<AttachmentFileEntry>& copied, const std::wstring& strFolder);

    // The found message is all a request works on from here: the session lock of this thread, if it
    // holds one, is given up for the rest of the request.
    void ReleaseSessionLock();

    std::mutex m_sessionMutex;
    // Read without the session lock by the commands that only ask whether MAPI is there.
    std::atomic<bool> m_bMAPIInitialized{false};
    velmar::CComPtr<IMAPISession> m_lpMAPISession;
    velmar::CComPtr<IAddrBook> m_lpAddrBook;
    velmar::CComPtr<IProfAdmin> m_lpProfAdmin;
    std::vector<std::wstring> m_ProfileNames;
    std::vector<std::unique_ptr<MsgStoreEntry>> m_MsgStores;
    int m_nDefaultStore = -1;
    int m_nStoreIndex = -1;
    bool m_bCacheMsgStore = true;
    std::wstring m_strArchiveMsgStore;
    bool m_bMapiExtern = false;
    bool m_bOptimalMessageStore = false;
    std::wstring m_strProfileName;
    std::wstring m_strSessionProfileName;  // the profile the open session logged on to
    std::mutex m_formHostLock;
    std::shared_ptr<velmar::mail::IFormHost> m_pFormHost;

    // The outbox of a send, from OpenOutbox to CloseOutbox, with the session it was opened on: all a send
    // works on once it has given up the session lock.
    struct COutbox {
        velmar::CComPtr<IMAPISession> lpSession;
        velmar::CComPtr<IMsgStore> lpStore;
        velmar::CComPtr<IMAPIFolder> lpFolder;
    };
    // This thread's outbox; null when none is open. Only its own thread makes, uses or removes its entry.
    COutbox* ThreadOutbox();
    // This thread's outbox with its folder, opened first (traced "OpenOutbox") when it is not; null when it
    // cannot be.
    const COutbox* OpenedOutbox(const velmar::mail::CTraceScope& trace);
    // The session of this thread's send: its outbox's once open, else the session.
    IMAPISession* SendSession();
    std::mutex m_outboxLock;
    std::map<std::thread::id, COutbox> m_outboxes;

    // Sets the sent-representing identity from the store's owner; failures are traced and ignored.
    void SetRepresenting(LPMESSAGE lpMessage);
    // Traces a failed submit with its HRESULT and the system's words for it.
    void TraceSubmitError(HRESULT hr);
    // Step 4 of FindMessage: the message opened in its form, on the form host's thread when there is one.
    void OpenMessageForm(ULONG_PTR ulParentWindow, const CFoundMessage& found);
    void CopyStreamToFile(const velmar::mail::CTraceScope& trace, IStream* source,
                          const std::wstring& strFinalPath);
    void AddStoreRow(const SRow& row, int rowIndex, std::map<std::wstring, std::wstring>& addresses);
    // Display name to owner address, from the mail client (Windows) or our MAPI's profile file (POSIX).
    std::map<std::wstring, std::wstring> StoreAddresses();

    CActivityList* m_pActivityList;
};

// "0x%X" as the trace writes HRESULTs and pointers (a pointer shows its low 32 bits).
std::wstring HexTrace(unsigned long long value);
// "0x%x": the few trace lines that write their result in lower case.
std::wstring LowerHexTrace(unsigned long long value);
