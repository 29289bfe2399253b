// Our JSON document model against nlohmann::json and RapidJSON on a large GetMessageData reply (about 1 MB:
// long bodies with non-ASCII UTF-8, quotes, backslashes and CR LF, an attachment list, an array of strings).
// Prints the median time of each library to load the text, to emit the loaded document indented, and to do
// both, with our ratio against each of the others (below 1 means we are faster).
//   json_model_bench [rounds=41] [megabytes=1]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <rapidjson/document.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include "json/CkJsonObject.h"
#include "support/CodePage.h"

namespace {

using Clock = std::chrono::steady_clock;

// Keeps the optimiser from dropping work whose result is otherwise unused.
volatile size_t g_sink = 0;

// Text of about the given size made of paragraphs a mail body carries: umlauts, euro signs, CJK, emoji,
// quotes, Windows paths, CR LF, a tab now and then.
std::string BodyText(size_t bytes, int seed) {
    static const char* const kParagraphs[] = {
        "Sehr geehrte Damen und Herren,\r\nanbei die Unterlagen f\xC3\xBCr das Gespr\xC3\xA4\x63h am "
        "Donnerstag. Gr\xC3\xBC\xC3\x9F\x65 aus M\xC3\xBCnchen!\r\n",
        "The invoice total is 1\xE2\x80\xAF\x32\x34\x35,00 \xE2\x82\xAC; see \"Anhang 2\" under "
        "C:\\Users\\anna\\Documents\\Rechnungen\\2024\\ for the \"final\" copy.\r\n",
        "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xAE\xE3\x83\x86\xE3\x82\xAD\xE3\x82\xB9\xE3\x83\x88 "
        "and an emoji \xF0\x9F\x98\x80 in the middle of a long line of ordinary ASCII words that goes "
        "on.\r\n",
        "> Quoted reply line with a tab\there and a backslash \\ at the end \\\r\n"
        "> second quoted line: \"yes\", 'no', <maybe> & so on.\r\n",
        "Plain ASCII text makes up most of a real message body, so here is a long run of it without any "
        "character that needs escaping at all, just words and punctuation, repeated as needed.\r\n"};
    constexpr size_t kCount = sizeof kParagraphs / sizeof kParagraphs[0];
    std::string text;
    text.reserve(bytes + 256);
    for (size_t i = static_cast<size_t>(seed); text.size() < bytes; ++i) text += kParagraphs[i % kCount];
    return text;
}

std::string HtmlText(size_t bytes) {
    std::string text = "<html><head><meta charset=\"utf-8\"><style>p {margin: 0}</style></head><body>\r\n";
    for (int i = 0; text.size() < bytes; ++i)
        text += "<p class=\"MsoNormal\">Absatz " + std::to_string(i) +
                ": Gr\xC3\xBC\xC3\x9F\x65 &amp; <a href=\"https://example.org/a?b=1&amp;c=\\\">link</a> "
                "<img src=\"cid:image" +
                std::to_string(i % 7) + "@01DA\"></p>\r\n";
    return text + "</body></html>";
}

std::string RtfText(size_t bytes) {
    std::string text = "{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 \\deff0{\\fonttbl{\\f0\\fswiss Arial;}}\r\n";
    while (text.size() < bytes)
        text += "{\\*\\htmltag64 <p>}\\htmlrtf {\\htmlrtf0 Gr\\'fc\\'dfe aus M\\'fcnchen \\u8364?\\par}\r\n";
    return text + "}";
}

// The reply text as the service would send it (compact here; the service sends it indented, which only
// adds white space for the parsers to skip).
std::string ReplyText(size_t megabytes) {
    const size_t total = megabytes * 1024 * 1024;
    std::string recipients;
    for (int i = 0; i < 40; ++i)
        recipients += (i ? "; " : "") + std::string("Empf\xC3\xA4nger ") + std::to_string(i) + " <r" +
                      std::to_string(i) + "@example.org>";
    nlohmann::ordered_json reply;
    reply["emailConnection"] = "MAPI";
    reply["mailbox"] = "Postfach \"Anna M\xC3\xBCller\"";
    reply["messageId"] = "<CAF=x+Yz\\1234@mail.example.org>";
    reply["from"] = "M\xC3\xBCller, Anna";
    reply["fromAddress"] = "anna.mueller@example.org";
    reply["to"] = recipients;
    reply["cc"] = recipients.substr(0, recipients.size() / 2);
    reply["bcc"] = "";
    reply["sent"] = "Mo 01.01.2024 10:00";
    reply["subject"] = "AW: \"Angebot\" f\xC3\xBCr C:\\Projekte \xE2\x82\xAC \xF0\x9F\x98\x80";
    reply["body"] = BodyText(total * 30 / 100, 0);
    reply["rtfBody"] = RtfText(total * 20 / 100);
    reply["htmlBody"] = HtmlText(total * 40 / 100);
    reply["sentDate"] = "01.01.2024 10:00:00";
    reply["LotusNotesUrl"] = "notes://server/db.nsf/0/ABCDEF?OpenDocument";
    nlohmann::ordered_json embedded = nlohmann::ordered_json::array();
    for (int i = 0; i < 300; ++i)
        embedded.push_back("C:\\Temp\\Velmar\\export\\image" + std::to_string(i) + "@01DA.png");
    reply["strEmbeddedAttachments"] = std::move(embedded);
    nlohmann::ordered_json attachments = nlohmann::ordered_json::array();
    for (int i = 0; i < 400; ++i)
        attachments.push_back({{"fileName", "Anh\xC3\xA4ng \"" + std::to_string(i) + "\".pdf"},
                               {"attachmentIndex", i},
                               {"contentId", "part" + std::to_string(i) + ".01DA@example.org"}});
    reply["attachments"] = std::move(attachments);
    reply["status"] = "OK";
    return reply.dump();
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Microseconds one call takes.
double Micros(const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

struct CTimes {
    std::vector<double> load, emit, both;
};

// ------------------------------------------------------------------------------------------- the three

std::string OursEmit(CkJsonObject& json) {
    json.SetCompactOutput(false);
    const char* text = json.Emit();
    return text ? text : "";
}

std::string NlohmannEmit(const nlohmann::json& json) {
    return json.dump(2);
}

std::string RapidEmit(const rapidjson::Document& document) {
    rapidjson::StringBuffer buffer;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
    writer.SetIndent(' ', 2);
    document.Accept(writer);
    return std::string(buffer.GetString(), buffer.GetSize());
}

bool RapidLoad(rapidjson::Document& document, const std::string& text) {
    document.Parse(text.c_str(), text.size());
    return !document.HasParseError();
}

// Each emitted text must read back (with nlohmann, as a neutral judge) to the document we started from.
bool SameDocument(const std::string& emitted, const nlohmann::json& expected, const char* who) {
    const nlohmann::json back = nlohmann::json::parse(emitted, nullptr, false);
    if (back == expected) return true;
    std::fprintf(stderr, "%s: the emitted text does not read back to the same document\n", who);
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = std::max(3, argc > 1 ? std::atoi(argv[1]) : 41);
    const size_t megabytes = static_cast<size_t>(std::max(1, argc > 2 ? std::atoi(argv[2]) : 1));
    const std::string text = ReplyText(megabytes);

    // Correctness first: all three must agree, or the figures mean nothing.
    const nlohmann::json reference = nlohmann::json::parse(text);
    CkJsonObject ours;
    rapidjson::Document rapid;
    if (!ours.Load(text) || !RapidLoad(rapid, text)) {
        std::fprintf(stderr, "the reply text did not load\n");
        return 1;
    }
    if (!SameDocument(OursEmit(ours), reference, "CkJsonObject") ||
        !SameDocument(NlohmannEmit(reference), reference, "nlohmann::json") ||
        !SameDocument(RapidEmit(rapid), reference, "rapidjson"))
        return 1;

    CTimes tOurs, tNlohmann, tRapid;
    // Our handles take and give 8-bit text in the system's code page; this part of our figures is that
    // conversion alone, text in and indented text out.
    const std::string indented = OursEmit(ours);
    std::vector<double> conversion;
    // Rounds interleave the libraries so that a slow moment of the machine hits all of them alike.
    for (int round = 0; round < rounds; ++round) {
        tOurs.load.push_back(Micros([&] {
            CkJsonObject json;
            g_sink = g_sink + json.Load(text);
        }));
        tNlohmann.load.push_back(Micros([&] { g_sink = g_sink + nlohmann::json::parse(text).size(); }));
        tRapid.load.push_back(Micros([&] {
            rapidjson::Document document;
            g_sink = g_sink + RapidLoad(document, text);
        }));

        tOurs.emit.push_back(Micros([&] { g_sink = g_sink + OursEmit(ours).size(); }));
        tNlohmann.emit.push_back(Micros([&] { g_sink = g_sink + NlohmannEmit(reference).size(); }));
        tRapid.emit.push_back(Micros([&] { g_sink = g_sink + RapidEmit(rapid).size(); }));

        tOurs.both.push_back(Micros([&] {
            CkJsonObject json;
            g_sink = g_sink + json.Load(text);
            g_sink = g_sink + OursEmit(json).size();
        }));
        tNlohmann.both.push_back(
            Micros([&] { g_sink = g_sink + NlohmannEmit(nlohmann::json::parse(text)).size(); }));
        tRapid.both.push_back(Micros([&] {
            rapidjson::Document document;
            g_sink = g_sink + RapidLoad(document, text);
            g_sink = g_sink + RapidEmit(document).size();
        }));
        conversion.push_back(Micros([&] {
            g_sink = g_sink + velmar::AnsiToUtf8(text).size() + velmar::Utf8ToAnsi(indented).size();
        }));
    }

    std::printf("reply text: %zu bytes (indented by us: %zu bytes); median of %d rounds, microseconds\n",
                text.size(), indented.size(), rounds);
    std::printf("%-18s %12s %12s %12s\n", "", "load", "emit", "load+emit");
    const auto row = [](const char* name, const CTimes& t) {
        std::printf("%-18s %12.0f %12.0f %12.0f\n", name, Median(t.load), Median(t.emit), Median(t.both));
    };
    row("CkJsonObject", tOurs);
    row("nlohmann::json", tNlohmann);
    row("rapidjson", tRapid);
    const auto ratio = [&](const char* name, const CTimes& other) {
        std::printf("%-18s %12.2f %12.2f %12.2f\n", name, Median(tOurs.load) / Median(other.load),
                    Median(tOurs.emit) / Median(other.emit), Median(tOurs.both) / Median(other.both));
    };
    ratio("ours / nlohmann", tNlohmann);
    ratio("ours / rapidjson", tRapid);
    std::printf("of our load+emit, code page conversion in and out: %.0f us (%.2f)\n", Median(conversion),
                Median(conversion) / Median(tOurs.both));
    return 0;
}
