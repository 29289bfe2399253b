#pragma once

#include <string>
#include <string_view>

#include "json/JsonNode.h"

namespace velmar::json {

// Containers nested deeper than this are refused: documents of the protocol are a few levels deep.
inline constexpr size_t kMaxJsonDepth = 512;

// Parses RFC 8259 text (valid UTF-8 expected; see SanitizeUtf8). Returns the top value, or null with a
// diagnostic in error. Never recurses, so hostile nesting cannot exhaust the stack.
JsonNodePtr ParseJson(std::string_view text, std::string& error);

}  // namespace velmar::json
