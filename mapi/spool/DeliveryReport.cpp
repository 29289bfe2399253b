#include "mapi/spool/DeliveryReport.h"

#include <unistd.h>

#include <cctype>
#include <ctime>

#include "mapi/mime/GMimeSupport.h"
#include "mapi/provider/MaildirWriter.h"

namespace velmar::mapi {
namespace {

std::string HostName() {
    char host[256] = {};
    return gethostname(host, sizeof host - 1) == 0 && host[0] ? host : "localhost";
}

std::string DateText() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[64] = {};
    std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S %z", &local);
    return text;
}

// The enhanced status code (RFC 3463) in a reply ("550 5.1.1 ..."), else the class of its code.
std::string StatusOf(const std::string& reply) {
    if (reply.size() > 10 && std::isdigit(static_cast<unsigned char>(reply[4])) && reply[5] == '.') {
        const size_t end = reply.find(' ', 4);
        return reply.substr(4, end == std::string::npos ? std::string::npos : end - 4);
    }
    return reply.starts_with("4") ? "4.0.0" : "5.0.0";
}

// Lines of text, each after "> ", for the server's words inside the human part.
std::string Quoted(const std::string& text) {
    std::string out = "> ";
    for (char c : text) {
        if (c == '\r') continue;
        out += c;
        if (c == '\n') out += "> ";
    }
    return out;
}

// A header or status field value on one line: line breaks inside become blanks.
std::string OneLine(std::string text) {
    for (char& c : text)
        if (c == '\r' || c == '\n') c = ' ';
    return text;
}

}  // namespace

std::string MakeDeliveryReport(const CQueuedMessage& message, const std::vector<CFailedRecipient>& failed,
                               std::string_view original) {
    EnsureGMime();
    const std::string host = HostName();
    const std::string boundary = "=_velmar_report_" + NewMaildirKey();
    const std::string subject = TakeGString(
        g_mime_utils_header_encode_text(nullptr, ("Unzustellbar: " + message.subject).c_str(), "utf-8"));
    std::string report;
    report += "From: Mail Delivery System <MAILER-DAEMON@" + host + ">\n";
    report += "To: <" + message.from + ">\n";
    report += "Subject: " + subject + "\n";
    report += "Date: " + DateText() + "\n";
    report += "Message-ID: <" + TakeGString(g_mime_utils_generate_message_id(host.c_str())) + ">\n";
    if (!message.messageId.empty()) report += "In-Reply-To: " + OneLine(message.messageId) + "\n";
    report += "Auto-Submitted: auto-replied\n";
    report += "MIME-Version: 1.0\n";
    report +=
        "Content-Type: multipart/report; report-type=delivery-status;\n boundary=\"" + boundary + "\"\n\n";

    report += "--" + boundary + "\n";
    report += "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n";
    report += "Ihre Nachricht konnte an folgende Empf\xc3\xa4nger nicht zugestellt werden.\n\n";
    for (const CFailedRecipient& recipient : failed)
        report += "<" + recipient.address + ">: der Server antwortete:\n" + Quoted(recipient.reply) + "\n\n";

    report += "--" + boundary + "\n";
    report += "Content-Type: message/delivery-status\n\n";
    report += "Reporting-MTA: dns; " + host + "\n";
    for (const CFailedRecipient& recipient : failed) {
        report += "\nFinal-Recipient: rfc822; " + recipient.address + "\n";
        report += "Action: failed\n";
        report += "Status: " + StatusOf(recipient.reply) + "\n";
        report += "Diagnostic-Code: smtp; " + OneLine(recipient.reply) + "\n";
    }
    report += "\n--" + boundary + "\n";
    report += "Content-Type: message/rfc822\n\n";
    report.append(original);
    if (!original.empty() && original.back() != '\n') report += "\n";
    report += "\n--" + boundary + "--\n";
    return report;
}

}  // namespace velmar::mapi
