// The "data" module: vector namespaces (ingest, embed, search across this
// node's journals, its SQLite namespace databases and its data peers), the
// matrix memory service, and this node's piece of the object store.
#include <sys/stat.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "base/access.h"
#include "base/clock.h"
#include "base/durable_file.h"
#include "base/encoding.h"
#include "base/http_client.h"
#include "base/json.h"
#include "base/logger.h"
#include "base/names.h"
#include "base/paths.h"
#include "base/reply.h"
#include "base/text.h"
#include "base/workers.h"
#include "clusterfs/chunk_store.h"
#include "clusterfs/metadata_store.h"
#include "clusterfs/ost.h"
#include "data/chunking.h"
#include "data/embedding_chain.h"
#include "data/ingest_request.h"
#include "data/memory_service.h"
#include "data/peers.h"
#include "data/sqlite_vector_backend.h"
#include "data/vector_store.h"
#include "identity/rbac.h"
#include "kernel/http/api_gateway.h"
#include "kernel/legacy_bus.h"
#include "kernel/module.h"
#include "kernel/syscall_table.h"

namespace ostrel::data {
namespace {

using Json = nlohmann::json;
using base::reply;
using kernel::Request;
using kernel::Response;
namespace fs = std::filesystem;

constexpr identity::SourceCode kDataSource{0x04, 0x02};
constexpr auto kPeerTimeout = std::chrono::milliseconds(3000);
constexpr std::size_t kMaxTopK = 1000;

// "%08x-%04x-%04x-%04x-%012llx" from one generator seeded once.
std::string new_uuid() {
  static std::mutex mu;  // guards rng
  static std::mt19937_64 rng(std::random_device{}());
  std::uint64_t a, b;
  {
    std::lock_guard lock(mu);
    a = rng();
    b = rng();
  }
  // "%08x-%04x-%04x-%04x-%012llx" of a's halves and quarters and b's top
  // quarter and rest: a's 16 hex digits, then b's, dashes between the groups.
  std::string out;
  out.reserve(36);
  base::append_hex(out, a >> 32, 8);
  out += '-';
  base::append_hex(out, a >> 16, 4);
  out += '-';
  base::append_hex(out, a, 4);
  out += '-';
  base::append_hex(out, b >> 48, 4);
  out += '-';
  base::append_hex(out, b, 12);
  return out;
}

std::string topk_bucket(std::size_t k) { return k <= 5 ? "1-5" : k <= 20 ? "6-20" : "21+"; }

// A string member, or `fallback` when absent; false (with `error`) when the
// member is there but is not a string.
bool member(const Json& body, std::initializer_list<const char*> keys, std::string& out,
            const std::string& fallback, std::string& error) {
  for (const char* k : keys) {
    auto it = body.find(k);
    if (it == body.end() || it->is_null()) continue;
    if (!it->is_string()) {
      error = std::string(k) + " must be a string";
      return false;
    }
    out = it->get<std::string>();
    return true;
  }
  out = fallback;
  return true;
}

// A whole number member within [lo, hi], or `fallback` when absent.
bool number(const Json& body, const char* key, std::int64_t fallback, std::int64_t lo,
            std::int64_t hi, std::int64_t& out, std::string& error) {
  auto it = body.find(key);
  if (it == body.end() || it->is_null()) {
    out = fallback;
    return true;
  }
  if (!it->is_number_integer()) {
    error = std::string(key) + " must be a whole number";
    return false;
  }
  out = it->get<std::int64_t>();
  if (out < lo || out > hi) {
    error =
        std::string(key) + " must be between " + std::to_string(lo) + " and " + std::to_string(hi);
    return false;
  }
  return true;
}

// The settings of the vector routes ("vector.json").
struct VectorSettings {
  std::string embedding_url;
  std::string embedding_model;
  std::string backend = "sqlite";
  std::int64_t chunking_size = 1200;
  std::int64_t chunking_overlap = 150;
  double default_similarity_threshold = 0.3;

  Json to_json() const {
    return {{"embedding_url", embedding_url},
            {"embedding_model", embedding_model},
            {"backend", backend},
            {"chunking_size", chunking_size},
            {"chunking_overlap", chunking_overlap},
            {"default_similarity_threshold", default_similarity_threshold}};
  }
};

// A parsed search request.
struct SearchQuery {
  std::string tenant = "default";
  std::string ns = "default";
  std::string query;
  std::string keyword_query;
  std::string model;
  std::int64_t top_k = 5;
  double min_score = 0.3;
  bool fanout = true;
};

class DataModule : public kernel::Module, public IModule {
 public:
  ~DataModule() override { stop(); }
  identity::SourceCode source_code() const override { return kDataSource; }
  identity::SourceCode getSourceCode() const override { return kDataSource; }
  bool isReady() const override { return ready_.load(); }

  bool initialize(const kernel::ModuleContext& ctx) override;
  bool start() override;
  void stop() override;
  kernel::HealthStatus health() override;
  void register_routes(kernel::ApiGateway& gw) override;
  void register_syscalls(kernel::SyscallTable& table) override;

 private:
  // Vectors.
  VectorSettings settings_() const;
  bool write_settings_(const Json& changes, std::string& error);
  bool parse_search_(const Json& body, SearchQuery& q, Json& error_body) const;
  // The whole search of a request body; `status` is the HTTP status.
  Json search_(const Json& body, bool allow_fanout, int& status);
  // The answer as JSON text: a document's answer is written by hand, it
  // carries nothing but ids and names.
  std::string ingest_(const IngestRequest& request, int& status);
  bool embed_(const std::string& model, std::string_view text, std::vector<float>& out,
              std::string& error);
  void register_vector_routes_(kernel::ApiGateway& gw);
  void register_memory_routes_(kernel::ApiGateway& gw);
  void register_storage_routes_(kernel::ApiGateway& gw);

  // Bridge mode: true when the worker answered (the response is filled).
  bool proxy_(const Request& req, Response& res, bool has_local);

  // Memory.
  Json memory_store_(const Json& args, int& status);
  Json memory_recall_(const Json& args, int& status);
  Json memory_forget_(const Json& args, int& status);
  void replicate_(const Json& args, const std::string& mode, Json& out);
  void replication_loop_();
  void sync_loop_();

  // The tenant a request acts for: the body's (or "default"), refused when a
  // tenant-bound caller names another one.
  bool tenant_of_(const Request& req, const Json& body, std::string& tenant, Response& res) const;

  kernel::ModuleContext ctx_;
  std::unique_ptr<base::Logger> log_;
  std::atomic<bool> ready_{false};
  std::string proxy_url_;
  std::size_t max_chunks_per_request_ = 20000;
  std::string default_model_;
  std::string default_url_;
  std::string memory_model_;
  std::string replication_mode_ = "none";
  fs::path settings_path_;
  // The settings as last read from vector.json, with the file's identity then.
  struct SettingsStamp {
    bool exists = false;
    ino_t inode = 0;
    off_t size = 0;
    time_t sec = 0;
    long nsec = 0;
    bool operator==(const SettingsStamp&) const = default;
  };
  // Serialises read-modify-write of vector.json and guards the cache.
  mutable std::mutex settings_mu_;
  mutable std::optional<VectorSettings> settings_cache_;
  mutable SettingsStamp settings_stamp_;
  std::unique_ptr<PeerDirectory> peers_;
  std::unique_ptr<EmbeddingChain> chain_;
  std::unique_ptr<VectorStore> vectors_;
  std::unique_ptr<modules_data::SqliteVectorBackend> sqlite_;
  fs::path vectors_root_;
  std::unique_ptr<MatrixMemoryService> memory_;
  PeerIdentity me_;

  // The object store (off when store_ is null).
  std::shared_ptr<clusterfs::ChunkStore> chunks_;
  std::unique_ptr<clusterfs::LocalOst> ost_;
  std::unique_ptr<clusterfs::MetadataStore> objects_;

  // Journal syncs, asynchronous replication and the embedding model's check
  // at start; joined by stop(). Its lock also guards async_jobs_.
  std::deque<Json> async_jobs_;  // stores to forward to peers
  base::Workers background_;
};

// ---------------------------------------------------------------------------
// Lifecycle

bool DataModule::initialize(const kernel::ModuleContext& ctx) {
  ctx_ = ctx;
  log_ = std::make_unique<base::Logger>(ctx.logger->with_tag("data"));
  const kernel::ConfigView& cfg = *ctx.config;
  const fs::path data_dir = cfg.get("data_dir", ctx.data_dir);

  proxy_url_ = cfg.get("proxy_url", "");
  max_chunks_per_request_ = static_cast<std::size_t>(
      std::max<std::int64_t>(1, cfg.get_int("max_chunks_per_request", 20000)));
  proxy_url_ = normalise_peer_url(proxy_url_);
  if (!proxy_url_.empty()) log_->info("data: bridge mode → " + proxy_url_);

  default_url_ = cfg.get("embedding_url", "http://127.0.0.1:11434");
  default_model_ = cfg.get("embedding_model", "nomic-embed-text:v1.5");
  memory_model_ = cfg.get("memory_embedding_model", "");
  replication_mode_ = cfg.get("replication_mode", "none");
  if (replication_mode_ != "none" && replication_mode_ != "async" && replication_mode_ != "sync" &&
      replication_mode_ != "quorum") {
    log_->warn("replication_mode '" + replication_mode_ + "' is not none|async|sync|quorum — none");
    replication_mode_ = "none";
  }
  settings_path_ = fs::path(base::base_config_dir()) / "data" / "vector.json";
  const bool sync_each = cfg.get("journal_sync", "interval") == "always";

  me_ = {ctx.node_id, ctx.node_token};
  peers_ = std::make_unique<PeerDirectory>(ctx.syscalls, kDataSource, cfg.get("peers", ""));
  chain_ = std::make_unique<EmbeddingChain>(
      ctx.syscalls, kDataSource, peers_.get(), me_, *log_, [this]() -> std::string {
        OstrelBus* bus = legacyBus();
        return bus ? bus->ask({kDataSource, "cloud.peer_url", "{}"}) : std::string();
      });
  vectors_ = std::make_unique<VectorStore>(data_dir / "vectors", *log_, sync_each);
  base::remove_stale_temporaries(data_dir / "vectors");

  std::string root_setting = cfg.get("vectors_root", "");
  const fs::path vectors_root =
      root_setting.empty() ? data_dir / "vectordb" : fs::path(root_setting);
  vectors_root_ = vectors_root;
  sqlite_ = std::make_unique<modules_data::SqliteVectorBackend>();
  if (!sqlite_->initialize(vectors_root.string(), *log_)) {
    log_->warn("sqlite vector backend init failed — vector search will fall back to JSONL only");
  }

  memory_ = std::make_unique<MatrixMemoryService>(
      data_dir / "memory",
      [this](std::string_view text, std::vector<float>& out, std::string& error) {
        return embed_(memory_model_.empty() ? settings_().embedding_model : memory_model_, text,
                      out, error);
      },
      *log_, sync_each);
  std::string error;
  if (!memory_->initialize(error)) log_->error("matrix memory unavailable: " + error);

  // This node's piece of the object store.
  if (cfg.get("clusterfs.enabled", "true") == "false") {
    log_->info("clusterfs: disabled by config");
  } else {
    const fs::path root = data_dir / "clusterfs";
    std::vector<std::string> tags;
    std::stringstream ss(cfg.get("clusterfs.tags", ""));
    for (std::string t; std::getline(ss, t, ',');) {
      if (!t.empty()) tags.push_back(t);
    }
    auto chunks = std::make_shared<clusterfs::ChunkStore>(root / "chunks");
    auto objects = std::make_unique<clusterfs::MetadataStore>();
    std::error_code ec;
    fs::create_directories(root / "chunks", ec);
    if (ec || !objects->open(root / "mds.db", error)) {
      log_->warn("clusterfs: register_local_ost failed: " + (ec ? ec.message() : error) +
                 " — disabling");
    } else {
      chunks_ = chunks;
      ost_ = std::make_unique<clusterfs::LocalOst>(ctx.node_id, tags, chunks);
      objects_ = std::move(objects);
      log_->info("clusterfs: ready (ost_id=" + ost_->id() + ", root=" + (root / "chunks").string() +
                 ")");
    }
  }

  const VectorSettings s = settings_();
  log_->info("initialize — data_dir=" + data_dir.string() + ", root=" + vectors_root.string() +
             ", proxy=" + (proxy_url_.empty() ? "none" : proxy_url_) +
             ", embedding=" + s.embedding_model +
             ", matrix_memory=" + (memory_->initialized() ? "ready" : "unavailable"));
  return true;
}

bool DataModule::start() {
  background_.spawn([this] { sync_loop_(); });
  background_.spawn([this] { replication_loop_(); });
  // Once the node is up (its model servers probed), the configured
  // embedding model is tried: an operator learns at boot, not from a 502 on
  // the first ingest, that nothing serves it.
  background_.spawn([this] {
    if (background_.wait_for(std::chrono::seconds(2))) return;
    const std::string model = settings_().embedding_model;
    std::vector<float> v;
    std::string error;
    if (!embed_(model, "ostrel embedding probe", v, error)) {
      log_->warn("data.embedding_model '" + model + "' embeds nothing here (" + error +
                 "): ingest and search answer 502 until a backend serves it — register one "
                 "(POST /api/v1/inference/local-backends) or set data.embedding_model=" +
                 "ulvo-hash-embed-v1");
    } else {
      log_->info("embedding model '" + model + "' answers (" + std::to_string(v.size()) +
                 " dimensions)");
    }
  });
  ready_ = true;
  return true;
}

void DataModule::stop() {
  ready_ = false;
  background_.stop();
  if (vectors_) vectors_->sync_dirty();
  if (memory_) memory_->sync_dirty();
}

void DataModule::sync_loop_() {
  // Journals are written whole-line per acknowledged change; once a second
  // they are flushed to the disk as well.
  while (!background_.wait_for(std::chrono::seconds(1))) {
    vectors_->sync_dirty();
    memory_->sync_dirty();
  }
}

kernel::HealthStatus DataModule::health() {
  const bool mem = memory_ && memory_->initialized();
  return {mem ? kernel::HealthState::healthy : kernel::HealthState::degraded,
          std::string("data ok — matrix memory ") + (mem ? "ready" : "unavailable") +
              ", clusterfs " + (objects_ ? "ready" : "off") +
              (proxy_url_.empty() ? "" : ", bridge → " + proxy_url_)};
}

// ---------------------------------------------------------------------------
// Vectors

VectorSettings DataModule::settings_() const {
  // The file is read again only when it changed (another inode after an
  // atomic rewrite, another size or time after an edit in place); a request
  // then costs one stat() instead of reading and parsing it.
  struct stat st {};
  const bool exists = ::stat(settings_path_.c_str(), &st) == 0;
  const SettingsStamp stamp{exists, st.st_ino, st.st_size, st.st_mtim.tv_sec, st.st_mtim.tv_nsec};
  std::lock_guard lock(settings_mu_);
  if (settings_cache_ && stamp == settings_stamp_) return *settings_cache_;
  VectorSettings s;
  s.embedding_url = default_url_;
  s.embedding_model = default_model_;
  bool opened = false;
  const Json j = base::read_json_file(settings_path_, opened);
  if (j.is_object()) {
    if (auto v = j.find("embedding_url"); v != j.end() && v->is_string()) s.embedding_url = *v;
    if (auto v = j.find("embedding_model"); v != j.end() && v->is_string()) {
      s.embedding_model = *v;
    }
    if (auto v = j.find("backend"); v != j.end() && v->is_string()) s.backend = *v;
    if (auto v = j.find("chunking_size"); v != j.end() && v->is_number_integer()) {
      s.chunking_size = *v;
    }
    if (auto v = j.find("chunking_overlap"); v != j.end() && v->is_number_integer()) {
      s.chunking_overlap = *v;
    }
    if (auto v = j.find("default_similarity_threshold"); v != j.end() && v->is_number()) {
      s.default_similarity_threshold = *v;
    }
  }
  settings_cache_ = s;
  settings_stamp_ = stamp;
  return s;
}

bool DataModule::write_settings_(const Json& changes, std::string& error) {
  std::lock_guard lock(settings_mu_);
  bool opened = false;
  Json current = base::read_json_file(settings_path_, opened);
  if (!current.is_object()) current = Json::object();
  for (auto it = changes.begin(); it != changes.end(); ++it) current[it.key()] = it.value();
  settings_cache_.reset();
  return base::write_file_atomically(settings_path_, base::dump_json(current, 2) + "\n", error);
}

bool DataModule::embed_(const std::string& model, std::string_view text, std::vector<float>& out,
                        std::string& error) {
  return chain_->embed(model, text, out, error);
}

bool DataModule::parse_search_(const Json& body, SearchQuery& q, Json& error_body) const {
  std::string error;
  const VectorSettings s = settings_();
  q.min_score = s.default_similarity_threshold;
  if (!member(body, {"tenant", "tenant_id"}, q.tenant, "default", error) ||
      !member(body, {"namespace", "namespace_id"}, q.ns, "default", error) ||
      !member(body, {"query"}, q.query, "", error) ||
      !member(body, {"keyword_query"}, q.keyword_query, "", error) ||
      !member(body, {"embedding_model"}, q.model, s.embedding_model, error) ||
      !number(body, "top_k", 5, 1, static_cast<std::int64_t>(kMaxTopK), q.top_k, error)) {
    error_body = base::error_body("invalid_request", {{"detail", error}});
    return false;
  }
  if (auto m = body.find("min_score"); m != body.end() && !m->is_null()) {
    // A number, or a number written as text (the unified search's filters
    // are text).
    double v = 0;
    const bool ok =
        m->is_number() ? (v = m->get<double>(), true)
        : m->is_string()
            ? [&] {
                const std::string& t = m->get_ref<const std::string&>();
                auto [at, ec] = std::from_chars(t.data(), t.data() + t.size(), v);
                return ec == std::errc() && at == t.data() + t.size();
              }()
            : false;
    if (!ok || !std::isfinite(v)) {
      error_body = base::error_body("invalid_request", {{"detail", "min_score must be a number"}});
      return false;
    }
    q.min_score = v;
  }
  if (auto f = body.find("_no_fanout"); f != body.end() && f->is_boolean() && f->get<bool>()) {
    q.fanout = false;
  }
  if (q.query.empty()) {
    error_body = base::error_body("missing_query");
    return false;
  }
  std::string why;
  // "*": every namespace of the tenant.
  if (!base::safe_name(q.tenant, why, 64) || (q.ns != "*" && !base::safe_name(q.ns, why))) {
    error_body = base::error_body("invalid_request", {{"detail", "tenant or namespace " + why}});
    return false;
  }
  return true;
}

Json DataModule::search_(const Json& body, bool allow_fanout, int& status) {
  const auto started = std::chrono::steady_clock::now();
  status = 200;
  SearchQuery q;
  Json error_body;
  if (!parse_search_(body, q, error_body)) {
    status = 400;
    return error_body;
  }
  std::vector<float> qvec;
  std::string error;
  if (!embed_(q.model, q.query, qvec, error)) {
    status = 502;
    return base::error_body("embedding_failed", {{"detail", error}});
  }
  const std::size_t k = static_cast<std::size_t>(q.top_k);
  const std::size_t pool = std::max<std::size_t>(4 * k, 50);

  // Local journal and SQLite namespace, best first, duplicates dropped.
  std::vector<Json> hits;
  std::set<std::string> ids;
  std::vector<std::string> namespaces;
  if (q.ns == "*") {
    std::set<std::string> names;
    for (const auto& info : vectors_->list(q.tenant)) names.insert(info.name);
    std::error_code list_ec;
    const std::string prefix = q.tenant + "_";
    for (fs::directory_iterator it(vectors_root_, list_ec), end; !list_ec && it != end;
         it.increment(list_ec)) {
      const std::string file = it->path().filename().string();
      if (file.size() > prefix.size() + 3 && file.rfind(prefix, 0) == 0 &&
          file.compare(file.size() - 3, 3, ".db") == 0) {
        names.insert(file.substr(prefix.size(), file.size() - prefix.size() - 3));
      }
    }
    namespaces.assign(names.begin(), names.end());
  } else {
    namespaces.push_back(q.ns);
  }
  for (const std::string& ns : namespaces) {
    for (VectorHit& h : vectors_->search(q.tenant, ns, qvec, q.min_score, pool)) {
      if (!ids.insert(h.id).second) continue;
      const Json chunk_index = h.metadata.value("chunk_index", Json(0));
      const Json total_chunks = h.metadata.value("chunk_count", Json(1));
      hits.push_back({{"id", h.id},
                      {"score", h.score},
                      {"text", std::move(h.text)},
                      {"source", std::move(h.source)},
                      {"metadata", std::move(h.metadata)},
                      {"chunk_index", chunk_index},
                      {"total_chunks", total_chunks},
                      {"namespace", ns},
                      {"peer", ""}});
    }
    // The SQLite namespace, when its database exists (a miss is not worth a warning per search).
    std::error_code ec;
    std::vector<modules_data::SearchHit> sqlite_hits;
    if (fs::exists(vectors_root_ / (q.tenant + "_" + ns + ".db"), ec)) {
      sqlite_hits = sqlite_->search(q.tenant, ns, qvec, static_cast<std::int32_t>(pool),
                                    q.min_score, q.keyword_query);
    }
    for (auto& h : sqlite_hits) {
      if (!ids.insert(h.id).second) continue;
      hits.push_back({{"id", h.id},
                      {"score", h.score},
                      {"text", h.content},
                      {"content", h.content},
                      {"source", h.source},
                      {"metadata", h.metadata},
                      {"chunk_index", h.chunk_index},
                      {"total_chunks", h.total_chunks},
                      {"backend", "sqlite"},
                      {"namespace", ns},
                      {"peer", ""}});
    }
  }
  auto by_score = [](const Json& a, const Json& b) {
    return a["score"].get<double>() > b["score"].get<double>();
  };
  std::stable_sort(hits.begin(), hits.end(), by_score);
  const std::size_t local_pool = hits.size();
  if (hits.size() > k) hits.resize(k);

  // Peers, one thread each, each writing its own slot.
  Json peers_out = Json::array();
  if (allow_fanout && q.fanout) {
    const std::vector<std::string> peers = peers_->data_peers();
    struct Slot {
      PeerReply reply;
    };
    std::vector<Slot> slots(peers.size());
    Json forwarded = body;
    forwarded["_no_fanout"] = true;
    forwarded["top_k"] = static_cast<std::int64_t>(std::min(pool, kMaxTopK));
    const std::string text = base::dump_json(forwarded);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < peers.size(); ++i) {
      threads.emplace_back([&, i] {
        slots[i].reply = peer_post(peers[i], "/api/v1/vector/search", text, me_, kPeerTimeout);
      });
    }
    for (auto& t : threads) t.join();
    for (std::size_t i = 0; i < peers.size(); ++i) {
      const PeerReply& r = slots[i].reply;
      Json entry = {{"peer", peers[i]}, {"pool_size", 0}, {"hits", 0}};
      if (!r.transport_ok) {
        entry["error"] = "exception: " + r.error;
      } else if (r.status != 200) {
        entry["error"] = "http " + std::to_string(r.status);
      } else {
        Json answer = base::parse_json(r.body);
        if (!answer.is_object() || !answer.contains("hits") || !answer["hits"].is_array()) {
          entry["error"] = "exception: answer is not a search result";
        } else {
          entry["pool_size"] = base::int_value(answer, "pool_size", 0);
          std::size_t added = 0;
          for (auto& h : answer["hits"]) {
            if (!h.is_object() || !h.contains("id") || !h["id"].is_string() ||
                !h.contains("score") || !h["score"].is_number()) {
              continue;
            }
            if (!ids.insert(h["id"].get<std::string>()).second) continue;
            h["peer"] = peers[i];
            hits.push_back(std::move(h));
            ++added;
          }
          entry["hits"] = added;
        }
      }
      peers_out.push_back(std::move(entry));
    }
    std::stable_sort(hits.begin(), hits.end(), by_score);
    if (hits.size() > k) hits.resize(k);
  }

  kernel::MetricRegistry& tel = *ctx_.metrics;
  const std::string bucket = topk_bucket(k);
  tel.counter("ostrel.data.vector.searches_total", 1, {{"topk_bucket", bucket}});
  tel.histogram(
      "ostrel.data.vector.search_duration_ms",
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count(),
      {{"topk_bucket", bucket}});
  return {{"hits", hits},
          {"tenant", q.tenant},
          {"namespace", q.ns},
          {"pool_size", hits.size()},
          {"local_pool_size", local_pool},
          {"peers", peers_out}};
}

std::string DataModule::ingest_(const IngestRequest& request, int& status) {
  status = 200;
  const VectorSettings s = settings_();
  const std::string tenant = request.tenant.value_or("default");
  const std::string ns = request.ns.value_or("default");
  static const std::string kNone;
  const std::string& text = request.text ? *request.text : kNone;
  const std::string& source = request.source ? *request.source : kNone;
  const std::string model = request.model.value_or(s.embedding_model);
  const std::int64_t size = request.chunk_size.value_or(s.chunking_size);
  const std::int64_t overlap = request.chunk_overlap.value_or(s.chunking_overlap);
  std::string error;
  if (size < 0 || size > (1 << 20) || overlap < 0 || overlap > (1 << 20)) {
    status = 400;
    return base::dump_json(base::error_body(
        "invalid_request",
        {{"detail", "chunk_size and chunk_overlap must be between 0 and 1048576"}}));
  }
  if (size != 0 && size < kMinChunkSize) {
    status = 400;
    return base::dump_json(base::error_body(
        "invalid_request", {{"detail", "chunk_size must be 0 (one chunk) or at least " +
                                           std::to_string(kMinChunkSize)}}));
  }
  // Each chunk is embedded and kept: their number is bounded before any is made.
  if (const std::size_t n = chunk_count(text.size(), static_cast<std::size_t>(size),
                                        static_cast<std::size_t>(overlap));
      n > max_chunks_per_request_) {
    status = 413;
    return base::dump_json(base::error_body(
        "too_many_chunks",
        {{"detail", "this text would make " + std::to_string(n) + " chunks; at most " +
                        std::to_string(max_chunks_per_request_) +
                        " per request (a larger chunk_size, a smaller overlap, or several "
                        "documents)"},
         {"max_chunks", max_chunks_per_request_}}));
  }
  if (text.empty()) {
    status = 400;
    return base::dump_json(base::error_body("missing text"));
  }
  std::string why;
  if (!base::safe_name(tenant, why, 64) || !base::safe_name(ns, why)) {
    status = 400;
    return base::dump_json(
        base::error_body("invalid_request", {{"detail", "tenant or namespace " + why}}));
  }
  auto pieces = chunk_text(text, static_cast<std::size_t>(size), static_cast<std::size_t>(overlap));
  // Every chunk carries the document's metadata with "chunk_count" and its
  // own "chunk_index"; the shared part is written once.
  std::string shared_text;  // "{…}", never empty
  if (request.metadata.empty()) {
    shared_text = "{\"chunk_count\":" + std::to_string(pieces.size()) + "}";
  } else {
    Json shared = request.metadata;
    shared["chunk_count"] = pieces.size();
    shared.erase("chunk_index");
    shared_text = base::dump_json(shared);
  }
  struct Chunk {
    std::vector<float> embedding;
    std::string id;
    std::string metadata;
  };
  std::vector<Chunk> chunks(pieces.size());
  std::vector<RecordView> records(pieces.size());
  const std::int64_t now = base::unix_ms();
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    Chunk& c = chunks[i];
    const std::string_view chunk = std::string_view(text).substr(pieces[i].first, pieces[i].second);
    if (!embed_(model, chunk, c.embedding, error)) {
      // Nothing of this document is stored: its chunks go in together.
      status = 502;
      return base::dump_json(
          base::error_body("embedding_failed", {{"detail", error}, {"chunk_index", i}}));
    }
    c.id = new_uuid();
    c.metadata = "{\"chunk_index\":" + std::to_string(i) + ",";
    c.metadata.append(shared_text, 1);
    records[i] = {c.id, chunk, source, c.metadata, c.embedding.data(), c.embedding.size(), now};
  }
  const std::size_t dim = chunks.empty() ? 0 : chunks.front().embedding.size();
  std::string out = "{\"status\":\"ingested\",\"ids\":[";
  for (std::size_t i = 0; i < chunks.size(); ++i) {
    if (i) out += ',';
    text::append_json_string(out, chunks[i].id);
  }
  out += "],\"chunks\":" + std::to_string(pieces.size()) + ",\"tenant\":";
  text::append_json_string(out, tenant);
  out += ",\"namespace\":";
  text::append_json_string(out, ns);
  out += ",\"embedding_dim\":" + std::to_string(dim) + "}";
  if (!vectors_->append(tenant, ns, records, error)) {
    status = error.rfind("invalid", 0) == 0 ? 400 : 500;
    return base::dump_json(base::error_body("persist_failed", {{"detail", error}}));
  }
  ctx_.metrics->counter("ostrel.data.vector.documents_ingested_total",
                        static_cast<double>(pieces.size()), {{"namespace", ns}});
  return out;
}

bool DataModule::tenant_of_(const Request& req, const Json& body, std::string& tenant,
                            Response& res) const {
  std::string error;
  if (!member(body, {"tenant", "tenant_id"}, tenant, "", error)) {
    base::fail(res, 400, "invalid_request", {{"detail", error}});
    return false;
  }
  const std::string asked = tenant;
  return base::acting_tenant(req, asked, tenant, res);
}

bool DataModule::proxy_(const Request& req, Response& res, bool has_local) {
  if (proxy_url_.empty()) return false;
  if (req.method != "GET" && req.method != "POST" && req.method != "PUT" &&
      req.method != "DELETE") {
    base::fail(res, 400, "proxy_method_not_supported", {{"method", req.method}});
    return true;
  }
  base::HttpRequest forward;
  forward.method = req.method;
  forward.url = proxy_url_ + req.path;
  char sep = '?';
  for (const auto& [k, v] : req.params) {
    forward.url += sep + base::escape_query(k) + "=" + base::escape_query(v);
    sep = '&';
  }
  if (!me_.node_token.empty()) {
    forward.headers = {{"X-Ostrel-Node-Id", me_.node_id}, {"X-Ostrel-Node-Token", me_.node_token}};
  }
  if (req.method == "POST" || req.method == "PUT") forward.body = req.body;
  forward.connect_timeout = std::chrono::seconds(3);
  forward.timeout = std::chrono::seconds(60);
  base::HttpReply r = base::http_request(forward);
  if (r.transport_ok) {
    res.status = r.status;
    res.body = std::move(r.body);
    res.content_type = r.content_type.empty() ? "application/json" : r.content_type;
    return true;
  }
  log_->warn("proxy to " + proxy_url_ + " failed: connect error");
  if (has_local) {
    log_->warn("proxy " + req.method + " upstream 0 — falling back to local");
    return false;
  }
  base::fail(res, 502, "data_proxy_unreachable", {{"upstream", proxy_url_}});
  return true;
}

void DataModule::register_vector_routes_(kernel::ApiGateway& gw) {
  kernel::RouteOptions large;
  large.max_body = kernel::RouteOptions::kLargeBody;
  auto may_read = [](const Request& req, Response& res) {
    if (base::has_scope(req, "data.vector.search") || base::has_scope(req, "data.memory.recall")) {
      return true;
    }
    return base::require_scope(req, res, "data.vector.search");
  };
  auto may_write = [](const Request& req, Response& res) {
    if (base::has_scope(req, "data.vector.write") || base::has_scope(req, "data.memory.store")) {
      return true;
    }
    return base::require_scope(req, res, "data.vector.write");
  };
  // A body that is not JSON counts as an empty one.
  auto body_of = [](const Request& req) {
    Json b = req.body.empty() ? Json::object() : base::parse_json(req.body);
    return b.is_object() ? b : Json::object();
  };

  gw.route(
      "POST", "/api/v1/vector/ingest",
      [this, may_write](const Request& req, Response& res) {
        if (!may_write(req, res) || proxy_(req, res, true)) return;
        IngestRequest request;
        std::string error;
        if (!read_ingest_request(req.body, request, error)) {
          base::fail(res, 400, "invalid_request", {{"detail", error}});
          return;
        }
        std::string tenant;
        if (!base::acting_tenant(req, std::string(request.tenant.value_or("")), tenant, res))
          return;
        request.tenant = tenant;
        res.body = ingest_(request, res.status);
      },
      large);

  for (const char* path : {"/api/v1/vector/search", "/api/v1/vector/search/peer"}) {
    const bool peer = std::string_view(path).ends_with("/peer");
    gw.route("POST", path, [this, may_read, body_of, peer](const Request& req, Response& res) {
      // The peer form is a public path: on an enforcing node only peers with
      // a node token may use it.
      if (peer && req.peer_node_id.empty() &&
          ctx_.gateway->auth_mode() == kernel::AuthMode::enforce) {
        base::fail(res, 403, "forbidden", {{"reason", "peer search needs a node token"}});
        return;
      }
      if (!may_read(req, res) || proxy_(req, res, true)) return;
      Json body = body_of(req);
      std::string tenant;
      if (!tenant_of_(req, body, tenant, res)) return;
      body["tenant"] = tenant;
      int status = 200;
      Json out = search_(body, !peer, status);
      reply(res, out, status);
    });
  }

  gw.route("POST", "/api/v1/vector/hybrid-search",
           [this, may_read, body_of](const Request& req, Response& res) {
             if (!may_read(req, res)) return;
             if (!proxy_url_.empty()) {
               Request forwarded = req;
               forwarded.path = "/api/v1/vector/search";
               if (proxy_(forwarded, res, true)) return;
             }
             Json body = body_of(req);
             std::string tenant;
             if (!tenant_of_(req, body, tenant, res)) return;
             Json q = {{"tenant", tenant},
                       {"namespace", body.value("namespace", Json("default"))},
                       {"query", body.value("query", Json(""))},
                       {"top_k", body.value("top_k", Json(5))}};
             int status = 200;
             Json found = search_(q, true, status);
             if (status != 200) {
               reply(res, found, status);
               return;
             }
             Json results = found["hits"];
             std::size_t matrix_count = 0;
             if (ctx_.syscalls->has("data.memory.recall")) {
               kernel::SyscallResult r = ctx_.syscalls->call(
                   kDataSource, "data.memory.recall",
                   base::dump_json(
                       {{"tenant", tenant}, {"namespace", q["namespace"]}, {"query", q["query"]}}));
               Json recalled = base::parse_json(r.body);
               if (r.status == 0 && recalled.is_object() && recalled["hits"].is_array()) {
                 for (const auto& h : recalled["hits"]) {
                   results.push_back({{"id", "memory:" + h.value("key", "")},
                                      {"text", h.value("value", "")},
                                      {"score", h.value("score", 0.0)},
                                      {"source", "matrix_memory"}});
                   ++matrix_count;
                 }
               }
             }
             reply(res, {{"results", results},
                         {"vector_count", found["hits"].size()},
                         {"matrix_count", matrix_count}});
           });

  gw.route("GET", "/api/v1/vector/config", [this](const Request& req, Response& res) {
    if (proxy_(req, res, true)) return;
    reply(res, settings_().to_json());
  });

  gw.route("PUT", "/api/v1/vector/config", [this](const Request& req, Response& res) {
    if (!base::require_admin(req, res) || proxy_(req, res, true)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    Json changes = Json::object();
    for (auto it = body.begin(); it != body.end(); ++it) {
      std::string key = it.key();
      if (key == "chunk_size") key = "chunking_size";
      if (key == "chunk_overlap") key = "chunking_overlap";
      const bool text = key == "embedding_url" || key == "embedding_model" || key == "backend";
      const bool whole = key == "chunking_size" || key == "chunking_overlap";
      if (!text && !whole && key != "default_similarity_threshold") {
        base::fail(res, 400, "unknown_key", {{"key", it.key()}});
        return;
      }
      if ((text && !it->is_string()) || (whole && (!it->is_number_integer() || *it < 0)) ||
          (key == "chunking_size" && *it != 0 && *it < kMinChunkSize) ||
          (key == "default_similarity_threshold" && !it->is_number())) {
        base::fail(res, 400, "invalid_value", {{"key", it.key()}});
        return;
      }
      changes[key] = *it;
    }
    std::string error;
    if (!write_settings_(changes, error)) {
      log_->warn("vector.json not written: " + error);
      base::fail(res, 500, "write_failed");
      return;
    }
    reply(res, settings_().to_json());
  });

  gw.route("POST", "/api/v1/vector/embed",
           [this, may_read, body_of](const Request& req, Response& res) {
             if (!may_read(req, res) || proxy_(req, res, true)) return;
             Json body = body_of(req);
             std::string text, error, model;
             if (!member(body, {"text", "input"}, text, "", error) ||
                 !member(body, {"model"}, model, settings_().embedding_model, error)) {
               base::fail(res, 400, "invalid_request", {{"detail", error}});
               return;
             }
             if (text.empty()) {
               base::fail(res, 400, "missing 'text' or 'input'");
               return;
             }
             std::vector<float> v;
             if (!embed_(model, text, v, error)) {
               base::fail(res, 502, "embedding_unavailable", {{"detail", error}});
               return;
             }
             reply(res, {{"embedding", v}, {"dimension", v.size()}, {"model", model}});
           });

  auto namespaces = [this](const std::string& tenant, bool all_form) {
    Json list = Json::array();
    for (const auto& n : vectors_->list(tenant)) {
      Json e = {{"tenant", n.tenant.empty() ? "_global" : n.tenant},
                {"namespace", n.name},
                {"backend", "jsonl"},
                {"document_count", n.document_count},
                {"embedding_dim", n.embedding_dim},
                {"size_bytes", n.size_bytes}};
      list.push_back(std::move(e));
    }
    for (const auto& n : sqlite_->list_namespaces(tenant)) {
      list.push_back({{"tenant", n.tenant.empty() ? "_global" : n.tenant},
                      {"namespace", n.name},
                      {"backend", "sqlite"},
                      {"document_count", n.document_count},
                      {"embedding_dim", n.embedding_dim},
                      {"size_bytes", n.size_bytes}});
    }
    if (all_form) {
      for (auto& e : list) {
        e["tenant_id"] = e["tenant"];
        e["namespace_id"] = e["namespace"];
        e["doc_count"] = e["document_count"];
      }
    }
    return list;
  };

  gw.route("GET", "/api/v1/vector/namespaces",
           [this, may_read, namespaces](const Request& req, Response& res) {
             if (!may_read(req, res) || proxy_(req, res, true)) return;
             Json list = namespaces(req.tenant, true);
             reply(res, {{"namespaces", list}, {"count", list.size()}});
           });

  gw.route("GET", "/api/v1/vector/namespaces/*",
           [this, may_read, namespaces](const Request& req, Response& res) {
             if (!may_read(req, res) || proxy_(req, res, true)) return;
             const std::string tenant =
                 req.path.substr(std::string("/api/v1/vector/namespaces/").size());
             std::string why;
             if (!base::safe_name(tenant, why, 64)) {
               base::fail(res, 400, "invalid_request", {{"detail", "tenant " + why}});
               return;
             }
             if (std::string acting; !base::acting_tenant(req, tenant, acting, res)) return;
             Json list = namespaces(tenant, false);
             reply(res, {{"tenant", tenant}, {"namespaces", list}, {"count", list.size()}});
           });

  for (const char* method : {"POST", "PUT", "DELETE"}) {
    gw.route(method, "/api/v1/vector/namespaces/*", [this](const Request& req, Response& res) {
      if (!base::require_admin(req, res) || proxy_(req, res, false)) return;
      base::fail(res, 502, "data_proxy_unreachable", {{"upstream", ""}});
    });
  }
  for (const char* method : {"GET", "DELETE"}) {
    gw.route(method, "/api/v1/vector/sources/*", [this](const Request& req, Response& res) {
      if (proxy_(req, res, false)) return;
      base::fail(
          res, 502, "datad_unreachable",
          {{"detail",
            "vector sources are served by the data worker; configure OSTREL_DATA_PROXY_URL or "
            "ensure the 4.x datad on .30 is reachable"}});
    });
  }
  gw.route("PUT", "/api/v1/vector/documents/*", [this](const Request& req, Response& res) {
    if (proxy_(req, res, false)) return;
    base::fail(res, 502, "vector_update_requires_datad");
  });

  gw.route(
      "DELETE", "/api/v1/vector/documents/*", [this, may_write](const Request& req, Response& res) {
        if (!may_write(req, res) || proxy_(req, res, true)) return;
        const std::string rest = req.path.substr(std::string("/api/v1/vector/documents/").size());
        std::vector<std::string> parts;
        std::stringstream ss(rest);
        for (std::string p; std::getline(ss, p, '/');) parts.push_back(p);
        if (parts.size() != 3 || rest.back() == '/' || parts[0].empty() || parts[1].empty() ||
            parts[2].empty()) {
          base::fail(res, 400, "expected /tenant/namespace/id");
          return;
        }
        if (std::string acting; !base::acting_tenant(req, parts[0], acting, res)) return;
        std::string error, detail;
        if (!vectors_->remove(parts[0], parts[1], parts[2], error, detail)) {
          int status = error == "rename_failed" ? 500 : 404;
          Json body = base::error_body(error);
          if (error == "rename_failed") {
            log_->warn("vector delete: " + detail);
            body["detail"] = "the journal could not be rewritten";
          }
          reply(res, body, status);
          return;
        }
        reply(res, {{"status", "deleted"},
                    {"id", parts[2]},
                    {"tenant", parts[0]},
                    {"namespace", parts[1]}});
      });
}

// ---------------------------------------------------------------------------
// Memory

Json DataModule::memory_store_(const Json& args, int& status) {
  status = 200;
  MemoryStoreRequest r;
  std::string error;
  if (!member(args, {"tenant", "tenant_id"}, r.tenant, "default", error) ||
      !member(args, {"namespace"}, r.ns, "default", error) ||
      !member(args, {"key"}, r.key, "", error) || !member(args, {"value"}, r.value, "", error) ||
      !member(args, {"domain"}, r.domain, "general", error)) {
    status = 400;
    return base::error_body("invalid_request", {{"detail", error}});
  }
  if (r.key.empty()) {
    status = 400;
    return base::error_body("missing key");
  }
  r.replica = args.value("_replica", false);
  if (auto imp = args.find("importance"); imp != args.end() && imp->is_number())
    r.importance = *imp;

  // Quota: the bytes stored count against the tenant's storage.
  if (ctx_.syscalls->has("kernel.quota.check")) {
    kernel::SyscallResult q = ctx_.syscalls->call(
        kDataSource, "kernel.quota.check",
        base::dump_json({{"tenant", r.tenant},
                         {"resource", "storage_bytes"},
                         {"increment", static_cast<std::int64_t>(r.value.size())}}));
    Json answer = base::parse_json(q.body);
    if (q.status == 0 && answer.is_object() && answer.value("ok", true) == false) {
      status = 429;
      return base::error_body("quota_exceeded", {{"detail", answer}});
    }
  }
  MemoryStoreOutcome o = memory_->store(r);
  if (!o.ok) {
    status = o.error == "missing key" || o.error.rfind("invalid", 0) == 0 ||
                     o.error.rfind("key or value", 0) == 0
                 ? 400
                 : 500;
    if (status == 500) log_->warn("memory.store failed: " + o.error);
    return base::error_body(status == 400 ? o.error : "persist_failed");
  }
  if (!o.ignored && ctx_.syscalls->has("kernel.quota.consume")) {
    ctx_.syscalls->call(kDataSource, "kernel.quota.consume",
                        base::dump_json({{"tenant", r.tenant},
                                         {"resource", "storage_bytes"},
                                         {"amount", static_cast<std::int64_t>(r.value.size())}}));
  }
  Json out = {{"ok", true},
              {"tenant", r.tenant},
              {"namespace", r.ns},
              {"key", r.key},
              {"replicated_to", Json::array()},
              {"replicated_acks", 0},
              {"replication_mode", r.replica ? "replica" : replication_mode_},
              {"source", "data.memory.phase3"}};
  if (o.ignored) out["ignored"] = "tombstoned";
  if (!r.replica && !o.ignored) replicate_(args, replication_mode_, out);
  log_->info("memory.store tenant='" + r.tenant + "' ns='" + r.ns + "' key='" + r.key +
             "' bytes=" + std::to_string(o.bytes) + " matrix=" + o.matrix +
             " replica=" + (r.replica ? "true" : "false") + " fanout_mode=" + replication_mode_ +
             " fanout_attempt=" + std::to_string(out["replicated_to"].size()) +
             " fanout_acked=" + std::to_string(out["replicated_acks"].get<int>()));
  ctx_.metrics->counter("ostrel.data.memory.stores_total", 1,
                        {{"replica", r.replica ? "true" : "false"}, {"matrix", o.matrix}});
  return out;
}

void DataModule::replicate_(const Json& args, const std::string& mode, Json& out) {
  if (mode == "none") return;
  const std::vector<std::string> peers = peers_->data_peers();
  if (peers.empty()) return;
  Json forwarded = args;
  forwarded["_replica"] = true;
  const std::string body = base::dump_json(forwarded);
  out["replicated_to"] = peers;
  if (mode == "async") {
    {
      auto lock = background_.lock();
      async_jobs_.push_back(forwarded);
    }
    background_.wake();
    return;
  }
  std::vector<int> acked(peers.size(), 0);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < peers.size(); ++i) {
    threads.emplace_back([&, i] {
      PeerReply r = peer_post(peers[i], "/api/v1/memory/store", body, me_, kPeerTimeout);
      acked[i] = r.transport_ok && r.status == 200;
    });
  }
  for (auto& t : threads) t.join();
  int acks = 0;
  for (int a : acked) acks += a;
  out["replicated_acks"] = acks;
  if (mode == "quorum") {
    // A majority of this node and its peers must hold the write.
    const int needed = static_cast<int>((peers.size() + 1) / 2 + 1) - 1;
    out["quorum_needed"] = needed;
    out["quorum_met"] = acks >= needed;
    log_->info("memory.store quorum_needed=" + std::to_string(needed) +
               " acked=" + std::to_string(acks));
    if (acks < needed) log_->warn("memory.store: quorum not reached");
  }
}

void DataModule::replication_loop_() {
  auto lock = background_.lock();
  for (;;) {
    // What is still queued at stop is dropped: async means no promise.
    if (background_.wait(lock, [this] { return !async_jobs_.empty(); })) return;
    Json job = std::move(async_jobs_.front());
    async_jobs_.pop_front();
    lock.unlock();
    const std::string body = base::dump_json(job);
    for (const auto& peer : peers_->data_peers()) {
      PeerReply r = peer_post(peer, "/api/v1/memory/store", body, me_, kPeerTimeout);
      if (!r.transport_ok || r.status != 200) {
        log_->warn("memory.store async replica to " + peer +
                   " failed: " + (r.transport_ok ? "http " + std::to_string(r.status) : r.error));
      }
    }
    lock.lock();
  }
}

Json DataModule::memory_recall_(const Json& args, int& status) {
  status = 200;
  std::string tenant, ns, query, domain, error;
  std::int64_t limit = 10;
  if (!member(args, {"tenant", "tenant_id"}, tenant, "default", error) ||
      !member(args, {"namespace"}, ns, "default", error) ||
      !member(args, {"query", "key"}, query, "", error) ||
      !member(args, {"domain"}, domain, "general", error) ||
      !number(args, "limit", 10, 1, 1000, limit, error)) {
    status = 400;
    return base::error_body("invalid_request", {{"detail", error}});
  }
  if (query.empty()) {
    status = 400;
    return base::error_body("missing query");
  }
  std::string why;
  if (!base::safe_name(tenant, why, 64) || !base::safe_name(ns, why)) {
    status = 400;
    return base::error_body("invalid_request", {{"detail", "tenant or namespace " + why}});
  }
  MemoryRecallOutcome o =
      memory_->recall(tenant, ns, query, domain, static_cast<std::size_t>(limit));
  Json hits = Json::array();
  for (const auto& h : o.hits) {
    hits.push_back({{"key", h.key},
                    {"value", h.value},
                    {"namespace", h.ns},
                    {"score", h.score},
                    {"via", h.via}});
  }
  log_->info("memory.recall tenant='" + tenant + "' ns='" + ns + "' query='" + query + "' hits=" +
             std::to_string(hits.size()) + " matrix_conf=" + std::to_string(o.confidence));
  ctx_.metrics->counter("ostrel.data.memory.recalls_total", 1,
                        {{"matrix", o.enabled ? "on" : "off"}});
  return {{"hits", hits},
          {"confidence", o.confidence},
          {"recall_time_us", o.recall_time_us},
          {"enabled", o.enabled},
          {"source", "data.memory.phase3"}};
}

Json DataModule::memory_forget_(const Json& args, int& status) {
  status = 200;
  MemoryForgetRequest r;
  std::string error;
  std::string tenant_given;
  if (!member(args, {"tenant", "tenant_id"}, tenant_given, "", error) ||
      !member(args, {"namespace"}, r.ns, "default", error) ||
      !member(args, {"key"}, r.key, "", error) || !member(args, {"mode"}, r.mode, "soft", error) ||
      !member(args, {"namespace_prefix"}, r.ns_prefix, "", error)) {
    status = 400;
    return base::error_body("invalid_request", {{"detail", error}});
  }
  if (auto d = args.find("damp_factor"); d != args.end() && d->is_number()) r.damp_factor = *d;
  if (auto a = args.find("older_than_seconds"); a != args.end() && a->is_number_integer()) {
    r.older_than_seconds = *a;
  }
  // Bulk forgetting must name its tenant: never "every tenant".
  r.tenant = r.mode == "bulk" ? tenant_given : (tenant_given.empty() ? "default" : tenant_given);
  MemoryForgetOutcome o = memory_->forget(r);
  if (!o.ok) {
    status = o.error.rfind("persist_failed", 0) == 0 ? 500 : 400;
    return base::error_body(o.error);
  }
  if (r.mode == "bulk") {
    log_->info("memory.forget bulk tenant='" + r.tenant + "' ns_prefix='" + r.ns_prefix +
               "' age=" + std::to_string(r.older_than_seconds) +
               " forgotten=" + std::to_string(o.forgotten) + " kv=" + std::to_string(o.kv_removed));
  } else {
    log_->info("memory.forget tenant='" + r.tenant + "' ns='" + r.ns + "' key='" + r.key +
               "' mode='" + r.mode + "' kv_removed=" + std::to_string(o.kv_removed) +
               " matrix_keys=" + std::to_string(o.removed) +
               " matrices=" + std::to_string(o.matrices_touched));
  }
  Json out = {{"ok", true},
              {"removed", o.removed},
              {"forgotten", o.forgotten},
              {"forgotten_keys", o.forgotten_keys},
              {"matrices_touched", o.matrices_touched},
              {"kv_removed", o.kv_removed},
              {"source", "data.memory.phase3"}};
  if (r.mode == "bulk") out["forgotten_entries"] = o.forgotten;
  return out;
}

void DataModule::register_memory_routes_(kernel::ApiGateway& gw) {
  // Each route is its syscall over HTTP, for the caller's tenant.
  struct Op {
    const char* path;
    const char* scope;
    Json (DataModule::*fn)(const Json&, int&);
  };
  for (const Op& op :
       {Op{"/api/v1/memory/store", "data.memory.store", &DataModule::memory_store_},
        Op{"/api/v1/memory/recall", "data.memory.recall", &DataModule::memory_recall_},
        Op{"/api/v1/memory/forget", "data.memory.store", &DataModule::memory_forget_}}) {
    // A node without the data module (dreaming elsewhere) stores here with
    // the cluster secret: the one data route where it stands in for a
    // credential.
    kernel::RouteOptions options;
    options.cluster_secret = std::string_view(op.path) == "/api/v1/memory/store";
    gw.route(
        "POST", op.path,
        [this, op](const Request& req, Response& res) {
          if (!base::require_scope(req, res, op.scope)) return;
          Json body;
          if (!base::parse_object_body(req, res, body)) return;
          std::string tenant;
          if (!tenant_of_(req, body, tenant, res)) return;
          // A replica is only accepted from a peer.
          if (body.value("_replica", false) && req.peer_node_id.empty() &&
              base::credential_checked(req) && !base::is_admin(req)) {
            body.erase("_replica");
          }
          body["tenant"] = tenant;
          int status = 200;
          Json out = (this->*op.fn)(body, status);
          reply(res, out, status);
        },
        options);
  }

  gw.route("GET", "/api/v1/memory", [this](const Request&, Response& res) {
    Json s = memory_->status();
    s["replication_mode"] = replication_mode_;
    s["peers"] = peers_->data_peers();
    reply(res, s);
  });
  gw.route("POST", "/api/v1/memory/checkpoint", [this](const Request& req, Response& res) {
    if (!base::require_admin(req, res)) return;
    reply(res, memory_->checkpoint());
  });
  gw.route("GET", "/api/v1/memory/matrices", [this](const Request& req, Response& res) {
    std::string tenant;
    if (!base::acting_tenant(req, req.param("tenant"), tenant, res)) return;
    Json list = Json::array();
    for (const auto& m : memory_->list_matrices(tenant, req.param("user"))) {
      list.push_back({{"id", m.id},
                      {"tenant_id", m.tenant_id},
                      {"user_id", m.user_id},
                      {"domain", m.domain},
                      {"name", m.name},
                      {"level", level_name(m.level)},
                      {"file_path", m.file_path},
                      {"tier", m.tier},
                      {"last_accessed", m.last_accessed},
                      {"size_bytes", m.size_bytes}});
    }
    reply(res, {{"matrices", list}, {"count", list.size()}});
  });
  gw.route("GET", "/api/v1/memory/config", [this](const Request&, Response& res) {
    reply(res,
          {{"replication_mode", replication_mode_},
           {"peers", peers_->data_peers()},
           {"embedding_model", memory_model_.empty() ? settings_().embedding_model : memory_model_},
           {"shared_namespace", "_shared"}});
  });
  gw.route("GET", "/api/v1/memory/health", [this](const Request&, Response& res) {
    reply(res, {{"status", memory_->initialized() ? "healthy" : "not_initialized"}});
  });
  gw.route("GET", "/api/v1/memory/metrics",
           [this](const Request&, Response& res) { reply(res, memory_->metrics()); });
  gw.route("GET", "/api/v1/memory/verify", [this](const Request& req, Response& res) {
    if (!base::require_admin(req, res)) return;
    reply(res, memory_->verify());
  });
}

// ---------------------------------------------------------------------------
// Object store

void DataModule::register_storage_routes_(kernel::ApiGateway& gw) {
  auto unavailable = [](Response& res) {
    base::fail(res, 503, "clusterfs_unavailable",
               {{"detail", "backend not initialised on this node"}});
  };
  // "/api/v1/storage/objects/<tenant>/<path…>"
  auto split = [](const std::string& full, std::string& tenant, std::string& path) {
    const std::string rest = full.substr(std::string("/api/v1/storage/objects/").size());
    const std::size_t slash = rest.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 >= rest.size()) return false;
    tenant = rest.substr(0, slash);
    path = rest.substr(slash + 1);
    std::string why;
    return base::safe_file_path(path, why, 1024);
  };
  kernel::RouteOptions stream;
  stream.stream_body = true;
  gw.route(
      "PUT", "/api/v1/storage/objects/*",
      [this, unavailable, split](const Request& req, Response& res) {
        if (!objects_) return unavailable(res);
        if (!base::require_scope(req, res, "data.storage.write")) return;
        std::string tenant, path;
        if (!split(req.path, tenant, path)) {
          base::fail(res, 400, "expected /tenant/path");
          return;
        }
        if (std::string acting; !base::acting_tenant(req, tenant, acting, res)) return;
        constexpr std::size_t kChunk = 4 << 20;
        clusterfs::ObjectMeta meta;
        meta.tenant_id = tenant;
        meta.path = path;
        meta.content_type = req.header("Content-Type");
        std::string pending, error;
        std::uint64_t offset = 0;
        auto flush = [&](bool final) {
          while (pending.size() >= kChunk || (final && !pending.empty())) {
            const std::size_t n = std::min(pending.size(), kChunk);
            std::string id;
            if (!chunks_->put(pending.data(), n, id, error)) return false;
            meta.chunks.push_back({id, offset, n, 0});
            offset += n;
            pending.erase(0, n);
          }
          return true;
        };
        bool ok = req.body_reader([&](std::string_view piece) {
          pending.append(piece);
          return flush(false);
        });
        if (!ok || !flush(true)) {
          base::fail(res, error.empty() ? 400 : 500,
                     error.empty() ? "bad_request" : "write_failed");
          if (!error.empty()) log_->warn("storage put: " + error);
          return;
        }
        meta.size_bytes = offset;
        if (!objects_->put(meta, error)) {
          base::fail(res, 400, "write_failed", {{"detail", error}});
          return;
        }
        reply(res, {{"status", "stored"},
                    {"object_id", meta.object_id},
                    {"tenant", tenant},
                    {"path", path},
                    {"size_bytes", meta.size_bytes},
                    {"version", meta.version},
                    {"chunks", meta.chunks.size()}});
      },
      stream);
  gw.route("GET", "/api/v1/storage/objects/*",
           [this, unavailable, split](const Request& req, Response& res) {
             if (!objects_) return unavailable(res);
             if (!base::require_scope(req, res, "data.storage.read")) return;
             std::string tenant, path, error;
             if (!split(req.path, tenant, path)) {
               base::fail(res, 400, "expected /tenant/path");
               return;
             }
             if (std::string acting; !base::acting_tenant(req, tenant, acting, res)) return;
             clusterfs::ObjectMeta meta;
             if (!objects_->lookup(tenant, path, meta, error)) {
               base::fail(res, 404, "not_found", {{"detail", error}});
               return;
             }
             std::string body;
             for (const auto& c : meta.chunks) {
               std::string bytes;
               if (!chunks_->get(c.chunk_id, bytes, error)) {
                 log_->warn("storage get: " + error);
                 base::fail(res, 500, "chunk_missing", {{"chunk_id", c.chunk_id}});
                 return;
               }
               body += bytes;
             }
             objects_->touch_access(meta.object_id, error);
             res.content_type =
                 meta.content_type.empty() ? "application/octet-stream" : meta.content_type;
             res.body = std::move(body);
           });
  gw.route("DELETE", "/api/v1/storage/objects/*",
           [this, unavailable, split](const Request& req, Response& res) {
             if (!objects_) return unavailable(res);
             if (!base::require_scope(req, res, "data.storage.write")) return;
             std::string tenant, path, error;
             if (!split(req.path, tenant, path)) {
               base::fail(res, 400, "expected /tenant/path");
               return;
             }
             if (std::string acting; !base::acting_tenant(req, tenant, acting, res)) return;
             clusterfs::ObjectMeta meta;
             if (!objects_->lookup(tenant, path, meta, error) ||
                 !objects_->remove(meta.object_id, error)) {
               base::fail(res, 404, "not_found", {{"detail", error}});
               return;
             }
             reply(res, {{"status", "deleted"}, {"tenant", tenant}, {"path", path}});
           });
  gw.route("GET", "/api/v1/storage/stats", [this, unavailable](const Request&, Response& res) {
    if (!objects_) return unavailable(res);
    clusterfs::MetadataStore::Stats s = objects_->stats();
    reply(res, {{"ost_id", ost_->id()},
                {"objects", s.objects},
                {"bytes", s.bytes},
                {"chunk_rows", s.chunk_rows},
                {"chunks_written", chunks_->chunks_written()},
                {"dedup_hits", chunks_->dedup_hits()}});
  });
}

// ---------------------------------------------------------------------------

void DataModule::register_routes(kernel::ApiGateway& gw) {
  register_vector_routes_(gw);
  register_memory_routes_(gw);
  register_storage_routes_(gw);
}

void DataModule::register_syscalls(kernel::SyscallTable& table) {
  using base::json_syscall;
  auto as_result = [](Json out, int status) {
    return kernel::SyscallResult{status == 200 ? 0 : -1, base::dump_json(out)};
  };
  auto search = json_syscall([this, as_result](const Json& a) {
    int status = 200;
    Json out = search_(a, true, status);
    return as_result(std::move(out), status);
  });
  table.register_syscall(kDataSource, "data.vector.search", search,
                         kernel::SyscallAccess::tenant("data.vector.search"));
  table.register_syscall(kDataSource, "data.search", search,
                         kernel::SyscallAccess::tenant("data.vector.search"));
  // Read without a JSON tree in the usual case: the document is most of it.
  table.register_syscall(
      kDataSource, "data.vector.ingest",
      [this](std::string_view args) {
        IngestRequest request;
        std::string error;
        if (!read_ingest_request(args, request, error)) {
          return base::syscall_error("invalid_request", error);
        }
        try {
          int status = 200;
          std::string out = ingest_(request, status);
          return kernel::SyscallResult{status == 200 ? 0 : -1, std::move(out)};
        } catch (const std::exception& e) {
          return base::syscall_error("internal", base::client_safe_what(e));
        }
      },
      kernel::SyscallAccess::tenant("data.vector.write"));
  // The memory syscalls answer what their route answers.
  auto memory = [this, as_result](Json (DataModule::*op)(const Json&, int&)) {
    return json_syscall([this, as_result, op](const Json& a) {
      int status = 200;
      Json out = (this->*op)(a, status);
      return as_result(std::move(out), status);
    });
  };
  table.register_syscall(kDataSource, "data.memory.store", memory(&DataModule::memory_store_),
                         kernel::SyscallAccess::tenant("data.memory.store"));
  table.register_syscall(kDataSource, "data.memory.recall", memory(&DataModule::memory_recall_),
                         kernel::SyscallAccess::tenant("data.memory.recall"));
  table.register_syscall(kDataSource, "data.memory.forget", memory(&DataModule::memory_forget_),
                         kernel::SyscallAccess::tenant("data.memory.store"));
  table.register_syscall(kDataSource, "data.memory.checkpoint", json_syscall([this](const Json&) {
                           return base::syscall_ok(memory_->checkpoint());
                         }));
  // The objects of a tenant (for the file search source).
  table.register_syscall(
      kDataSource, "data.objects.list", json_syscall([this](const Json& a) {
        if (!objects_) {
          return base::syscall_error("clusterfs_unavailable",
                                     "backend not initialised on this node");
        }
        Json list = Json::array();
        for (const auto& o : objects_->list(a.value("tenant", "default"), a.value("prefix", ""))) {
          list.push_back({{"path", o.path},
                          {"size_bytes", o.size_bytes},
                          {"version", o.version},
                          {"content_type", o.content_type}});
        }
        return base::syscall_ok({{"objects", list}});
      }),
      kernel::SyscallAccess::tenant("data.storage.read"));
  table.register_syscall(
      kDataSource, "data.memory.is_tombstoned", json_syscall([this](const Json& a) {
        const std::string key = a.value("key", "");
        if (key.empty()) return base::syscall_error("missing key");
        return base::syscall_ok(
            {{"ok", true},
             {"tombstoned", memory_->is_tombstoned(a.value("tenant", "default"),
                                                   a.value("namespace", "default"), key)}});
      }),
      kernel::SyscallAccess::tenant("data.memory.recall"));
}

}  // namespace
}  // namespace ostrel::data

static ostrel::kernel::ModuleRegistrar<ostrel::data::DataModule> DataModule_registrar("data");
