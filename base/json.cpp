#include "base/json.h"

#include <charconv>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "base/json_scanner.h"

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

namespace {

// One value read by the scanner into `out`; false where the scanner refuses.
bool lean_value(JsonScanner& s, nlohmann::json& out, int depth) {
  if (depth > kJsonScanMaxDepth) return false;
  switch (s.peek()) {
    case '{': {
      out = nlohmann::json::object();
      return s.object([&](std::string_view key) {
        nlohmann::json v;
        if (!lean_value(s, v, depth + 1)) return false;
        out[std::string(key)] = std::move(v);  // a repeated key keeps the last value
        return true;
      });
    }
    case '[': {
      out = nlohmann::json::array();
      return s.array([&] {
        out.push_back(nullptr);
        return lean_value(s, out.back(), depth + 1);
      });
    }
    case '"': {
      std::string v;
      if (!s.string(v)) return false;
      out = std::move(v);
      return true;
    }
    case 't':
    case 'f': {
      std::optional<bool> b;
      if (!s.boolean(b)) return false;
      out = *b;
      return true;
    }
    case 'n':
      if (!s.null()) return false;
      out = nullptr;
      return true;
    default: {
      // Numbers take the JSON library's types: unsigned for whole numbers
      // from 0, signed below 0, double otherwise.
      std::string_view t;
      if (!s.number_text(t)) return false;
      const char* end = t.data() + t.size();
      if (t.find_first_of(".eE") != std::string_view::npos) {
        double v = 0;
        auto [at, ec] = std::from_chars(t.data(), end, v);
        if (ec != std::errc() || at != end) return false;
        out = v;
      } else if (t.front() == '-') {
        std::int64_t v = 0;
        auto [at, ec] = std::from_chars(t.data(), end, v);
        if (ec != std::errc() || at != end) return false;
        out = v;
      } else {
        std::uint64_t v = 0;
        auto [at, ec] = std::from_chars(t.data(), end, v);
        if (ec != std::errc() || at != end) return false;
        out = v;
      }
      return true;
    }
  }
}

}  // namespace

nlohmann::json parse_json_lean(std::string_view text) {
  JsonScanner s(text);
  nlohmann::json out;
  if (lean_value(s, out, 0) && s.at_end()) return out;
  out = nlohmann::json();
  return parse_json(text);
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

bool int_member(const nlohmann::json& j, const char* key, std::int64_t fallback,
                std::int64_t& out) {
  auto it = j.find(key);
  if (it == j.end() || it->is_null()) {
    out = fallback;
    return true;
  }
  if (!it->is_number_integer()) return false;
  out = it->get<std::int64_t>();
  return true;
}

bool string_list_member(const nlohmann::json& j, const char* key, std::vector<std::string>& out) {
  auto it = j.find(key);
  if (it == j.end() || !it->is_array()) return false;
  out.clear();
  for (const auto& e : *it) {
    if (!e.is_string()) return false;
    out.push_back(e.get<std::string>());
  }
  return true;
}

std::int64_t int_value(const nlohmann::json& j, const char* key, std::int64_t fallback) {
  if (!j.is_object()) return j.value(key, fallback);  // throws as value() does
  auto it = j.find(key);
  if (it == j.end()) return fallback;
  if (it->is_number_float()) {
    const double d = it->get<double>();
    // [-2^63, 2^63): NaN fails both comparisons.
    if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) return fallback;
    return static_cast<std::int64_t>(d);
  }
  return it->get<std::int64_t>();
}

}  // namespace ostrel::base
