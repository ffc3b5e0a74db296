#include "dreams/memory_sink.h"

#include <chrono>

#include "base/http_client.h"
#include "base/json.h"

namespace ostrel::dreams {

using Json = nlohmann::json;

MatrixMemorySink::MatrixMemorySink(std::string data_node_url, std::string cluster_secret,
                                   LocalStore local, base::Logger log)
    : data_node_url_(base::normalise_base_url(std::move(data_node_url))),
      cluster_secret_(std::move(cluster_secret)),
      local_(std::move(local)),
      log_(std::move(log)) {}

Json MatrixMemorySink::store_request(const ThemeRecord& theme, const SessionRecord& session,
                                     const DreamConfig& config) {
  Json metadata = {{"session_tenant", session.tenant_id},
                   {"user_id", session.user_id},
                   {"started_at", session.started_at},
                   {"ended_at", session.ended_at}};
  return {{"tenant", config.tenant},
          {"namespace", config.ns},
          {"namespace_id", config.ns},
          {"domain", "dreams"},
          {"key", theme.theme},
          {"value", theme.abstract.empty() ? theme.theme : theme.abstract},
          {"importance", theme.importance},
          {"source", "dream_engine"},
          {"source_session", session.id},
          {"metadata", metadata}};
}

bool MatrixMemorySink::store_theme(const ThemeRecord& theme, const SessionRecord& session,
                                   const DreamConfig& config) {
  const std::string body = base::dump_json(store_request(theme, session, config));
  if (local_) {
    if (std::optional<LocalAnswer> a = local_(body)) {
      if (a->status == 0) return true;
      log_.warn("[dream-engine] memory_store syscall status=" + std::to_string(a->status) +
                " body=" + a->body.substr(0, 256));
      return false;
    }
  }
  if (data_node_url_.empty()) {
    log_.warn("[dream-engine] memory_store transport error: no local memory and no data node");
    return false;
  }
  base::HttpHeaders headers;
  if (!cluster_secret_.empty()) headers.emplace_back("X-Ostrel-Cluster-Secret", cluster_secret_);
  const std::string url = data_node_url_ + "/api/v1/memory/store";
  base::HttpReply r = base::http_post(data_node_url_, "/api/v1/memory/store", body, headers,
                                      std::chrono::seconds(10));
  if (!r.transport_ok) {
    log_.warn("[dream-engine] memory_store transport error: " + r.error);
    return false;
  }
  if (!r.ok()) {
    log_.warn("[dream-engine] memory_store http " + std::to_string(r.status) + " url=" + url +
              " body=" + r.body.substr(0, 256));
    return false;
  }
  return true;
}

}  // namespace ostrel::dreams
