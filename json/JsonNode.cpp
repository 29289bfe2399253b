#include "json/JsonNode.h"

namespace velmar::json {
namespace {

void MoveChildren(JsonNode& node, std::vector<JsonNodePtr>& pending) {
    for (JsonMember& member : node.members) pending.push_back(std::move(member.value));
    for (JsonNodePtr& element : node.elements) pending.push_back(std::move(element));
    node.members.clear();
    node.elements.clear();
}

}  // namespace

JsonNode::~JsonNode() {
    if (members.empty() && elements.empty()) return;
    std::vector<JsonNodePtr> pending;
    MoveChildren(*this, pending);
    while (!pending.empty()) {
        JsonNodePtr node = std::move(pending.back());
        pending.pop_back();
        // A node some handle still holds keeps its children; it is torn down when that handle lets go.
        if (node && node.use_count() == 1) MoveChildren(*node, pending);
    }
}

JsonNodePtr MakeNode(JsonKind kind, std::string text) {
    return std::make_shared<JsonNode>(kind, std::move(text));
}

}  // namespace velmar::json
