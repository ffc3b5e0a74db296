#include "inference/engine.h"

#include "kernel/obs/metrics.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <set>

namespace ostrel::inference {
namespace {

std::string new_request_id() {
  thread_local std::mt19937_64 rng(
      static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
      std::hash<std::thread::id>{}(std::this_thread::get_id()));
  return "req-" + std::to_string(rng());
}

}  // namespace

Engine::Engine(EngineOptions options)
    : options_(options),
      sessions_(options.session_idle_ttl),
      scheduler_([this] { return backends(); }, options.worker_threads, options.max_queue_depth),
      abort_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  watch_requests_();
}

Engine::~Engine() {
  stop();
  if (abort_fd_ >= 0) ::close(abort_fd_);
}

void Engine::abort_inflight() {
  if (abort_fd_ < 0) return;
  std::uint64_t one = 1;
  [[maybe_unused]] ssize_t n = ::write(abort_fd_, &one, sizeof one);
}

void Engine::register_backend(std::shared_ptr<Backend> backend) {
  if (!backend) return;
  backend->set_abort_fd(abort_fd_);
  backend->poll_health();
  std::lock_guard lock(mu_);
  const std::string id = backend->id();
  if (!backends_.count(id)) order_.push_back(id);
  backends_[id] = std::move(backend);
}

bool Engine::remove_backend(const std::string& id) {
  std::lock_guard lock(mu_);
  if (!backends_.erase(id)) return false;
  std::erase(order_, id);
  return true;
}

BackendList Engine::backends() const {
  std::lock_guard lock(mu_);
  BackendList out;
  out.reserve(order_.size());
  for (const auto& id : order_) out.push_back(backends_.at(id));
  return out;
}

void Engine::prepare_request_(ChatRequest& req) {
  if (req.request_id.empty()) req.request_id = new_request_id();
}

void Engine::remember_(ChatRequest& req, Message answer) {
  if (req.session_id.empty()) return;
  // Only a turn that was answered is kept: a failed request leaves nothing.
  // Moved, not copied: a long conversation is held once, not three times.
  std::vector<Message> turn = std::move(req.messages);
  turn.reserve(turn.size() + 1);
  turn.push_back(std::move(answer));
  sessions_.append(req.session_id, std::move(turn));
}

std::optional<InferenceError> Engine::run_(ChatRequest& req, ChunkSink sink, ChatResponse& resp) {
  std::optional<InferenceError> inline_err;
  if (scheduler_.try_serve_inline(req, sink, resp, inline_err)) return inline_err;
  auto queued = std::make_shared<QueuedRequest>();
  queued->request = req;
  queued->sink = std::move(sink);
  std::future<ChatResponse> future = queued->promise.get_future();
  if (!scheduler_.enqueue(queued)) return InferenceError{507, "scheduler: queue full"};
  try {
    resp = future.get();
    return std::nullopt;
  } catch (const InferenceFailure& f) {
    return f.error;
  } catch (const std::exception& e) {
    return InferenceError{500, std::string("engine: ") + e.what()};
  } catch (...) {
    return InferenceError{500, "engine: unknown exception"};
  }
}

std::optional<InferenceError> Engine::complete(ChatRequest req, ChatResponse& resp) {
  prepare_request_(req);
  auto err = run_(req, nullptr, resp);
  if (!err) remember_(req, req.session_id.empty() ? Message{} : resp.message);
  return err;
}

std::optional<InferenceError> Engine::stream(ChatRequest req, ChunkSink sink) {
  if (!scheduler_.running()) return InferenceError{500, "scheduler: not running"};
  if (!sink) return InferenceError{400, "scheduler: stream sink is null"};
  prepare_request_(req);
  // Collect the text as it passes, for the session; the sink runs on a
  // scheduler worker, and this thread reads the text only after the future.
  // An answer longer than a session keeps is not collected (the session
  // would drop it at once).
  auto text = std::make_shared<std::string>();
  auto kept = std::make_shared<bool>(!req.session_id.empty());
  const std::size_t limit = sessions_.max_session_bytes();
  ChunkSink collecting = [text, kept, limit, sink = std::move(sink)](const ChatChunk& c) {
    if (*kept) {
      if (text->size() + c.delta.size() > limit) {
        *kept = false;
        *text = std::string();
      } else {
        text->append(c.delta);
      }
    }
    return sink(c);
  };
  ChatResponse resp;
  auto err = run_(req, std::move(collecting), resp);
  if (!err && *kept) remember_(req, Message{"assistant", std::move(*text), "", "", ""});
  return err;
}

std::vector<std::string> Engine::available_models() const {
  std::set<std::string> names;
  for (const auto& b : backends()) {
    if (!b->is_healthy()) continue;
    for (auto& m : b->stats().models) names.insert(std::move(m));
  }
  return {names.begin(), names.end()};
}

std::string Engine::fallback_for(const std::string& model) const {
  std::shared_ptr<Backend> least;
  std::uint64_t least_load = 0;
  std::vector<std::string> least_models;
  for (const auto& b : backends()) {
    if (!b->is_healthy()) continue;
    BackendStats s = b->stats();
    for (const auto& m : s.models) {
      if (model_matches(model, m)) return "";
    }
    if (!least || s.in_flight < least_load) {
      least = b;
      least_load = s.in_flight;
      least_models = std::move(s.models);
    }
  }
  if (!least) return "";
  return least_models.empty() ? least->id() : least_models.front();
}

void Engine::start() {
  scheduler_.start();
  if (!workers_.running()) workers_.spawn([this] { health_loop_(); });
}

void Engine::stop() {
  workers_.stop();
  scheduler_.stop();
}

void Engine::watch_requests_() {
  scheduler_.set_observer([this](const ChatRequest& req, Backend& backend,
                                 const std::optional<InferenceError>& err,
                                 double elapsed_ms) { observe_(req, backend, err, elapsed_ms); });
}

void Engine::observe_(const ChatRequest& req, Backend& backend,
                      const std::optional<InferenceError>& err, double elapsed_ms) {
  // What an operator of a model server watches: requests, errors and
  // latency per model and backend.
  if (!metrics_) return;
  kernel::MetricRegistry& t = *metrics_;
  const kernel::MetricRegistry::Labels labels = {{"model", req.model}, {"backend", backend.id()}};
  t.counter("ostrel.inference.requests_total", 1, labels);
  t.histogram("ostrel.inference.request_duration_seconds", elapsed_ms / 1000.0, labels);
  if (err) {
    t.counter(
        "ostrel.inference.errors_total", 1,
        {{"model", req.model}, {"backend", backend.id()}, {"code", std::to_string(err->code)}});
  }
  // Each kind of notice once per backend and model: the lines are for an
  // operator, not a request log.
  auto first_time = [this](const std::string& key) {
    std::lock_guard lock(noticed_mu_);
    if (noticed_.size() > 10000) return false;  // a flood of distinct models: enough said
    return noticed_.insert(key).second;
  };
  const std::string id = backend.id();
  if (err && err->code != 499) {
    if (first_time("fail\n" + id + "\n" + req.model + "\n" + std::to_string(err->code))) {
      log_.warn("model '" + req.model + "' on backend '" + id + "' failed (" +
                std::to_string(err->code) + "): " + err->message);
    }
    return;
  }
  if (err) return;
  if (!first_time("unlisted\n" + id + "\n" + req.model)) return;
  std::vector<std::string> models = backend.stats().models;
  if (std::find(models.begin(), models.end(), req.model) == models.end()) {
    log_.warn("model '" + req.model + "' is not listed by backend '" + id +
              "' — it answered anyway (a misspelt model name?)");
  }
}

void Engine::health_loop_() {
  while (true) {
    for (const auto& b : backends()) {
      bool healthy = b->poll_health();
      if (metrics_) {
        metrics_->gauge_set("ostrel_inference_backend_up", healthy ? 1 : 0, {{"backend", b->id()}});
      }
      auto [it, first] = health_seen_.try_emplace(b->id(), healthy);
      if (first ? !healthy : it->second != healthy) {
        log_.log(healthy ? obs::LogLevel::info : obs::LogLevel::warn,
                 "backend '" + b->id() + "' is " +
                     (healthy ? "healthy again" : "unhealthy: it does not answer"));
      }
      it->second = healthy;
    }
    sessions_.sweep();
    if (workers_.wait_for(options_.health_poll_interval)) return;
  }
}

}  // namespace ostrel::inference
