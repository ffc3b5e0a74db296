#include "data/sqlite_vector_backend.h"

#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <queue>
#include <sstream>

#include "base/json.h"
#include "data/top_k.h"
#include "data/vector_math.h"

namespace ostrel::modules_data {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using data::cosine;
using data::dot;
using data::TopK;

constexpr const char* kScan =
    "SELECT id, content, source, namespace_id, metadata, embedding, created_at, updated_at, "
    "chunk_index, total_chunks FROM vectors";
constexpr const char* kPrefilter =
    "SELECT v.id, v.content, v.source, v.namespace_id, v.metadata, v.embedding, v.created_at, "
    "v.updated_at, v.chunk_index, v.total_chunks FROM vectors v JOIN vectors_fts f ON f.rowid = "
    "v.rowid WHERE vectors_fts MATCH ? LIMIT ";
constexpr const char* kEmbeddings = "SELECT rowid, embedding FROM vectors";
constexpr const char* kByRowid =
    "SELECT id, content, source, namespace_id, metadata, embedding, created_at, updated_at, "
    "chunk_index, total_chunks FROM vectors WHERE rowid = ?";

using base::sqlite::Connection;
using base::sqlite::Statement;

SearchHit hit_from_row(const Statement& s, double score) {
  SearchHit h;
  h.id = s.text(0);
  h.content = s.text(1);
  h.source = s.text(2);
  h.namespace_id = s.text(3);
  std::string meta = s.text(4);
  if (!meta.empty()) {
    Json j = base::parse_json(meta);
    if (j.is_object()) h.metadata = std::move(j);
  }
  h.score = score;
  h.created_at = s.int64(6);
  h.chunk_index = static_cast<std::int32_t>(s.int64(8));
  h.total_chunks = static_cast<std::int32_t>(s.int64(9));
  return h;
}

}  // namespace

// A namespace's embeddings of one dimension, decoded: row-major floats, each
// row's sum of squares, and the rowid to fetch the row's other columns.
struct SqliteVectorBackend::Decoded {
  std::size_t dim = 0;
  std::int64_t version = -1;
  std::int64_t file_size = -1;
  std::vector<std::int64_t> rowids;
  std::vector<float> values;
  std::vector<double> sumsq;
};

SqliteVectorBackend::SqliteVectorBackend() = default;

SqliteVectorBackend::~SqliteVectorBackend() = default;

bool SqliteVectorBackend::initialize(const std::string& vectors_root, const base::Logger& logger) {
  log_ = std::make_unique<base::Logger>(logger);
  root_ = vectors_root;
  std::error_code ec;
  fs::create_directories(root_, ec);
  if (ec) {
    log_->warn("sqlite_vector_backend: cannot create '" + vectors_root + "': " + ec.message());
  }
  ready_ = fs::is_directory(root_, ec);
  if (ready_) {
    log_->info("sqlite_vector_backend: ready at '" + vectors_root + "'");
  } else {
    log_->warn("sqlite_vector_backend: vectors_root '" + vectors_root +
               "' is not a directory; backend disabled");
  }
  return ready_;
}

fs::path SqliteVectorBackend::db_path_(const std::string& tenant, const std::string& ns) const {
  return root_ / (tenant.empty() ? ns + ".db" : tenant + "_" + ns + ".db");
}

Connection* SqliteVectorBackend::get_db_(const std::string& path) {
  {
    std::lock_guard lock(mu_);
    auto it = dbs_.find(path);
    if (it != dbs_.end()) return it->second.get();
  }
  auto db = std::make_unique<Connection>();
  std::string error;
  if (!db->open(path, SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX, error, 2000)) {
    log_->warn("sqlite_vector_backend: open '" + path + "' failed: " + error);
    return nullptr;
  }
  // Reading embeddings through a mapping instead of one read() per page is
  // several times faster for a full scan.
  if (!db->exec("PRAGMA mmap_size=1073741824", error)) {
    log_->warn("sqlite_vector_backend: mmap_size on '" + path + "' refused: " + error);
  }
  std::lock_guard lock(mu_);
  auto [it, inserted] = dbs_.emplace(path, std::move(db));
  return it->second.get();
}

std::string SqliteVectorBackend::fts_query(const std::string& text) {
  std::string cleaned = text;
  for (char& c : cleaned) {
    unsigned char u = static_cast<unsigned char>(c);
    c = (std::isalnum(u) || c == '-') ? static_cast<char>(std::tolower(u)) : ' ';
  }
  std::istringstream in(cleaned);
  std::string token, out;
  while (in >> token) {
    if (token.size() < 2) continue;
    if (!out.empty()) out += ' ';
    out += '"' + token + '"';
  }
  return out;
}

std::shared_ptr<const SqliteVectorBackend::Decoded> SqliteVectorBackend::decoded_(
    const std::string& path, Connection& db, std::size_t dim) {
  const std::int64_t version = db.scalar("PRAGMA data_version");
  std::error_code ec;
  const auto size = static_cast<std::int64_t>(fs::file_size(path, ec));
  {
    std::lock_guard lock(cache_mu_);
    auto it = cache_.find(path);
    if (it != cache_.end() && it->second->dim == dim && it->second->version == version &&
        it->second->file_size == size) {
      return it->second;
    }
  }
  auto d = std::make_shared<Decoded>();
  d->dim = dim;
  d->version = version;
  d->file_size = size;
  std::string error;
  Statement s = db.prepare(kEmbeddings, error);
  if (!s) return nullptr;
  int rc;
  while ((rc = s.step()) == SQLITE_ROW) {
    const void* blob = s.blob(1);
    const int bytes = s.bytes(1);
    if (!blob || bytes <= 0 || static_cast<std::size_t>(bytes) != dim * sizeof(float)) continue;
    if (d->values.size() + dim > kMaxCachedFloats) return nullptr;  // too large: scan instead
    const std::size_t at = d->values.size();
    d->values.resize(at + dim);
    std::memcpy(d->values.data() + at, blob, static_cast<std::size_t>(bytes));
    d->rowids.push_back(s.int64(0));
    d->sumsq.push_back(dot(d->values.data() + at, d->values.data() + at, dim));
  }
  if (rc != SQLITE_DONE) return nullptr;  // a partial copy would miss rows: scan instead
  std::lock_guard lock(cache_mu_);
  cache_[path] = d;
  return d;
}

std::vector<SearchHit> SqliteVectorBackend::search(const std::string& tenant, const std::string& ns,
                                                   const std::vector<float>& query, std::int32_t k,
                                                   double min_score, const std::string& text) {
  if (!ready_ || query.empty() || k <= 0) return {};
  const std::string path = db_path_(tenant, ns).string();
  std::error_code ec;
  if (!fs::exists(path, ec)) {
    log_->warn("sqlite_vector_backend: search miss — no .db at '" + path + "'");
    return {};
  }
  Connection* db = get_db_(path);
  if (!db) return {};
  const std::size_t dim = query.size();
  const double qsq = dot(query.data(), query.data(), dim);
  if (!(qsq > 0)) return {};

  const std::string match = text.empty() ? std::string() : fts_query(text);
  if (match.empty()) {
    // Vector-only search over the decoded copy; hits are then read by rowid.
    if (auto d = decoded_(path, *db, dim)) {
      TopK<std::size_t> best(static_cast<std::size_t>(k));
      const std::size_t rows = d->rowids.size();
      for (std::size_t r = 0; r < rows; ++r) {
        if (!(d->sumsq[r] > 0)) continue;
        const double score =
            cosine(dot(query.data(), d->values.data() + r * dim, dim), qsq, d->sumsq[r]);
        if (score < min_score) continue;
        std::size_t row = r;
        best.offer(score, std::move(row));
      }
      std::vector<SearchHit> hits;
      std::string error;
      Statement s = db->prepare(kByRowid, error);
      if (!s) {
        log_->warn("sqlite_vector_backend: prepare failed: " + error);
        return {};
      }
      for (std::size_t r : best.take()) {
        s.reset().bind(1, d->rowids[r]);
        if (s.step() != SQLITE_ROW) continue;  // deleted since the copy was made
        const double score =
            cosine(dot(query.data(), d->values.data() + r * dim, dim), qsq, d->sumsq[r]);
        hits.push_back(hit_from_row(s, score));
      }
      return hits;
    }
  }

  Statement s;
  std::string error;
  if (!match.empty()) {
    const std::string sql = kPrefilter + std::to_string(std::max(20 * k, 50));
    s = db->prepare(sql, error);
    if (s) {
      s.bind(1, match);
    } else {
      log_->warn("sqlite_vector_backend: FTS prefilter prepare failed (" + error +
                 "); falling back to full scan");
    }
  }
  if (!s) s = db->prepare(kScan, error);
  if (!s) {
    log_->warn("sqlite_vector_backend: prepare failed: " + error);
    return {};
  }
  TopK<SearchHit> best(static_cast<std::size_t>(k));
  std::vector<float> row(dim);
  int rc;
  while ((rc = s.step()) == SQLITE_ROW) {
    const void* blob = s.blob(5);
    const int bytes = s.bytes(5);
    if (!blob || bytes <= 0 || static_cast<std::size_t>(bytes) != dim * sizeof(float)) continue;
    std::memcpy(row.data(), blob, static_cast<std::size_t>(bytes));
    const double rsq = dot(row.data(), row.data(), dim);
    if (!(rsq > 0)) continue;
    const double score = cosine(dot(query.data(), row.data(), dim), qsq, rsq);
    if (score < min_score) continue;
    if (best.full() && !(score > best.floor_score())) continue;  // cannot enter: skip decoding
    best.offer(score, hit_from_row(s, score));
  }
  if (rc != SQLITE_DONE) log_->warn("sqlite_vector_backend: step ended with " + db->message());
  return best.take();
}

std::vector<NamespaceInfo> SqliteVectorBackend::list_namespaces(const std::string& tenant_filter) {
  std::vector<NamespaceInfo> out;
  if (!ready_) return out;
  const std::string prefix = tenant_filter.empty() ? "" : tenant_filter + "_";
  std::error_code ec;
  for (fs::directory_iterator it(root_, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code type_ec;
    if (!it->is_regular_file(type_ec)) continue;
    const std::string name = it->path().filename().string();
    if (name.size() < 4 || name.compare(name.size() - 3, 3, ".db") != 0) continue;
    if (!prefix.empty() && name.rfind(prefix, 0) != 0) continue;
    const size_t us = name.find('_');
    if (us == std::string::npos) continue;
    NamespaceInfo info;
    info.tenant = name.substr(0, us);
    info.name = name.substr(us + 1, name.size() - 3 - us - 1);
    info.db_path = it->path().string();
    std::error_code size_ec;
    auto size = fs::file_size(it->path(), size_ec);
    info.size_bytes = size_ec ? 0 : size;
    Connection* db = get_db_(info.db_path);
    if (!db) continue;
    info.document_count = std::max<std::int64_t>(0, db->scalar("SELECT COUNT(*) FROM vectors", 0));
    if (info.document_count != 0) {
      std::string error;
      Statement s =
          db->prepare("SELECT embedding FROM vectors WHERE embedding IS NOT NULL LIMIT 1", error);
      if (s && s.step() == SQLITE_ROW) info.embedding_dim = s.bytes(0) / 4;
    }
    out.push_back(std::move(info));
  }
  return out;
}

}  // namespace ostrel::modules_data
