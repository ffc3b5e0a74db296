#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ostrel::inference {

// The members of an Ollama /api/chat answer (whole, or one NDJSON line) that
// the backend uses.
struct OllamaFields {
  std::optional<std::string> model;
  bool message_is_object = false;
  std::optional<std::string> content;  // message.content
  std::optional<std::string> response;
  std::optional<bool> done;
  std::optional<std::string> done_reason;
  std::optional<std::int64_t> prompt_eval_count;
  std::optional<std::int64_t> eval_count;
};

// Reads those members straight from the text, without building a JSON tree,
// for the common case: one valid JSON object whose strings of interest are
// plain printable ASCII without escapes and whose members have the expected
// types. Returns false for anything else (escapes, other characters, other
// types, a repeated member, invalid JSON), and the caller then parses the
// text with the full JSON parser, which decides what it means.
bool scan_ollama_fields(std::string_view text, OllamaFields& out);

}  // namespace ostrel::inference
