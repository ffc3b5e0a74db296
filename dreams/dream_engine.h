#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/logger.h"
#include "base/workers.h"

namespace ostrel::dreams {

struct SessionMessage {
  std::string role;
  std::string content;
};

// One finished conversation.
struct SessionRecord {
  std::string id;
  std::string tenant_id;
  std::string user_id;
  std::int64_t started_at = 0;  // Unix seconds
  std::int64_t ended_at = 0;
  std::string summary;
  std::vector<SessionMessage> messages;
};

struct SessionRecordUsed {
  std::string session_id;
  std::string tenant_id;
  std::vector<std::string> themes;
  std::string user_id;
};

struct ThemeRecord {
  std::string theme;
  std::string abstract;
  float importance = 0.5f;
  std::string source_session;
};

struct DreamReport {
  std::string trigger;
  std::int64_t started_at_unix = 0;
  std::int64_t finished_at_unix = 0;
  int sessions_consumed = 0;
  int sessions_skipped = 0;
  std::vector<SessionRecordUsed> sessions_used;
  int themes_extracted = 0;
  int matrix_updates = 0;
  int llm_failures = 0;
  int store_failures = 0;
  std::vector<ThemeRecord> themes;
  std::string error;
};

nlohmann::json to_json(const DreamReport& r);

struct DreamConfig {
  bool enabled = true;
  bool auto_cycle = true;
  std::int64_t cycle_interval_seconds = 3600;
  bool idle_only = true;
  double idle_threshold_load = 1.0;
  std::int64_t max_sessions_per_run = 10;
  double min_session_age_hours = 1.0;
  std::int64_t min_sessions = 1;  // a periodic cycle waits for this many conversations
  std::string llm_url;            // empty: the node's own inference.chat
  std::string llm_model = "llama3";
  std::int64_t llm_timeout_ms = 60000;
  std::string embedding_url;
  std::string embedding_model;
  std::string tenant = "_system";
  std::string ns = "dreams";
};

// Where finished conversations come from.
class ISessionSource {
 public:
  virtual ~ISessionSource() = default;
  // Conversations not yet dreamed that ended at least `min_age_seconds` ago.
  virtual std::vector<SessionRecord> list_completed(std::size_t limit,
                                                    std::int64_t min_age_seconds) = 0;
  virtual bool mark_dreamed(const std::string& id) = 0;
};

// The conversation store: "<root>/conversations/<id>.json", one JSON file per
// conversation ("_index.json" skipped); a conversation is done with once a
// "<file>.dreamed" marker stands beside it. Files that are not JSON, have no
// messages or dates that do not parse are skipped with a log line.
// Thread-safe: files_mu_ guards the id → file map of the last listing; the
// markers are written whole.
class FilesystemSessionSource : public ISessionSource {
 public:
  FilesystemSessionSource(std::filesystem::path root, base::Logger log);
  std::vector<SessionRecord> list_completed(std::size_t limit,
                                            std::int64_t min_age_seconds) override;
  bool mark_dreamed(const std::string& id) override;
  const std::filesystem::path& resolved_root() const { return resolved_root_; }

 private:
  std::filesystem::path resolved_root_;
  base::Logger log_;
  std::mutex files_mu_;
  std::map<std::string, std::filesystem::path> files_;  // session id → its file
  std::set<std::string> warned_;                        // broken files already logged (once each)
};

// The same contract over conversations held in memory.
// Thread-safe: mu_ guards the list and the dreamed set.
class InMemorySessionSource : public ISessionSource {
 public:
  void add(SessionRecord record);
  std::vector<SessionRecord> list_completed(std::size_t limit,
                                            std::int64_t min_age_seconds) override;
  bool mark_dreamed(const std::string& id) override;
  bool dreamed(const std::string& id) const;

 private:
  mutable std::mutex mu_;
  std::vector<SessionRecord> sessions_;
  std::vector<std::string> dreamed_;
};

// Where themes go.
class IDreamSink {
 public:
  virtual ~IDreamSink() = default;
  virtual bool store_theme(const ThemeRecord& theme, const SessionRecord& session,
                           const DreamConfig& config) = 0;
};

// Calls a model: the request and answer are chat-completions JSON texts.
// False with a reason on a transport error, a non-2xx status or a timeout.
using ModelCall =
    std::function<bool(const std::string& request, std::string& answer, std::string& error)>;

// Offline consolidation: reads finished conversations, asks a model for at
// most three themes of each, stores every theme through the sink, and marks
// the conversation dreamed once all its themes are stored (a conversation
// whose themes could not all be stored, or whose model answer failed, is
// left for the next cycle). Cycles are serialised by cycle_mu_; a periodic
// thread, owned by the engine and joined by stop_periodic(), runs them on a
// timer when the system is idle.
// Thread-safe: config_mu_ guards the configuration, history_mu_ the reports.
class DreamEngine {
 public:
  DreamEngine(DreamConfig config, std::shared_ptr<ISessionSource> sessions,
              std::shared_ptr<IDreamSink> sink, ModelCall model, base::Logger log);
  ~DreamEngine();

  DreamReport run_once(const std::string& trigger);
  void start_periodic();
  void stop_periodic();

  DreamConfig config() const;
  void set_config(DreamConfig config);
  std::vector<DreamReport> history() const;
  bool running() const { return running_.load(); }
  // How many periodic intervals have ended (each one decides whether to
  // run a cycle), so that a caller can wait for the next decision.
  std::uint64_t periodic_decisions() const { return periodic_decisions_.load(); }

  // The model's themes, parsed from its chat-completions answer: the text
  // from the first "[" to the last "]" of the first choice's content, as a
  // JSON array. False when there is none to parse.
  static bool parse_themes(std::string_view answer, const std::string& session_id,
                           std::vector<ThemeRecord>& out);
  // The chat-completions request sent for one transcript (cut to 6000 chars).
  static std::string request_for(const SessionRecord& session, const std::string& model);
  // The one-minute load average at most `threshold` (an unreadable load
  // counts as busy).
  static bool system_idle(double threshold);

  static constexpr std::size_t kHistory = 50;
  static constexpr std::size_t kMaxTranscript = 6000;

 private:
  std::vector<ThemeRecord> extract_themes_(const SessionRecord& session, DreamReport& report);
  void periodic_loop_();

  std::shared_ptr<ISessionSource> sessions_;
  std::shared_ptr<IDreamSink> sink_;
  ModelCall model_;
  base::Logger log_;
  mutable std::mutex config_mu_;  // guards config_
  DreamConfig config_;
  std::mutex cycle_mu_;  // one cycle at a time
  std::atomic<bool> running_{false};
  mutable std::mutex history_mu_;  // guards history_
  std::deque<DreamReport> history_;
  // The periodic loop; joined by stop_periodic(). Its lock also guards
  // config_generation_: a new configuration restarts the loop's wait.
  base::Workers periodic_;
  std::uint64_t config_generation_ = 0;
  std::atomic<std::uint64_t> periodic_decisions_{0};
};

// "%d-%d-%dT%d:%d:%d" as UTC; nullopt when it does not parse.
std::optional<std::int64_t> parse_iso8601(std::string_view text);

}  // namespace ostrel::dreams
