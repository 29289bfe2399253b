// Scratch folders and files for tests: each test gets a fresh folder that is removed afterwards.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>

namespace velmar::test {

class CTempDir {
public:
    CTempDir() {
        static std::atomic<unsigned> counter{0};
        const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
        m_path = std::filesystem::temp_directory_path() /
                 ("velmar-test-" + std::to_string(stamp) + "-" + std::to_string(counter++));
        std::filesystem::create_directories(m_path);
    }
    ~CTempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    CTempDir(const CTempDir&) = delete;
    CTempDir& operator=(const CTempDir&) = delete;

    const std::filesystem::path& Path() const { return m_path; }
    std::filesystem::path operator/(std::string_view name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};

// Sets a variable of this process's environment (for code that reads one at call time).
inline void SetEnvironment(const char* name, const std::string& value) {
#ifdef _WIN32
    _putenv_s(name, value.c_str());
#else
    setenv(name, value.c_str(), 1);
#endif
}

inline std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The contents of a file another process is still appending to, once nothing has been added for a while:
// the service echoes its activity list through a writer thread, a few milliseconds behind its replies.
inline std::string ReadSettledFile(const std::filesystem::path& path) {
    std::string text = ReadFile(path);
    for (int round = 0; round < 100; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::string again = ReadFile(path);
        if (again == text) break;
        text = std::move(again);
    }
    return text;
}

// How often needle occurs in text.
inline size_t CountOf(std::string_view text, std::string_view needle) {
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string_view::npos; at = text.find(needle, at + 1)) ++count;
    return count;
}

// Base64 in lines of 76 characters, as a MIME part carries it; in one line (an encoded word) when not
// wrapped.
inline std::string Base64(std::string_view bytes, bool wrapped = true) {
    static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t count = std::min<size_t>(3, bytes.size() - i);
        unsigned group = 0;
        for (size_t k = 0; k < 3; ++k)
            group = (group << 8) | (k < count ? static_cast<unsigned char>(bytes[i + k]) : 0u);
        for (size_t k = 0; k < 4; ++k) text += k <= count ? kDigits[(group >> (18 - 6 * k)) & 63] : '=';
        if (wrapped && (i / 3 + 1) % 19 == 0) text += '\n';
    }
    return text;
}

inline void WriteFile(const std::filesystem::path& path, std::string_view bytes) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace velmar::test
