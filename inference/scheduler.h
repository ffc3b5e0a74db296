#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "inference/types.h"
#include "kernel/obs/metric_registry.h"

namespace ostrel::inference {

// The error a scheduled request ends with, carried through its promise.
struct InferenceFailure : std::exception {
  explicit InferenceFailure(InferenceError e) : error(std::move(e)) {}
  const char* what() const noexcept override { return error.message.c_str(); }
  InferenceError error;
};

using BackendList = std::vector<std::shared_ptr<Backend>>;
using BackendSelector =
    std::function<std::shared_ptr<Backend>(const ChatRequest&, const BackendList&)>;

// Least in-flight backend that lists the model, else least in-flight overall;
// ties go to the earlier backend.
// True when a backend listing `listed` serves a request for `requested`:
// the same name, or a name without a tag and its ":latest" ("llama3" and
// "llama3:latest").
bool model_matches(std::string_view requested, std::string_view listed);

std::shared_ptr<Backend> default_selector(const ChatRequest& req, const BackendList& backends);

struct QueuedRequest {
  ChatRequest request;
  std::promise<ChatResponse> promise;
  ChunkSink sink;  // set for streams
  std::chrono::steady_clock::time_point enqueued_at;
  std::string key;
};

// Bounded, per-tenant fair queue in front of the backends, served by a fixed
// pool of worker threads that it owns and joins in stop().
// Thread-safe: mu_ guards the queues, counters and running flag; it is never
// held during a backend call.
class Scheduler {
 public:
  Scheduler(std::function<BackendList()> backends, std::size_t workers,
            std::size_t max_queue_depth);
  ~Scheduler();

  // Told after every request which backend served it and how it ended
  // (nullopt: success). Runs on the serving thread, outside every lock.
  // `elapsed_ms` is the time from enqueue to the end of the backend's work.
  using Observer = std::function<void(const ChatRequest& req, Backend& backend,
                                      const std::optional<InferenceError>& err, double elapsed_ms)>;
  // Set before start().
  void set_observer(Observer observer) { observer_ = std::move(observer); }
  // Where the queue depth is published ("ostrel_inference_queue_depth");
  // none by default. Set before start().
  void set_metrics(kernel::MetricRegistry* metrics);

  void start();
  // Joins the workers, then fails every request still queued with 499.
  void stop();
  bool running() const;

  // False (and counted as rejected) when the queue is full; the request's
  // promise is then left untouched.
  bool enqueue(std::shared_ptr<QueuedRequest> request);
  // Serves the request on the calling thread when that cannot overtake
  // anyone: the scheduler runs, nothing is queued and a worker slot is free.
  // The slot counts against the worker pool, so concurrency stays bounded.
  // Saves two thread hand-offs per request, and the promise. True: served,
  // with `resp` filled or `err` set. False: enqueue it instead.
  bool try_serve_inline(const ChatRequest& request, const ChunkSink& sink, ChatResponse& resp,
                        std::optional<InferenceError>& err);
  BackendList healthy_backends() const;
  void set_selector(BackendSelector selector);

  std::size_t queued() const;
  std::uint64_t accepted() const;
  std::uint64_t rejected() const;

 private:
  void worker_loop_();
  std::shared_ptr<QueuedRequest> take_locked_();
  std::optional<InferenceError> serve_(const ChatRequest& req, const ChunkSink& sink,
                                       std::chrono::steady_clock::time_point enqueued_at,
                                       ChatResponse& resp);
  void release_slot_();

  std::function<BackendList()> backends_;
  std::size_t worker_count_;
  std::size_t max_depth_;

  Observer observer_;                          // set before start(); read-only afterwards
  kernel::MetricRegistry* metrics_ = nullptr;  // likewise; borrowed
  void publish_depth_locked_() const;
  mutable std::mutex mu_;  // guards everything below
  std::condition_variable cv_;
  std::map<std::string, std::deque<std::shared_ptr<QueuedRequest>>> queues_;
  std::map<std::string, std::uint64_t> served_;
  std::size_t total_queued_ = 0;
  std::size_t busy_ = 0;  // requests being served, by workers or inline
  bool running_ = false;
  std::uint64_t accepted_ = 0;
  std::uint64_t rejected_ = 0;
  BackendSelector selector_ = default_selector;
  std::vector<std::thread> workers_;
};

}  // namespace ostrel::inference
