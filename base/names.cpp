#include "base/names.h"

#include "base/text.h"

namespace ostrel::base {
namespace {

bool fail(std::string& error, std::string text) {
  error = std::move(text);
  return false;
}

bool ascii_alnum(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool length_ok(std::string_view s, std::size_t max, std::string& error) {
  if (s.empty()) return fail(error, "must not be empty");
  if (s.size() > max) return fail(error, "longer than " + std::to_string(max) + " bytes");
  return true;
}

}  // namespace

bool safe_name(std::string_view name, std::string& error, std::size_t max) {
  if (!length_ok(name, max, error)) return false;
  if (name[0] == '.') return fail(error, "must not start with '.'");
  for (char c : name) {
    if (ascii_alnum(c) || c == '.' || c == '_' || c == '-' || c == ':' || c == '@' || c == '+') {
      continue;
    }
    return fail(error, "may hold only letters, digits and ._-:@+");
  }
  return true;
}

bool safe_tenant_id(std::string_view id, std::string& error) {
  if (!length_ok(id, kMaxTenantIdLength, error)) return false;
  if (!ascii_alnum(id[0])) return fail(error, "must start with a letter or digit");
  for (char c : id) {
    if (!ascii_alnum(c) && c != '_' && c != '-') {
      return fail(error, "may hold only letters, digits, '_' and '-'");
    }
  }
  return true;
}

bool safe_file_path(std::string_view path, std::string& error, std::size_t max) {
  if (!length_ok(path, max, error)) return false;
  if (!text::valid_utf8(path)) return fail(error, "is not valid UTF-8");
  if (path[0] == '/') return fail(error, "must be relative");
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t slash = path.find('/', start);
    std::string_view part = path.substr(
        start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
    if (part.empty()) return fail(error, "has an empty path segment");
    if (part[0] == '.') return fail(error, "has a segment starting with '.'");
    for (unsigned char c : part) {
      if (c < 0x20 || c == 0x7f || c == '\\') return fail(error, "has a control character or '\\'");
    }
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  return true;
}

bool safe_id(std::string_view id, std::string& error, std::size_t max) {
  if (!length_ok(id, max, error)) return false;
  for (unsigned char c : id) {
    if (c <= 0x20 || c >= 0x7f) return fail(error, "may hold only printable ASCII");
  }
  return true;
}

bool safe_scope(std::string_view tenant, std::string_view ns, std::string& error) {
  std::string why;
  if (!safe_name(tenant, why, 64)) {
    error = "invalid tenant: " + why;
    return false;
  }
  if (!safe_name(ns, why)) {
    error = "invalid namespace: " + why;
    return false;
  }
  return true;
}

}  // namespace ostrel::base
