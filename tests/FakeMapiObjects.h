// Store, folder, message and form objects for tests of the form viewer on both targets: each counts its
// references, answers what the viewer asks of it and records what was done to it in a shared log. Where no
// MAPI library is bound, the viewer's MAPIFreeBuffer does nothing, so the property arrays handed out are
// the fakes' own; where one is, they come from its MAPIAllocateBuffer.
#pragma once

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mail/MapiFunctions.h"
#include "mail/MapiHeaders.h"

namespace velmar::test {

// mingw-w64 declares the window parameters of these interfaces as ULONG, the SDK (and our MAPI) as
// ULONG_PTR.
#ifdef _WIN32
using UIParam = ULONG;
#else
using UIParam = ULONG_PTR;
#endif

using CallLog = std::vector<std::string>;

#define VELMAR_NOT_OFFERED(name, params)             \
    HRESULT STDMETHODCALLTYPE name params override { \
        return MAPI_E_NO_SUPPORT;                    \
    }

// IUnknown and IMAPIProp for the fakes: a reference count, and GetProps from a fixed property list.
template <class Interface>
class CFakeProp : public Interface {
public:
    CFakeProp(std::string name, CallLog& log) : m_name(std::move(name)), m_log(log) {}
    virtual ~CFakeProp() = default;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, LPVOID* ppvObj) override {
        if (!ppvObj) return E_INVALIDARG;
        *ppvObj = nullptr;
        if (riid != IID_IUnknown && riid != InterfaceId()) return E_NOINTERFACE;
        AddRef();
        *ppvObj = this;
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_cRef; }
    // Fakes live on the test's stack: the count only tells who holds them.
    ULONG STDMETHODCALLTYPE Release() override {
        m_log.push_back(m_name + " Release");
        return --m_cRef;
    }
    ULONG References() const { return m_cRef; }
    const std::string& Name() const { return m_name; }

    VELMAR_NOT_OFFERED(GetLastError, (HRESULT, ULONG, LPMAPIERROR*))
    HRESULT STDMETHODCALLTYPE SaveChanges(ULONG ulFlags) override {
        m_log.push_back(m_name + " SaveChanges " + std::to_string(ulFlags));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetProps(LPSPropTagArray lpPropTagArray, ULONG, ULONG* lpcValues,
                                       LPSPropValue* lppPropArray) override {
        if (!lpPropTagArray || !lpcValues || !lppPropArray) return E_INVALIDARG;
        m_handedOut.emplace_back(lpPropTagArray->cValues);
        std::vector<SPropValue>& values = m_handedOut.back();
        bool missing = false;
        for (ULONG i = 0; i < lpPropTagArray->cValues; ++i) {
            const ULONG tag = lpPropTagArray->aulPropTag[i];
            const auto found = m_props.find(tag);
            if (found != m_props.end()) {
                values[i] = found->second;
            } else {
                values[i].ulPropTag = PROP_TAG(PT_ERROR, PROP_ID(tag));
                values[i].Value.err = MAPI_E_NOT_FOUND;
                missing = true;
            }
        }
        *lpcValues = lpPropTagArray->cValues;
        *lppPropArray = values.data();
        // Where a MAPI library is bound (Wine has one), the caller frees the array with its MAPIFreeBuffer.
        LPVOID buffer = nullptr;
        const ULONG size = static_cast<ULONG>(values.size() * sizeof(SPropValue));
        if (velmar::mail::VMAPIAllocateBuffer(size, &buffer) == S_OK) {
            std::copy(values.begin(), values.end(), static_cast<LPSPropValue>(buffer));
            *lppPropArray = static_cast<LPSPropValue>(buffer);
        }
        return missing ? MAPI_W_ERRORS_RETURNED : S_OK;
    }
    VELMAR_NOT_OFFERED(GetPropList, (ULONG, LPSPropTagArray*))
    VELMAR_NOT_OFFERED(OpenProperty, (ULONG, LPCIID, ULONG, ULONG, LPUNKNOWN*))
    HRESULT STDMETHODCALLTYPE SetProps(ULONG cValues, LPSPropValue lpPropArray,
                                       LPSPropProblemArray*) override {
        for (ULONG i = 0; i < cValues; ++i) {
            m_log.push_back(m_name + " SetProps " + std::to_string(lpPropArray[i].ulPropTag));
            m_setProps.push_back(lpPropArray[i].ulPropTag);
        }
        return S_OK;
    }
    VELMAR_NOT_OFFERED(DeleteProps, (LPSPropTagArray, LPSPropProblemArray*))
    VELMAR_NOT_OFFERED(CopyTo, (ULONG, LPCIID, LPSPropTagArray, UIParam, LPMAPIPROGRESS, LPCIID, LPVOID,
                                ULONG, LPSPropProblemArray*))
    VELMAR_NOT_OFFERED(CopyProps, (LPSPropTagArray, UIParam, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                                   LPSPropProblemArray*))
    VELMAR_NOT_OFFERED(GetNamesFromIDs, (LPSPropTagArray*, LPGUID, ULONG, ULONG*, LPMAPINAMEID**))
    VELMAR_NOT_OFFERED(GetIDsFromNames, (ULONG, LPMAPINAMEID*, ULONG, LPSPropTagArray*))

    // A binary property whose bytes the fake keeps.
    void SetBinary(ULONG tag, const std::string& bytes) {
        m_bytes.push_back(bytes);
        SPropValue value{};
        value.ulPropTag = tag;
        value.Value.bin.cb = static_cast<ULONG>(m_bytes.back().size());
        value.Value.bin.lpb = reinterpret_cast<LPBYTE>(m_bytes.back().data());
        m_props[tag] = value;
    }
    void SetLong(ULONG tag, LONG number) {
        SPropValue value{};
        value.ulPropTag = tag;
        value.Value.l = number;
        m_props[tag] = value;
    }
    const std::vector<ULONG>& PropsSet() const { return m_setProps; }

protected:
    virtual const IID& InterfaceId() const = 0;

    std::string m_name;
    CallLog& m_log;

private:
    std::atomic<ULONG> m_cRef{1};
    std::map<ULONG, SPropValue> m_props;
    std::deque<std::string> m_bytes;
    std::deque<std::vector<SPropValue>> m_handedOut;
    std::vector<ULONG> m_setProps;
};

class CFakeMessage : public CFakeProp<IMessage> {
public:
    CFakeMessage(std::string name, CallLog& log) : CFakeProp(std::move(name), log) {
        SetBinary(PR_ENTRYID, m_name);
        SetLong(PR_MESSAGE_FLAGS, MSGFLAG_READ);
    }
    VELMAR_NOT_OFFERED(GetAttachmentTable, (ULONG, LPMAPITABLE*))
    VELMAR_NOT_OFFERED(OpenAttach, (ULONG, LPCIID, ULONG, LPATTACH*))
    VELMAR_NOT_OFFERED(CreateAttach, (LPCIID, ULONG, ULONG*, LPATTACH*))
    VELMAR_NOT_OFFERED(DeleteAttach, (ULONG, UIParam, LPMAPIPROGRESS, ULONG))
    VELMAR_NOT_OFFERED(GetRecipientTable, (ULONG, LPMAPITABLE*))
    VELMAR_NOT_OFFERED(ModifyRecipients, (ULONG, LPADRLIST))
    HRESULT STDMETHODCALLTYPE SubmitMessage(ULONG ulFlags) override {
        m_log.push_back(m_name + " SubmitMessage " + std::to_string(ulFlags));
        return submitResult;
    }
    VELMAR_NOT_OFFERED(SetReadFlag, (ULONG))

    HRESULT submitResult = S_OK;

protected:
    const IID& InterfaceId() const override { return IID_IMessage; }
};

class CFakeFolder : public CFakeProp<IMAPIFolder> {
public:
    CFakeFolder(std::string name, CallLog& log) : CFakeProp(std::move(name), log) {
        SetBinary(PR_ENTRYID, m_name);
    }
    VELMAR_NOT_OFFERED(GetContentsTable, (ULONG, LPMAPITABLE*))
    VELMAR_NOT_OFFERED(GetHierarchyTable, (ULONG, LPMAPITABLE*))
    VELMAR_NOT_OFFERED(OpenEntry, (ULONG, LPENTRYID, LPCIID, ULONG, ULONG*, LPUNKNOWN*))
    VELMAR_NOT_OFFERED(SetSearchCriteria, (LPSRestriction, LPENTRYLIST, ULONG))
    VELMAR_NOT_OFFERED(GetSearchCriteria, (ULONG, LPSRestriction*, LPENTRYLIST*, ULONG*))
    // A new message of this folder, owned by the folder; the caller gets a reference.
    HRESULT STDMETHODCALLTYPE CreateMessage(LPCIID, ULONG, LPMESSAGE* lppMessage) override {
        m_log.push_back(m_name + " CreateMessage");
        created.push_back(std::make_unique<CFakeMessage>(m_name + "/new", m_log));
        *lppMessage = created.back().get();
        return S_OK;
    }
    VELMAR_NOT_OFFERED(CopyMessages, (LPENTRYLIST, LPCIID, LPVOID, UIParam, LPMAPIPROGRESS, ULONG))
    VELMAR_NOT_OFFERED(DeleteMessages, (LPENTRYLIST, UIParam, LPMAPIPROGRESS, ULONG))
    VELMAR_NOT_OFFERED(CreateFolder, (ULONG, LPTSTR, LPTSTR, LPCIID, ULONG, LPMAPIFOLDER*))
    VELMAR_NOT_OFFERED(CopyFolder, (ULONG, LPENTRYID, LPCIID, LPVOID, LPTSTR, UIParam, LPMAPIPROGRESS, ULONG))
    VELMAR_NOT_OFFERED(DeleteFolder, (ULONG, LPENTRYID, UIParam, LPMAPIPROGRESS, ULONG))
    VELMAR_NOT_OFFERED(SetReadFlags, (LPENTRYLIST, UIParam, LPMAPIPROGRESS, ULONG))
    HRESULT STDMETHODCALLTYPE GetMessageStatus(ULONG, LPENTRYID, ULONG, ULONG* lpulMessageStatus) override {
        *lpulMessageStatus = 0;
        return S_OK;
    }
    VELMAR_NOT_OFFERED(SetMessageStatus, (ULONG, LPENTRYID, ULONG, ULONG, ULONG*))
    VELMAR_NOT_OFFERED(SaveContentsSort, (LPSSortOrderSet, ULONG))
    VELMAR_NOT_OFFERED(EmptyFolder, (UIParam, LPMAPIPROGRESS, ULONG))

    std::vector<std::unique_ptr<CFakeMessage>> created;

protected:
    const IID& InterfaceId() const override { return IID_IMAPIFolder; }
};

// A store whose special folders are the fakes registered by their entry ids.
class CFakeStore : public CFakeProp<IMsgStore> {
public:
    using CFakeProp::CFakeProp;
    // Makes folder the store's folder of idTag (PR_IPM_OUTBOX_ENTRYID, ...).
    void AddFolder(ULONG idTag, CFakeFolder& folder) {
        const std::string id = "id:" + std::to_string(idTag);
        SetBinary(idTag, id);
        m_folders[id] = &folder;
    }
    VELMAR_NOT_OFFERED(Advise, (ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG*))
    VELMAR_NOT_OFFERED(Unadvise, (ULONG))
    VELMAR_NOT_OFFERED(CompareEntryIDs, (ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG, ULONG*))
    HRESULT STDMETHODCALLTYPE OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID, ULONG ulFlags,
                                        ULONG* lpulObjType, LPUNKNOWN* lppUnk) override {
        const auto found = m_folders.find(std::string(reinterpret_cast<const char*>(lpEntryID), cbEntryID));
        if (found == m_folders.end()) return MAPI_E_NOT_FOUND;
        m_log.push_back(m_name + " OpenEntry " + found->second->Name() + " flags " + std::to_string(ulFlags));
        found->second->AddRef();
        *lpulObjType = MAPI_FOLDER;
        *lppUnk = static_cast<IMAPIFolder*>(found->second);
        return S_OK;
    }
    VELMAR_NOT_OFFERED(SetReceiveFolder, (LPTSTR, ULONG, ULONG, LPENTRYID))
    VELMAR_NOT_OFFERED(GetReceiveFolder, (LPTSTR, ULONG, ULONG*, LPENTRYID*, LPTSTR*))
    VELMAR_NOT_OFFERED(GetReceiveFolderTable, (ULONG, LPMAPITABLE*))
    VELMAR_NOT_OFFERED(StoreLogoff, (ULONG*))
    VELMAR_NOT_OFFERED(AbortSubmit, (ULONG, LPENTRYID, ULONG))
    VELMAR_NOT_OFFERED(GetOutgoingQueue, (ULONG, LPMAPITABLE*))
    VELMAR_NOT_OFFERED(SetLockState, (LPMESSAGE, ULONG))
    VELMAR_NOT_OFFERED(FinishedMsg, (ULONG, ULONG, LPENTRYID))
    VELMAR_NOT_OFFERED(NotifyNewMail, (LPNOTIFICATION))

protected:
    const IID& InterfaceId() const override { return IID_IMsgStore; }

private:
    std::map<std::string, CFakeFolder*> m_folders;
};

// A form: IMAPIForm and IPersistMessage on one object, recording what its site does to it.
class CFakeForm : public IMAPIForm, public IPersistMessage {
public:
    explicit CFakeForm(CallLog& log) : m_log(log) {}
    virtual ~CFakeForm() = default;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, LPVOID* ppvObj) override {
        if (!ppvObj) return E_INVALIDARG;
        *ppvObj = nullptr;
        if (riid == IID_IUnknown || riid == IID_IMAPIForm)
            *ppvObj = static_cast<IMAPIForm*>(this);
        else if (riid == IID_IPersistMessage)
            *ppvObj = static_cast<IPersistMessage*>(this);
        else
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_cRef; }
    ULONG STDMETHODCALLTYPE Release() override { return --m_cRef; }
    ULONG References() const { return m_cRef; }

    VELMAR_NOT_OFFERED(GetLastError, (HRESULT, ULONG, LPMAPIERROR*))
    // IMAPIForm.
    VELMAR_NOT_OFFERED(SetViewContext, (LPMAPIVIEWCONTEXT))
    VELMAR_NOT_OFFERED(GetViewContext, (LPMAPIVIEWCONTEXT*))
    HRESULT STDMETHODCALLTYPE ShutdownForm(ULONG ulSaveOptions) override {
        m_log.push_back("form ShutdownForm " + std::to_string(ulSaveOptions));
        return S_OK;
    }
    VELMAR_NOT_OFFERED(DoVerb, (LONG, LPMAPIVIEWCONTEXT, UIParam, LPCRECT))
    VELMAR_NOT_OFFERED(Advise, (LPMAPIVIEWADVISESINK, UIParam*))
    VELMAR_NOT_OFFERED(Unadvise, (UIParam))
    // IPersistMessage.
    VELMAR_NOT_OFFERED(GetClassID, (LPCLSID))
    VELMAR_NOT_OFFERED(IsDirty, ())
    VELMAR_NOT_OFFERED(InitNew, (LPMAPIMESSAGESITE, LPMESSAGE))
    VELMAR_NOT_OFFERED(Load, (LPMAPIMESSAGESITE, LPMESSAGE, ULONG, ULONG))
    HRESULT STDMETHODCALLTYPE Save(LPMESSAGE pMessage, ULONG fSameAsLoad) override {
        m_log.push_back(std::string("form Save ") + (pMessage ? "message" : "null") + " " +
                        std::to_string(fSameAsLoad));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SaveCompleted(LPMESSAGE pMessage) override {
        m_log.push_back(std::string("form SaveCompleted ") + (pMessage ? "message" : "null"));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE HandsOffMessage() override {
        m_log.push_back("form HandsOffMessage");
        return S_OK;
    }

private:
    CallLog& m_log;
    std::atomic<ULONG> m_cRef{1};
};

#undef VELMAR_NOT_OFFERED

}  // namespace velmar::test
