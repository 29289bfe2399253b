#include "json/JsonHandle.h"

#include "json/JsonChars.h"
#include "json/JsonWriter.h"
#include "support/CodePage.h"
#include "support/Utf8.h"

namespace velmar::json {

// ASCII reads the same in UTF-8 and in every ANSI code page, so it needs no conversion either way (most
// requests and many replies are ASCII).
std::string CJsonHandle::ToDocumentText(std::string_view text) const {
    if (IsAscii(text)) return std::string(text);
    return m_bUtf8Strings ? SanitizeUtf8(text) : AnsiToUtf8(text);
}

const char* CJsonHandle::KeepResult(std::string documentText) {
    std::string& slot = m_results[m_nextResult];
    m_nextResult = (m_nextResult + 1) % m_results.size();
    // Document text is always well-formed UTF-8, so in UTF-8 mode it is handed out as it is.
    if (m_bUtf8Strings || IsAscii(documentText))
        slot = std::move(documentText);
    else
        slot = Utf8ToAnsi(documentText);
    return slot.c_str();
}

std::string ValueText(const JsonNode& node) {
    return node.IsContainer() ? WriteJson(node, JsonWriteOptions{.compact = true}) : node.text;
}

}  // namespace velmar::json
