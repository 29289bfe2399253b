// What CkJsonObject and CkJsonArray share: the document they point into, the node, the 8-bit encoding of
// their strings, the outcome of the last call, and the storage behind the strings they return.
#pragma once

#include <array>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

#include "json/JsonNode.h"

namespace velmar::json {

// The process-wide default for new root objects: strings in the system's 8-bit code page.
inline constexpr bool kDefaultUtf8Strings = false;

class CJsonHandle {
public:
    CJsonHandle(std::shared_ptr<JsonDocument> document, JsonNodePtr node, bool utf8Strings)
        : m_document(std::move(document)), m_node(std::move(node)), m_bUtf8Strings(utf8Strings) {}

    bool IsBound() const { return m_document && m_node; }
    std::unique_lock<std::mutex> Lock() const { return std::unique_lock(m_document->lock); }

    JsonDocument& Document() const { return *m_document; }
    const JsonNodePtr& Node() const { return m_node; }
    // A handle on another node of the same document, with this handle's encoding.
    CJsonHandle Derive(JsonNodePtr node) const {
        return CJsonHandle(m_document, std::move(node), m_bUtf8Strings);
    }

    bool Utf8Strings() const { return m_bUtf8Strings; }
    void SetUtf8Strings(bool utf8) { m_bUtf8Strings = utf8; }

    // 8-bit text of the caller to the document's UTF-8, and back.
    std::string ToDocumentText(std::string_view text) const;
    // Returns a pointer into one slot of a small ring, valid until that slot is reused.
    const char* KeepResult(std::string documentText);

    bool Succeed() { return m_bLastCallSucceeded = true; }
    bool Fail(std::string diagnostic) {
        m_strLastError = std::move(diagnostic);
        return m_bLastCallSucceeded = false;
    }
    void Log(std::string diagnostic) { m_strLastError = std::move(diagnostic); }
    bool LastCallSucceeded() const { return m_bLastCallSucceeded; }
    const std::string& LastError() const { return m_strLastError; }

private:
    std::shared_ptr<JsonDocument> m_document;
    JsonNodePtr m_node;
    bool m_bUtf8Strings;
    bool m_bLastCallSucceeded = true;
    std::string m_strLastError;
    std::array<std::string, 4> m_results;
    size_t m_nextResult = 0;
};

// A new handle for an accessor's caller; null when it cannot be allocated.
template <class Handle>
std::unique_ptr<Handle> MakeHandle(CJsonHandle handle) noexcept {
    try {
        return std::make_unique<Handle>(std::move(handle));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// The text a scalar holds, or the compact JSON of a container.
std::string ValueText(const JsonNode& node);

// Inserts before position index; a negative index or one past the end appends.
template <class T>
void InsertAt(std::vector<T>& items, int index, T item) {
    if (index < 0 || static_cast<size_t>(index) >= items.size())
        items.push_back(std::move(item));
    else
        items.insert(items.begin() + index, std::move(item));
}

}  // namespace velmar::json
