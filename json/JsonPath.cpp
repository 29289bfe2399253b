#include "json/JsonPath.h"

#include <limits>

namespace velmar::json {
namespace {

constexpr const char* kSyntaxError = "JSON path syntax error (1).";

JsonNodePtr MemberOf(const JsonNode& node, std::string_view name, std::string& error) {
    if (node.kind != JsonKind::Object) {
        error = "JSON path error: expected an object.";
        return nullptr;
    }
    for (const JsonMember& member : node.members)
        if (member.name == name) return member.value;
    error = "JSON member not found.";
    return nullptr;
}

}  // namespace

JsonNodePtr FindPath(const JsonNodePtr& start, std::string_view path, std::string& error) {
    if (!start || path.empty()) {
        error = kSyntaxError;
        return nullptr;
    }
    JsonNodePtr node = start;
    size_t pos = 0;
    for (bool first = true;; first = false) {
        const size_t nameEnd = path.find_first_of(".[", pos);
        const std::string_view name =
            path.substr(pos, nameEnd == std::string_view::npos ? path.npos : nameEnd - pos);
        pos = nameEnd == std::string_view::npos ? path.size() : nameEnd;
        // Only a leading segment may be a bare index ("[0]" on an array handle's node).
        if (name.empty() && !(first && pos < path.size() && path[pos] == '[')) {
            error = kSyntaxError;
            return nullptr;
        }
        if (!name.empty() && !(node = MemberOf(*node, name, error))) return nullptr;
        while (pos < path.size() && path[pos] == '[') {
            size_t index = 0;
            size_t digitEnd = pos + 1;
            for (; digitEnd < path.size() && path[digitEnd] >= '0' && path[digitEnd] <= '9'; ++digitEnd) {
                if (index > std::numeric_limits<int>::max() / 10) {
                    error = kSyntaxError;
                    return nullptr;
                }
                index = index * 10 + static_cast<size_t>(path[digitEnd] - '0');
            }
            if (digitEnd == pos + 1 || digitEnd >= path.size() || path[digitEnd] != ']') {
                error = kSyntaxError;
                return nullptr;
            }
            if (node->kind != JsonKind::Array) {
                error = "Unexpected JSON object type";
                return nullptr;
            }
            if (index >= node->elements.size()) {
                error = "JSON array index out-of-bounds";
                return nullptr;
            }
            node = node->elements[index];
            pos = digitEnd + 1;
        }
        if (pos == path.size()) return node;
        if (path[pos] != '.' || pos + 1 == path.size()) {
            error = kSyntaxError;
            return nullptr;
        }
        ++pos;
    }
}

}  // namespace velmar::json
