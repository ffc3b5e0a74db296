#include "clusterfs/metadata_store.h"

#include <sqlite3.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include "base/json.h"
#include "base/sqlite.h"
#include "base/encoding.h"

namespace ostrel::clusterfs {
namespace {

using Json = nlohmann::json;

constexpr const char* kSchema = R"(CREATE TABLE IF NOT EXISTS objects (
              object_id     TEXT PRIMARY KEY,
              tenant_id     TEXT NOT NULL DEFAULT '',
              path          TEXT NOT NULL,
              size_bytes    INTEGER NOT NULL DEFAULT 0,
              version       INTEGER NOT NULL DEFAULT 1,
              content_type  TEXT NOT NULL DEFAULT '',
              tier          INTEGER NOT NULL DEFAULT 3,
              layout_json   TEXT NOT NULL DEFAULT '{}',
              created_at    TEXT NOT NULL,
              modified_at   TEXT NOT NULL,
              accessed_at   TEXT NOT NULL DEFAULT '',
              access_count  INTEGER NOT NULL DEFAULT 0,
              attrs_json    TEXT NOT NULL DEFAULT '{}'
            );
            CREATE UNIQUE INDEX IF NOT EXISTS idx_objects_tenant_path
                ON objects(tenant_id, path);
            CREATE INDEX IF NOT EXISTS idx_objects_tier
                ON objects(tier);

            CREATE TABLE IF NOT EXISTS chunks (
              object_id          TEXT NOT NULL,
              seq                INTEGER NOT NULL,
              chunk_id           TEXT NOT NULL,
              offset             INTEGER NOT NULL,
              length             INTEGER NOT NULL,
              compressed_length  INTEGER NOT NULL DEFAULT 0,
              PRIMARY KEY (object_id, seq),
              FOREIGN KEY (object_id) REFERENCES objects(object_id)
                  ON DELETE CASCADE
            );
            CREATE INDEX IF NOT EXISTS idx_chunks_chunk_id ON chunks(chunk_id);)";

#define OBJECT_COLUMNS                                                \
  "SELECT object_id, tenant_id, path, size_bytes, version,        "   \
  "content_type, tier, layout_json, created_at, modified_at,        " \
  "accessed_at, access_count, attrs_json FROM objects"

constexpr const char* kLookup = OBJECT_COLUMNS " WHERE tenant_id=? AND path=?";
constexpr const char* kGet = OBJECT_COLUMNS " WHERE object_id=?";
constexpr const char* kList = OBJECT_COLUMNS " WHERE tenant_id=? AND path LIKE ? ORDER BY path";
constexpr const char* kAll = OBJECT_COLUMNS " ORDER BY object_id";
constexpr const char* kChunks =
    "SELECT chunk_id, offset, length, compressed_length FROM chunks WHERE object_id=? ORDER BY seq";
constexpr const char* kExists = "SELECT object_id FROM objects WHERE tenant_id=? AND path=?";
constexpr const char* kCreate =
    "INSERT INTO objects(object_id, tenant_id, path, size_bytes,                      version, "
    "content_type, tier, layout_json,                      created_at, modified_at) VALUES "
    "(?,?,?,?,1,?,?,?,?,?)";
constexpr const char* kOverwrite =
    "UPDATE objects SET size_bytes=?, version=version+1,                    "
    "content_type=COALESCE(?, content_type),                    layout_json=?, modified_at=? "
    "WHERE object_id=?";
constexpr const char* kDeleteChunks = "DELETE FROM chunks WHERE object_id=?";
constexpr const char* kInsertChunk =
    "INSERT INTO chunks(object_id, seq, chunk_id, offset, length,                     "
    "compressed_length) VALUES (?,?,?,?,?,?)";
constexpr const char* kAccess =
    "UPDATE objects SET accessed_at=?, access_count=access_count+1 WHERE object_id=?";
constexpr const char* kTier = "UPDATE objects SET tier=? WHERE object_id=?";
constexpr const char* kDelete = "DELETE FROM objects WHERE object_id=?";
constexpr const char* kCountObjects = "SELECT COUNT(*), COALESCE(SUM(size_bytes), 0) FROM objects";
constexpr const char* kCountChunks = "SELECT COUNT(*) FROM chunks";

#undef OBJECT_COLUMNS

using base::sqlite::Statement;

std::string iso8601(TimePoint t) {
  std::time_t tt = std::chrono::system_clock::to_time_t(t);
  std::tm tm{};
  gmtime_r(&tt, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

std::optional<TimePoint> parse_iso8601(const std::string& text) {
  if (text.empty()) return std::nullopt;
  std::tm tm{};
  if (!strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &tm)) return std::nullopt;
  return std::chrono::system_clock::from_time_t(timegm(&tm));
}

std::string layout_json(const StripeLayout& l) {
  return Json{
      {"stripe_count", l.stripe_count}, {"stripe_size", l.stripe_size}, {"ost_ids", l.ost_ids}}
      .dump();
}

StripeLayout parse_layout(const std::string& text) {
  StripeLayout l;
  Json j = base::parse_json(text);
  if (!j.is_object()) return l;
  if (auto v = j.find("stripe_count"); v != j.end() && v->is_number_integer()) l.stripe_count = *v;
  if (auto v = j.find("stripe_size"); v != j.end() && v->is_number_integer()) l.stripe_size = *v;
  if (auto v = j.find("ost_ids"); v != j.end() && v->is_array()) {
    for (const auto& e : *v) {
      if (e.is_string()) l.ost_ids.push_back(e);
    }
  }
  return l;
}

ObjectMeta hydrate(const Statement& s) {
  ObjectMeta m;
  m.object_id = s.text(0);
  m.tenant_id = s.text(1);
  m.path = s.text(2);
  m.size_bytes = static_cast<std::uint64_t>(s.int64(3));
  m.version = s.int64(4);
  m.content_type = s.text(5);
  m.tier = static_cast<int>(s.int64(6));
  m.layout = parse_layout(s.text(7));
  m.created_at = parse_iso8601(s.text(8)).value_or(TimePoint{});
  m.modified_at = parse_iso8601(s.text(9)).value_or(TimePoint{});
  m.accessed_at = parse_iso8601(s.text(10));
  m.access_count = s.int64(11);
  m.attrs_json = s.text(12);
  return m;
}

}  // namespace

MetadataStore::~MetadataStore() = default;

bool MetadataStore::valid_tenant_id(const std::string& id) {
  if (id.size() < 2 || id.size() > 63 || id.front() == '-' || id.back() == '-') return false;
  for (char c : id) {
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-')) return false;
  }
  return true;
}

bool MetadataStore::exec_locked_(const char* sql, std::string& error) {
  return db_.exec(sql, error);
}

bool MetadataStore::open(const std::filesystem::path& db, std::string& error) {
  std::lock_guard lock(mu_);
  if (db_) return true;
  std::error_code ec;
  if (db.has_parent_path()) std::filesystem::create_directories(db.parent_path(), ec);
  base::sqlite::Connection conn;
  if (!conn.open(db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, error)) return false;
  if (!conn.exec("PRAGMA journal_mode=WAL; PRAGMA foreign_keys=ON; PRAGMA synchronous=NORMAL;",
                 error) ||
      !conn.exec(kSchema, error)) {
    return false;
  }
  db_ = std::move(conn);
  return true;
}

bool MetadataStore::load_chunks_locked_(ObjectMeta& meta, std::string& error) {
  Statement s = db_.prepare(kChunks, prep_error_);
  if (!s) {
    error = db_.message();
    return false;
  }
  s.bind(1, meta.object_id);
  meta.chunks.clear();
  int rc;
  while ((rc = s.step()) == SQLITE_ROW) {
    meta.chunks.push_back({s.text(0), static_cast<std::uint64_t>(s.int64(1)),
                           static_cast<std::uint64_t>(s.int64(2)),
                           static_cast<std::uint64_t>(s.int64(3))});
  }
  if (rc != SQLITE_DONE) {
    error = db_.message();
    return false;
  }
  return true;
}

bool MetadataStore::lookup(const std::string& tenant_id, const std::string& path, ObjectMeta& out,
                           std::string& error) {
  if (!valid_tenant_id(tenant_id)) {
    error = "invalid_id (lowercase ascii, digits, hyphen; 2-63 chars; no leading/trailing hyphen)";
    return false;
  }
  std::lock_guard lock(mu_);
  if (!db_) return error = "metadata store not open", false;
  Statement s = db_.prepare(kLookup, prep_error_);
  s.bind(1, tenant_id).bind(2, path);
  if (s.step() != SQLITE_ROW) {
    error = "no object at " + tenant_id + ":" + path;
    return false;
  }
  out = hydrate(s);
  return load_chunks_locked_(out, error);
}

bool MetadataStore::get(const std::string& object_id, ObjectMeta& out, std::string& error) {
  std::lock_guard lock(mu_);
  if (!db_) return error = "metadata store not open", false;
  Statement s = db_.prepare(kGet, prep_error_);
  s.bind(1, object_id);
  if (s.step() != SQLITE_ROW) {
    error = "no such object: " + object_id;
    return false;
  }
  out = hydrate(s);
  return load_chunks_locked_(out, error);
}

std::vector<ObjectMeta> MetadataStore::list(const std::string& tenant_id,
                                            const std::string& prefix) {
  std::vector<ObjectMeta> out;
  std::lock_guard lock(mu_);
  if (!db_) return out;
  Statement s = db_.prepare(kList, prep_error_);
  // LIKE treats "%" and "_" as wildcards and ignores ASCII case: the pattern
  // narrows the scan, and the exact prefix test below decides.
  s.bind(1, tenant_id).bind(2, prefix + "%");
  while (s.step() == SQLITE_ROW) {
    ObjectMeta m = hydrate(s);
    if (m.path.compare(0, prefix.size(), prefix) == 0) out.push_back(std::move(m));
  }
  std::string error;
  for (auto& m : out) load_chunks_locked_(m, error);
  return out;
}

void MetadataStore::for_each(const std::function<void(const ObjectMeta&)>& visit) {
  std::vector<ObjectMeta> all;
  {
    std::lock_guard lock(mu_);
    if (!db_) return;
    Statement s = db_.prepare(kAll, prep_error_);
    while (s.step() == SQLITE_ROW) all.push_back(hydrate(s));
    std::string error;
    for (auto& m : all) load_chunks_locked_(m, error);
  }
  // Visited outside the lock: the visitor may call back into the store.
  for (const auto& m : all) visit(m);
}

bool MetadataStore::put(ObjectMeta& meta, std::string& error) {
  if (!valid_tenant_id(meta.tenant_id)) {
    error = "invalid_id (lowercase ascii, digits, hyphen; 2-63 chars; no leading/trailing hyphen)";
    return false;
  }
  if (meta.path.empty()) return error = "missing path", false;
  std::lock_guard lock(mu_);
  if (!db_) return error = "metadata store not open", false;
  const std::string now = iso8601(std::chrono::system_clock::now());
  if (!exec_locked_("BEGIN IMMEDIATE", error)) return false;
  auto fail = [&] {
    error = db_.message();
    std::string ignored;
    exec_locked_("ROLLBACK", ignored);
    return false;
  };

  std::string object_id;
  {
    Statement s = db_.prepare(kExists, prep_error_);
    s.bind(1, meta.tenant_id).bind(2, meta.path);
    if (s.step() == SQLITE_ROW) object_id = s.text(0);
  }
  if (object_id.empty()) {
    object_id = meta.object_id.empty() ? base::to_hex(base::random_bytes(16)) : meta.object_id;
    Statement s = db_.prepare(kCreate, prep_error_);
    s.bind(1, object_id).bind(2, meta.tenant_id).bind(3, meta.path);
    s.bind(4, static_cast<std::int64_t>(meta.size_bytes)).bind(5, meta.content_type);
    s.bind(6, meta.tier).bind(7, layout_json(meta.layout)).bind(8, now).bind(9, now);
    if (s.step() != SQLITE_DONE) return fail();
  } else {
    Statement s = db_.prepare(kOverwrite, prep_error_);
    s.bind(1, static_cast<std::int64_t>(meta.size_bytes));
    if (meta.content_type.empty()) {
      s.bind_null(2);  // keep the stored content type
    } else {
      s.bind(2, meta.content_type);
    }
    s.bind(3, layout_json(meta.layout)).bind(4, now).bind(5, object_id);
    if (s.step() != SQLITE_DONE) return fail();
    Statement d = db_.prepare(kDeleteChunks, prep_error_);
    d.bind(1, object_id);
    if (d.step() != SQLITE_DONE) return fail();
  }
  for (std::size_t seq = 0; seq < meta.chunks.size(); ++seq) {
    const ChunkRef& c = meta.chunks[seq];
    Statement s = db_.prepare(kInsertChunk, prep_error_);
    s.bind(1, object_id).bind(2, static_cast<std::int64_t>(seq)).bind(3, c.chunk_id);
    s.bind(4, static_cast<std::int64_t>(c.offset))
        .bind(5, static_cast<std::int64_t>(c.length));
    s.bind(6, static_cast<std::int64_t>(c.compressed_length));
    if (s.step() != SQLITE_DONE) return fail();
  }
  if (!exec_locked_("COMMIT", error)) return fail();
  meta.object_id = object_id;
  Statement v = db_.prepare(kGet, prep_error_);
  v.bind(1, object_id);
  if (v.step() == SQLITE_ROW) meta.version = v.int64(4);
  return true;
}

bool MetadataStore::touch_access(const std::string& object_id, std::string& error) {
  std::lock_guard lock(mu_);
  if (!db_) return error = "metadata store not open", false;
  Statement s = db_.prepare(kAccess, prep_error_);
  s.bind(1, iso8601(std::chrono::system_clock::now())).bind(2, object_id);
  if (s.step() != SQLITE_DONE) return error = db_.message(), false;
  if (db_.changes() == 0) return error = "no such object: " + object_id, false;
  return true;
}

bool MetadataStore::set_tier(const std::string& object_id, int tier, std::string& error) {
  std::lock_guard lock(mu_);
  if (!db_) return error = "metadata store not open", false;
  Statement s = db_.prepare(kTier, prep_error_);
  s.bind(1, tier).bind(2, object_id);
  if (s.step() != SQLITE_DONE) return error = db_.message(), false;
  if (db_.changes() == 0) return error = "no such object: " + object_id, false;
  return true;
}

bool MetadataStore::remove(const std::string& object_id, std::string& error) {
  std::lock_guard lock(mu_);
  if (!db_) return error = "metadata store not open", false;
  Statement s = db_.prepare(kDelete, prep_error_);
  s.bind(1, object_id);
  if (s.step() != SQLITE_DONE) return error = db_.message(), false;
  if (db_.changes() == 0) return error = "no such object: " + object_id, false;
  return true;
}

MetadataStore::Stats MetadataStore::stats() {
  Stats st;
  std::lock_guard lock(mu_);
  if (!db_) return st;
  Statement a = db_.prepare(kCountObjects, prep_error_);
  if (a.step() == SQLITE_ROW) {
    st.objects = a.int64(0);
    st.bytes = a.int64(1);
  }
  Statement b = db_.prepare(kCountChunks, prep_error_);
  if (b.step() == SQLITE_ROW) st.chunk_rows = b.int64(0);
  return st;
}

}  // namespace ostrel::clusterfs
