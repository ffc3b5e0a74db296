#include "data/memory_service.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <sstream>

#include "base/clock.h"
#include "base/durable_file.h"
#include "base/encoding.h"
#include "base/json.h"
#include "base/names.h"
#include "data/vector_math.h"

namespace ostrel::data {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr std::size_t kMaxKeyBytes = 4096;
constexpr std::size_t kMaxValueBytes = 1 << 20;
constexpr const char* kSharedUser = "_shared";

std::vector<std::string> words(std::string_view text) {
  std::vector<std::string> out;
  std::string w;
  for (char c : text) {
    unsigned char u = static_cast<unsigned char>(c);
    if (std::isalnum(u) || u >= 0x80) {
      w += static_cast<char>(std::tolower(u));
    } else if (!w.empty()) {
      out.push_back(std::move(w));
      w.clear();
    }
  }
  if (!w.empty()) out.push_back(std::move(w));
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

// The share of the query's words found in the text.
double overlap(const std::vector<std::string>& query, const std::vector<std::string>& text) {
  if (query.empty()) return 0;
  std::size_t found = 0;
  for (const auto& q : query) found += std::binary_search(text.begin(), text.end(), q);
  return static_cast<double>(found) / static_cast<double>(query.size());
}

Json entry_json(const MemoryEntry& e) {
  return {{"entry_id", e.entry_id},
          {"key_text", e.key_text},
          {"value_text", e.value_text},
          {"namespace", e.ns},
          {"domain", e.domain},
          {"importance", e.importance},
          {"access_count", e.access_count},
          {"correction_count", e.correction_count},
          {"avg_recall_relevance", e.avg_recall_relevance},
          {"created_at", e.created_at},
          {"last_recalled_at", e.last_recalled_at},
          {"last_corrected_at", e.last_corrected_at},
          {"user_confirmed", e.user_confirmed},
          {"forgotten", e.forgotten}};
}

MemoryEntry entry_from_json(const Json& j) {
  MemoryEntry e;
  e.entry_id = j.value("entry_id", "");
  e.key_text = j.value("key_text", "");
  e.value_text = j.value("value_text", "");
  e.ns = j.value("namespace", "default");
  e.domain = j.value("domain", "general");
  e.importance = j.value("importance", 0.5);
  e.access_count = base::int_value(j, "access_count", 0);
  e.correction_count = base::int_value(j, "correction_count", 0);
  e.avg_recall_relevance = j.value("avg_recall_relevance", 0.0);
  e.created_at = base::int_value(j, "created_at", 0);
  e.last_recalled_at = base::int_value(j, "last_recalled_at", 0);
  e.last_corrected_at = base::int_value(j, "last_corrected_at", 0);
  e.user_confirmed = j.value("user_confirmed", false);
  e.forgotten = j.value("forgotten", false);
  return e;
}

Json index_json(const MatrixIndexEntry& e) {
  return {{"id", e.id},
          {"tenant_id", e.tenant_id},
          {"user_id", e.user_id},
          {"domain", e.domain},
          {"name", e.name},
          {"level", static_cast<int>(e.level)},
          {"level_name", level_name(e.level)},
          {"file_path", e.file_path},
          {"tier", e.tier},
          {"last_accessed", e.last_accessed},
          {"size_bytes", e.size_bytes}};
}

std::string scope_text(const std::string& ns, const std::string& key) { return ns + "\n" + key; }

}  // namespace

MatrixMemoryConfig MatrixMemoryService::preset(const std::string& domain, std::int32_t dimension) {
  MatrixMemoryConfig c;
  c.dimension = dimension;
  c.rank = 64;
  c.max_rank = 0;  // a store's cost stays the same however much is stored
  c.decay = 0.995f;
  c.use_delta_rule = true;
  static const std::set<std::string> kResearch = {"ai_research",     "bibliometric", "genomics",
                                                  "proteomics",      "pharma",       "clinical",
                                                  "particle_physics"};
  static const std::set<std::string> kStreams = {"seismic", "iot",   "manufacturing", "trading",
                                                 "speech",  "audio", "robotics"};
  static const std::set<std::string> kSlow = {"climate", "geospatial", "financial"};
  if (kResearch.count(domain)) {
    c.rank = 128;
    c.decay = 0.999f;
  } else if (kStreams.count(domain)) {
    c.decay = 0.98f;
  } else if (kSlow.count(domain)) {
    c.decay = 0.998f;
  } else if (domain == "dream") {
    c.rank = 32;
    c.decay = 0.999f;
  }
  c.domain = domain;
  return c;
}

MatrixMemoryService::MatrixMemoryService(fs::path base_dir, Embed embed, base::Logger log,
                                         bool sync_each)
    : base_dir_(std::move(base_dir)),
      embed_(std::move(embed)),
      log_(std::move(log)),
      sync_each_(sync_each) {}

MatrixMemoryService::~MatrixMemoryService() {
  std::lock_guard lock(mu_);
  for (auto& [id, m] : matrices_) {
    if (m->memory && m->memory->is_open()) m->memory->save();
    if (m->meta_log) m->meta_log->close();
  }
  for (auto& [tenant, log] : kv_logs_) log->close();
}

std::string MatrixMemoryService::tomb_key(const std::string& tenant, const std::string& ns,
                                          const std::string& key) {
  return tenant + '\x1f' + ns + '\x1f' + key;
}

bool MatrixMemoryService::initialized() const {
  std::lock_guard lock(mu_);
  return initialized_;
}

bool MatrixMemoryService::initialize(std::string& error) {
  std::error_code ec;
  fs::create_directories(base_dir_, ec);
  if (ec) {
    error = "cannot create " + base_dir_.filename().string() + ": " + ec.message();
    return false;
  }
  base::remove_stale_temporaries(base_dir_, true);
  bool opened = false;
  Json index = base::read_json_file(base_dir_ / "_matrix_index.json", opened);
  std::lock_guard lock(mu_);
  if (opened && index.is_object() && index.contains("matrices") && index["matrices"].is_array()) {
    for (const auto& j : index["matrices"]) {
      if (!j.is_object()) continue;
      auto m = std::make_unique<OpenMatrix>();
      MatrixIndexEntry& e = m->index;
      e.id = j.value("id", "");
      e.tenant_id = j.value("tenant_id", "");
      e.user_id = j.value("user_id", "");
      e.domain = j.value("domain", "general");
      e.name = j.value("name", "");
      e.level = static_cast<MemoryLevel>(base::int_value(j, "level", 1));
      e.file_path = j.value("file_path", "");
      e.tier = base::int_value(j, "tier", 0);
      e.last_accessed = base::int_value(j, "last_accessed", 0);
      e.size_bytes = j.value("size_bytes", std::uint64_t{0});
      if (e.id.empty() || e.file_path.empty()) continue;
      by_scope_[{e.tenant_id, e.user_id, e.domain, static_cast<int>(e.level)}] = e.id;
      matrices_[e.id] = std::move(m);
    }
  } else if (opened) {
    log_.warn(
        "matrix memory: _matrix_index.json does not parse — rebuilding it as matrices "
        "are used");
  }
  initialized_ = true;
  for (fs::directory_iterator it(base_dir_, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code type_ec;
    if (!it->is_directory(type_ec)) continue;
    replay_tenant_(it->path().filename().string());
  }
  return true;
}

void MatrixMemoryService::replay_tenant_(const std::string& tenant) {
  const fs::path path = base_dir_ / tenant / "kv.jsonl";
  std::error_code ec;
  if (!fs::exists(path, ec)) return;
  base::ReplayStats stats;
  std::size_t n = base::replay_journal(
      path, [&](const Json& r) { return r.is_object() && apply_record_locked_(r); }, &stats);
  if (stats.skipped > 0 || stats.torn_bytes > 0) {
    log_.warn("memory journal " + tenant + "/kv.jsonl: skipped " + std::to_string(stats.skipped) +
              " malformed line(s), cut " + std::to_string(stats.torn_bytes) +
              " byte(s) of an unfinished last line");
  }
  log_.info("memory journal replayed — tenant='" + tenant + "' records=" + std::to_string(n));
}

bool MatrixMemoryService::apply_record_locked_(const Json& r) {
  const std::string op = r.value("op", "");
  const std::string tenant = r.value("tenant", "");
  const std::string ns = r.value("ns", "");
  if (tenant.empty()) return false;
  if (op == "put") {
    const std::string key = r.value("key", "");
    kv_[{tenant, ns}][key] = Stored{r.value("value", ""), base::int_value(r, "ts", 0), {}};
    tombstones_.erase(tomb_key(tenant, ns, key));
    return true;
  }
  if (op == "forget") {
    std::vector<std::pair<std::string, std::string>> keys;  // (ns, key)
    if (r.contains("keys") && r["keys"].is_array()) {
      for (const auto& k : r["keys"]) {
        if (k.is_array() && k.size() == 2 && k[0].is_string() && k[1].is_string()) {
          keys.emplace_back(k[0], k[1]);
        }
      }
    } else {
      keys.emplace_back(ns, r.value("key", ""));
    }
    for (const auto& [n, k] : keys) {
      auto scope = kv_.find({tenant, n});
      if (scope != kv_.end()) scope->second.erase(k);
      tombstones_.insert(tomb_key(tenant, n, k));
    }
    return true;
  }
  return false;
}

base::AppendLog& MatrixMemoryService::kv_log_locked_(const std::string& tenant) {
  auto& log = kv_logs_[tenant];
  if (!log) log = std::make_unique<base::AppendLog>(base_dir_ / tenant / "kv.jsonl");
  return *log;
}

fs::path MatrixMemoryService::meta_path_(const OpenMatrix& m) const {
  return base_dir_ / (m.index.file_path + ".meta.json");
}

bool MatrixMemoryService::save_index_locked_(std::string& error) {
  Json list = Json::array();
  for (const auto& [id, m] : matrices_) list.push_back(index_json(m->index));
  return base::write_file_atomically(base_dir_ / "_matrix_index.json",
                                     base::dump_json(Json{{"matrices", list}}, 2) + "\n", error);
}

MatrixMemoryService::OpenMatrix* MatrixMemoryService::matrix_locked_(const std::string& tenant,
                                                                     const std::string& domain,
                                                                     std::int32_t dimension,
                                                                     bool create,
                                                                     std::string& error) {
  const auto scope = std::make_tuple(tenant, std::string(kSharedUser), domain,
                                     static_cast<int>(MemoryLevel::domain));
  auto found = by_scope_.find(scope);
  OpenMatrix* m = nullptr;
  if (found != by_scope_.end()) {
    m = matrices_.at(found->second).get();
  } else {
    if (!create) return nullptr;
    auto fresh = std::make_unique<OpenMatrix>();
    MatrixMemoryConfig c = preset(domain, dimension);
    c.id = "mem-" + base::random_hex(16);
    c.tenant_id = tenant;
    c.user_id = kSharedUser;
    c.name = tenant + "/" + domain;
    c.level = MemoryLevel::domain;
    fresh->memory = std::make_unique<MatrixMemory>();
    if (!fresh->memory->create(c, base_dir_.string())) {
      error = "matrix create failed";
      return nullptr;
    }
    MatrixIndexEntry& e = fresh->index;
    e.id = c.id;
    e.tenant_id = tenant;
    e.user_id = kSharedUser;
    e.domain = domain;
    e.name = c.name;
    e.level = c.level;
    e.file_path = fs::relative(fresh->memory->config().file_path, base_dir_).string();
    e.tier = c.tier;
    fresh->entries_loaded = true;
    fresh->meta_log = std::make_unique<base::AppendLog>(base_dir_ / (e.file_path + ".meta.jsonl"));
    m = fresh.get();
    by_scope_[scope] = e.id;
    matrices_[e.id] = std::move(fresh);
    if (!save_index_locked_(error)) {
      log_.warn("matrix memory: index not written: " + error);
      error.clear();
    }
  }
  if (!m->memory) {
    m->memory = std::make_unique<MatrixMemory>();
    if (!m->memory->load((base_dir_ / m->index.file_path).string())) {
      error = "matrix load failed: " + m->index.file_path;
      m->memory.reset();
      return nullptr;
    }
  }
  if (!m->entries_loaded) load_entries_locked_(*m);
  m->index.last_accessed = base::unix_s();
  return m;
}

bool MatrixMemoryService::load_entries_locked_(OpenMatrix& m) {
  m.entries.clear();
  m.entry_by_key.clear();
  m.value_vectors.clear();
  auto add = [&](MemoryEntry e) {
    auto key = scope_text(e.ns, e.key_text);
    auto it = m.entry_by_key.find(key);
    if (it != m.entry_by_key.end()) {
      m.entries[it->second] = std::move(e);
      m.value_vectors[it->second].clear();
      return;
    }
    m.entry_by_key[key] = m.entries.size();
    m.entries.push_back(std::move(e));
    m.value_vectors.emplace_back();
  };
  bool opened = false;
  Json whole = base::read_json_file(meta_path_(m), opened);
  if (whole.is_object() && whole.contains("entries") && whole["entries"].is_array()) {
    for (const auto& e : whole["entries"]) {
      if (e.is_object()) add(entry_from_json(e));
    }
  }
  const fs::path journal = base_dir_ / (m.index.file_path + ".meta.jsonl");
  m.meta_log_lines = base::replay_journal(journal, [&](const Json& r) {
    const std::string op = r.value("op", "");
    if (op == "add" && r.contains("entry")) {
      add(entry_from_json(r["entry"]));
      return true;
    }
    if (op == "forget") {
      auto it = m.entry_by_key.find(scope_text(r.value("namespace", ""), r.value("key", "")));
      if (it == m.entry_by_key.end()) return true;
      m.entries[it->second].forgotten = true;
      return true;
    }
    return false;
  });
  m.meta_log = std::make_unique<base::AppendLog>(journal);
  m.entries_loaded = true;
  return true;
}

bool MatrixMemoryService::write_entries_locked_(OpenMatrix& m, std::string& error) {
  Json entries = Json::array();
  std::size_t live = 0;
  for (const auto& e : m.entries) {
    entries.push_back(entry_json(e));
    live += !e.forgotten;
  }
  Json whole = {{"matrix_id", m.index.id}, {"entry_count", live}, {"entries", entries}};
  if (!base::write_file_atomically(meta_path_(m), base::dump_json(whole) + "\n", error)) {
    return false;
  }
  // Everything the journal held is in the whole file now.
  m.meta_log->close();
  std::error_code ec;
  fs::resize_file(base_dir_ / (m.index.file_path + ".meta.jsonl"), 0, ec);
  m.meta_log_lines = 0;
  return true;
}

void MatrixMemoryService::track_store_locked_(OpenMatrix& m, const MemoryStoreRequest& r) {
  MemoryEntry e;
  e.entry_id = "ent-" + base::random_hex(16);
  e.key_text = r.key;
  e.value_text = r.value;
  e.ns = r.ns;
  e.domain = r.domain;
  e.importance = r.importance;
  e.created_at = base::unix_s();
  std::string error;
  if (!m.meta_log->append(base::dump_json(Json{{"op", "add"}, {"entry", entry_json(e)}}) + "\n",
                          sync_each_, error)) {
    log_.warn("matrix memory: entry journal append failed: " + error);
  }
  ++m.meta_log_lines;
  auto key = scope_text(e.ns, e.key_text);
  auto it = m.entry_by_key.find(key);
  if (it != m.entry_by_key.end()) {
    m.entries[it->second] = std::move(e);
    m.value_vectors[it->second].clear();
  } else {
    m.entry_by_key[key] = m.entries.size();
    m.entries.push_back(std::move(e));
    m.value_vectors.emplace_back();
  }
}

MemoryStoreOutcome MatrixMemoryService::store(const MemoryStoreRequest& r) {
  MemoryStoreOutcome out;
  out.bytes = r.value.size();
  if (r.key.empty()) {
    out.error = "missing key";
    return out;
  }
  if (r.key.size() > kMaxKeyBytes || r.value.size() > kMaxValueBytes) {
    out.error = "key or value too large (key at most 4096 bytes, value at most 1 MiB)";
    return out;
  }
  if (!base::safe_scope(r.tenant, r.ns, out.error)) return out;
  std::string why;
  const std::string domain = r.domain.empty() ? "general" : r.domain;
  if (!base::safe_name(domain, why, 64)) {
    out.error = "invalid domain: " + why;
    return out;
  }
  // Embeddings first, with no lock held.
  std::vector<float> kvec, vvec;
  std::string embed_error;
  const bool embedded = embed_ && embed_(r.key, kvec, embed_error) &&
                        embed_(r.value.empty() ? r.key : r.value, vvec, embed_error) &&
                        kvec.size() == vvec.size();

  std::lock_guard lock(mu_);
  if (!initialized_) {
    out.error = "not_initialized";
    return out;
  }
  if (r.replica && tombstones_.count(tomb_key(r.tenant, r.ns, r.key))) {
    // A late copy of a write that was forgotten since: it never comes back.
    out.ok = true;
    out.ignored = true;
    out.matrix = "skip";
    return out;
  }
  const std::int64_t now = base::unix_ms();
  const Json record = {{"op", "put"},  {"tenant", r.tenant}, {"ns", r.ns},
                       {"key", r.key}, {"value", r.value},   {"ts", now}};
  std::string error;
  if (!kv_log_locked_(r.tenant).append(base::dump_json(record) + "\n", sync_each_, error)) {
    out.error = "persist_failed: " + error;
    return out;
  }
  apply_record_locked_(record);
  ++stores_;
  out.ok = true;
  if (!embedded) {
    out.matrix = "skip";
    log_.info("matrix_memory: store skipped (embedding unavailable?)");
    return out;
  }
  MemoryStoreRequest scoped = r;
  scoped.domain = domain;
  OpenMatrix* m =
      matrix_locked_(r.tenant, domain, static_cast<std::int32_t>(kvec.size()), true, error);
  if (!m) {
    out.matrix = "no";
    log_.warn("matrix_memory: " + error);
    return out;
  }
  track_store_locked_(*m, scoped);
  out.matrix = m->memory->store(kvec, vvec, 1.0f) ? "yes" : "no";
  m->value_vectors[m->entry_by_key[scope_text(r.ns, r.key)]] = std::move(vvec);
  return out;
}

MemoryRecallOutcome MatrixMemoryService::recall(const std::string& tenant, const std::string& ns,
                                                const std::string& query, const std::string& domain,
                                                std::size_t limit) {
  MemoryRecallOutcome out;
  const auto started = std::chrono::steady_clock::now();
  std::string error;
  if (query.empty() || !base::safe_scope(tenant, ns, error)) return out;
  const bool all_namespaces = ns == "_shared";
  std::vector<float> qvec;
  const bool embedded = embed_ && embed_(query, qvec, error);
  const std::vector<std::string> qwords = words(query);

  std::lock_guard lock(mu_);
  ++recalls_;
  std::map<std::pair<std::string, std::string>, MemoryHit> best;  // (ns, key) → hit
  auto offer = [&](MemoryHit h) {
    if (tombstones_.count(tomb_key(tenant, h.ns, h.key))) return;
    auto& slot = best[{h.ns, h.key}];
    if (h.score > slot.score) slot = std::move(h);
  };
  for (auto& [scope, entries] : kv_) {
    if (scope.first != tenant || (!all_namespaces && scope.second != ns)) continue;
    for (auto& [key, stored] : entries) {
      if (key == query) {
        offer({key, stored.value, scope.second, 1.0, "key"});
        continue;
      }
      if (stored.words.empty()) stored.words = words(key + " " + stored.value);
      const double s = overlap(qwords, stored.words);
      if (s > 0) offer({key, stored.value, scope.second, 0.9 * s, "text"});
    }
  }
  if (embedded) {
    OpenMatrix* m = matrix_locked_(tenant, domain.empty() ? "general" : domain,
                                   static_cast<std::int32_t>(qvec.size()), false, error);
    if (m && m->memory) {
      RecallResult rr = m->memory->recall(qvec);
      out.enabled = true;
      out.confidence = rr.confidence;
      const double rsq = dot(rr.value.data(), rr.value.data(), rr.value.size());
      for (std::size_t i = 0; rsq > 0 && i < m->entries.size(); ++i) {
        MemoryEntry& e = m->entries[i];
        if (e.forgotten || (!all_namespaces && e.ns != ns)) continue;
        std::vector<float>& v = m->value_vectors[i];
        if (v.empty() && !embed_(e.value_text.empty() ? e.key_text : e.value_text, v, error)) {
          continue;
        }
        if (v.size() != rr.value.size()) continue;
        const double score = cosine(dot(rr.value.data(), v.data(), v.size()), rsq,
                                    dot(v.data(), v.data(), v.size()));
        if (score < 0.5) continue;
        ++e.access_count;
        e.last_recalled_at = base::unix_s();
        offer({e.key_text, e.value_text, e.ns, score * rr.confidence, "matrix"});
      }
    }
  }
  std::vector<MemoryHit> hits;
  for (auto& [k, h] : best) hits.push_back(std::move(h));
  std::stable_sort(hits.begin(), hits.end(),
                   [](const MemoryHit& a, const MemoryHit& b) { return a.score > b.score; });
  if (hits.size() > limit) hits.resize(limit);
  out.hits = std::move(hits);
  out.recall_time_us = std::chrono::duration_cast<std::chrono::microseconds>(
                           std::chrono::steady_clock::now() - started)
                           .count();
  return out;
}

MemoryForgetOutcome MatrixMemoryService::forget(const MemoryForgetRequest& r) {
  MemoryForgetOutcome out;
  const bool bulk = r.mode == "bulk";
  if (!bulk && r.mode != "soft" && r.mode != "hard") {
    out.error = "mode must be soft, hard or bulk";
    return out;
  }
  if (bulk) {
    if (r.tenant.empty()) {
      out.error = "missing tenant_id (no cross-tenant bulk forget)";
      return out;
    }
    if (r.ns_prefix.empty() && r.older_than_seconds < 0) {
      out.error = "must specify namespace_prefix or older_than_seconds";
      return out;
    }
  } else if (r.key.empty()) {
    out.error = "missing key";
    return out;
  }
  std::string error;
  std::string why;
  if (!base::safe_name(r.tenant, why, 64) || (!bulk && !base::safe_name(r.ns, why))) {
    out.error = "invalid tenant or namespace: " + why;
    return out;
  }

  // What the key's association was made of, to weaken it in the matrices.
  std::vector<float> kvec, vvec;
  if (!bulk) {
    std::string value;
    {
      std::lock_guard lock(mu_);
      auto scope = kv_.find({r.tenant, r.ns});
      if (scope != kv_.end()) {
        auto it = scope->second.find(r.key);
        if (it != scope->second.end()) value = it->second.value;
      }
    }
    if (embed_ &&
        (!embed_(r.key, kvec, error) || !embed_(value.empty() ? r.key : value, vvec, error))) {
      kvec.clear();
    }
  }

  std::lock_guard lock(mu_);
  std::vector<std::pair<std::string, std::string>> keys;  // (ns, key)
  if (bulk) {
    const std::int64_t cutoff =
        r.older_than_seconds >= 0 ? base::unix_ms() - r.older_than_seconds * 1000 : INT64_MAX;
    for (const auto& [scope, entries] : kv_) {
      if (scope.first != r.tenant || scope.second.rfind(r.ns_prefix, 0) != 0) continue;
      for (const auto& [key, stored] : entries) {
        if (r.older_than_seconds >= 0 && stored.stored_at >= cutoff) continue;
        keys.emplace_back(scope.second, key);
      }
    }
  } else {
    keys.emplace_back(r.ns, r.key);
  }
  Json listed = Json::array();
  for (const auto& [n, k] : keys) listed.push_back({n, k});
  const Json record = {{"op", "forget"},       {"tenant", r.tenant}, {"ns", r.ns},
                       {"key", r.key},         {"mode", r.mode},     {"keys", listed},
                       {"ts", base::unix_ms()}};
  if (!keys.empty() || !bulk) {
    if (!kv_log_locked_(r.tenant).append(base::dump_json(record) + "\n", sync_each_, error)) {
      out.error = "persist_failed: " + error;
      return out;
    }
  }
  for (const auto& [n, k] : keys) {
    auto scope = kv_.find({r.tenant, n});
    if (scope != kv_.end()) out.kv_removed += scope->second.count(k);
  }
  apply_record_locked_(record);
  ++forgets_;
  // The matrices: entries are marked forgotten (and so never recalled), and
  // a single key's association is weakened (soft) or taken out (hard).
  std::set<std::string> touched;
  for (auto& [id, m] : matrices_) {
    if (m->index.tenant_id != r.tenant) continue;
    if (!m->entries_loaded) {
      std::string ignored;
      if (!matrix_locked_(m->index.tenant_id, m->index.domain, 0, false, ignored)) continue;
    }
    for (const auto& [n, k] : keys) {
      auto it = m->entry_by_key.find(scope_text(n, k));
      if (it == m->entry_by_key.end() || m->entries[it->second].forgotten) continue;
      m->entries[it->second].forgotten = true;
      std::string append_error;
      m->meta_log->append(
          base::dump_json(Json{{"op", "forget"}, {"namespace", n}, {"key", k}}) + "\n", sync_each_,
          append_error);
      ++m->meta_log_lines;
      ++out.removed;
      touched.insert(id);
      if (!bulk && !kvec.empty() && m->memory) {
        const float strength = r.mode == "hard" ? -1.0f : -std::clamp(r.damp_factor, 0.0f, 1.0f);
        m->memory->store(kvec, vvec, strength);
      }
    }
  }
  out.matrices_touched = touched.size();
  out.forgotten = keys.size();
  for (const auto& [n, k] : keys) out.forgotten_keys.push_back(k);
  out.ok = true;
  return out;
}

bool MatrixMemoryService::is_tombstoned(const std::string& tenant, const std::string& ns,
                                        const std::string& key) {
  std::lock_guard lock(mu_);
  return tombstones_.count(tomb_key(tenant, ns, key)) != 0;
}

Json MatrixMemoryService::checkpoint() {
  std::lock_guard lock(mu_);
  Json done = Json::array();
  for (auto& [id, m] : matrices_) {
    if (!m->memory || !m->memory->is_open()) continue;
    bool ok = m->memory->checkpoint() && m->memory->save();
    std::string error;
    if (m->entries_loaded && !write_entries_locked_(*m, error)) {
      log_.warn("matrix memory: entries of " + id + " not written: " + error);
      ok = false;
    }
    done.push_back({{"id", id}, {"ok", ok}});
  }
  // Key-value journals shrink to their live records and tombstones.
  std::map<std::string, std::string> content;
  for (const auto& [scope, entries] : kv_) {
    for (const auto& [key, stored] : entries) {
      content[scope.first] += base::dump_json(Json{{"op", "put"},
                                                   {"tenant", scope.first},
                                                   {"ns", scope.second},
                                                   {"key", key},
                                                   {"value", stored.value},
                                                   {"ts", stored.stored_at}}) +
                              "\n";
    }
  }
  for (const auto& t : tombstones_) {
    const std::size_t a = t.find('\x1f'), b = t.find('\x1f', a + 1);
    const std::string tenant = t.substr(0, a);
    content[tenant] += base::dump_json(Json{{"op", "forget"},
                                            {"tenant", tenant},
                                            {"ns", t.substr(a + 1, b - a - 1)},
                                            {"key", t.substr(b + 1)},
                                            {"mode", "hard"}}) +
                       "\n";
  }
  for (auto& [tenant, log] : kv_logs_) content.try_emplace(tenant);
  for (const auto& [tenant, text] : content) {
    std::string error;
    kv_log_locked_(tenant).close();
    if (!base::write_file_atomically(base_dir_ / tenant / "kv.jsonl", text, error)) {
      log_.warn("memory journal of " + tenant + " not compacted: " + error);
    }
  }
  return {{"checkpointed", done}, {"count", done.size()}};
}

std::vector<MatrixIndexEntry> MatrixMemoryService::list_matrices(const std::string& tenant,
                                                                 const std::string& user) const {
  std::lock_guard lock(mu_);
  std::vector<MatrixIndexEntry> out;
  for (const auto& [id, m] : matrices_) {
    if (!tenant.empty() && m->index.tenant_id != tenant) continue;
    if (!user.empty() && m->index.user_id != user) continue;
    MatrixIndexEntry e = m->index;
    if (m->memory) e.size_bytes = m->memory->getStats().size_bytes;
    out.push_back(std::move(e));
  }
  return out;
}

Json MatrixMemoryService::status() const {
  std::lock_guard lock(mu_);
  std::size_t keys = 0, open = 0;
  for (const auto& [scope, entries] : kv_) keys += entries.size();
  for (const auto& [id, m] : matrices_) open += m->memory != nullptr;
  return {{"initialized", initialized_},
          {"matrices", matrices_.size()},
          {"open_matrices", open},
          {"keys", keys},
          {"tombstones", tombstones_.size()}};
}

Json MatrixMemoryService::metrics() const {
  Json s = status();
  std::lock_guard lock(mu_);
  s["stores"] = stores_;
  s["recalls"] = recalls_;
  s["forgets"] = forgets_;
  Json per = Json::array();
  for (const auto& [id, m] : matrices_) {
    if (!m->memory) continue;
    per.push_back(Json::parse(m->memory->getStats().toJson().dump()));
  }
  s["matrix_stats"] = per;
  return s;
}

Json MatrixMemoryService::verify() {
  std::lock_guard lock(mu_);
  Json out = Json::array();
  bool all_ok = true;
  for (auto& [id, m] : matrices_) {
    std::error_code ec;
    const fs::path file = base_dir_ / m->index.file_path;
    Json v = {{"id", id}, {"file_path", m->index.file_path}, {"file_exists", fs::exists(file, ec)}};
    bool ok = v["file_exists"];
    if (ok && !m->memory) {
      MatrixMemory probe;
      ok = probe.load(file.string());
    }
    if (m->memory) v["write_count"] = m->memory->getStats().write_count;
    v["ok"] = ok;
    all_ok = all_ok && ok;
    out.push_back(v);
  }
  return {{"ok", all_ok}, {"matrices", out}};
}

void MatrixMemoryService::sync_dirty() {
  std::vector<base::AppendLog*> logs;
  {
    std::lock_guard lock(mu_);
    for (auto& [tenant, log] : kv_logs_) logs.push_back(log.get());
    for (auto& [id, m] : matrices_) {
      if (m->meta_log) logs.push_back(m->meta_log.get());
    }
  }
  // AppendLogs are never destroyed while the service lives.
  for (base::AppendLog* log : logs) {
    std::string error;
    if (log->dirty() && !log->sync(error)) log_.warn("memory journal sync failed: " + error);
  }
}

}  // namespace ostrel::data
