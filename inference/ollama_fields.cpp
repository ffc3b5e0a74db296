#include "inference/ollama_fields.h"

#include "inference/json_scanner.h"

namespace ostrel::inference {
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
  if (!s.eat('{')) return false;
  unsigned seen = 0;  // one bit per member of interest: a repeat is refused
  auto first = [&seen](unsigned bit) {
    const bool fresh = !(seen & bit);
    seen |= bit;
    return fresh;
  };
  if (!s.eat('}')) {
    do {
      std::string_view key;
      if (!s.plain_string(key) || !s.eat(':')) return false;
      bool ok;
      if (key == "model") {
        ok = first(1) && read_string(s, out.model);
      } else if (key == "response") {
        ok = first(2) && read_string(s, out.response);
      } else if (key == "done") {
        ok = first(4) && s.boolean(out.done);
      } else if (key == "done_reason") {
        ok = first(8) && read_string(s, out.done_reason);
      } else if (key == "prompt_eval_count") {
        ok = first(16) && s.integer(out.prompt_eval_count);
      } else if (key == "eval_count") {
        ok = first(32) && s.integer(out.eval_count);
      } else if (key == "message" && s.peek() == '{') {
        ok = first(64);
        out.message_is_object = true;
        s.eat('{');
        if (ok && !s.eat('}')) {
          do {
            std::string_view inner;
            ok = s.plain_string(inner) && s.eat(':') &&
                 (inner == "content" ? first(128) && read_string(s, out.content) : s.skip_value(2));
          } while (ok && s.eat(','));
          ok = ok && s.eat('}');
        }
      } else {
        ok = (key != "message" || first(64)) && s.skip_value(1);
      }
      if (!ok) return false;
    } while (s.eat(','));
    if (!s.eat('}')) return false;
  }
  return s.at_end();
}

}  // namespace ostrel::inference
