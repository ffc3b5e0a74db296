#include "base/reply.h"

#include <filesystem>

#include "base/text.h"

namespace ostrel::base {

void reply(Response& res, const Json& body, int status) {
  res.status = status;
  res.body = dump_json(body);
}

Json error_body(std::string_view code, std::initializer_list<ErrorMember> extra) {
  Json body = Json::object();
  body["error"] = code;
  for (const auto& [key, value] : extra) body[key] = value;
  return body;
}

void fail(Response& res, int status, std::string_view code, std::string_view message) {
  // Written by hand: the gateway answers most refusals through here, and a
  // JSON tree would cost more than the answer.
  res.status = status;
  res.content_type = "application/json";
  res.body = "{\"error\":";
  text::append_json_string(res.body, code);
  if (!message.empty()) {
    res.body += ",\"message\":";
    text::append_json_string(res.body, message);
  }
  res.body += '}';
}

void fail(Response& res, int status, std::string_view code,
          std::initializer_list<ErrorMember> extra) {
  res.content_type = "application/json";
  reply(res, error_body(code, extra), status);
}

Json openai_error_body(std::string_view message, std::string_view type, std::string_view code,
                       const Json& param) {
  return {{"error",
           {{"message", message},
            {"type", type},
            {"param", param},
            {"code", code.empty() ? Json(nullptr) : Json(code)}}}};
}

void openai_fail(Response& res, int status, std::string_view message, std::string_view type,
                 std::string_view code) {
  res.content_type = "application/json";
  reply(res, openai_error_body(message, type, code), status);
}

bool parse_object_body(const Request& req, Response& res, Json& out) {
  if (req.body.empty()) {
    out = Json::object();
    return true;
  }
  out = parse_json_lean(req.body);
  if (out.is_discarded() || !out.is_object()) {
    fail(res, 400, "invalid_json", "request body must be a JSON object");
    return false;
  }
  return true;
}

bool read_string(const Json& body, const char* key, std::string& out, Response& res) {
  auto it = body.find(key);
  if (it == body.end() || it->is_null()) return true;
  if (!it->is_string()) {
    fail(res, 400, "invalid_field", {{"field", key}, {"message", "must be a string"}});
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

SyscallResult syscall_ok(const Json& body) { return {0, dump_json(body)}; }

SyscallResult syscall_error(std::string_view code, std::string_view message, std::int32_t status) {
  Json body = error_body(code);
  if (!message.empty()) body["message"] = message;
  return {status, dump_json(body)};
}

SyscallResult syscall_error(std::string_view code, std::initializer_list<ErrorMember> extra,
                            std::int32_t status) {
  return {status, dump_json(error_body(code, extra))};
}

SyscallResult syscall_error_body(const Json& body, std::int32_t status) {
  return {status, dump_json(body)};
}

}  // namespace ostrel::base
