#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "inference/backend_counters.h"
#include "inference/types.h"
#include "inference/upstream_http.h"

namespace ostrel::inference {

// A local model server speaking the Ollama HTTP API (/api/chat, /api/tags),
// reached with libcurl. Chat requests go through UpstreamHttp's kept-alive
// connections; the model list through a small pool of curl handles.
// Thread-safe: counters are atomic; models_mu_ guards the cached model list,
// pool_mu_ the idle handles; no lock is held during a transfer.
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
  static std::optional<InferenceError> http_to_error(int curl_code, long status,
                                                     const std::string& body);

 private:
  struct Handle;
  std::unique_ptr<Handle> acquire_();
  void release_(std::unique_ptr<Handle> h);

  std::string id_;
  std::string base_;
  std::atomic<bool> healthy_{false};
  BackendCounters counters_;
  mutable std::mutex models_mu_;  // guards models_
  std::vector<std::string> models_;
  std::mutex pool_mu_;  // guards pool_
  std::vector<std::unique_ptr<Handle>> pool_;
  UpstreamHttp chat_;
};

}  // namespace ostrel::inference
