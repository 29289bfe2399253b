#include "support/PrintJobChannel.h"

#include "support/Utf8.h"

namespace velmar {
namespace {

// No string of a command line comes near this; a longer length is a broken text, not a big job.
constexpr size_t kLongestString = 1 << 20;

// One netstring from the front of text, which loses it; false when text does not start with one.
bool TakeNetstring(std::string_view& text, std::string_view& value) {
    size_t length = 0;
    size_t digits = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
        length = length * 10 + static_cast<size_t>(text[digits] - '0');
        if (++digits > 7 || length > kLongestString) return false;
    }
    if (digits == 0 || digits >= text.size() || text[digits] != ':') return false;
    text.remove_prefix(digits + 1);
    if (text.size() < length + 1 || text[length] != ',') return false;
    value = text.substr(0, length);
    text.remove_prefix(length + 1);
    return true;
}

}  // namespace

bool IsPrintJob(const std::vector<std::wstring>& arguments) {
    return arguments.size() >= 6 && arguments.front() == kPrintHtmlWord;
}

std::string EncodePrintJob(const std::vector<std::wstring>& job) {
    std::string text;
    for (const std::wstring& value : job) {
        const std::string bytes = WideToUtf8(value);
        text += std::to_string(bytes.size()) + ":" + bytes + ",";
    }
    return text;
}

bool DecodePrintJob(std::string_view text, std::vector<std::wstring>& job) {
    job.clear();
    std::string_view value;
    while (!text.empty()) {
        if (!TakeNetstring(text, value)) {
            job.clear();
            return false;
        }
        job.push_back(Utf8ToWide(value));
    }
    return IsPrintJob(job);
}

}  // namespace velmar
