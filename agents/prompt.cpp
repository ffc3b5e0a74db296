#include "agents/prompt.h"

#include "base/json.h"
#include "base/text.h"

namespace ostrel::agents {

using Json = nlohmann::json;

std::string knowledge_block(Json& hits) {
  std::string out =
      "[KNOWLEDGE BASE CONTEXT]\n"
      "The following passages were retrieved from the knowledge base for this query. Each is "
      "numbered [1], [2], etc. — these are the citation indices.\n\n";
  int i = 0;
  for (Json& hit : hits) {
    ++i;
    if (!hit.is_object()) continue;
    hit["citation_idx"] = i;
    std::string content;
    for (const char* key : {"content", "text"}) {
      if (hit.contains(key) && hit[key].is_string()) {
        content = hit[key];
        break;
      }
    }
    out += "[" + std::to_string(i) + "] " + content + "\n";
    std::string meta;
    if (hit.contains("source") && hit["source"].is_string() &&
        !hit["source"].get<std::string>().empty()) {
      meta += "(source: " + hit["source"].get<std::string>() + ") ";
    }
    if (hit.contains("score") && hit["score"].is_number()) {
      meta += "(score: " + base::dump_json(hit["score"]) + ")";
    }
    if (!meta.empty()) out += meta + "\n";
  }
  out +=
      "[END KNOWLEDGE BASE CONTEXT]\n\n"
      "When citing information from these sources, use inline citations like [1] or [2] matching "
      "the source numbers above. Do NOT cite if the answer is general knowledge.";
  return out;
}

std::string chat_request(const std::string& model, const std::vector<std::string>& system,
                         const std::vector<Message>& turns) {
  std::size_t size = 64 + model.size();
  for (const auto& s : system) size += s.size() + 32;
  for (const auto& t : turns) size += t.content.size() + 40;
  std::string out;
  out.reserve(size);
  out += "{\"model\":";
  text::append_json_string(out, model);
  out += ",\"messages\":[";
  bool first = true;
  auto add = [&](const std::string& role, const std::string& content) {
    if (!first) out += ',';
    first = false;
    out += "{\"role\":";
    text::append_json_string(out, role);
    out += ",\"content\":";
    text::append_json_string(out, content);
    out += '}';
  };
  for (const auto& s : system) {
    if (!s.empty()) add("system", s);
  }
  for (const auto& t : turns) add(t.role, t.content);
  out += "]}";
  return out;
}

}  // namespace ostrel::agents
