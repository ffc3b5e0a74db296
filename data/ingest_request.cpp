#include "data/ingest_request.h"

#include "base/json.h"
#include "base/json_scanner.h"

namespace ostrel::data {
namespace {

using Json = nlohmann::json;

// The fast path: an object whose members of interest are each there at most
// once and of the right type. Anything else returns false, for the parser.
bool scan(std::string_view text, IngestRequest& out) {
  base::JsonScanner s(text);
  base::OnceEach once;
  std::optional<std::string> tenant, tenant_id, ns, ns_id;
  auto str = [&](unsigned bit, std::optional<std::string>& slot) {
    std::string v;
    if (!once.first(bit) || !s.string(v)) return false;
    slot = std::move(v);
    return true;
  };
  auto num = [&](unsigned bit, std::optional<std::int64_t>& slot) {
    return once.first(bit) && s.integer(slot);
  };
  bool ok = s.object([&](std::string_view key) {
    if (key == "tenant") return str(1u << 0, tenant);
    if (key == "tenant_id") return str(1u << 1, tenant_id);
    if (key == "namespace") return str(1u << 2, ns);
    if (key == "namespace_id") return str(1u << 3, ns_id);
    if (key == "text") return str(1u << 4, out.text);
    if (key == "source") return str(1u << 5, out.source);
    if (key == "embedding_model") return str(1u << 6, out.model);
    if (key == "chunk_size") return num(1u << 7, out.chunk_size);
    if (key == "chunk_overlap") return num(1u << 8, out.chunk_overlap);
    if (key == "metadata") {
      std::string_view raw;
      if (!once.first(1u << 9) || !s.raw_value(raw)) return false;
      out.metadata = base::parse_json(raw);
      return out.metadata.is_object();
    }
    return s.skip_value(1);
  });
  if (!ok || !s.at_end()) return false;
  out.tenant = tenant ? tenant : tenant_id;
  out.ns = ns ? ns : ns_id;
  return true;
}

}  // namespace

bool ingest_request_from_json(const Json& body, IngestRequest& out, std::string& error) {
  out = IngestRequest{};
  if (!body.is_object()) return true;
  auto str = [&](std::initializer_list<const char*> keys, std::optional<std::string>& slot) {
    for (const char* k : keys) {
      auto it = body.find(k);
      if (it == body.end() || it->is_null()) continue;
      if (!it->is_string()) {
        error = std::string(k) + " must be a string";
        return false;
      }
      slot = it->get<std::string>();
      return true;
    }
    return true;
  };
  auto num = [&](const char* key, std::optional<std::int64_t>& slot) {
    auto it = body.find(key);
    if (it == body.end() || it->is_null()) return true;
    if (!it->is_number_integer()) {
      error = std::string(key) + " must be a whole number";
      return false;
    }
    slot = it->get<std::int64_t>();
    return true;
  };
  if (!str({"tenant", "tenant_id"}, out.tenant) || !str({"namespace", "namespace_id"}, out.ns) ||
      !str({"text"}, out.text) || !str({"source"}, out.source) ||
      !str({"embedding_model"}, out.model) || !num("chunk_size", out.chunk_size) ||
      !num("chunk_overlap", out.chunk_overlap)) {
    return false;
  }
  if (auto m = body.find("metadata"); m != body.end() && !m->is_null()) {
    if (!m->is_object()) {
      error = "metadata must be an object";
      return false;
    }
    out.metadata = *m;
  }
  return true;
}

bool read_ingest_request(std::string_view text, IngestRequest& out, std::string& error) {
  out = IngestRequest{};
  if (scan(text, out)) return true;
  return ingest_request_from_json(text.empty() ? Json::object() : base::parse_json(text), out,
                                  error);
}

}  // namespace ostrel::data
