// A JSON object handle, and the root of every document. Strings passed in and returned are 8-bit text in
// the handle's encoding (UTF-8, or the system's code page by default). A returned const char* points into
// the handle and stays valid until the handle is destroyed or a few later calls on it: copy it at once.
// Every call takes the document's lock, so handles of one document may be used from several threads.
#pragma once

#include <memory>
#include <string_view>

#include "json/JsonHandle.h"

class CkJsonArray;

class CkJsonObject {
public:
    // An empty root object {} in a new document.
    CkJsonObject();
    // A handle on an object node of an existing document (made by CkJsonArray::ObjectAt).
    explicit CkJsonObject(velmar::json::CJsonHandle handle) : m_handle(std::move(handle)) {}
    CkJsonObject(const CkJsonObject&) = delete;
    CkJsonObject& operator=(const CkJsonObject&) = delete;

    // Replaces the members of this object with those of the parsed text; false, and nothing changed, when
    // the text is not JSON with an object on top. A text under 512 bytes without "{" that names an
    // existing file is taken as that file's name and the file is loaded instead.
    bool Load(const char* json);
    bool Load(std::string_view json);
    // As Load, but the text is always JSON: it is never taken as a file name. For text from outside
    // (requests), which must not be able to make us read a file.
    bool LoadText(const char* json);
    bool LoadText(std::string_view json);
    // This object as JSON text, compact or indented as the document says; null on failure.
    const char* Emit();

    bool CompactOutput();
    void SetCompactOutput(bool compact);
    bool CrLfLineBreaks();
    void SetCrLfLineBreaks(bool crLf);

    int Count();
    // Lookups take a member name, or a path such as "a.b" or "a[2].c".
    const char* StringOf(const char* path);  // null when missing
    int IntOf(const char* path);             // leading decimal digits; 0 when missing or none
    bool BoolOf(const char* path);           // true only for the text "true" in any letter case
    bool HasMember(const char* path);
    std::unique_ptr<CkJsonArray> ArrayOf(const char* path);  // null unless the path ends at an array
    std::unique_ptr<CkJsonArray> ArrayAt(int index);         // the index-th member's value, if an array

    // Index -1 (or any index past the end) appends; otherwise the member goes before that position.
    bool AppendString(const char* name, const char* value);
    bool AddStringAt(int index, const char* name, const char* value);
    bool AddIntAt(int index, const char* name, int value);
    bool AddArrayAt(int index, const char* name);

    bool LastCallSucceeded() const { return m_handle.LastCallSucceeded(); }
    bool Utf8Strings() const { return m_handle.Utf8Strings(); }
    void SetUtf8Strings(bool utf8) { m_handle.SetUtf8Strings(utf8); }
    // The diagnostic of the last failed call (kept for debugging; the service never reads it).
    const char* LastErrorText() const { return m_handle.LastError().c_str(); }

private:
    bool AddMemberAt(int index, const char* name, velmar::json::JsonNodePtr value);
    velmar::json::JsonNodePtr Find(const char* path);
    std::string LoadableText(std::string_view json, bool& fromFile);
    bool ReplaceMembers(std::string_view documentText, std::string_view failureNote);

    velmar::json::CJsonHandle m_handle;
};
