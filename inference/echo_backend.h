#pragma once

#include <atomic>

#include "inference/types.h"

namespace ostrel::inference {

// Answers "Echo: " + the last message's content. Always healthy; serves tests
// and nodes without a model server. Thread-safe: counters are atomic.
class EchoBackend : public Backend {
 public:
  explicit EchoBackend(std::string id = "echo") : id_(std::move(id)) {}
  std::string id() const override { return id_; }
  std::string kind() const override { return "echo"; }
  std::vector<std::string> list_models() override { return {"echo"}; }
  bool is_healthy() const override { return true; }
  bool poll_health() override { return true; }
  std::optional<InferenceError> complete(const ChatRequest& req, ChatResponse& resp) override;
  std::optional<InferenceError> stream(const ChatRequest& req, const ChunkSink& sink) override;
  BackendStats stats() const override;

 private:
  std::string id_;
  std::atomic<std::uint64_t> requests_{0};
  std::atomic<std::uint64_t> completed_{0};
  std::atomic<std::uint64_t> total_tokens_{0};
};

}  // namespace ostrel::inference
