#pragma once

#include <nlohmann/json_fwd.hpp>

#include "kernel/types.h"

namespace ostrel::kernel {

// Parses the request body as a JSON object (an empty body counts as {}). On
// anything else answers 400 {"error":"invalid_json",…} and returns false.
bool parse_object_body(const Request& req, Response& res, nlohmann::json& out);

}  // namespace ostrel::kernel
