#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "dreams/dream_engine.h"

namespace ostrel::dreams {

// Stores themes in matrix memory: through the local store when this node
// runs it, else over HTTP on the data node, authenticated with the cluster
// secret ("X-Ostrel-Cluster-Secret").
// Thread-safe: it holds only configuration.
class MatrixMemorySink : public IDreamSink {
 public:
  struct LocalAnswer {
    int status = 0;  // 0: stored
    std::string body;
  };
  // Calls "data.memory.store" on this node; nullopt when no module serves it.
  using LocalStore = std::function<std::optional<LocalAnswer>(const std::string& args)>;

  MatrixMemorySink(std::string data_node_url, std::string cluster_secret, LocalStore local,
                   base::Logger log);

  bool store_theme(const ThemeRecord& theme, const SessionRecord& session,
                   const DreamConfig& config) override;

  // The object stored for one theme.
  static nlohmann::json store_request(const ThemeRecord& theme, const SessionRecord& session,
                                      const DreamConfig& config);

 private:
  std::string data_node_url_;
  std::string cluster_secret_;
  LocalStore local_;
  base::Logger log_;
};

}  // namespace ostrel::dreams
