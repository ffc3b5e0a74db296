#pragma once

#include <string>
#include <string_view>

// Small text helpers for code that writes JSON or headers without pulling in
// the JSON library (the gateway's hot path, the log sinks).
namespace ostrel::text {

// Appends `s` as a JSON string literal (quotes included); control characters
// become \u00XX escapes.
void append_json_string(std::string& out, std::string_view s);

inline std::string json_quote(std::string_view s) {
  std::string out;
  out.reserve(s.size() + 2);
  append_json_string(out, s);
  return out;
}

// ASCII case-insensitive comparison, for header names.
bool iequals(std::string_view a, std::string_view b);

}  // namespace ostrel::text
