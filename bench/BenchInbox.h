// The inbox the benchmarks search: n small messages of real shape (a few headers, an encoded subject, a
// plain body) in a Maildir's cur/, each with its own Message-ID "<msg-N@bench.example.org>".
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

namespace velmar::bench {

inline std::string BenchMessageId(int i) {
    return "<msg-" + std::to_string(i) + "@bench.example.org>";
}

inline std::string BenchMessageText(int i, int bodyLines = 12) {
    const std::string sender = std::to_string(i % 97);
    std::string text = "Return-Path: <sender" + sender + "@example.org>\n" +
                       "Received: from mx.example.org by mail.example.com; Mon, 1 Jan 2024 10:00:00 +0000\n" +
                       "From: Sender " + sender + " <sender" + sender + "@example.org>\n" +
                       "To: Empf\xC3\xA4nger <me@example.com>\n" + "Subject: Nachricht Nummer " +
                       std::to_string(i) + "\n" + "Date: Mon, 1 Jan 2024 10:00:00 +0000\n" +
                       "Message-ID: " + BenchMessageId(i) + "\n" + "MIME-Version: 1.0\n" +
                       "Content-Type: text/plain; charset=utf-8\n\n";
    for (int line = 0; line < bodyLines; ++line)
        text += "Dies ist eine Zeile des Nachrichtentextes, die etwas Platz braucht.\n";
    return text;
}

// A Maildir at folder with messages 0 .. count-1, all read.
inline void WriteBenchInbox(const std::filesystem::path& folder, int count) {
    for (const char* sub : {"cur", "new", "tmp"}) std::filesystem::create_directories(folder / sub);
    for (int i = 0; i < count; ++i)
        std::ofstream(folder / "cur" / ("1700000000.M" + std::to_string(i) + "P1.bench:2,S"))
            << BenchMessageText(i);
}

}  // namespace velmar::bench
