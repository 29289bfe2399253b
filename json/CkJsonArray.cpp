#include "json/CkJsonArray.h"

#include "json/CkJsonObject.h"

using velmar::json::JsonKind;
using velmar::json::JsonNodePtr;
using velmar::json::MakeNode;

int CkJsonArray::Count() {
    if (!m_handle.IsBound()) return 0;
    const auto lock = m_handle.Lock();
    return static_cast<int>(m_handle.Node()->elements.size());
}

const char* CkJsonArray::StringAt(int index) {
    if (!m_handle.IsBound()) return nullptr;
    const auto lock = m_handle.Lock();
    const auto& elements = m_handle.Node()->elements;
    if (index < 0 || static_cast<size_t>(index) >= elements.size()) {
        m_handle.Fail("JSON array index out-of-bounds");
        return nullptr;
    }
    m_handle.Succeed();
    return m_handle.KeepResult(velmar::json::ValueText(*elements[static_cast<size_t>(index)]));
}

std::unique_ptr<CkJsonObject> CkJsonArray::ObjectAt(int index) {
    if (!m_handle.IsBound()) return nullptr;
    const auto lock = m_handle.Lock();
    const auto& elements = m_handle.Node()->elements;
    if (index < 0 || static_cast<size_t>(index) >= elements.size()) {
        m_handle.Fail("JSON array index out-of-bounds");
        return nullptr;
    }
    const JsonNodePtr& element = elements[static_cast<size_t>(index)];
    if (element->kind != JsonKind::Object) {
        m_handle.Fail("Unexpected JSON object type");
        return nullptr;
    }
    m_handle.Succeed();
    return velmar::json::MakeHandle<CkJsonObject>(m_handle.Derive(element));
}

bool CkJsonArray::AddElementAt(int index, JsonNodePtr value) {
    if (!m_handle.IsBound()) return false;
    const auto lock = m_handle.Lock();
    velmar::json::InsertAt(m_handle.Node()->elements, index, std::move(value));
    return m_handle.Succeed();
}

bool CkJsonArray::AddObjectAt(int index) {
    return AddElementAt(index, MakeNode(JsonKind::Object));
}

bool CkJsonArray::AddStringAt(int index, const char* value) {
    if (!value) return m_handle.Fail("No string value.");
    return AddElementAt(index, MakeNode(JsonKind::String, m_handle.ToDocumentText(value)));
}
