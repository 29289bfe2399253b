// A figure of a running process from /proc/<pid>/status (Linux), in kB: "VmRSS" (resident) or "VmSize"
// (mapped); -1 when it cannot be read.
#pragma once

#include <fstream>
#include <string>

namespace velmar::test {

inline long long ProcessStatusKilobytes(long long pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(field + ":", 0) == 0) return std::stoll(line.substr(field.size() + 1));
    return -1;
}

}  // namespace velmar::test
