// CVelmarMapi: attachments written to files in the export folder, by attach method.
#include <cwchar>

#include "mail/ExportFolder.h"
#include "mail/MailText.h"
#include "mail/MapiHelpers.h"
#include "mail/VelmarMapi.h"
#include "support/CodePage.h"
#include "support/ErrorText.h"

using namespace velmar::mail;

std::wstring CVelmarMapi::OpenAttachment2(const std::wstring& strMessageId, const std::wstring& strMailbox,
                                          ULONG ulAttachmentNum) {
    const CTraceScope trace(*this, L"CVelmarMapi::OpenAttachment2");
    trace.Step(L"GetpMessage");
    CFoundMessage lookup;
    if (!GetpMessage(strMessageId, strMailbox, lookup)) return {};
    trace.Step(L"OpenAttachment");
    ReleaseSessionLock();
    std::wstring result = OpenAttachment1(lookup.message.get(), ulAttachmentNum);
    trace.Step(L"release");
    lookup = CFoundMessage{};
    return result;
}

// Deliberate: this operation writes no end line, on any way out.
std::wstring CVelmarMapi::OpenAttachment1(LPMESSAGE lpMessage, ULONG ulAttachmentNum,
                                          const std::wstring& strFolder) {
    AddTrace(L"CVelmarMapi::OpenAttachment1 start");
    if (!lpMessage) return {};
    AddTrace(L"CVelmarMapi::OpenAttachment1 OpenAttach");
    CComPtr<IAttach> attach;
    if (FAILED(lpMessage->OpenAttach(ulAttachmentNum, nullptr, MAPI_BEST_ACCESS, attach.Put())) || !attach) {
        AddTrace(velmar::FormatLastErrorText(L"OpenAttachment"));
        return {};
    }
    AddTrace(L"CVelmarMapi::OpenAttachment1 WriteAttachmentToFile");
    std::wstring result = WriteAttachmentToFile(attach.get(), strFolder);
    AddTrace(L"CVelmarMapi::OpenAttachment1 Release");
    return result;
}

std::wstring CVelmarMapi::WriteAttachmentToFile(LPATTACH lpAttach, const std::wstring& strFolder) {
    const CTraceScope trace(*this, L"CVelmarMapi::WriteAttachmentToFile");
    if (!lpAttach) return {};
    trace.Step(L"GetProps");
    SizedSPropTagArray(4, tags) = {
        4, {PR_ATTACH_METHOD, PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_FILENAME_W, PR_DISPLAY_NAME_W}};
    ULONG count = 0;
    MapiBufferPtr<SPropValue> values;
    const HRESULT hr =
        lpAttach->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), MAPI_UNICODE, &count, OutPtr(values));
    if (FAILED(hr) || !values || count == 0) return {};
    trace.Step(L"CheckStringProp");
    std::wstring name = L"Unknown";
    for (ULONG i = 1; i < count && i < 4; ++i) {
        const SPropValue& value = values.get()[i];
        if (PROP_TYPE(value.ulPropTag) == PT_UNICODE && value.Value.lpszW && value.Value.lpszW[0]) {
            name = value.Value.lpszW;
            break;
        }
    }
    trace.Step(L"SanitizeFileName");
    name = SanitizeFileName(name);
    std::wstring folder = strFolder.empty() ? AppendExportFolderName(TemporaryFolder()) : strFolder;
    if (!IsFolder(folder)) MakeFolder(folder);
    trace.Step(L"GetStatus");
    // Deliberate: checked a second time; a folder that cannot be made is traced. Then the export goes on,
    // but never into a folder that is not ours (another user's, a link): a private one of our own instead.
    if (!IsFolder(folder) && !MakeFolder(folder)) {
        AddTrace(L"ERROR: Cannot Create: " + folder);
        folder = PrivateExportFolder();
    }
    const std::wstring path = folder + name;
    // The writers' results are not looked at: the path is returned whether or not a file was written.
    const ULONG method = values.get()[0].Value.ul;  // taken as a number whatever its type
    if (method >= ATTACH_BY_VALUE && method <= ATTACH_BY_REF_ONLY) {
        trace.Step(L"WriteAttachStreamToFile");
        (void)WriteAttachStreamToFile(lpAttach, path);
    } else if (method == ATTACH_EMBEDDED_MSG) {
        trace.Step(L"WriteEmbeddedMSGToFile");
        (void)WriteEmbeddedMSGToFile(lpAttach, path);
    } else if (method == ATTACH_OLE) {
        trace.Step(L"WriteOleToFile");
        (void)WriteOleToFile(lpAttach, path);
    }
    trace.Step(L"MAPIFreeBuffer");
    values.reset();
    return path;
}

std::wstring CVelmarMapi::SanitizeFileName(const std::wstring& strFileName) {
    const CTraceScope trace(*this, L"CVelmarMapi::SanitizeFileName");
    // After the cut and the replacements, what the file system takes; a name that cannot be a file's
    // ("." and ".." name folders) is written as "Unknown".
    std::wstring name = FitFileName(CleanFileName(strFileName));
    if (name.empty() || name == L"." || name == L"..") name = L"Unknown";
    return name;
}

// Copies a stream into a new file (an existing one is overwritten), with the trace words of the writers.
// The bytes go to a temporary file beside it first: a file under its own name is always whole.
void CVelmarMapi::CopyStreamToFile(const CTraceScope& trace, IStream* source,
                                   const std::wstring& strFinalPath) {
    const std::wstring strPath = TemporaryFilePath(strFinalPath);
    trace.Step(L"MyOpenStreamOnFile");
    CComPtr<IStream> file;
    const auto allocate = BoundMapiFunction<LPALLOCATEBUFFER>(MapiSlot::MAPIAllocateBuffer);
    const auto release = BoundMapiFunction<LPFREEBUFFER>(MapiSlot::MAPIFreeBuffer);
    if (const auto openWide = BoundMapiFunction<PFN_OpenStreamOnFileW>(MapiSlot::OpenStreamOnFileW)) {
        openWide(allocate, release, STGM_CREATE | STGM_READWRITE, strPath.c_str(), nullptr, file.Put());
    } else if (const auto openNarrow = BoundMapiFunction<PFN_OpenStreamOnFile>(MapiSlot::OpenStreamOnFile)) {
        const std::string narrow = velmar::WideToSystemAnsi(strPath);
        openNarrow(allocate, release, STGM_CREATE | STGM_READWRITE, narrow.c_str(), nullptr, file.Put());
    }
    if (!file) return;
    // Failures of the copy are ignored: the caller hands out the path all the same.
    trace.Step(L"Stat");
    STATSTG stat{};
    source->Stat(&stat, STATFLAG_NONAME);
    trace.Step(L"CopyTo");
    ULARGE_INTEGER written{};
    const HRESULT hrCopy = source->CopyTo(file.get(), stat.cbSize, nullptr, &written);
    trace.Step(L"Commit");
    const HRESULT hrCommit = file->Commit(STGC_DEFAULT);
    trace.Step(L"Release");
    file.Reset();
    if (SUCCEEDED(hrCopy) && SUCCEEDED(hrCommit) && written.QuadPart == stat.cbSize.QuadPart)
        ReplaceWithFile(strPath, strFinalPath);
    else
        RemoveFile(strPath);
}

HRESULT CVelmarMapi::WriteAttachStreamToFile(LPATTACH lpAttach, const std::wstring& strPath) {
    CTraceScope trace(*this, L"CVelmarMapi::WriteAttachStreamToFile");
    if (!lpAttach || strPath.empty()) {
        trace.SkipEnd();  // Deliberate: refused arguments end without the end line.
        return E_INVALIDARG;
    }
    trace.Step(L"OpenProperty");
    CComPtr<IStream> stream;
    const HRESULT hr = OpenPropertyAs(lpAttach, PR_ATTACH_DATA_BIN, 0, 0, stream);
    if (FAILED(hr)) return hr;
    CopyStreamToFile(trace, stream.get(), strPath);
    return hr;
}

HRESULT CVelmarMapi::WriteEmbeddedMSGToFile(LPATTACH lpAttach, const std::wstring& strPath) {
    CTraceScope trace(*this, L"CVelmarMapi::WriteEmbeddedMSGToFile");
    if (!lpAttach || strPath.empty()) {
        trace.SkipEnd();  // Deliberate: refused arguments end without the end line.
        return E_INVALIDARG;
    }
    trace.Step(L"OpenProperty");
    CComPtr<IMessage> message;
    if (SUCCEEDED(OpenPropertyAs(lpAttach, PR_ATTACH_DATA_OBJ, 0, 0, message))) {
        trace.Step(L"SaveToMSG");
        SaveToMSG(message.get(), strPath);
        trace.Step(L"Release");
    }
    return S_OK;
}

HRESULT CVelmarMapi::WriteOleToFile(LPATTACH lpAttach, const std::wstring& strPath) {
    const CTraceScope trace(*this, L"CVelmarMapi::WriteOleToFile");
    trace.Step(L"OpenProperty 1");
    CComPtr<IStream> stream;
    if (lpAttach &&
        SUCCEEDED(OpenPropertyAs(lpAttach, PR_ATTACH_DATA_OBJ, 0, 0, stream, IID_IStreamDocfile))) {
        CopyStreamToFile(trace, stream.get(), strPath);
        return S_OK;
    }
    trace.Step(L"OpenProperty 2");
    CComPtr<IStorage> storage;
    if (!lpAttach || FAILED(OpenPropertyAs(lpAttach, PR_ATTACH_DATA_OBJ, 0, 0, storage))) return S_OK;
    trace.Step(L"StgCreateDocfile");
    const std::wstring temporaryPath = TemporaryFilePath(strPath);
    if (CopyStorageToFile(storage.get(), temporaryPath)) {
        trace.Step(L"CopyTo");
        trace.Step(L"Commit");
        trace.Step(L"Release");
        ReplaceWithFile(temporaryPath, strPath);
    } else {
        RemoveFile(temporaryPath);
    }
    return S_OK;
}

void CVelmarMapi::SaveToMSG(LPMESSAGE lpMessage, const std::wstring& strPath) {
    const CTraceScope trace(*this, L"CVelmarMapi::SaveToMSG");
    if (!lpMessage || strPath.empty()) return;
    trace.Step(L"CreateNewMSG");
    CreateNewMSG(strPath);
    trace.Step(L"release");
}

// Deliberate: the .msg storage itself is not written in this version. The steps are traced and no file is
// made, so the path handed back names a file that is not there.
void CVelmarMapi::CreateNewMSG(const std::wstring& strPath) {
    const CTraceScope trace(*this, L"CVelmarMapi::CreateNewMSG");
    if (strPath.empty()) return;
    trace.Step(L"MAPIGetDefaultMalloc");
    const auto getMalloc = BoundMapiFunction<PFN_MAPIGetDefaultMalloc>(MapiSlot::MAPIGetDefaultMalloc);
    if (getMalloc && getMalloc()) {
        trace.Step(L"MyStgCreateStorageEx");
        MyStgCreateStorageEx(strPath);
    }
}

void CVelmarMapi::MyStgCreateStorageEx(const std::wstring& strPath) {
    const CTraceScope trace(*this, L"CVelmarMapi::MyStgCreateStorageEx");
    if (!strPath.empty()) trace.Step(L"pfnStgCreateStorageEx");
}
