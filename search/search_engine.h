#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/no_copy.h"

namespace ostrel::search {

enum class Scope : std::uint8_t {
  All = 0,
  Knowledge = 1,
  Artifacts = 2,
  Comms = 3,
  Science = 4,
  Training = 5,
  Swarms = 6,
  Files = 7,
};

// "all", "knowledge", … ; false for any other text (treated as All).
bool parse_scope(const std::string& text, Scope& out);
const char* scope_name(Scope scope);

struct Query {
  std::string text;
  std::string tenant_id;
  std::size_t limit = 20;
  Scope scope = Scope::All;
  std::map<std::string, std::string> filters;
  // Whether the caller may read a source, given the scopes of which any one
  // grants it (SearchSource::required_scopes). Empty: every source (the
  // node's own callers).
  std::function<bool(const std::vector<std::string>& any_of)> may_read;
};

struct Hit {
  std::string source_kind;
  std::string id;
  std::string title;
  std::string snippet;
  std::string uri;
  double score = 0;
  std::int64_t ts_unix_ms = 0;
  std::map<std::string, std::string> metadata;
};

// One kind of knowledge a query can reach. Called from several queries at
// once, each on a thread of the engine's.
class SearchSource {
 public:
  virtual ~SearchSource() = default;
  virtual std::string source_kind() const = 0;
  virtual bool in_scope(Scope scope) const = 0;
  virtual std::vector<Hit> search(const Query& query, std::size_t limit) = 0;
  // The scopes of which any one lets a caller read this source (those of the
  // route that serves the same data); empty: no scope is needed.
  virtual std::vector<std::string> required_scopes() const { return {}; }
};

struct SearchResult {
  std::vector<Hit> hits;
  std::vector<std::string> sources_queried;
  std::vector<std::string> sources_failed;
  // In scope, but not for this caller: not asked.
  std::vector<std::string> sources_denied;
  std::int64_t duration_ms = 0;
};

// Answers one query across its sources: each in-scope source runs on a
// thread of its own, and the query waits for each until one deadline from
// the start of the wait (5 s by default); a source that is late or throws is
// reported as failed and its result dropped when it comes. Hits are ranked
// by score (stable: ties keep registration order, then each source's own
// order), de-duplicated by (source kind, id) keeping the best-ranked copy,
// and cut to the limit.
//
// Owns the threads it runs sources on: they are reused, started only when
// none is idle, and joined by the destructor (after sources that hang have
// returned).
// Thread-safe: mu_ guards the source list; pool_mu_ the task queue and the
// worker count.
class SearchEngine : private base::NoCopy {
 public:
  // Told the kind of every source that failed a query (for a counter).
  using FailureHook = std::function<void(const std::string& kind)>;
  static constexpr std::size_t kMaxWorkers = 256;

  explicit SearchEngine(std::chrono::milliseconds deadline = std::chrono::milliseconds(5000),
                        FailureHook on_failure = nullptr);
  ~SearchEngine();

  void register_source(std::shared_ptr<SearchSource> source);
  std::vector<std::shared_ptr<SearchSource>> sources() const;
  SearchResult search(const Query& query);
  std::chrono::milliseconds deadline() const { return deadline_; }

 private:
  void run_(std::function<void()> task);
  void worker_loop_();

  const std::chrono::milliseconds deadline_;
  const FailureHook on_failure_;
  mutable std::mutex mu_;  // guards sources_
  std::vector<std::shared_ptr<SearchSource>> sources_;

  std::mutex pool_mu_;  // guards tasks_, idle_, stopping_ and workers_
  std::condition_variable pool_cv_;
  std::deque<std::function<void()>> tasks_;
  std::size_t idle_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> workers_;  // joined by the destructor
};

// Hits ranked, de-duplicated and cut as the engine does it (for callers that
// merge hits of their own).
std::vector<Hit> merge_hits(std::vector<Hit> hits, std::size_t limit);

}  // namespace ostrel::search
