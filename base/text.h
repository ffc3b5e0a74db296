#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Small text helpers for code that writes JSON or headers without pulling in
// the JSON library (the gateway's hot path, the log sinks).
namespace ostrel::text {

// Appends `s` as a JSON string literal (quotes included); control characters
// become \u00XX escapes and bytes that are not valid UTF-8 become U+FFFD, so
// the result is always valid JSON.
void append_json_string(std::string& out, std::string_view s);

inline std::string json_quote(std::string_view s) {
  std::string out;
  out.reserve(s.size() + 2);
  append_json_string(out, s);
  return out;
}

// True when `s` is well-formed UTF-8 (no overlong forms, no surrogates, nothing
// above U+10FFFF).
bool valid_utf8(std::string_view s);

// The length of the well-formed UTF-8 sequence at the start of `s`, or 0.
std::size_t utf8_sequence_length(std::string_view s);

// ASCII case-insensitive comparison, for header names.
bool iequals(std::string_view a, std::string_view b);

// The items of a `sep`-separated list, blanks around each trimmed, empty
// items dropped: " a , ,b," → {"a", "b"}.
std::vector<std::string> split_list(std::string_view text, char sep = ',');

}  // namespace ostrel::text
