// The one way the daemon turns text into JSON. Every reader of untrusted
// JSON (API bodies, tokens, import texts, stored records, metadata) goes
// through ParseJson, so a depth limit holds before anything recursive (copy,
// undecorate, dump, the store's object decoder) ever sees the value.
#pragma once

#include <cstddef>
#include <istream>
#include <string_view>

#include <nlohmann/json.hpp>

namespace Hearth {

// Objects and arrays nested deeper than this are refused. Every document the
// daemon reads legitimately stays below 16.
inline constexpr size_t kMaxJsonDepth = 64;

// ParseJson parses one JSON document. Returns a discarded value
// (is_discarded()) when the text is not JSON or nests objects and arrays
// more than kMaxJsonDepth deep; the parse stops at the first level too deep,
// so no deep value is ever built. Never throws for bad input.
nlohmann::json ParseJson(std::string_view text);
nlohmann::json ParseJson(std::istream& in);

}  // namespace Hearth
