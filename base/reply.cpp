#include "base/reply.h"

#include <filesystem>

namespace ostrel::base {

void reply(kernel::Response& res, const Json& body, int status) {
  res.status = status;
  res.body = dump_json(body);
}

void fail(kernel::Response& res, int status, std::string_view code, std::string_view message) {
  res.error(status, code, message);
}

bool parse_object_body(const kernel::Request& req, kernel::Response& res, Json& out) {
  if (req.body.empty()) {
    out = Json::object();
    return true;
  }
  out = parse_json_lean(req.body);
  if (out.is_discarded() || !out.is_object()) {
    res.error(400, "invalid_json", "request body must be a JSON object");
    return false;
  }
  return true;
}

bool read_string(const Json& body, const char* key, std::string& out, kernel::Response& res) {
  auto it = body.find(key);
  if (it == body.end() || it->is_null()) return true;
  if (!it->is_string()) {
    reply(res, {{"error", "invalid_field"}, {"field", key}, {"message", "must be a string"}}, 400);
    return false;
  }
  out = it->get<std::string>();
  return true;
}

std::string client_safe_what(const std::exception& e) {
  if (dynamic_cast<const Json::exception*>(&e)) return "a JSON value has an unexpected type";
  if (dynamic_cast<const std::filesystem::filesystem_error*>(&e)) return "file system error";
  return e.what();
}

kernel::SyscallResult syscall_ok(const Json& body) { return {0, dump_json(body)}; }

kernel::SyscallResult syscall_error(std::string_view code, std::string_view message,
                                    std::int32_t status) {
  Json body = {{"error", code}};
  if (!message.empty()) body["message"] = message;
  return {status, dump_json(body)};
}

kernel::SyscallResult syscall_error_body(const Json& body, std::int32_t status) {
  return {status, dump_json(body)};
}

}  // namespace ostrel::base
