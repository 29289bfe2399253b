// The tree behind CkJsonObject and CkJsonArray. Text is UTF-8 throughout; scalars keep their text as
// written ("12", "true", "null"), so conversions happen when a value is read.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace velmar::json {

enum class JsonKind { String, Number, Bool, Null, Object, Array };

struct JsonNode;
// Nodes are shared so that a handle on a node stays valid when the node leaves its document
// (a Load on the root replaces every member).
using JsonNodePtr = std::shared_ptr<JsonNode>;

struct JsonMember {
    std::string name;
    JsonNodePtr value;
};

struct JsonNode {
    explicit JsonNode(JsonKind nodeKind, std::string nodeText = {})
        : kind(nodeKind), text(std::move(nodeText)) {}
    // Tears nested containers down with a work list: a deep tree must not recurse through destructors.
    ~JsonNode();
    JsonNode(const JsonNode&) = delete;
    JsonNode& operator=(const JsonNode&) = delete;

    bool IsContainer() const { return kind == JsonKind::Object || kind == JsonKind::Array; }

    JsonKind kind;
    std::string text;                   // String, Number, Bool, Null
    std::vector<JsonMember> members;    // Object, in insertion order
    std::vector<JsonNodePtr> elements;  // Array
};

JsonNodePtr MakeNode(JsonKind kind, std::string text = {});

// One document: the lock every handle takes and the output switches of its root.
struct JsonDocument {
    std::mutex lock;
    bool compactOutput = true;
    bool crLfLineBreaks = true;
};

}  // namespace velmar::json
