#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace ostrel::base {

// The deepest nesting of arrays and objects any JSON text from outside may
// have. The JSON library parses recursively, so an unbounded depth is a stack
// overflow waiting for a body of "[[[[…".
constexpr std::size_t kMaxJsonDepth = 64;

// True when no array or object in `text` nests deeper than `max_depth`
// (strings are skipped, so brackets inside them do not count). Does not
// validate anything else.
bool json_depth_ok(std::string_view text, std::size_t max_depth = kMaxJsonDepth);

// Parses `text` without throwing: a discarded value when it is not JSON or is
// nested deeper than kMaxJsonDepth.
nlohmann::json parse_json(std::string_view text);

// The same tree as parse_json, built through the JSON scanner where it can
// be: each string is decoded once into room of its own size, where the JSON
// library's reader grows a buffer by doubling and copies it (about three
// times a long string's size at once). For request bodies that may carry
// megabytes of text; anything the scanner does not take (non-plain keys,
// numbers out of range) goes to parse_json.
nlohmann::json parse_json_lean(std::string_view text);

// Compact JSON text that never throws: bytes that are not valid UTF-8 in
// strings are replaced by U+FFFD.
std::string dump_json(const nlohmann::json& value, int indent = -1);

// The string elements of the array member `key` (other elements and other
// member types give nothing).
std::vector<std::string> string_list(const nlohmann::json& j, const char* key);

// The integer member `key` as JSON's value() reads it, except that a
// floating-point number out of the range of int64 (1e40, NaN) gives
// `fallback` instead of an undefined conversion. Absent: `fallback`; another
// type throws the JSON library's type_error, as value() does.
std::int64_t int_value(const nlohmann::json& j, const char* key, std::int64_t fallback);

// The integer member `key` into `out` (`fallback` when absent or null);
// false when it has another type.
bool int_member(const nlohmann::json& j, const char* key, std::int64_t fallback, std::int64_t& out);

// The array member `key`, every element a string, into `out`; false when it
// is absent, not an array or holds anything else.
bool string_list_member(const nlohmann::json& j, const char* key, std::vector<std::string>& out);

// The string at `key` of an object, or "" when it is absent or not a string.
std::string string_field(const nlohmann::json& j, const char* key);

// A whole file parsed as JSON (discarded when it does not parse); `opened`
// tells whether the file could be read at all.
nlohmann::json read_json_file(const std::filesystem::path& path, bool& opened);

}  // namespace ostrel::base
