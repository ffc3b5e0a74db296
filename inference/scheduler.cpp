#include "inference/scheduler.h"

#include "kernel/obs/metrics.h"

#include <algorithm>

namespace ostrel::inference {

bool model_matches(std::string_view requested, std::string_view listed) {
  if (requested == listed) return true;
  // A name without a tag means its "latest" tag, as Ollama reads it.
  return requested.find(':') == std::string_view::npos && listed.size() == requested.size() + 7 &&
         listed.substr(0, requested.size()) == requested &&
         listed.substr(requested.size()) == ":latest";
}

std::shared_ptr<Backend> default_selector(const ChatRequest& req, const BackendList& backends) {
  std::shared_ptr<Backend> least, least_with_model;
  std::uint64_t least_load = 0, least_model_load = 0;
  for (const auto& b : backends) {
    if (!b) continue;
    BackendStats s = b->stats();
    if (!least || s.in_flight < least_load) {
      least = b;
      least_load = s.in_flight;
    }
    bool lists = std::any_of(s.models.begin(), s.models.end(),
                             [&](const std::string& m) { return model_matches(req.model, m); });
    if (lists && (!least_with_model || s.in_flight < least_model_load)) {
      least_with_model = b;
      least_model_load = s.in_flight;
    }
  }
  return least_with_model ? least_with_model : least;
}

Scheduler::Scheduler(std::function<BackendList()> backends, std::size_t workers,
                     std::size_t max_queue_depth)
    : backends_(std::move(backends)),
      worker_count_(std::max<std::size_t>(1, workers)),
      max_depth_(max_queue_depth) {}

void Scheduler::set_metrics(kernel::MetricRegistry* metrics) {
  metrics_ = metrics;
  if (!metrics_) return;
  metrics_->gauge_set("ostrel_inference_queue_depth", 0);  // on /metrics from the start
}

void Scheduler::publish_depth_locked_() const {
  if (metrics_)
    metrics_->gauge_set("ostrel_inference_queue_depth", static_cast<double>(total_queued_));
}

Scheduler::~Scheduler() { stop(); }

void Scheduler::start() {
  std::lock_guard lock(mu_);
  if (running_) return;
  running_ = true;
  for (std::size_t i = 0; i < worker_count_; ++i) workers_.emplace_back([this] { worker_loop_(); });
}

void Scheduler::stop() {
  std::vector<std::thread> workers;
  {
    std::lock_guard lock(mu_);
    running_ = false;
    workers.swap(workers_);
  }
  cv_.notify_all();
  for (auto& t : workers) t.join();

  std::vector<std::shared_ptr<QueuedRequest>> leftovers;
  {
    std::lock_guard lock(mu_);
    for (auto& [key, q] : queues_) {
      for (auto& r : q) leftovers.push_back(std::move(r));
    }
    queues_.clear();
    total_queued_ = 0;
  }
  for (auto& r : leftovers) {
    r->promise.set_exception(
        std::make_exception_ptr(InferenceFailure({499, "scheduler: shutting down"})));
  }
}

bool Scheduler::running() const {
  std::lock_guard lock(mu_);
  return running_;
}

bool Scheduler::enqueue(std::shared_ptr<QueuedRequest> request) {
  {
    std::lock_guard lock(mu_);
    if (total_queued_ >= max_depth_) {
      ++rejected_;
      return false;
    }
    request->key = request->request.tenant_id;
    request->enqueued_at = std::chrono::steady_clock::now();
    queues_[request->key].push_back(std::move(request));
    ++total_queued_;
    publish_depth_locked_();
    ++accepted_;
  }
  cv_.notify_one();
  return true;
}

bool Scheduler::try_serve_inline(const ChatRequest& request, const ChunkSink& sink,
                                 ChatResponse& resp, std::optional<InferenceError>& err) {
  {
    std::lock_guard lock(mu_);
    if (!running_ || total_queued_ > 0 || busy_ >= worker_count_) return false;
    ++busy_;
    ++accepted_;
    ++served_[request.tenant_id];
  }
  err = serve_(request, sink, std::chrono::steady_clock::now(), resp);
  release_slot_();
  return true;
}

BackendList Scheduler::healthy_backends() const {
  BackendList all = backends_();
  std::erase_if(all, [](const auto& b) { return !b || !b->is_healthy(); });
  return all;
}

void Scheduler::set_selector(BackendSelector selector) {
  std::lock_guard lock(mu_);
  selector_ = selector ? std::move(selector) : BackendSelector(default_selector);
}

std::size_t Scheduler::queued() const {
  std::lock_guard lock(mu_);
  return total_queued_;
}

std::uint64_t Scheduler::accepted() const {
  std::lock_guard lock(mu_);
  return accepted_;
}

std::uint64_t Scheduler::rejected() const {
  std::lock_guard lock(mu_);
  return rejected_;
}

// The oldest request of the key served least so far, so that one busy tenant
// cannot starve the others. Ties go to the smaller key.
std::shared_ptr<QueuedRequest> Scheduler::take_locked_() {
  auto best = queues_.end();
  std::uint64_t best_served = 0;
  for (auto it = queues_.begin(); it != queues_.end(); ++it) {
    if (it->second.empty()) continue;
    std::uint64_t served = served_[it->first];
    if (best == queues_.end() || served < best_served) {
      best = it;
      best_served = served;
    }
  }
  if (best == queues_.end()) return nullptr;
  auto request = std::move(best->second.front());
  best->second.pop_front();
  ++served_[best->first];
  if (best->second.empty()) queues_.erase(best);
  --total_queued_;
  publish_depth_locked_();
  return request;
}

void Scheduler::worker_loop_() {
  while (true) {
    std::shared_ptr<QueuedRequest> next;
    {
      std::unique_lock lock(mu_);
      cv_.wait(lock, [this] { return !running_ || (total_queued_ > 0 && busy_ < worker_count_); });
      if (!running_) return;  // stop() fails whatever is still queued
      next = take_locked_();
      if (next) ++busy_;
    }
    if (!next) continue;
    ChatResponse resp;
    auto err = serve_(next->request, next->sink, next->enqueued_at, resp);
    if (err) {
      next->promise.set_exception(std::make_exception_ptr(InferenceFailure(std::move(*err))));
    } else {
      next->promise.set_value(std::move(resp));
    }
    release_slot_();
  }
}

// Frees a worker slot. Idle workers are woken only when something is queued
// for the slot: waking them for nothing costs two context switches per request.
void Scheduler::release_slot_() {
  bool waiting;
  {
    std::lock_guard lock(mu_);
    --busy_;
    waiting = total_queued_ > 0;
  }
  if (waiting) cv_.notify_one();
}

std::optional<InferenceError> Scheduler::serve_(const ChatRequest& req, const ChunkSink& sink,
                                                std::chrono::steady_clock::time_point enqueued_at,
                                                ChatResponse& resp) {
  BackendList healthy = healthy_backends();
  BackendSelector selector;
  {
    std::lock_guard lock(mu_);
    selector = selector_;
  }
  // The selector reads backend stats: run it outside the lock.
  std::shared_ptr<Backend> backend = selector(req, healthy);
  if (!backend) {
    return InferenceError{502, "scheduler: no healthy backend can serve model '" + req.model + "'"};
  }
  std::optional<InferenceError> err;
  try {
    err = sink ? backend->stream(req, sink) : backend->complete(req, resp);
  } catch (const std::exception& e) {
    err = InferenceError{500, std::string("backend: ") + e.what()};
  } catch (...) {
    err = InferenceError{500, "backend: unknown exception"};
  }
  if (observer_) {
    observer_(
        req, *backend, err,
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - enqueued_at)
            .count());
  }
  if (err) return err;
  resp.request_id = req.request_id;
  if (resp.backend_id.empty()) resp.backend_id = backend->id();
  resp.latency_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - enqueued_at)
                        .count();
  return std::nullopt;
}

}  // namespace ostrel::inference
