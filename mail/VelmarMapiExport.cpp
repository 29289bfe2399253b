// CVelmarMapi: attachments written to files in the export folder, by attach method.
#include <cwchar>

#include "mail/ExportFolder.h"
#include "mail/MapiLibrary.h"
#include "mail/VelmarMapi.h"
#include "support/CodePage.h"

using namespace velmar::mail;

namespace {

// The characters a file name may not keep; each becomes "_". The hyphen is on the list on purpose.
constexpr wchar_t kReplacedCharacters[] = L"^&*-+=[]\\|;:\",<>/?";
constexpr size_t kMaxFileNameLength = 259;

}  // namespace

std::wstring CVelmarMapi::OpenAttachment2(const std::wstring& strMessageId, const std::wstring& strMailbox,
                                          ULONG ulAttachmentNum) {
    AddTrace(L"CVelmarMapi::OpenAttachment2 start");
    std::wstring result;
    AddTrace(L"CVelmarMapi::OpenAttachment2 GetpMessage");
    CFoundMessage lookup;
    const bool found = GetpMessage(strMessageId, strMailbox, lookup);
    if (!found) {
        AddTrace(L"CVelmarMapi::OpenAttachment2 end");
        return result;
    }
    AddTrace(L"CVelmarMapi::OpenAttachment2 OpenAttachment");
    result = OpenAttachment1(lookup.message.get(), ulAttachmentNum);
    AddTrace(L"CVelmarMapi::OpenAttachment2 release");
    lookup = CFoundMessage{};
    AddTrace(L"CVelmarMapi::OpenAttachment2 end");
    return result;
}

std::wstring CVelmarMapi::OpenAttachment1(LPMESSAGE lpMessage, ULONG ulAttachmentNum) {
    AddTrace(L"CVelmarMapi::OpenAttachment1 start");
    if (!lpMessage) return {};
    AddTrace(L"CVelmarMapi::OpenAttachment1 OpenAttach");
    CComPtr<IAttach> attach;
    if (FAILED(lpMessage->OpenAttach(ulAttachmentNum, nullptr, MAPI_BEST_ACCESS, attach.Put())) || !attach) {
        AddTrace(FormatLastErrorText(L"OpenAttachment"));
        return {};
    }
    AddTrace(L"CVelmarMapi::OpenAttachment1 WriteAttachmentToFile");
    const std::wstring result = WriteAttachmentToFile(attach.get());
    AddTrace(L"CVelmarMapi::OpenAttachment1 Release");
    return result;
}

std::wstring CVelmarMapi::WriteAttachmentToFile(LPATTACH lpAttach) {
    AddTrace(L"CVelmarMapi::WriteAttachmentToFile start");
    if (!lpAttach) {
        AddTrace(L"CVelmarMapi::WriteAttachmentToFile end");
        return {};
    }
    AddTrace(L"CVelmarMapi::WriteAttachmentToFile GetProps");
    SizedSPropTagArray(4, tags) = {
        4, {PR_ATTACH_METHOD, PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_FILENAME_W, PR_DISPLAY_NAME_W}};
    ULONG count = 0;
    LPSPropValue rawValues = nullptr;
    const HRESULT hr =
        lpAttach->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), MAPI_UNICODE, &count, &rawValues);
    MapiBufferPtr<SPropValue> values(rawValues);
    if (FAILED(hr) || !values || count == 0) {
        AddTrace(L"CVelmarMapi::WriteAttachmentToFile end");
        return {};
    }
    AddTrace(L"CVelmarMapi::WriteAttachmentToFile CheckStringProp");
    std::wstring name = L"Unknown";
    for (ULONG i = 1; i < count && i < 4; ++i) {
        const SPropValue& value = values.get()[i];
        if (PROP_TYPE(value.ulPropTag) == PT_UNICODE && value.Value.lpszW && value.Value.lpszW[0]) {
            name = value.Value.lpszW;
            break;
        }
    }
    AddTrace(L"CVelmarMapi::WriteAttachmentToFile SanitizeFileName");
    name = SanitizeFileName(name);
    std::wstring folder = TemporaryFolder();
    if (!folder.empty()) folder = AppendExportFolderName(folder);
    if (!IsFolder(folder)) MakeFolder(folder);
    AddTrace(L"CVelmarMapi::WriteAttachmentToFile GetStatus");
    // Checked twice on purpose: another request may have made it in between.
    if (!IsFolder(folder) && !MakeFolder(folder)) AddTrace(L"ERROR: Cannot Create: " + folder);
    const std::wstring path = folder + name;
    const ULONG method = values.get()[0].Value.ul;  // taken as a number whatever its type
    if (method >= ATTACH_BY_VALUE && method <= ATTACH_BY_REF_ONLY) {
        AddTrace(L"CVelmarMapi::WriteAttachmentToFile WriteAttachStreamToFile");
        (void)WriteAttachStreamToFile(lpAttach, path);  // the path is returned whether or not it was written
    } else if (method == ATTACH_EMBEDDED_MSG) {
        AddTrace(L"CVelmarMapi::WriteAttachmentToFile WriteEmbeddedMSGToFile");
        (void)WriteEmbeddedMSGToFile(lpAttach, path);
    } else if (method == ATTACH_OLE) {
        AddTrace(L"CVelmarMapi::WriteAttachmentToFile WriteOleToFile");
        (void)WriteOleToFile(lpAttach, path);
    }
    AddTrace(L"CVelmarMapi::WriteAttachmentToFile MAPIFreeBuffer");
    values.reset();
    AddTrace(L"CVelmarMapi::WriteAttachmentToFile end");
    return path;
}

std::wstring CVelmarMapi::SanitizeFileName(const std::wstring& strFileName) {
    AddTrace(L"CVelmarMapi::SanitizeFileName start");
    std::wstring name = strFileName.substr(0, kMaxFileNameLength);
    for (size_t at = name.find_first_of(kReplacedCharacters); at != std::wstring::npos;
         at = name.find_first_of(kReplacedCharacters, at + 1))
        name[at] = L'_';
    AddTrace(L"CVelmarMapi::SanitizeFileName end");
    return name;
}

// Copies a stream into a new file (an existing one is overwritten), with the trace words of the writers.
void CVelmarMapi::CopyStreamToFile(const wchar_t* traceName, IStream* source, const std::wstring& strPath) {
    const std::wstring prefix = std::wstring(L"CVelmarMapi::") + traceName + L" ";
    AddTrace(prefix + L"MyOpenStreamOnFile");
    CComPtr<IStream> file;
    const auto allocate = BoundMapiFunction<LPALLOCATEBUFFER>(MapiSlot::MAPIAllocateBuffer);
    const auto release = BoundMapiFunction<LPFREEBUFFER>(MapiSlot::MAPIFreeBuffer);
    if (const auto openWide = BoundMapiFunction<PFN_OpenStreamOnFileW>(MapiSlot::OpenStreamOnFileW)) {
        openWide(allocate, release, STGM_CREATE | STGM_READWRITE, strPath.c_str(), nullptr, file.Put());
    } else if (const auto openNarrow = BoundMapiFunction<PFN_OpenStreamOnFile>(MapiSlot::OpenStreamOnFile)) {
        const std::string narrow = velmar::WideToAnsi(strPath);
        openNarrow(allocate, release, STGM_CREATE | STGM_READWRITE, narrow.c_str(), nullptr, file.Put());
    }
    if (!file) return;
    AddTrace(prefix + L"Stat");
    STATSTG stat{};
    source->Stat(&stat, STATFLAG_NONAME);
    AddTrace(prefix + L"CopyTo");
    source->CopyTo(file.get(), stat.cbSize, nullptr, nullptr);
    AddTrace(prefix + L"Commit");
    file->Commit(STGC_DEFAULT);
    AddTrace(prefix + L"Release");
}

HRESULT CVelmarMapi::WriteAttachStreamToFile(LPATTACH lpAttach, const std::wstring& strPath) {
    AddTrace(L"CVelmarMapi::WriteAttachStreamToFile start");
    if (!lpAttach || strPath.empty()) return E_INVALIDARG;
    AddTrace(L"CVelmarMapi::WriteAttachStreamToFile OpenProperty");
    LPUNKNOWN unknown = nullptr;
    const HRESULT hr = lpAttach->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, 0, 0, &unknown);
    if (FAILED(hr) || !unknown) {
        AddTrace(L"CVelmarMapi::WriteAttachStreamToFile end");
        return hr;
    }
    CComPtr<IStream> stream(static_cast<IStream*>(unknown));
    CopyStreamToFile(L"WriteAttachStreamToFile", stream.get(), strPath);
    stream.Reset();
    AddTrace(L"CVelmarMapi::WriteAttachStreamToFile end");
    return hr;
}

HRESULT CVelmarMapi::WriteEmbeddedMSGToFile(LPATTACH lpAttach, const std::wstring& strPath) {
    AddTrace(L"CVelmarMapi::WriteEmbeddedMSGToFile start");
    if (!lpAttach || strPath.empty()) return E_INVALIDARG;
    AddTrace(L"CVelmarMapi::WriteEmbeddedMSGToFile OpenProperty");
    LPUNKNOWN unknown = nullptr;
    if (SUCCEEDED(lpAttach->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IMessage, 0, 0, &unknown)) && unknown) {
        CComPtr<IMessage> message(static_cast<IMessage*>(unknown));
        AddTrace(L"CVelmarMapi::WriteEmbeddedMSGToFile SaveToMSG");
        SaveToMSG(message.get(), strPath);
        AddTrace(L"CVelmarMapi::WriteEmbeddedMSGToFile Release");
    }
    AddTrace(L"CVelmarMapi::WriteEmbeddedMSGToFile end");
    return S_OK;
}

HRESULT CVelmarMapi::WriteOleToFile(LPATTACH lpAttach, const std::wstring& strPath) {
    AddTrace(L"CVelmarMapi::WriteOleToFile start");
    AddTrace(L"CVelmarMapi::WriteOleToFile OpenProperty 1");
    LPUNKNOWN unknown = nullptr;
    if (lpAttach &&
        SUCCEEDED(lpAttach->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IStreamDocfile, 0, 0, &unknown)) &&
        unknown) {
        CComPtr<IStream> stream(static_cast<IStream*>(unknown));
        CopyStreamToFile(L"WriteOleToFile", stream.get(), strPath);
    } else {
        AddTrace(L"CVelmarMapi::WriteOleToFile OpenProperty 2");
        unknown = nullptr;
        if (lpAttach &&
            SUCCEEDED(lpAttach->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IStorage, 0, 0, &unknown)) && unknown) {
            CComPtr<IStorage> storage(static_cast<IStorage*>(unknown));
            AddTrace(L"CVelmarMapi::WriteOleToFile StgCreateDocfile");
            if (CopyStorageToFile(storage.get(), strPath)) {
                AddTrace(L"CVelmarMapi::WriteOleToFile CopyTo");
                AddTrace(L"CVelmarMapi::WriteOleToFile Commit");
                AddTrace(L"CVelmarMapi::WriteOleToFile Release");
            }
        }
    }
    AddTrace(L"CVelmarMapi::WriteOleToFile end");
    return S_OK;
}

void CVelmarMapi::SaveToMSG(LPMESSAGE lpMessage, const std::wstring& strPath) {
    AddTrace(L"CVelmarMapi::SaveToMSG start");
    if (lpMessage && !strPath.empty()) {
        AddTrace(L"CVelmarMapi::SaveToMSG CreateNewMSG");
        CreateNewMSG(strPath);
        AddTrace(L"CVelmarMapi::SaveToMSG release");
    }
    AddTrace(L"CVelmarMapi::SaveToMSG end");
}

// The .msg storage itself is not written in this version: the steps are traced and no file is made, so
// the path handed back names a file that is not there.
void CVelmarMapi::CreateNewMSG(const std::wstring& strPath) {
    AddTrace(L"CVelmarMapi::CreateNewMSG start");
    if (!strPath.empty()) {
        AddTrace(L"CVelmarMapi::CreateNewMSG MAPIGetDefaultMalloc");
        const auto getMalloc = BoundMapiFunction<PFN_MAPIGetDefaultMalloc>(MapiSlot::MAPIGetDefaultMalloc);
        if (getMalloc && getMalloc()) {
            AddTrace(L"CVelmarMapi::CreateNewMSG MyStgCreateStorageEx");
            MyStgCreateStorageEx(strPath);
        }
    }
    AddTrace(L"CVelmarMapi::CreateNewMSG end");
}

void CVelmarMapi::MyStgCreateStorageEx(const std::wstring& strPath) {
    AddTrace(L"CVelmarMapi::MyStgCreateStorageEx start");
    if (!strPath.empty()) AddTrace(L"CVelmarMapi::MyStgCreateStorageEx pfnStgCreateStorageEx");
    AddTrace(L"CVelmarMapi::MyStgCreateStorageEx end");
}
