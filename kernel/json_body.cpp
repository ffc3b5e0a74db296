#include "kernel/json_body.h"

#include <nlohmann/json.hpp>

namespace ostrel::kernel {

bool parse_object_body(const Request& req, Response& res, nlohmann::json& out) {
  if (req.body.empty()) {
    out = nlohmann::json::object();
    return true;
  }
  out = nlohmann::json::parse(req.body, nullptr, false);
  if (out.is_discarded() || !out.is_object()) {
    res.error(400, "invalid_json", "request body must be a JSON object");
    return false;
  }
  return true;
}

}  // namespace ostrel::kernel
