// The real service for the send tests: the message tests' stores (one@x, two@x, archive@x), a profile file
// a test may give SMTP keys, requests built from lists, and the Maildir files the spooler leaves.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "json/CkJsonArray.h"
#include "tests/MessageServiceFixture.h"

namespace velmar::test {

class CSendServiceTest : public CMessageServiceTest {
protected:
    // The profile of the message tests, with more lines (smtp.*, contactN.*).
    void WriteProfile(const std::string& moreLines) {
        WriteFile(m_dir / "profiles.ini",
                  "[Velmar]\n"
                  "store1.name = Eins\nstore1.path = one\nstore1.address = one@x\nstore1.owner = Erika Eins\n"
                  "store2.name = Zwei\nstore2.path = two\nstore2.address = two@x\n"
                  "store3.name = Archiv\nstore3.path = archive\nstore3.address = archive@x\n" +
                      moreLines);
    }

    struct CSendRequest {
        std::string command = "SendEmail";
        std::string subject{};
        std::string body{};
        std::vector<std::string> to{}, cc{}, bcc{}, files{};
        bool forceSend = false;
        // ForwardEmail only.
        std::string messageId{}, toEmailAddress{}, brandingSubject{}, sendNote{};
    };

    std::unique_ptr<CkJsonObject> Send(const CSendRequest& request) {
        CkJsonObject json;
        json.AppendString("command-target", "MAPI");
        json.AppendString("command", request.command.c_str());
        json.AppendString("subject", request.subject.c_str());
        if (request.command == "SendEmail") {
            json.AppendString("body", request.body.c_str());
        } else {
            json.AppendString("brandingSubject", request.brandingSubject.c_str());
            json.AppendString("sendNote", request.sendNote.c_str());
            json.AppendString("messageId", request.messageId.c_str());
            json.AppendString("toEmailAddress", request.toEmailAddress.c_str());
        }
        const std::pair<const char*, const std::vector<std::string>*> lists[] = {
            {"recipientsTo", &request.to},
            {"recipientsCC", &request.cc},
            {"recipientsBCC", &request.bcc},
            {"attachmentFiles", &request.files}};
        for (const auto& [name, list] : lists) {
            json.AddArrayAt(-1, name);
            std::unique_ptr<CkJsonArray> array = json.ArrayAt(json.Count() - 1);
            for (const std::string& element : *list) array->AddStringAt(-1, element.c_str());
        }
        json.AppendString("outlookForceSend", request.forceSend ? "true" : "false");
        return Ask(json.Emit());
    }

    // The message files of a folder of a store ("" for the inbox, ".Sent", ...), new/ and cur/.
    std::vector<fs::path> MessageFiles(const std::string& store, const std::string& folder = "") {
        std::vector<fs::path> files;
        for (const char* sub : {"new", "cur"}) {
            const fs::path dir = m_dir / store / folder / sub;
            if (!fs::is_directory(dir)) continue;
            for (const auto& entry : fs::directory_iterator(dir)) files.push_back(entry.path());
        }
        return files;
    }

    // Waits until the folder holds count messages (the spooler works on its own thread); what is there.
    std::vector<fs::path> WaitForMessages(const std::string& store, const std::string& folder, size_t count,
                                          std::chrono::seconds patience = std::chrono::seconds(30)) {
        const auto end = std::chrono::steady_clock::now() + patience;
        std::vector<fs::path> files = MessageFiles(store, folder);
        while (files.size() < count && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            files = MessageFiles(store, folder);
        }
        return files;
    }

    // Waits until the folder holds no message; whether it came to that.
    bool WaitForEmpty(const std::string& store, const std::string& folder,
                      std::chrono::seconds patience = std::chrono::seconds(30)) {
        const auto end = std::chrono::steady_clock::now() + patience;
        while (!MessageFiles(store, folder).empty() && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return MessageFiles(store, folder).empty();
    }

    // The header field's unfolded value in a message file (the name in any letter case); empty when there
    // is none.
    static std::string Field(const std::string& message, const std::string& name) {
        const std::string headers = message.substr(0, message.find("\n\n"));
        size_t at = 0;
        while (at < headers.size()) {
            size_t end = headers.find('\n', at);
            if (end == std::string::npos) end = headers.size();
            const std::string start = headers.substr(at, name.size() + 1);
            const bool same = start.size() == name.size() + 1 && start.back() == ':' &&
                              std::equal(name.begin(), name.end(), start.begin(), [](char a, char b) {
                                  return std::tolower(static_cast<unsigned char>(a)) ==
                                         std::tolower(static_cast<unsigned char>(b));
                              });
            if (same) {
                std::string value = headers.substr(at + name.size() + 1, end - at - name.size() - 1);
                while (end + 1 < headers.size() && (headers[end + 1] == ' ' || headers[end + 1] == '\t')) {
                    const size_t next = std::min(headers.find('\n', end + 1), headers.size());
                    value += headers.substr(end + 1, next - end - 1);
                    end = next;
                }
                std::erase(value, '\r');
                const size_t first = value.find_first_not_of(' ');
                return first == std::string::npos ? std::string() : value.substr(first);
            }
            at = end + 1;
        }
        return {};
    }

    // What another client saw while action ran: it asked GetMessageData of messageId (in store Eins) over
    // and over on a connection of its own, from before the action began until it had ended.
    struct CAnotherClient {
        double longestMilliseconds = 0;
        int answered = 0;
        bool allAnswered = true;  // each request got its reply, with "status" "OK"
    };
    CAnotherClient AnotherClientReadsWhile(const std::string& messageId,
                                           const std::function<void()>& action) {
        CkJsonObject request;
        request.AppendString("command-target", "MAPI");
        request.AppendString("command", "GetMessageData");
        request.AppendString("messageId", messageId.c_str());
        request.AppendString("profileName", "Velmar");
        request.AddIntAt(-1, "storeIndex", 0);
        const std::string text = request.Emit();
        std::atomic<bool> done{false}, failed{false};
        std::atomic<int> answered{0};
        CAnotherClient seen;
        std::thread reader([&] {
            std::string error;
            const std::unique_ptr<velmar::tools::IClientChannel> channel =
                velmar::tools::ConnectToService(error);
            while (!done) {
                const auto start = std::chrono::steady_clock::now();
                std::string reply;
                if (!channel || !channel->Send(text) || !channel->Receive(reply, 120000) ||
                    reply.find("\"status\": \"OK\"") == std::string::npos) {
                    failed = true;
                    return;
                }
                seen.longestMilliseconds = std::max(
                    seen.longestMilliseconds,
                    std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                        .count());
                ++answered;
            }
        });
        while (answered < 3 && !failed) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        action();
        done = true;
        reader.join();
        seen.answered = answered;
        seen.allAnswered = !failed;
        return seen;
    }

    // The trace lines of the mail layer from the first line equal to first up to the next equal to last.
    std::vector<std::string> TraceBetween(const std::string& first, const std::string& last) {
        std::vector<std::string> lines;
        const std::string activity = Activity();
        bool inside = false;
        size_t at = 0;
        while (at < activity.size()) {
            size_t end = activity.find('\n', at);
            if (end == std::string::npos) end = activity.size();
            std::string line = activity.substr(at, end - at);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            at = end + 1;
            if (!inside && line != first) continue;
            inside = true;
            if (line.rfind("CVelmarMapi::", 0) == 0) lines.push_back(line);
            if (line == last) break;
        }
        return lines;
    }
};

}  // namespace velmar::test
