#include "kernel/json_body.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

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

std::vector<std::string> string_list(const nlohmann::json& j, const char* key) {
  std::vector<std::string> out;
  if (!j.is_object()) return out;
  auto it = j.find(key);
  if (it == j.end() || !it->is_array()) return out;
  for (const auto& e : *it) {
    if (e.is_string()) out.push_back(e.get<std::string>());
  }
  return out;
}

nlohmann::json read_json_file(const std::filesystem::path& path, bool& opened) {
  std::ifstream in(path, std::ios::binary);
  opened = static_cast<bool>(in);
  if (!opened) return nlohmann::json(nlohmann::json::value_t::discarded);
  std::stringstream buf;
  buf << in.rdbuf();
  return nlohmann::json::parse(buf.str(), nullptr, false);
}

}  // namespace ostrel::kernel
