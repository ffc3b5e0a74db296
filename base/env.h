#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The process environment, read here and nowhere else. Module settings come
// through the module's resolved configuration (manifest default, a
// cluster-wide variable the manifest names, OSTREL_<MODULE>_<KEY>, then
// --config-set); what the kernel and the layers below read directly is the
// table in env.cpp, one line per variable.
namespace ostrel::base::env {

// The variable's value when it is set, even to the empty text.
std::optional<std::string> value(std::string_view name);
// The variable's value, or `fallback` when it is unset or empty.
std::string text(std::string_view name, const std::string& fallback = "");
// A whole number within [min, max], or `fallback` when unset, empty, not a
// number or out of range.
std::int64_t integer(std::string_view name, std::int64_t fallback, std::int64_t min = INT64_MIN,
                     std::int64_t max = INT64_MAX);
// "1", "true", "yes" or "on" (any case).
bool flag(std::string_view name);
// Unset and empty read alike.
bool is_set(std::string_view name);

// Where the lookups go (tests): a function from a name to its value, or
// null for the real environment.
using Lookup = const char* (*)(const char* name);
void set_lookup_for_tests(Lookup lookup);

}  // namespace ostrel::base::env
