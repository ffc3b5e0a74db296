#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>

#include "base/json.h"
#include "base/types.h"

// The one way routes and syscalls answer: JSON bodies that never fail to
// serialise, errors in the shared {"error": <code>, …} shape, and request
// bodies parsed with the nesting limit.
namespace ostrel::base {

using Json = nlohmann::json;

// Sets status and body (serialised with dump_json, so it never throws).
void reply(Response& res, const Json& body, int status = 200);

// One member of an error body beside "error": {"detail", …}, {"path", …}.
using ErrorMember = std::pair<const char*, Json>;

// The error body every route and syscall answers with: {"error": code}, plus
// "message" when given, plus the further members (the Parts name them:
// "detail", "reason", "path", "field", …).
Json error_body(std::string_view code, std::initializer_list<ErrorMember> extra = {});

// Answers `status` with error_body(code) and "message" when given.
void fail(Response& res, int status, std::string_view code, std::string_view message = {});
// Answers `status` with error_body(code, extra).
void fail(Response& res, int status, std::string_view code,
          std::initializer_list<ErrorMember> extra);

// The error body of the OpenAI-shaped routes:
// {"error": {"message", "type", "param", "code"}}.
Json openai_error_body(std::string_view message, std::string_view type, std::string_view code = {},
                       const Json& param = nullptr);
void openai_fail(Response& res, int status, std::string_view message, std::string_view type,
                 std::string_view code = {});

// Parses the request body as a JSON object; an empty body is {}. Anything
// else answers 400 {"error":"invalid_json",…} and returns false.
bool parse_object_body(const Request& req, Response& res, Json& out);

// Reads member `key` into `out` when present: false (and 400 with
// {"error":"invalid_field","field":key}) when it has another type.
bool read_string(const Json& body, const char* key, std::string& out, Response& res);

// The text of a caught exception that may go to a client: JSON library and
// file-system errors carry library codes and host paths, so they are named
// by kind only.
std::string client_safe_what(const std::exception& e);

// Syscall results.
SyscallResult syscall_ok(const Json& body);
SyscallResult syscall_error(std::string_view code, std::string_view message = {},
                            std::int32_t status = -1);
SyscallResult syscall_error(std::string_view code, std::initializer_list<ErrorMember> extra,
                            std::int32_t status = -1);
// A failure whose body was built elsewhere (an answer passed on as it came).
SyscallResult syscall_error_body(const Json& body, std::int32_t status = -1);

using SyscallHandler = std::function<SyscallResult(std::string_view)>;

// A syscall handler over parsed arguments: arguments that are not a JSON
// object answer {"error":"invalid_json"}, and exceptions become
// {"error":"internal"} results (a syscall handler never throws).
template <typename F>
SyscallHandler json_syscall(F body) {
  return [body = std::move(body)](std::string_view args) -> SyscallResult {
    Json a = args.empty() ? Json::object() : parse_json(args);
    if (!a.is_object()) return syscall_error("invalid_json");
    try {
      return body(a);
    } catch (const std::exception& e) {
      return syscall_error("internal", client_safe_what(e));
    }
  };
}

}  // namespace ostrel::base
