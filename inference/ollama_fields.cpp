#include "inference/ollama_fields.h"

#include "base/json_scanner.h"

namespace ostrel::inference {

using base::JsonScanner;
using base::OnceEach;
namespace {

bool read_string(JsonScanner& s, std::optional<std::string>& out) {
  std::string_view v;
  if (!s.plain_string(v)) return false;
  out = std::string(v);
  return true;
}

}  // namespace

bool scan_ollama_fields(std::string_view text, OllamaFields& out) {
  out = OllamaFields{};
  JsonScanner s(text);
  OnceEach once;
  bool ok = s.object([&](std::string_view key) {
    if (key == "model") return once.first(1) && read_string(s, out.model);
    if (key == "response") return once.first(2) && read_string(s, out.response);
    if (key == "done") return once.first(4) && s.boolean(out.done);
    if (key == "done_reason") return once.first(8) && read_string(s, out.done_reason);
    if (key == "prompt_eval_count") return once.first(16) && s.integer(out.prompt_eval_count);
    if (key == "eval_count") return once.first(32) && s.integer(out.eval_count);
    if (key != "message") return s.skip_value(1);
    if (!once.first(64)) return false;
    if (s.peek() != '{') return s.skip_value(1);
    out.message_is_object = true;
    OnceEach inner;
    return s.object([&](std::string_view member) {
      return member == "content" ? inner.first(1) && read_string(s, out.content) : s.skip_value(2);
    });
  });
  return ok && s.at_end();
}

}  // namespace ostrel::inference
