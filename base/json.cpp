#include "base/json.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace ostrel::base {

bool json_depth_ok(std::string_view text, std::size_t max_depth) {
  std::size_t depth = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (c == '\\') {
        ++i;  // the escaped character cannot end the string
      } else if (c == '"') {
        in_string = false;
      }
      continue;
    }
    switch (c) {
      case '"':
        in_string = true;
        break;
      case '[':
      case '{':
        if (++depth > max_depth) return false;
        break;
      case ']':
      case '}':
        if (depth > 0) --depth;
        break;
      default:
        break;
    }
  }
  return true;
}

nlohmann::json parse_json(std::string_view text) {
  if (!json_depth_ok(text)) return nlohmann::json(nlohmann::json::value_t::discarded);
  return nlohmann::json::parse(text, nullptr, false);
}

std::string dump_json(const nlohmann::json& value, int indent) {
  return value.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string string_field(const nlohmann::json& j, const char* key) {
  if (!j.is_object()) return "";
  auto it = j.find(key);
  return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
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
  return parse_json(buf.str());
}

}  // namespace ostrel::base
