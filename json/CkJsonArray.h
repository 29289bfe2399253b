// A JSON array handle inside a document; see CkJsonObject for the rules on strings and handles.
#pragma once

#include <memory>

#include "json/JsonHandle.h"

class CkJsonObject;

class CkJsonArray {
public:
    explicit CkJsonArray(velmar::json::CJsonHandle handle) : m_handle(std::move(handle)) {}
    CkJsonArray(const CkJsonArray&) = delete;
    CkJsonArray& operator=(const CkJsonArray&) = delete;

    int Count();
    const char* StringAt(int index);                    // null when out of range
    std::unique_ptr<CkJsonObject> ObjectAt(int index);  // null unless the element is an object
    // Index -1 (or any index past the end) appends.
    bool AddObjectAt(int index);
    bool AddStringAt(int index, const char* value);

    bool LastCallSucceeded() const { return m_handle.LastCallSucceeded(); }
    bool Utf8Strings() const { return m_handle.Utf8Strings(); }
    const char* LastErrorText() const { return m_handle.LastError().c_str(); }

private:
    bool AddElementAt(int index, velmar::json::JsonNodePtr value);

    velmar::json::CJsonHandle m_handle;
};
