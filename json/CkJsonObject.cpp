#include "json/CkJsonObject.h"

#include <cstring>

#include "json/CkJsonArray.h"
#include "json/JsonParser.h"
#include "json/JsonPath.h"
#include "json/JsonWriter.h"
#include "support/CodePage.h"
#include "support/FileBytes.h"
#include "support/NumberText.h"
#include "support/Utf8.h"

using velmar::json::CJsonHandle;
using velmar::json::JsonKind;
using velmar::json::JsonNodePtr;
using velmar::json::MakeNode;

namespace {

// Texts this short without an opening brace may name a file to load (a convenience callers rely on).
constexpr size_t kFileNameTextLimit = 512;
constexpr size_t kMaxJsonFileBytes = 256u * 1024 * 1024;
constexpr const char* kPathAttention =
    "\nAttention: The contents of the JSON should be passed to this method, NOT the file path.";

std::string_view WithoutByteOrderMark(std::string_view text) {
    return text.starts_with("\xEF\xBB\xBF") ? text.substr(3) : text;
}

}  // namespace

CkJsonObject::CkJsonObject()
    : m_handle(std::make_shared<velmar::json::JsonDocument>(), MakeNode(JsonKind::Object),
               velmar::json::kDefaultUtf8Strings) {}

bool CkJsonObject::Load(const char* json) {
    if (!json) return m_handle.Fail("No JSON text.");
    return Load(std::string_view(json));
}

std::string CkJsonObject::LoadableText(std::string_view json, bool& fromFile) {
    fromFile = false;
    if (!json.empty() && json.size() < kFileNameTextLimit && json.find('{') == json.npos &&
        json.find('\0') == json.npos) {
        const std::wstring path =
            m_handle.Utf8Strings() ? velmar::Utf8ToWide(json) : velmar::AnsiToWide(json);
        if (std::optional<std::string> bytes = velmar::ReadFileBytes(path, kMaxJsonFileBytes)) {
            m_handle.Log("LoadFile");
            fromFile = true;
            // A file that starts with a UTF-8 byte-order mark says its own encoding.
            if (bytes->starts_with("\xEF\xBB\xBF")) return velmar::SanitizeUtf8(WithoutByteOrderMark(*bytes));
            return m_handle.ToDocumentText(*bytes);
        }
    }
    return m_handle.ToDocumentText(WithoutByteOrderMark(json));
}

bool CkJsonObject::Load(std::string_view json) {
    if (!m_handle.IsBound()) return false;
    bool fromFile = false;
    const std::string text = LoadableText(json, fromFile);
    const bool lookedLikeAPath = !fromFile && json.size() < kFileNameTextLimit && json.find('{') == json.npos;
    return ReplaceMembers(text, lookedLikeAPath ? kPathAttention : "");
}

bool CkJsonObject::LoadText(const char* json) {
    if (!json) return m_handle.Fail("No JSON text.");
    return LoadText(std::string_view(json));
}

bool CkJsonObject::LoadText(std::string_view json) {
    if (!m_handle.IsBound()) return false;
    return ReplaceMembers(m_handle.ToDocumentText(WithoutByteOrderMark(json)), "");
}

// Parses UTF-8 text and takes the members of its top object; on failure the document stays as it was.
bool CkJsonObject::ReplaceMembers(std::string_view documentText, std::string_view failureNote) {
    std::string error;
    const JsonNodePtr parsed = velmar::json::ParseJson(documentText, error);
    if (!parsed || parsed->kind != JsonKind::Object) {
        if (parsed) error = "The JSON text is not an object.";
        error += failureNote;
        return m_handle.Fail(std::move(error));
    }
    const auto lock = m_handle.Lock();
    m_handle.Node()->members = std::move(parsed->members);
    return m_handle.Succeed();
}

const char* CkJsonObject::Emit() {
    if (!m_handle.IsBound()) return nullptr;
    const auto lock = m_handle.Lock();
    const velmar::json::JsonDocument& document = m_handle.Document();
    std::string text = velmar::json::WriteJson(
        *m_handle.Node(), {.compact = document.compactOutput, .crLfLineBreaks = document.crLfLineBreaks});
    m_handle.Succeed();
    return m_handle.KeepResult(std::move(text));
}

bool CkJsonObject::CompactOutput() {
    if (!m_handle.IsBound()) return false;
    const auto lock = m_handle.Lock();
    return m_handle.Document().compactOutput;
}

void CkJsonObject::SetCompactOutput(bool compact) {
    if (!m_handle.IsBound()) return;
    const auto lock = m_handle.Lock();
    m_handle.Document().compactOutput = compact;
}

bool CkJsonObject::CrLfLineBreaks() {
    if (!m_handle.IsBound()) return false;
    const auto lock = m_handle.Lock();
    return m_handle.Document().crLfLineBreaks;
}

void CkJsonObject::SetCrLfLineBreaks(bool crLf) {
    if (!m_handle.IsBound()) return;
    const auto lock = m_handle.Lock();
    m_handle.Document().crLfLineBreaks = crLf;
}

int CkJsonObject::Count() {
    if (!m_handle.IsBound()) return 0;
    const auto lock = m_handle.Lock();
    return static_cast<int>(m_handle.Node()->members.size());
}

// Looks a path up under the lock the caller holds; records the outcome.
JsonNodePtr CkJsonObject::Find(const char* path) {
    if (!path) {
        m_handle.Fail("JSON path syntax error (1).");
        return nullptr;
    }
    std::string error;
    JsonNodePtr node = velmar::json::FindPath(m_handle.Node(), m_handle.ToDocumentText(path), error);
    if (node)
        m_handle.Succeed();
    else
        m_handle.Fail(std::move(error));
    return node;
}

const char* CkJsonObject::StringOf(const char* path) {
    if (!m_handle.IsBound()) return nullptr;
    const auto lock = m_handle.Lock();
    const JsonNodePtr node = Find(path);
    return node ? m_handle.KeepResult(velmar::json::ValueText(*node)) : nullptr;
}

int CkJsonObject::IntOf(const char* path) {
    if (!m_handle.IsBound()) return -1;
    const auto lock = m_handle.Lock();
    const JsonNodePtr node = Find(path);
    if (!node || node->IsContainer()) return 0;
    return velmar::ParseLeadingInt(std::string_view(node->text));
}

bool CkJsonObject::BoolOf(const char* path) {
    if (!m_handle.IsBound()) return false;
    const auto lock = m_handle.Lock();
    const JsonNodePtr node = Find(path);
    if (!node || node->IsContainer() || node->text.size() != 4) return false;
    static constexpr char kTrue[] = "true";
    for (size_t i = 0; i < 4; ++i)
        if ((node->text[i] | 0x20) != kTrue[i]) return false;
    return true;
}

bool CkJsonObject::HasMember(const char* path) {
    if (!m_handle.IsBound()) return false;
    const auto lock = m_handle.Lock();
    return Find(path) != nullptr;
}

std::unique_ptr<CkJsonArray> CkJsonObject::ArrayOf(const char* path) {
    if (!m_handle.IsBound()) return nullptr;
    const auto lock = m_handle.Lock();
    JsonNodePtr node = Find(path);
    if (!node) return nullptr;
    if (node->kind != JsonKind::Array) {
        m_handle.Fail("Path did not end at a JSON array.");
        return nullptr;
    }
    return velmar::json::MakeHandle<CkJsonArray>(m_handle.Derive(std::move(node)));
}

std::unique_ptr<CkJsonArray> CkJsonObject::ArrayAt(int index) {
    if (!m_handle.IsBound()) return nullptr;
    const auto lock = m_handle.Lock();
    const auto& members = m_handle.Node()->members;
    if (index < 0 || static_cast<size_t>(index) >= members.size()) {
        m_handle.Fail("JSON member index out-of-bounds");
        return nullptr;
    }
    if (members[static_cast<size_t>(index)].value->kind != JsonKind::Array) {
        m_handle.Fail("Unexpected JSON object type");
        return nullptr;
    }
    m_handle.Succeed();
    return velmar::json::MakeHandle<CkJsonArray>(m_handle.Derive(members[static_cast<size_t>(index)].value));
}

bool CkJsonObject::AddMemberAt(int index, const char* name, JsonNodePtr value) {
    if (!m_handle.IsBound()) return false;
    if (!name) return m_handle.Fail("No member name.");
    std::string memberName = m_handle.ToDocumentText(name);
    const auto lock = m_handle.Lock();
    velmar::json::InsertAt(m_handle.Node()->members, index, {std::move(memberName), std::move(value)});
    return m_handle.Succeed();
}

bool CkJsonObject::AppendString(const char* name, const char* value) {
    return AddStringAt(-1, name, value);
}

bool CkJsonObject::AddStringAt(int index, const char* name, const char* value) {
    if (!value) return m_handle.Fail("No string value.");
    return AddMemberAt(index, name, MakeNode(JsonKind::String, m_handle.ToDocumentText(value)));
}

bool CkJsonObject::AddIntAt(int index, const char* name, int value) {
    return AddMemberAt(index, name, MakeNode(JsonKind::Number, std::to_string(value)));
}

bool CkJsonObject::AddArrayAt(int index, const char* name) {
    return AddMemberAt(index, name, MakeNode(JsonKind::Array));
}
