// velmar-client: sends one request to the running service and prints the reply.
//
//   velmar-client [--timeout=SECONDS] '{"command-target":"MAPI","command":"IsInitialized"}'
//   velmar-client [--timeout=SECONDS] COMMAND [key=value ...]
//   velmar-client print HTMLFILE TEMPLATE|* STYLESHEET PROMPT PRINTER|* [more groups of five]
//
// In the second form "command-target" is "MAPI", and a key given more than once becomes an array.
// The third hands a PRINTHTML job to the running program's window, which prints it.
// Exit status: 0 "status" OK (print: the window took the job), 1 "status" FAILED (print: the window did not
// take it), 2 no reply within the time-out (unknown commands are not answered), 3 the service (print: a
// window) cannot be reached, 4 wrong usage.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "json/CkJsonArray.h"
#include "json/CkJsonObject.h"
#include "support/PrintJobChannel.h"
#include "support/Utf8.h"
#include "tools/ClientChannel.h"

namespace {

int Usage() {
    std::fputs(
        "usage: velmar-client [--timeout=SECONDS] JSON | COMMAND [key=value ...]\n"
        "       velmar-client print HTMLFILE TEMPLATE|* STYLESHEET PROMPT PRINTER|* [...]\n",
        stderr);
    return 4;
}

int HandOverPrintJob(int first, int argc, char** argv) {
    std::vector<std::wstring> job{velmar::kPrintHtmlWord};
    for (int i = first; i < argc; ++i) job.push_back(velmar::Utf8ToWide(argv[i]));
    if (!velmar::IsPrintJob(job)) return Usage();
    std::wstring error;
    switch (velmar::HandPrintJobToWindow(job, error)) {
        case velmar::EHandOver::Handed:
            return 0;
        case velmar::EHandOver::NoWindow:
            std::fputs("velmar-client: no VelmarTaskScheduler window runs to print\n", stderr);
            return 3;
        case velmar::EHandOver::Failed:
            break;
    }
    std::fprintf(stderr, "velmar-client: %s\n", velmar::WideToUtf8(error).c_str());
    return 1;
}

// The request of the COMMAND key=value form.
bool BuildRequest(int first, int argc, char** argv, std::string& request) {
    CkJsonObject json;
    json.AppendString("command-target", "MAPI");
    json.AppendString("command", argv[first]);
    std::map<std::string, std::vector<std::string>> values;
    std::vector<std::string> order;
    for (int i = first + 1; i < argc; ++i) {
        const char* equals = std::strchr(argv[i], '=');
        if (!equals) return false;
        const std::string key(argv[i], static_cast<size_t>(equals - argv[i]));
        if (!values.count(key)) order.push_back(key);
        values[key].push_back(equals + 1);
    }
    for (const std::string& key : order) {
        const std::vector<std::string>& list = values[key];
        if (list.size() == 1) {
            json.AppendString(key.c_str(), list.front().c_str());
            continue;
        }
        json.AddArrayAt(-1, key.c_str());
        std::unique_ptr<CkJsonArray> array = json.ArrayAt(json.Count() - 1);
        for (const std::string& value : list) array->AddStringAt(-1, value.c_str());
    }
    const char* text = json.Emit();
    request = text ? text : "";
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int first = 1;
    int timeoutSeconds = 5;
    if (first < argc && std::strncmp(argv[first], "--timeout=", 10) == 0)
        timeoutSeconds = std::atoi(argv[first++] + 10);
    if (first >= argc) return Usage();
    if (std::strcmp(argv[first], "print") == 0) return HandOverPrintJob(first + 1, argc, argv);
    std::string request;
    if (argv[first][0] == '{') {
        if (first + 1 != argc) return Usage();
        request = argv[first];
    } else if (!BuildRequest(first, argc, argv, request)) {
        return Usage();
    }

    std::string error;
    std::unique_ptr<velmar::tools::IClientChannel> channel = velmar::tools::ConnectToService(error);
    if (!channel) {
        std::fprintf(stderr, "velmar-client: %s\n", error.c_str());
        return 3;
    }
    std::string reply;
    if (!channel->Send(request) || !channel->Receive(reply, timeoutSeconds * 1000)) {
        std::fputs("velmar-client: no reply\n", stderr);
        return 2;
    }
    std::fwrite(reply.data(), 1, reply.size(), stdout);
    std::fputc('\n', stdout);
    CkJsonObject json;
    json.LoadText(reply);
    const char* status = json.StringOf("status");
    return status && std::strcmp(status, "OK") == 0 ? 0 : 1;
}
