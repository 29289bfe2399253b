// velmar-client: sends one request to the running service and prints the reply.
//
//   velmar-client [--timeout=SECONDS] '{"command-target":"MAPI","command":"IsInitialized"}'
//   velmar-client [--timeout=SECONDS] COMMAND [key=value ...]
//
// In the second form "command-target" is "MAPI", and a key given more than once becomes an array.
// Exit status: 0 "status" OK, 1 "status" FAILED, 2 no reply within the time-out (unknown commands are not
// answered), 3 the service cannot be reached, 4 wrong usage.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "json/CkJsonArray.h"
#include "json/CkJsonObject.h"
#include "tools/ClientChannel.h"

namespace {

int Usage() {
    std::fputs("usage: velmar-client [--timeout=SECONDS] JSON | COMMAND [key=value ...]\n", stderr);
    return 4;
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
