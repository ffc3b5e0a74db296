#pragma once

#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "kernel/types.h"

namespace ostrel::kernel {

// Parses the request body as a JSON object (an empty body counts as {}). On
// anything else answers 400 {"error":"invalid_json",…} and returns false.
bool parse_object_body(const Request& req, Response& res, nlohmann::json& out);

// The string elements of the array member `key` (other elements and other
// member types give nothing).
std::vector<std::string> string_list(const nlohmann::json& j, const char* key);

// A whole file parsed as JSON (discarded when it does not parse); `opened`
// tells whether the file could be read at all.
nlohmann::json read_json_file(const std::filesystem::path& path, bool& opened);

}  // namespace ostrel::kernel
