#include "json/JsonHandle.h"

#include "json/JsonWriter.h"
#include "support/CodePage.h"
#include "support/Utf8.h"

namespace velmar::json {

std::string CJsonHandle::ToDocumentText(std::string_view text) const {
    return m_bUtf8Strings ? SanitizeUtf8(text) : AnsiToUtf8(text);
}

const char* CJsonHandle::KeepResult(std::string_view documentText) {
    std::string& slot = m_results[m_nextResult];
    m_nextResult = (m_nextResult + 1) % m_results.size();
    slot = m_bUtf8Strings ? std::string(documentText) : Utf8ToAnsi(documentText);
    return slot.c_str();
}

std::string ValueText(const JsonNode& node) {
    return node.IsContainer() ? WriteJson(node, JsonWriteOptions{.compact = true}) : node.text;
}

}  // namespace velmar::json
