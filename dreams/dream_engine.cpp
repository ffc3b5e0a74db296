#include "dreams/dream_engine.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "base/clock.h"
#include "base/durable_file.h"
#include "base/json.h"
#include "base/names.h"

namespace ostrel::dreams {
namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;

constexpr const char* kPrompt =
    "You are an offline consolidation engine. Extract up to 3 key themes from the conversation "
    "transcript. Respond ONLY with a JSON array of objects in this shape: "
    "[{\"theme\":\"...\",\"abstract\":\"...\",\"importance\":0.0-1.0}]. No prose, no preamble. "
    "The 'abstract' is one self-contained paragraph.";

float importance_of(const Json& v) {
  float f = 0.5f;
  if (v.is_number()) {
    f = v.get<float>();
  } else if (v.is_string()) {
    f = std::strtof(v.get<std::string>().c_str(), nullptr);
  }
  if (!(f >= 0)) f = 0;  // negative or NaN
  return std::min(f, 1.0f);
}

bool session_from_json(const Json& j, const std::string& fallback_id, SessionRecord& s,
                       std::string& why) {
  if (!j.is_object()) {
    why = "not a JSON object";
    return false;
  }
  s.id = j.value("id", fallback_id);
  if (!j.contains("id") || !j["id"].is_string()) s.id = fallback_id;
  s.tenant_id = j.contains("tenant_id") && j["tenant_id"].is_string() ? j["tenant_id"] : "";
  s.user_id = j.contains("user_id") && j["user_id"].is_string() ? j["user_id"] : "";
  s.summary = j.contains("summary") && j["summary"].is_string() ? j["summary"] : "";
  auto messages = j.find("messages");
  if (messages == j.end() || !messages->is_array() || messages->empty()) {
    why = "no messages";
    return false;
  }
  for (const auto& m : *messages) {
    if (!m.is_object() || !m.contains("content") || !m["content"].is_string()) continue;
    s.messages.push_back({m.value("role", "user"), m["content"].get<std::string>()});
  }
  if (s.messages.empty()) {
    why = "no messages with text";
    return false;
  }
  for (auto [key, slot] : {std::pair{"started_at", &s.started_at}, {"ended_at", &s.ended_at}}) {
    auto it = j.find(key);
    if (it == j.end() || it->is_null()) continue;
    std::optional<std::int64_t> t;
    if (it->is_string()) t = parse_iso8601(it->get<std::string>());
    if (!t) {
      why = std::string(key) + " does not parse";
      return false;
    }
    *slot = *t;
  }
  if (s.ended_at == 0) s.ended_at = s.started_at;
  return true;
}

}  // namespace

std::optional<std::int64_t> parse_iso8601(std::string_view text) {
  int y, mo, d, h, mi, sec;
  std::string copy(text);
  if (std::sscanf(copy.c_str(), "%d-%d-%dT%d:%d:%d", &y, &mo, &d, &h, &mi, &sec) != 6) {
    return std::nullopt;
  }
  if (mo < 1 || mo > 12 || d < 1 || d > 31 || h < 0 || h > 23 || mi < 0 || mi > 59 || sec < 0 ||
      sec > 60 || y < 1970 || y > 9999) {
    return std::nullopt;
  }
  std::tm tm{};
  tm.tm_year = y - 1900;
  tm.tm_mon = mo - 1;
  tm.tm_mday = d;
  tm.tm_hour = h;
  tm.tm_min = mi;
  tm.tm_sec = sec;
  return static_cast<std::int64_t>(timegm(&tm));
}

Json to_json(const DreamReport& r) {
  Json used = Json::array();
  for (const auto& u : r.sessions_used) {
    used.push_back({{"session_id", u.session_id},
                    {"tenant_id", u.tenant_id},
                    {"user_id", u.user_id},
                    {"themes", u.themes}});
  }
  Json themes = Json::array();
  for (const auto& t : r.themes) {
    themes.push_back({{"theme", t.theme},
                      {"abstract", t.abstract},
                      {"importance", t.importance},
                      {"source_session", t.source_session}});
  }
  return {{"trigger", r.trigger},
          {"started_at_unix", r.started_at_unix},
          {"finished_at_unix", r.finished_at_unix},
          {"sessions_consumed", r.sessions_consumed},
          {"sessions_skipped", r.sessions_skipped},
          {"sessions_used", used},
          {"themes_extracted", r.themes_extracted},
          {"matrix_updates", r.matrix_updates},
          {"llm_failures", r.llm_failures},
          {"store_failures", r.store_failures},
          {"themes", themes},
          {"error", r.error}};
}

// --- conversation sources ---------------------------------------------------

FilesystemSessionSource::FilesystemSessionSource(fs::path root, base::Logger log)
    : resolved_root_(std::move(root) / "conversations"), log_(std::move(log)) {}

std::vector<SessionRecord> FilesystemSessionSource::list_completed(std::size_t limit,
                                                                   std::int64_t min_age_seconds) {
  std::vector<fs::path> files;
  std::error_code ec;
  for (fs::directory_iterator it(resolved_root_, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name == "_index.json" || it->path().extension() != ".json" || name[0] == '.') continue;
    std::error_code type_ec;
    if (!it->is_regular_file(type_ec)) continue;
    fs::path marker = it->path();
    marker += ".dreamed";
    if (fs::exists(marker, type_ec)) continue;
    files.push_back(it->path());
  }
  std::sort(files.begin(), files.end());  // a stable order across cycles
  const std::int64_t now = base::unix_s();
  std::vector<SessionRecord> out;
  for (const auto& f : files) {
    if (out.size() >= limit) break;
    bool opened = false;
    Json j = base::read_json_file(f, opened);
    SessionRecord s;
    std::string why;
    if (!session_from_json(j, f.stem().string(), s, why)) {
      bool first = false;
      {
        std::lock_guard lock(files_mu_);
        first = warned_.insert(f.filename().string()).second;
      }
      if (first) {
        log_.warn("[dream-engine] skipping conversation " + f.filename().string() + ": " + why);
      }
      continue;
    }
    if (now - s.ended_at < min_age_seconds) continue;
    // Two files claiming one id: the later one goes by its file name.
    if (std::any_of(out.begin(), out.end(), [&](const SessionRecord& o) { return o.id == s.id; })) {
      s.id = f.stem().string();
    }
    {
      std::lock_guard lock(files_mu_);
      files_[s.id] = f;
    }
    out.push_back(std::move(s));
  }
  return out;
}

bool FilesystemSessionSource::mark_dreamed(const std::string& id) {
  fs::path file;
  {
    std::lock_guard lock(files_mu_);
    auto it = files_.find(id);
    if (it != files_.end()) file = it->second;
  }
  if (file.empty()) {
    // Not listed by this source: only a file named after the id will do.
    std::string why;
    if (!base::safe_name(id, why)) return false;
    file = resolved_root_ / (id + ".json");
    std::error_code ec;
    if (!fs::is_regular_file(file, ec)) return false;
  }
  fs::path marker = file;
  marker += ".dreamed";
  std::string error;
  if (!base::write_file_atomically(
          marker, base::dump_json(Json{{"dreamed_at_unix", base::unix_s()}}) + "\n", error)) {
    log_.warn("[dream-engine] marker for " + id + " not written: " + error);
    return false;
  }
  return true;
}

void InMemorySessionSource::add(SessionRecord record) {
  std::lock_guard lock(mu_);
  sessions_.push_back(std::move(record));
}

std::vector<SessionRecord> InMemorySessionSource::list_completed(std::size_t limit,
                                                                 std::int64_t min_age_seconds) {
  std::lock_guard lock(mu_);
  const std::int64_t now = base::unix_s();
  std::vector<SessionRecord> out;
  for (const auto& s : sessions_) {
    if (out.size() >= limit) break;
    if (std::find(dreamed_.begin(), dreamed_.end(), s.id) != dreamed_.end()) continue;
    if (now - s.ended_at < min_age_seconds) continue;
    out.push_back(s);
  }
  return out;
}

bool InMemorySessionSource::mark_dreamed(const std::string& id) {
  std::lock_guard lock(mu_);
  dreamed_.push_back(id);
  return true;
}

bool InMemorySessionSource::dreamed(const std::string& id) const {
  std::lock_guard lock(mu_);
  return std::find(dreamed_.begin(), dreamed_.end(), id) != dreamed_.end();
}

// --- the engine ---------------------------------------------------------------

DreamEngine::DreamEngine(DreamConfig config, std::shared_ptr<ISessionSource> sessions,
                         std::shared_ptr<IDreamSink> sink, ModelCall model, base::Logger log)
    : sessions_(std::move(sessions)),
      sink_(std::move(sink)),
      model_(std::move(model)),
      log_(std::move(log)),
      config_(std::move(config)) {}

DreamEngine::~DreamEngine() { stop_periodic(); }

DreamConfig DreamEngine::config() const {
  std::lock_guard lock(config_mu_);
  return config_;
}

void DreamEngine::set_config(DreamConfig config) {
  {
    std::lock_guard lock(config_mu_);
    config_ = std::move(config);
  }
  {
    auto lock = periodic_.lock();
    ++config_generation_;
  }
  periodic_.wake();
}

std::vector<DreamReport> DreamEngine::history() const {
  std::lock_guard lock(history_mu_);
  return {history_.begin(), history_.end()};
}

std::string DreamEngine::request_for(const SessionRecord& session, const std::string& model) {
  std::string transcript;
  for (const auto& m : session.messages) {
    transcript += m.role + ": " + m.content + "\n";
    if (transcript.size() >= kMaxTranscript) break;
  }
  if (transcript.size() > kMaxTranscript) transcript.resize(kMaxTranscript);
  return base::dump_json(Json{{"model", model},
                              {"temperature", 0.2},
                              {"messages",
                               {{{"role", "system"}, {"content", kPrompt}},
                                {{"role", "user"}, {"content", "Transcript:\n" + transcript}}}}});
}

bool DreamEngine::parse_themes(std::string_view answer, const std::string& session_id,
                               std::vector<ThemeRecord>& out) {
  Json j = base::parse_json(answer);
  if (!j.is_object() || !j.contains("choices") || !j["choices"].is_array() ||
      j["choices"].empty()) {
    return false;
  }
  const Json& message = j["choices"][0].value("message", Json::object());
  if (!message.is_object() || !message.contains("content") || !message["content"].is_string()) {
    return false;
  }
  const std::string content = message["content"];
  const std::size_t open = content.find('[');
  const std::size_t close = content.rfind(']');
  if (open == std::string::npos || close == std::string::npos || close < open) return false;
  Json themes = base::parse_json(std::string_view(content).substr(open, close - open + 1));
  if (!themes.is_array()) return false;
  for (const auto& t : themes) {
    if (!t.is_object() || !t.contains("theme") || !t["theme"].is_string() ||
        t["theme"].get<std::string>().empty()) {
      continue;
    }
    ThemeRecord r;
    r.theme = t["theme"];
    r.abstract = t.contains("abstract") && t["abstract"].is_string() ? t["abstract"] : "";
    r.importance = t.contains("importance") ? importance_of(t["importance"]) : 0.5f;
    r.source_session = session_id;
    out.push_back(std::move(r));
    if (out.size() >= 3) break;
  }
  return true;
}

std::vector<ThemeRecord> DreamEngine::extract_themes_(const SessionRecord& session,
                                                      DreamReport& report) {
  std::vector<ThemeRecord> themes;
  const DreamConfig cfg = config();
  std::string answer, error;
  if (!model_ || !model_(request_for(session, cfg.llm_model), answer, error)) {
    ++report.llm_failures;
    log_.warn("[dream-engine] model call failed for " + session.id + ": " + error);
    return themes;
  }
  if (!parse_themes(answer, session.id, themes)) {
    ++report.llm_failures;
    log_.warn("[dream-engine] model answer for " + session.id + " holds no theme array");
    themes.clear();
  }
  return themes;
}

DreamReport DreamEngine::run_once(const std::string& trigger) {
  std::lock_guard cycle(cycle_mu_);
  running_ = true;
  DreamReport report;
  report.trigger = trigger;
  report.started_at_unix = base::unix_s();
  const DreamConfig cfg = config();
  const std::int64_t min_age =
      std::max<std::int64_t>(0, static_cast<std::int64_t>(cfg.min_session_age_hours * 3600));
  std::vector<SessionRecord> sessions =
      sessions_ ? sessions_->list_completed(
                      static_cast<std::size_t>(std::max<std::int64_t>(0, cfg.max_sessions_per_run)),
                      min_age)
                : std::vector<SessionRecord>{};
  for (const SessionRecord& s : sessions) {
    std::vector<ThemeRecord> themes = extract_themes_(s, report);
    if (themes.empty()) {
      ++report.sessions_skipped;
      continue;
    }
    SessionRecordUsed used{s.id, s.tenant_id, {}, s.user_id};
    bool all_stored = true;
    for (ThemeRecord& t : themes) {
      ++report.themes_extracted;
      t.importance = std::clamp(t.importance, 0.0f, 1.0f);
      if (sink_) {
        if (sink_->store_theme(t, s, cfg)) {
          ++report.matrix_updates;
        } else {
          ++report.store_failures;
          all_stored = false;
        }
      }
      used.themes.push_back(t.theme);
      report.themes.push_back(t);
    }
    // A conversation is consumed once, and only when all of its themes are
    // in memory: otherwise the next cycle tries again.
    if (all_stored && sessions_->mark_dreamed(s.id)) {
      ++report.sessions_consumed;
      report.sessions_used.push_back(std::move(used));
    }
  }
  report.finished_at_unix = base::unix_s();
  {
    std::lock_guard lock(history_mu_);
    history_.push_front(report);
    while (history_.size() > kHistory) history_.pop_back();
  }
  log_.info("[dream-engine] cycle (" + trigger + ") consumed " +
            std::to_string(report.sessions_consumed) + ", skipped " +
            std::to_string(report.sessions_skipped) + ", themes " +
            std::to_string(report.themes_extracted) + ", stored " +
            std::to_string(report.matrix_updates) + ", llm failures " +
            std::to_string(report.llm_failures));
  running_ = false;
  return report;
}

bool DreamEngine::system_idle(double threshold) {
  double load[1];
  if (::getloadavg(load, 1) != 1) return false;
  return load[0] <= threshold;
}

void DreamEngine::start_periodic() {
  if (!periodic_.running()) periodic_.spawn([this] { periodic_loop_(); });
}

void DreamEngine::stop_periodic() { periodic_.stop(); }

void DreamEngine::periodic_loop_() {
  for (;;) {
    const DreamConfig cfg = config();
    {
      auto lock = periodic_.lock();
      const std::uint64_t generation = config_generation_;
      const auto interval =
          std::chrono::seconds(std::max<std::int64_t>(1, cfg.cycle_interval_seconds));
      bool changed = false;
      if (periodic_.wait_for(lock, interval,
                             [&] { return changed = config_generation_ != generation; })) {
        return;
      }
      if (changed) continue;  // a new interval starts now
    }
    const DreamConfig now = config();
    // Counted once the decision below is taken, whichever it is.
    struct Decided {
      std::atomic<std::uint64_t>& n;
      ~Decided() { ++n; }
    } decided{periodic_decisions_};
    if (!now.enabled || !now.auto_cycle) continue;
    if (now.idle_only && !system_idle(now.idle_threshold_load)) continue;
    if (now.min_sessions > 1 && sessions_ &&
        static_cast<std::int64_t>(
            sessions_
                ->list_completed(static_cast<std::size_t>(now.min_sessions),
                                 static_cast<std::int64_t>(now.min_session_age_hours * 3600))
                .size()) < now.min_sessions) {
      continue;
    }
    run_once("periodic");
  }
}

}  // namespace ostrel::dreams
