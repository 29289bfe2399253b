#include "print/PrintJobChannel.h"

#include <memory>

#include "json/CkJsonArray.h"
#include "json/CkJsonObject.h"
#include "support/Utf8.h"

namespace velmar::print {
namespace {

constexpr char kJobMember[] = "PRINTHTML";

}  // namespace

bool IsPrintJob(const std::vector<std::wstring>& arguments) {
    return arguments.size() >= 6 && arguments.front() == kPrintHtmlWord;
}

std::string EncodePrintJob(const std::vector<std::wstring>& job) {
    CkJsonObject json;
    json.SetUtf8Strings(true);
    json.SetCompactOutput(true);
    json.AddArrayAt(-1, kJobMember);
    std::unique_ptr<CkJsonArray> strings = json.ArrayOf(kJobMember);
    for (const std::wstring& text : job) strings->AddStringAt(-1, WideToUtf8(text).c_str());
    const char* text = json.Emit();
    return text ? text : "";
}

bool DecodePrintJob(std::string_view text, std::vector<std::wstring>& job) {
    job.clear();
    CkJsonObject json;
    json.SetUtf8Strings(true);
    if (!json.Load(text)) return false;
    std::unique_ptr<CkJsonArray> strings = json.ArrayOf(kJobMember);
    if (!strings) return false;
    for (int i = 0; i < strings->Count(); ++i) {
        const char* value = strings->StringAt(i);
        if (!value) return false;
        job.push_back(Utf8ToWide(value));
    }
    return IsPrintJob(job);
}

}  // namespace velmar::print
