// What a shell command printed, for the tests that drive command-line tools (CUPS, Dovecot, pdftotext).
#pragma once

#include <cstdio>
#include <string>

namespace velmar::test {

// The standard output of command run by /bin/sh (its error output dropped).
inline std::string CommandOutput(const std::string& command) {
    std::string output;
    FILE* pipe = popen((command + " 2>/dev/null").c_str(), "r");
    if (!pipe) return output;
    char buffer[4096];
    for (size_t got = 0; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, got);
    pclose(pipe);
    return output;
}

}  // namespace velmar::test
