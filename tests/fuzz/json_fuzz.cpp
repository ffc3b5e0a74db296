// The JSON readers against the JSON library: the nesting check, the lean
// reader (same accept/reject, same tree as the library's) and the Ollama
// field scanner (when it accepts a line, the library reads the same values).
#include <nlohmann/json.hpp>

#include "base/json.h"
#include "inference/ollama_fields.h"
#include "tests/fuzz/fuzz_support.h"

using Json = nlohmann::json;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = ostrel::fuzz::as_text(data, size);
  const Json full = ostrel::base::parse_json(text);
  const Json lean = ostrel::base::parse_json_lean(text);
  if (full.is_discarded() != lean.is_discarded()) __builtin_trap();
  if (!full.is_discarded() && full != lean) __builtin_trap();
  if (!full.is_discarded()) {
    // What the node writes reads back as the same tree.
    const Json again = ostrel::base::parse_json(ostrel::base::dump_json(full));
    if (again.is_discarded()) __builtin_trap();
  }

  ostrel::inference::OllamaFields f;
  if (ostrel::inference::scan_ollama_fields(text, f)) {
    if (!full.is_object()) __builtin_trap();
    auto same = [&](const char* key, const auto& slot) {
      if (!slot) return;
      auto it = full.find(key);
      if (it == full.end() || *it != *slot) __builtin_trap();
    };
    same("model", f.model);
    same("response", f.response);
    same("done", f.done);
    same("done_reason", f.done_reason);
    same("prompt_eval_count", f.prompt_eval_count);
    same("eval_count", f.eval_count);
    if (f.content) {
      auto m = full.find("message");
      if (m == full.end() || !m->is_object() || m->value("content", Json()) != *f.content) {
        __builtin_trap();
      }
    }
  }
  return 0;
}
