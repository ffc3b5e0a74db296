#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "base/upstream_http.h"
#include "inference/backend_counters.h"
#include "inference/types.h"

namespace ostrel::inference {

// A local model server speaking the Ollama HTTP API (/api/chat, /api/tags),
// reached through the node's outbound HTTP client. Chat requests go over
// UpstreamHttp's kept-alive connections; the model list is one plain GET.
// Thread-safe: counters are atomic; models_mu_ guards the cached model list;
// no lock is held during a transfer.
class OllamaBackend : public Backend {
 public:
  OllamaBackend(std::string id, std::string base_url);
  ~OllamaBackend() override;
  void set_abort_fd(int fd) override { chat_.set_abort_fd(fd); }

  std::string id() const override { return id_; }
  std::string kind() const override { return "ollama"; }
  std::vector<std::string> list_models() override;
  bool is_healthy() const override { return healthy_.load(); }
  bool poll_health() override;
  std::optional<InferenceError> complete(const ChatRequest& req, ChatResponse& resp) override;
  std::optional<InferenceError> stream(const ChatRequest& req, const ChunkSink& sink) override;
  BackendStats stats() const override;

  // The /api/chat request body for `req`.
  static std::string build_chat_body(const ChatRequest& req, bool stream);
  // Maps a transfer outcome to an error (nullopt for a 2xx answer).
  static std::optional<InferenceError> http_to_error(const base::UpstreamHttp::Reply& reply,
                                                     const std::string& body);

 private:
  std::string id_;
  std::string base_;
  std::atomic<bool> healthy_{false};
  BackendCounters counters_;
  mutable std::mutex models_mu_;  // guards models_
  std::vector<std::string> models_;
  base::UpstreamHttp chat_;
};

}  // namespace ostrel::inference
