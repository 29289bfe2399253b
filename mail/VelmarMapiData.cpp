// CVelmarMapi: the data of a found message: properties, recipients, attachments, bodies, and the HTML's
// inline images exported to files.
#include <algorithm>
#include <cctype>
#include <cwchar>
#include <cwctype>

#include "mail/VelmarMapi.h"
#include "support/CodePage.h"
#include "support/LocalTime.h"
#include "support/Utf8.h"

using namespace velmar::mail;

namespace {

std::wstring Lower(std::wstring text) {
    for (wchar_t& c : text) c = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c)));
    return text;
}

// "%.2d.%.2d.%.4d, %.2d:%.2d" of the local time of a file time.
std::wstring LocalDateText(const FILETIME& time) {
    const unsigned long long ticks =
        (static_cast<unsigned long long>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    const long long unixSeconds = static_cast<long long>(ticks / 10000000ULL) - 11644473600LL;
    std::tm local{};
    if (!velmar::ToLocalTime(unixSeconds, local)) return {};
    wchar_t text[32] = {};
    std::swprintf(text, 32, L"%.2d.%.2d.%.4d, %.2d:%.2d", local.tm_mday, local.tm_mon + 1,
                  local.tm_year + 1900, local.tm_hour, local.tm_min);
    return text;
}

// Reads a whole stream as bytes, at most its stated size.
std::string ReadBytes(IStream* stream, ULONGLONG size, bool& readFailed) {
    std::string bytes(static_cast<size_t>(size), '\0');
    ULONG got = 0;
    readFailed = FAILED(stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &got));
    bytes.resize(readFailed ? 0 : got);
    return bytes;
}

}  // namespace

void CVelmarMapi::GetMessageData(EMailData& emailData, const std::wstring& strMessageId,
                                 const std::wstring& strToEmailAddress, bool bSetRead) {
    AddTrace(L"CVelmarMapi::GetMessageData start");
    emailData = EMailData{};
    AddTrace(L"CVelmarMapi::GetMessageData FindMessage");
    if (FindMessage(strMessageId, strToEmailAddress, 0, bSetRead, &emailData)) {
        emailData.messageId = strMessageId;
        emailData.emailConnection = L"MAPI";
    } else {
        emailData.messageId.clear();
    }
    AddTrace(L"CVelmarMapi::GetMessageData end");
}

void CVelmarMapi::MapiFillMessage(LPMESSAGE lpMessage, EMailData* pEmailData) {
    AddTrace(L"CVelmarMapi::MapiFillMessage start");
    AddTrace(L"CVelmarMapi::MapiFillMessage FetchProps");
    FetchProps(lpMessage, pEmailData);
    AddTrace(L"CVelmarMapi::MapiFillMessage FetchRecipients");
    FetchRecipients(lpMessage, pEmailData);
    AddTrace(L"CVelmarMapi::MapiFillMessage FetchAttachments");
    FetchAttachments(lpMessage, pEmailData);
    AddTrace(L"CVelmarMapi::MapiFillMessage FetchBody");
    FetchBody(lpMessage, pEmailData);
    AddTrace(L"CVelmarMapi::MapiFillMessage PrepareEmbeddedImages");
    PrepareEmbeddedImages(lpMessage, pEmailData);
    AddTrace(L"CVelmarMapi::MapiFillMessage end");
}

void CVelmarMapi::FetchProps(LPMESSAGE lpMessage, EMailData* pEmailData) {
    AddTrace(L"CVelmarMapi::FetchProps start");
    if (lpMessage && pEmailData) {
        AddTrace(L"CVelmarMapi::FetchProps GetProps start");
        SizedSPropTagArray(5, tags) = {
            5, {PR_SUBJECT_W, PR_SENDER_NAME_W, PR_BODY_W, PR_CREATION_TIME, PR_SENDER_EMAIL_ADDRESS_W}};
        ULONG count = 0;
        LPSPropValue rawValues = nullptr;
        const HRESULT hr =
            lpMessage->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), MAPI_UNICODE, &count, &rawValues);
        const MapiBufferPtr<SPropValue> values(rawValues);
        AddTrace(L"CVelmarMapi::FetchProps GetProps end");
        // MAPI_W_ERRORS_RETURNED is success; values that came back as errors carry another tag.
        if (SUCCEEDED(hr) && values) {
            AddTrace(L"CVelmarMapi::FetchProps set pEmailData");
            for (ULONG i = 0; i < count; ++i) {
                const SPropValue& value = values.get()[i];
                const std::wstring text =
                    PROP_TYPE(value.ulPropTag) == PT_UNICODE && value.Value.lpszW ? value.Value.lpszW : L"";
                if (value.ulPropTag == PR_SUBJECT_W) pEmailData->subject = text;
                if (value.ulPropTag == PR_SENDER_NAME_W) pEmailData->from = text;
                if (value.ulPropTag == PR_SENDER_EMAIL_ADDRESS_W) pEmailData->fromAddress = text;
                if (value.ulPropTag == PR_BODY_W)
                    pEmailData->htmlBody = text;  // FetchBody replaces it with PR_HTML
                if (value.ulPropTag == PR_CREATION_TIME) pEmailData->sentDate = LocalDateText(value.Value.ft);
            }
        }
    }
    AddTrace(L"CVelmarMapi::FetchProps end");
}

void CVelmarMapi::FetchRecipients(LPMESSAGE lpMessage, EMailData* pEmailData) {
    AddTrace(L"CVelmarMapi::FetchRecipients start");
    CComPtr<IMAPITable> table;
    if (lpMessage && pEmailData) {
        AddTrace(L"CVelmarMapi::FetchRecipients GetRecipientTable");
        lpMessage->GetRecipientTable(MAPI_UNICODE, table.Put());
    }
    if (table) {
        ULONG count = 0;
        table->GetRowCount(0, &count);
        AddTrace(L"CVelmarMapi::FetchRecipients QueryRows start");
        LPSRowSet rawRows = nullptr;
        const HRESULT hr = table->QueryRows(static_cast<LONG>(count), 0, &rawRows);
        RowSetPtr rows(rawRows);
        AddTrace(L"CVelmarMapi::FetchRecipients QueryRows end");
        if (SUCCEEDED(hr) && rows) {
            pEmailData->to.clear();
            pEmailData->cc.clear();
            pEmailData->bcc.clear();
            AddTrace(L"CVelmarMapi::FetchRecipients set pEmailData");
            for (ULONG r = 0; r < rows->cRows; ++r) {
                std::wstring name;
                LONG type = -1;
                const SRow& row = rows->aRow[r];
                for (ULONG c = 0; c < row.cValues; ++c) {
                    if (row.lpProps[c].ulPropTag == PR_DISPLAY_NAME_W && row.lpProps[c].Value.lpszW)
                        name = row.lpProps[c].Value.lpszW;
                    if (row.lpProps[c].ulPropTag == PR_RECIPIENT_TYPE) type = row.lpProps[c].Value.l;
                }
                (type == MAPI_CC    ? pEmailData->cc
                 : type == MAPI_BCC ? pEmailData->bcc
                                    : pEmailData->to)
                    .push_back(name);
            }
            AddTrace(L"CVelmarMapi::FetchRecipients FreeProws");
        }
    }
    AddTrace(L"CVelmarMapi::FetchRecipients end");
}

void CVelmarMapi::FetchAttachments(LPMESSAGE lpMessage, EMailData* pEmailData) {
    AddTrace(L"CVelmarMapi::FetchAttachments start");
    CComPtr<IMAPITable> table;
    if (lpMessage && pEmailData) {
        AddTrace(L"CVelmarMapi::FetchAttachments GetAttachmentTable");
        lpMessage->GetAttachmentTable(MAPI_UNICODE, table.Put());
    }
    if (table) {
        AddTrace(L"CVelmarMapi::FetchAttachments GetRowCount");
        ULONG count = 0;
        table->GetRowCount(0, &count);
        AddTrace(L"CVelmarMapi::FetchAttachments SetColumns");
        SizedSPropTagArray(3, columns) = {3,
                                          {PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_NUM, PR_ATTACH_CONTENT_ID_W}};
        table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), TBL_BATCH);
        AddTrace(L"CVelmarMapi::FetchAttachments HrQueryAllRows start");
        LPSRowSet rawRows = nullptr;
        if (const auto queryAll = BoundMapiFunction<PFN_HrQueryAllRows>(MapiSlot::HrQueryAllRows))
            queryAll(table.get(), reinterpret_cast<LPSPropTagArray>(&columns), nullptr, nullptr, 0, &rawRows);
        RowSetPtr rows(rawRows);
        AddTrace(L"CVelmarMapi::FetchAttachments HrQueryAllRows end");
        for (ULONG r = 0; rows && r < rows->cRows; ++r) {
            EMailAttachment attachment;
            const SRow& row = rows->aRow[r];
            for (ULONG c = 0; c < row.cValues; ++c) {
                const SPropValue& value = row.lpProps[c];
                if (value.ulPropTag == PR_ATTACH_LONG_FILENAME_W && value.Value.lpszW)
                    attachment.fileName = value.Value.lpszW;
                if (value.ulPropTag == PR_ATTACH_NUM) attachment.attachmentIndex = value.Value.l;
                if (value.ulPropTag == PR_ATTACH_CONTENT_ID_W && value.Value.lpszW)
                    attachment.contentId = value.Value.lpszW;
            }
            pEmailData->attachments.push_back(attachment);
        }
        AddTrace(L"CVelmarMapi::FetchAttachments FreeProws");
    }
    AddTrace(L"CVelmarMapi::FetchAttachments end");
}

void CVelmarMapi::FetchBody(LPMESSAGE lpMessage, EMailData* pEmailData) {
    AddTrace(L"CVelmarMapi::FetchBody start");
    if (!lpMessage || !pEmailData) {
        AddTrace(L"CVelmarMapi::FetchBody end");
        return;
    }
    LPUNKNOWN unknown = nullptr;
    AddTrace(L"CVelmarMapi::FetchBody OpenProperty 1");
    if (SUCCEEDED(lpMessage->OpenProperty(PR_BODY_W, &IID_IStream, 0, 0, &unknown)) && unknown) {
        CComPtr<IStream> stream(static_cast<IStream*>(unknown));
        AddTrace(L"CVelmarMapi::FetchBody Stat");
        STATSTG stat{};
        stream->Stat(&stat, STATFLAG_NONAME);
        std::wstring text(static_cast<size_t>(stat.cbSize.QuadPart / sizeof(WCHAR)), L'\0');
        ULONG got = 0;
        stream->Read(text.data(), static_cast<ULONG>(text.size() * sizeof(WCHAR)), &got);
        text.resize(std::min<size_t>(text.size(), got / sizeof(WCHAR)));
        pEmailData->body = text;
    }
    AddTrace(L"CVelmarMapi::FetchBody OpenProperty 2 (PR_HTML)");
    unknown = nullptr;
    if (SUCCEEDED(lpMessage->OpenProperty(PR_HTML, &IID_IStream, 0, 0, &unknown)) && unknown) {
        CComPtr<IStream> stream(static_cast<IStream*>(unknown));
        AddTrace(L"CVelmarMapi::FetchBody OpenProperty (PR_HTML) Stat");
        STATSTG stat{};
        stream->Stat(&stat, STATFLAG_NONAME);
        bool readFailed = false;
        const std::string bytes = ReadBytes(stream.get(), stat.cbSize.QuadPart, readFailed);
        if (readFailed)
            AddTrace(L"CVelmarMapi::FetchBody OpenProperty (PR_HTML) istream->Read: reseting size ");
        std::string lower = bytes;
        for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        const std::wstring fromUtf8 = velmar::Utf8ToWide(bytes);
        pEmailData->htmlBody = lower.find("charset=utf-8") != std::string::npos && !fromUtf8.empty()
                                   ? fromUtf8
                                   : velmar::AnsiToWide(bytes);
    }
    if (pEmailData->htmlBody.empty() || Lower(pEmailData->htmlBody).find(L"html") == std::wstring::npos) {
        AddTrace(L"CVelmarMapi::FetchBody HrGetOneProp");
        LPSPropValue rawCodePage = nullptr;
        if (const auto getOneProp = BoundMapiFunction<PFN_HrGetOneProp>(MapiSlot::HrGetOneProp))
            getOneProp(lpMessage, PR_INTERNET_CPID, &rawCodePage);
        MapiBufferPtr<SPropValue> codePage(rawCodePage);
        AddTrace(L"CVelmarMapi::FetchBody OpenProperty 3");
        unknown = nullptr;
        const auto wrapEx =
            BoundMapiFunction<PFN_WrapCompressedRTFStreamEx>(MapiSlot::WrapCompressedRTFStreamEx);
        if (FAILED(lpMessage->OpenProperty(PR_RTF_COMPRESSED, &IID_IStream, 0, 0, &unknown)) || !unknown) {
            AddTrace(L"CVelmarMapi::FetchBody pfnWrapEx failed");
        } else {
            CComPtr<IStream> compressed(static_cast<IStream*>(unknown));
            AddTrace(L"CVelmarMapi::FetchBody pfnWrapEx");
            RTF_WCSINFO info{sizeof(RTF_WCSINFO), MAPI_NATIVE_BODY, codePage ? codePage->Value.ul : 0, 0};
            RTF_WCSRETINFO result{sizeof(RTF_WCSRETINFO), 0};
            CComPtr<IStream> plain;
            if (wrapEx && SUCCEEDED(wrapEx(compressed.get(), &info, plain.Put(), &result)) && plain) {
                std::string text;
                char chunk[1025];
                ULONG got = 0;
                while (SUCCEEDED(plain->Read(chunk, 1024, &got)) && got > 0) text.append(chunk, got);
                const std::wstring wide = velmar::AnsiToWide(text);
                AddTrace(L"CVelmarMapi::FetchBody read RTF_COMPRESSED: " + wide);
                if (result.ulStreamFlags == MAPI_NATIVE_BODY_TYPE_RTF) {
                    pEmailData->rtfBody = wide;
                } else if (result.ulStreamFlags == MAPI_NATIVE_BODY_TYPE_HTML) {
                    pEmailData->htmlBody = wide;
                    AddTrace(L"CVelmarMapi::FetchBody RTF_COMPRESSED stored: " + wide);
                } else if (result.ulStreamFlags == MAPI_NATIVE_BODY_TYPE_PLAINTEXT) {
                    pEmailData->body = wide;
                }
            }
        }
        AddTrace(L"CVelmarMapi::FetchBody MapiFreeBuffer");
    }
    AddTrace(L"CVelmarMapi::FetchBody end");
}

void CVelmarMapi::PrepareEmbeddedImages(LPMESSAGE lpMessage, EMailData* pEmailData) {
    AddTrace(L"CVelmarMapi::PrepareEmbeddedImages");
    if (!pEmailData || pEmailData->htmlBody.empty()) {
        AddTrace(L"CVelmarMapi::PrepareEmbeddedImages end");
        return;
    }
    const std::wstring key = L"src=\"cid:";
    std::vector<EMailAttachment> embedded;
    std::wstring& html = pEmailData->htmlBody;
    size_t found = html.find(key);
    while (found != std::wstring::npos) {
        const size_t start = found + 5;  // after src="
        const size_t end = html.find(L'"', start);
        if (end != std::wstring::npos) {
            const std::wstring value = html.substr(start, end - start);
            const std::wstring cid = value.rfind(L"cid:", 0) == 0 ? value.substr(4) : std::wstring();
            const auto attachment =
                std::find_if(pEmailData->attachments.begin(), pEmailData->attachments.end(),
                             [&cid](const EMailAttachment& candidate) { return candidate.contentId == cid; });
            if (attachment != pEmailData->attachments.end()) {
                const std::wstring path =
                    OpenAttachment1(lpMessage, static_cast<ULONG>(attachment->attachmentIndex));
                if (!path.empty()) {
                    embedded.push_back(*attachment);
                    pEmailData->strEmbeddedAttachments.push_back(path);
                    html.replace(start, end - start, path);
                }
            }
        }
        found = html.find(key, start);
    }
    auto& paths = pEmailData->strEmbeddedAttachments;
    std::sort(paths.begin(), paths.end());
    paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
    std::erase_if(pEmailData->attachments, [&embedded](const EMailAttachment& attachment) {
        return std::find(embedded.begin(), embedded.end(), attachment) != embedded.end();
    });
}
