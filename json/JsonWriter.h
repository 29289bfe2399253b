#pragma once

#include <string>

#include "json/JsonNode.h"

namespace velmar::json {

struct JsonWriteOptions {
    bool compact = true;
    bool crLfLineBreaks = true;
};

// Compact: no white space at all. Indented: a line break after each opening bracket, one member or element
// a line, two spaces a level, one space after ':'. An empty container is no exception: its closing bracket
// stands on the next line at the container's own indentation ("[\r\n  ]"); compact, it is {} or [].
std::string WriteJson(const JsonNode& node, JsonWriteOptions options);

// Appends text as a quoted JSON string: quote, backslash and control characters escaped (RFC 8259).
void AppendQuoted(std::string& out, std::string_view text);

}  // namespace velmar::json
