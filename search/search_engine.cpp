#include "search/search_engine.h"
#include "base/text.h"

#include <algorithm>
#include <unordered_set>

namespace ostrel::search {
namespace {

struct HitKey {
  const std::string* kind;
  const std::string* id;
  bool operator==(const HitKey& o) const { return *kind == *o.kind && *id == *o.id; }
};

struct HitKeyHash {
  std::size_t operator()(const HitKey& k) const {
    const std::size_t h1 = std::hash<std::string>{}(*k.kind);
    const std::size_t h2 = std::hash<std::string>{}(*k.id);
    return h1 ^ ((h1 << 6) + (h1 >> 2) + 0x9e3779b9 + h2);
  }
};

// What one source's task hands back; shared with the task so that a late
// result lands in memory the task still owns.
struct Outcome {
  std::mutex mu;  // guards everything below
  std::condition_variable cv;
  bool done = false;
  bool failed = false;
  std::vector<Hit> hits;
};

}  // namespace

bool parse_scope(const std::string& text, Scope& out) {
  static const std::pair<const char*, Scope> kNames[] = {
      {"all", Scope::All},           {"knowledge", Scope::Knowledge},
      {"comms", Scope::Comms},       {"artifacts", Scope::Artifacts},
      {"science", Scope::Science},   {"swarms", Scope::Swarms},
      {"training", Scope::Training}, {"files", Scope::Files}};
  for (const auto& [name, scope] : kNames) {
    if (text == name) {
      out = scope;
      return true;
    }
  }
  out = Scope::All;
  return false;
}

const char* scope_name(Scope scope) {
  static constexpr const char* kNames[] = {"all",     "knowledge", "artifacts", "comms",
                                           "science", "training",  "swarms",    "files"};
  return text::enum_name(scope, kNames, "all");
}

std::vector<Hit> merge_hits(std::vector<Hit> hits, std::size_t limit) {
  std::stable_sort(hits.begin(), hits.end(),
                   [](const Hit& a, const Hit& b) { return a.score > b.score; });
  // The keys point into `hits`, so nothing is moved out of it until every
  // survivor is known.
  std::unordered_set<HitKey, HitKeyHash> seen(hits.size() * 2);
  std::vector<std::size_t> keep;
  keep.reserve(std::min(limit, hits.size()));
  for (std::size_t i = 0; i < hits.size() && keep.size() < limit; ++i) {
    if (seen.insert(HitKey{&hits[i].source_kind, &hits[i].id}).second) keep.push_back(i);
  }
  std::vector<Hit> out;
  out.reserve(keep.size());
  for (std::size_t i : keep) out.push_back(std::move(hits[i]));
  return out;
}

SearchEngine::SearchEngine(std::chrono::milliseconds deadline, FailureHook on_failure)
    : deadline_(deadline), on_failure_(std::move(on_failure)) {}

SearchEngine::~SearchEngine() {
  {
    std::lock_guard lock(pool_mu_);
    stopping_ = true;
  }
  pool_cv_.notify_all();
  for (auto& t : workers_) {
    if (t.joinable()) t.join();
  }
}

void SearchEngine::register_source(std::shared_ptr<SearchSource> source) {
  std::lock_guard lock(mu_);
  sources_.push_back(std::move(source));
}

std::vector<std::shared_ptr<SearchSource>> SearchEngine::sources() const {
  std::lock_guard lock(mu_);
  return sources_;
}

void SearchEngine::run_(std::function<void()> task) {
  std::lock_guard lock(pool_mu_);
  tasks_.push_back(std::move(task));
  // A source may hang; the next query must not wait behind it (up to a bound:
  // beyond it tasks queue and, if they start too late, miss their deadline).
  if (idle_ < tasks_.size() && workers_.size() < kMaxWorkers) {
    workers_.emplace_back([this] { worker_loop_(); });
  } else {
    pool_cv_.notify_one();
  }
}

void SearchEngine::worker_loop_() {
  std::unique_lock lock(pool_mu_);
  for (;;) {
    ++idle_;
    pool_cv_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    --idle_;
    if (tasks_.empty()) return;  // stopping
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    lock.lock();
  }
}

SearchResult SearchEngine::search(const Query& query) {
  const auto started = std::chrono::steady_clock::now();
  SearchResult result;
  std::vector<std::shared_ptr<SearchSource>> asked;
  std::vector<std::shared_ptr<Outcome>> outcomes;
  for (const auto& source : sources()) {
    if (!source->in_scope(query.scope)) continue;
    if (query.may_read) {
      const std::vector<std::string> needed = source->required_scopes();
      if (!needed.empty() && !query.may_read(needed)) {
        result.sources_denied.push_back(source->source_kind());
        continue;
      }
    }
    result.sources_queried.push_back(source->source_kind());
    auto outcome = std::make_shared<Outcome>();
    asked.push_back(source);
    outcomes.push_back(outcome);
    run_([source, outcome, query] {
      std::vector<Hit> hits;
      bool failed = false;
      try {
        hits = source->search(query, query.limit);
      } catch (...) {
        failed = true;
      }
      std::lock_guard lock(outcome->mu);
      outcome->hits = std::move(hits);
      outcome->failed = failed;
      outcome->done = true;
      outcome->cv.notify_all();
    });
  }
  const auto deadline = std::chrono::steady_clock::now() + deadline_;
  std::vector<Hit> all;
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    Outcome& o = *outcomes[i];
    std::unique_lock lock(o.mu);
    const bool done = o.cv.wait_until(lock, deadline, [&] { return o.done; });
    if (!done || o.failed) {
      // Late or broken: its result, when it comes, is dropped with the outcome.
      result.sources_failed.push_back(asked[i]->source_kind());
      if (on_failure_) on_failure_(asked[i]->source_kind());
      continue;
    }
    std::move(o.hits.begin(), o.hits.end(), std::back_inserter(all));
  }
  result.hits = merge_hits(std::move(all), query.limit);
  result.duration_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::steady_clock::now() - started)
                           .count();
  return result;
}

}  // namespace ostrel::search
