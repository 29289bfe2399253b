// The data of one message as the message commands return it: filled by CVelmarMapi::GetMessageData.
#pragma once

#include <string>
#include <vector>

struct EMailAttachment {
    std::wstring fileName;    // PR_ATTACH_LONG_FILENAME_W
    int attachmentIndex = 0;  // PR_ATTACH_NUM
    std::wstring contentId;   // PR_ATTACH_CONTENT_ID_W
    bool operator==(const EMailAttachment&) const = default;
};

struct EMailData {
    std::wstring emailConnection;
    std::wstring mailbox;
    std::wstring messageId;
    std::wstring from;
    std::wstring fromAddress;
    std::vector<std::wstring> to;
    std::vector<std::wstring> cc;
    std::vector<std::wstring> bcc;
    std::wstring sent;
    std::wstring subject;
    std::wstring body;
    std::wstring rtfBody;
    std::wstring htmlBody;
    std::wstring sentDate;
    std::wstring LotusNotesUrl;
    std::vector<EMailAttachment> attachments;
    std::vector<std::wstring> strEmbeddedAttachments;
};
