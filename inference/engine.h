#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/logger.h"
#include "base/no_copy.h"
#include "base/workers.h"
#include "inference/scheduler.h"
#include "inference/session_store.h"
#include "inference/types.h"

namespace ostrel::inference {

struct EngineOptions {
  std::size_t worker_threads = 4;
  std::size_t max_queue_depth = 256;
  std::chrono::seconds session_idle_ttl{3600};
  std::chrono::seconds health_poll_interval{15};
};

// The in-process front for chat completion: keeps the backends, queues each
// request on its scheduler and returns the answer or streams its chunks.
// Owns the scheduler's workers and the health thread; stop() joins both.
// Thread-safe: mu_ guards the backend map and is never held across a backend
// call; sessions have their own store.
class Engine : private base::NoCopy {
 public:
  explicit Engine(EngineOptions options = {});
  ~Engine();

  // Polls the backend's health once, then stores it under its id (replacing
  // an earlier one with the same id). Null is ignored.
  void register_backend(std::shared_ptr<Backend> backend);
  bool remove_backend(const std::string& id);
  BackendList backends() const;

  std::optional<InferenceError> complete(ChatRequest req, ChatResponse& resp);
  std::optional<InferenceError> stream(ChatRequest req, ChunkSink sink);
  // Distinct model names of the healthy backends, sorted.
  std::vector<std::string> available_models() const;
  // "" when a healthy backend lists `model` (see model_matches); otherwise
  // the model that answers instead (the least loaded backend's first one).
  std::string fallback_for(const std::string& model) const;

  // Ends every backend call in progress, and makes later ones fail at once
  // (the node is shutting down). Streams end with their error chunk.
  void abort_inflight();

  // Where the engine reports what an operator should see: a backend turning
  // unhealthy or healthy again, a model server failing, a request answered
  // by a backend that does not list its model (each once per backend and
  // model). Set before start().
  void set_log(base::Logger log) { log_ = std::move(log); }
  // Where the engine publishes its counters, latencies and backend health
  // (none by default). Set before start().
  void set_metrics(kernel::MetricRegistry* metrics) {
    metrics_ = metrics;
    scheduler_.set_metrics(metrics);
  }

  // Starts the scheduler's workers and the health thread.
  void start();
  void stop();

  Scheduler& scheduler() { return scheduler_; }
  SessionStore& sessions() { return sessions_; }

 private:
  void prepare_request_(ChatRequest& req);
  // Keeps the answered turn in the request's session; takes the request's
  // messages (the request is done with them).
  void remember_(ChatRequest& req, Message answer);
  std::optional<InferenceError> run_(ChatRequest& req, ChunkSink sink, ChatResponse& resp);
  void health_loop_();
  // Has the scheduler report every answered request to observe_().
  void watch_requests_();
  void observe_(const ChatRequest& req, Backend& backend, const std::optional<InferenceError>& err,
                double elapsed_ms);

  base::Logger log_{"inference/engine"};
  kernel::MetricRegistry* metrics_ = nullptr;  // borrowed; set before start()
  std::mutex noticed_mu_;                      // guards noticed_
  std::set<std::string> noticed_;              // "<kind>\n<backend>\n<model>" already logged
  std::map<std::string, bool> health_seen_;    // health thread only: last state per backend

  EngineOptions options_;
  mutable std::mutex mu_;  // guards backends_ and order_
  std::map<std::string, std::shared_ptr<Backend>> backends_;
  std::vector<std::string> order_;  // registration order, for the selector's ties
  SessionStore sessions_;
  Scheduler scheduler_;

  base::Workers workers_;  // the health poller; joined by stop()
  const int abort_fd_;     // eventfd, readable after abort_inflight()
};

}  // namespace ostrel::inference
