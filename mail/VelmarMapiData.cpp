// CVelmarMapi: the data of a found message: properties, recipients, attachments, bodies, and the HTML's
// inline images exported to files.
#include <algorithm>
#include <cctype>
#include <cstring>

#include "mail/MailText.h"
#include "mail/MapiHelpers.h"
#include "mail/VelmarMapi.h"
#include "support/CodePage.h"
#include "support/Utf8.h"

using namespace velmar::mail;

void CVelmarMapi::GetMessageData(EMailData& emailData, const CLookupRequest& lookup,
                                 const std::wstring& strMessageId, const std::wstring& strToEmailAddress,
                                 bool bSetRead) {
    m_strProfileName = lookup.strProfileName;
    m_nStoreIndex = lookup.nStoreIndex;
    if (lookup.bOptimalMessageStore) m_bOptimalMessageStore = *lookup.bOptimalMessageStore;
    const CTraceScope trace(*this, L"CVelmarMapi::GetMessageData");
    emailData = EMailData{};
    trace.Step(L"FindMessage");
    if (FindMessage(strMessageId, strToEmailAddress, 0, bSetRead, &emailData)) {
        emailData.messageId = strMessageId;
        emailData.emailConnection = L"MAPI";
    } else {
        emailData.messageId.clear();
    }
}

void CVelmarMapi::MapiFillMessage(LPMESSAGE lpMessage, EMailData* pEmailData) {
    const CTraceScope trace(*this, L"CVelmarMapi::MapiFillMessage");
    trace.Step(L"FetchProps");
    FetchProps(lpMessage, pEmailData);
    trace.Step(L"FetchRecipients");
    FetchRecipients(lpMessage, pEmailData);
    trace.Step(L"FetchAttachments");
    FetchAttachments(lpMessage, pEmailData);
    trace.Step(L"FetchBody");
    FetchBody(lpMessage, pEmailData);
    trace.Step(L"PrepareEmbeddedImages");
    PrepareEmbeddedImages(lpMessage, pEmailData);
}

void CVelmarMapi::FetchProps(LPMESSAGE lpMessage, EMailData* pEmailData) {
    const CTraceScope trace(*this, L"CVelmarMapi::FetchProps");
    if (!lpMessage || !pEmailData) return;
    trace.Step(L"GetProps start");
    SizedSPropTagArray(5, tags) = {
        5, {PR_SUBJECT_W, PR_SENDER_NAME_W, PR_BODY_W, PR_CREATION_TIME, PR_SENDER_EMAIL_ADDRESS_W}};
    ULONG count = 0;
    MapiBufferPtr<SPropValue> values;
    const HRESULT hr =
        lpMessage->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), MAPI_UNICODE, &count, OutPtr(values));
    trace.Step(L"GetProps end");
    // MAPI_W_ERRORS_RETURNED is success; values that came back as errors carry another tag.
    if (FAILED(hr) || !values) return;
    trace.Step(L"set pEmailData");
    const auto takeText = [&](ULONG tag, std::wstring& field) {
        if (FindProp(values.get(), count, tag)) field = FindText(values.get(), count, tag);
    };
    takeText(PR_SUBJECT_W, pEmailData->subject);
    takeText(PR_SENDER_NAME_W, pEmailData->from);
    takeText(PR_SENDER_EMAIL_ADDRESS_W, pEmailData->fromAddress);
    // Deliberate: the plain body goes to the HTML field; FetchBody replaces it with PR_HTML.
    takeText(PR_BODY_W, pEmailData->htmlBody);
    if (const SPropValue* created = FindProp(values.get(), count, PR_CREATION_TIME))
        pEmailData->sentDate = LocalDateText(created->Value.ft);
}

void CVelmarMapi::FetchRecipients(LPMESSAGE lpMessage, EMailData* pEmailData) {
    const CTraceScope trace(*this, L"CVelmarMapi::FetchRecipients");
    if (!lpMessage || !pEmailData) return;
    trace.Step(L"GetRecipientTable");
    CComPtr<IMAPITable> table;
    lpMessage->GetRecipientTable(MAPI_UNICODE, table.Put());
    if (!table) return;
    ULONG count = 0;
    table->GetRowCount(0, &count);
    trace.Step(L"QueryRows start");
    RowSetPtr rows;
    const HRESULT hr = table->QueryRows(static_cast<LONG>(count), 0, OutPtr(rows));
    trace.Step(L"QueryRows end");
    if (FAILED(hr) || !rows) return;
    pEmailData->to.clear();
    pEmailData->cc.clear();
    pEmailData->bcc.clear();
    trace.Step(L"set pEmailData");
    for (ULONG r = 0; r < rows->cRows; ++r) {
        const SRow& row = rows->aRow[r];
        const SPropValue* type = FindProp(row, PR_RECIPIENT_TYPE);
        // Only the display name is kept; a missing or unknown type counts as To.
        const LONG kind = type ? type->Value.l : -1;
        (kind == MAPI_CC    ? pEmailData->cc
         : kind == MAPI_BCC ? pEmailData->bcc
                            : pEmailData->to)
            .push_back(FindText(row, PR_DISPLAY_NAME_W));
    }
    trace.Step(L"FreeProws");
}

void CVelmarMapi::FetchAttachments(LPMESSAGE lpMessage, EMailData* pEmailData) {
    const CTraceScope trace(*this, L"CVelmarMapi::FetchAttachments");
    if (!lpMessage || !pEmailData) return;
    trace.Step(L"GetAttachmentTable");
    CComPtr<IMAPITable> table;
    lpMessage->GetAttachmentTable(MAPI_UNICODE, table.Put());
    if (!table) return;
    trace.Step(L"GetRowCount");
    ULONG count = 0;
    table->GetRowCount(0, &count);
    trace.Step(L"SetColumns");
    SizedSPropTagArray(3, columns) = {3, {PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_NUM, PR_ATTACH_CONTENT_ID_W}};
    table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), TBL_BATCH);
    trace.Step(L"HrQueryAllRows start");
    RowSetPtr rows;
    if (const auto queryAll = BoundMapiFunction<PFN_HrQueryAllRows>(MapiSlot::HrQueryAllRows))
        queryAll(table.get(), reinterpret_cast<LPSPropTagArray>(&columns), nullptr, nullptr, 0, OutPtr(rows));
    trace.Step(L"HrQueryAllRows end");
    for (ULONG r = 0; rows && r < rows->cRows; ++r) {
        const SRow& row = rows->aRow[r];
        const SPropValue* number = FindProp(row, PR_ATTACH_NUM);
        pEmailData->attachments.push_back({FindText(row, PR_ATTACH_LONG_FILENAME_W),
                                           number ? number->Value.l : 0,
                                           FindText(row, PR_ATTACH_CONTENT_ID_W)});
    }
    trace.Step(L"FreeProws");
}

void CVelmarMapi::FetchBody(LPMESSAGE lpMessage, EMailData* pEmailData) {
    const CTraceScope trace(*this, L"CVelmarMapi::FetchBody");
    if (!lpMessage || !pEmailData) return;
    trace.Step(L"OpenProperty 1");
    CComPtr<IStream> stream;
    if (SUCCEEDED(OpenPropertyAs(lpMessage, PR_BODY_W, 0, 0, stream))) {
        trace.Step(L"Stat");
        STATSTG stat{};
        stream->Stat(&stat, STATFLAG_NONAME);
        const size_t characters = static_cast<size_t>(stat.cbSize.QuadPart / sizeof(WCHAR));
        std::string bytes;
        (void)ReadStream(stream.get(), bytes, characters * sizeof(WCHAR));  // what was read counts
        std::wstring text(bytes.size() / sizeof(WCHAR), L'\0');
        std::memcpy(text.data(), bytes.data(), text.size() * sizeof(WCHAR));
        pEmailData->body = CutAtNul(std::move(text));
    }
    trace.Step(L"OpenProperty 2 (PR_HTML)");
    if (SUCCEEDED(OpenPropertyAs(lpMessage, PR_HTML, 0, 0, stream))) {
        trace.Step(L"OpenProperty (PR_HTML) Stat");
        STATSTG stat{};
        stream->Stat(&stat, STATFLAG_NONAME);
        std::string bytes;
        if (FAILED(ReadStream(stream.get(), bytes, static_cast<size_t>(stat.cbSize.QuadPart)))) {
            trace.Step(L"OpenProperty (PR_HTML) istream->Read: reseting size ");
            bytes.clear();
        }
        std::string lower = bytes;
        for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        const std::wstring fromUtf8 = velmar::Utf8ToWide(bytes);
        pEmailData->htmlBody = lower.find("charset=utf-8") != std::string::npos && !fromUtf8.empty()
                                   ? fromUtf8
                                   : velmar::AnsiToWide(bytes);
    }
    if (!pEmailData->htmlBody.empty() && LowerText(pEmailData->htmlBody).find(L"html") != std::wstring::npos)
        return;

    trace.Step(L"HrGetOneProp");
    MapiBufferPtr<SPropValue> codePage;
    if (const auto getOneProp = BoundMapiFunction<PFN_HrGetOneProp>(MapiSlot::HrGetOneProp))
        getOneProp(lpMessage, PR_INTERNET_CPID, OutPtr(codePage));
    trace.Step(L"OpenProperty 3");
    CComPtr<IStream> compressed;
    const auto wrapEx = BoundMapiFunction<PFN_WrapCompressedRTFStreamEx>(MapiSlot::WrapCompressedRTFStreamEx);
    if (FAILED(OpenPropertyAs(lpMessage, PR_RTF_COMPRESSED, 0, 0, compressed))) {
        trace.Step(L"pfnWrapEx failed");
    } else {
        trace.Step(L"pfnWrapEx");
        RTF_WCSINFO info{sizeof(RTF_WCSINFO), MAPI_NATIVE_BODY, codePage ? codePage->Value.ul : 0, 0};
        RTF_WCSRETINFO result{sizeof(RTF_WCSRETINFO), 0};
        CComPtr<IStream> plain;
        if (wrapEx && SUCCEEDED(wrapEx(compressed.get(), &info, plain.Put(), &result)) && plain) {
            std::string text;
            (void)ReadStream(plain.get(), text);  // a failed read keeps what came before it
            const std::wstring wide = velmar::AnsiToWide(CutAtNul(std::move(text)));
            trace.Step(L"read RTF_COMPRESSED: " + wide);
            if (result.ulStreamFlags == MAPI_NATIVE_BODY_TYPE_RTF) {
                pEmailData->rtfBody = wide;
            } else if (result.ulStreamFlags == MAPI_NATIVE_BODY_TYPE_HTML) {
                pEmailData->htmlBody = wide;
                trace.Step(L"RTF_COMPRESSED stored: " + wide);
            } else if (result.ulStreamFlags == MAPI_NATIVE_BODY_TYPE_PLAINTEXT) {
                pEmailData->body = wide;
            }
        }
    }
    trace.Step(L"MapiFreeBuffer");
}

void CVelmarMapi::PrepareEmbeddedImages(LPMESSAGE lpMessage, EMailData* pEmailData) {
    // Deliberate: the opening line has no "start", and only the early way out writes an end line.
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
                // Written once per reference: the same image twice is exported twice.
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
