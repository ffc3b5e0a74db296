#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "inference/types.h"

// The OpenAI-shaped JSON of chat requests, completions, chunks and errors.
namespace ostrel::inference::chat_json {

// Reads model, messages, sampling values, stop (string or array), priority,
// tenant_id, user_id (else user), session_id. False with a reason for a
// value of the wrong type.
bool parse_chat_request(const nlohmann::json& j, ChatRequest& out, bool& stream,
                        std::string& error);

// The same from request text (an empty text counts as {}); text that is not
// JSON fails with "invalid JSON body".
bool parse_chat_text(std::string_view text, ChatRequest& out, bool& stream, std::string& error);

// The fast path of parse_chat_text: reads the common request shapes (plain
// ASCII strings without escapes, string contents, members of the expected
// types, none repeated) without building a JSON tree, exactly as the JSON path
// reads them. False for anything else, which the JSON path then decides.
bool scan_chat_request(std::string_view text, ChatRequest& out, bool& stream);

// JSON texts.
std::string render_completion(const ChatResponse& resp, std::int64_t created);
// `error`, when given, is added as an "error" member (a failure mid-stream).
std::string render_chunk(const std::string& id, const std::string& model, std::int64_t created,
                         const std::string& content, bool first, const std::string* finish_reason,
                         const InferenceError* error = nullptr);
// The same chunk, appended to `out` (room for it made at once).
void append_chunk(std::string& out, const std::string& id, const std::string& model,
                  std::int64_t created, const std::string& content, bool first,
                  const std::string* finish_reason, const InferenceError* error = nullptr);
// The "model" member of a completion's text, read without a tree; "" when
// there is none.
std::string answer_model(std::string_view completion);
// The header that tells a client its request was answered by another model
// than the one it named ("llama3 -> echo"), or "" when it was not: a model no
// backend serves goes to the least loaded backend (the echo model on a node
// without model servers), and the answer says so.
std::string fallback_note(const std::string& requested, const std::string& answered);
inline constexpr const char* kFallbackHeader = "X-Ostrel-Model-Fallback";

// {"error": {"message", "type", "param", "code"}}, the shape OpenAI clients read.
nlohmann::json render_error(const InferenceError& e);
// The last chunk of a stream asked for with "include_usage": no choices, the counts.
std::string render_usage_chunk(const std::string& id, const std::string& model,
                               std::int64_t created, std::int64_t prompt_tokens,
                               std::int64_t completion_tokens);

}  // namespace ostrel::inference::chat_json
