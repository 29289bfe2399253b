#pragma once

#include <string>
#include <string_view>

#include "json/JsonNode.h"

namespace velmar::json {

// Walks a path of member names separated by '.', each optionally followed by array indices in brackets:
// "a", "a.b", "a[2]", "a[2].b", "a[0][1]". The first member of a name wins. Returns null when the path
// is malformed or leads nowhere; error then holds the reason.
JsonNodePtr FindPath(const JsonNodePtr& start, std::string_view path, std::string& error);

}  // namespace velmar::json
