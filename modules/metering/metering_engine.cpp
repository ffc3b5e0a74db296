#include "modules/metering/metering_engine.h"

#include <sqlite3.h>

#include <ctime>
#include <map>
#include <mutex>
#include <stdexcept>
#include <tuple>

#include "base/sqlite.h"

namespace ostrel::metering {
namespace {

constexpr const char* kSchema[] = {
    "CREATE TABLE IF NOT EXISTS events (  id          INTEGER PRIMARY KEY AUTOINCREMENT,  ts_ms "
    "      INTEGER NOT NULL,  tenant_id   TEXT    NOT NULL,  project_id  TEXT    NOT NULL DEFAULT "
    "'',  user_id     TEXT    NOT NULL DEFAULT '',  dimension   TEXT    NOT NULL,  value       "
    "INTEGER NOT NULL,  attrs_json  TEXT    NOT NULL DEFAULT '{}')",
    "CREATE INDEX IF NOT EXISTS idx_events_t_d_ts   ON events(tenant_id, dimension, ts_ms)",
    "CREATE TABLE IF NOT EXISTS quotas (  tenant_id   TEXT NOT NULL,  dimension   TEXT NOT NULL,  "
    "period      TEXT NOT NULL DEFAULT 'monthly',  hard_limit  INTEGER NOT NULL DEFAULT 0,  "
    "soft_limit  INTEGER NOT NULL DEFAULT 0,  PRIMARY KEY (tenant_id, dimension))",
};

constexpr const char* kInsert =
    "INSERT INTO events  (ts_ms, tenant_id, project_id, user_id, dimension, value, attrs_json)  "
    "VALUES(?, ?, ?, ?, ?, ?, ?)";
constexpr const char* kSetQuota =
    "INSERT OR REPLACE INTO quotas  (tenant_id, dimension, period, hard_limit, soft_limit)  "
    "VALUES(?, ?, ?, ?, ?)";
constexpr const char* kGetQuota =
    "SELECT period, hard_limit, soft_limit FROM quotas   WHERE tenant_id = ? AND dimension = ?";
constexpr const char* kListQuotas =
    "SELECT dimension, period, hard_limit, soft_limit FROM quotas   WHERE tenant_id = ?";
constexpr const char* kDeleteQuota = "DELETE FROM quotas WHERE tenant_id = ? AND dimension = ?";
constexpr const char* kAggregate =
    "SELECT ts_ms, value FROM events  WHERE tenant_id = ? AND dimension = ?    AND ts_ms >= ? AND "
    "ts_ms < ?";

constexpr std::int64_t kHourMs = 3600LL * 1000;
constexpr std::int64_t kDayMs = 24 * kHourMs;

std::int64_t floor_div(std::int64_t a, std::int64_t b) {
  std::int64_t q = a / b;
  return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

std::string format_utc(std::int64_t ts_ms, const char* fmt) {
  std::time_t t = static_cast<std::time_t>(floor_div(ts_ms, 1000));
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, fmt, &tm);
  return buf;
}

// The [start, end) milliseconds of the UTC calendar month holding ts_ms.
std::pair<std::int64_t, std::int64_t> month_range(std::int64_t ts_ms) {
  std::time_t t = static_cast<std::time_t>(floor_div(ts_ms, 1000));
  std::tm tm{};
  gmtime_r(&t, &tm);
  tm.tm_mday = 1;
  tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
  std::int64_t start = static_cast<std::int64_t>(timegm(&tm)) * 1000;
  tm.tm_mon += 1;
  std::int64_t end = static_cast<std::int64_t>(timegm(&tm)) * 1000;
  return {start, end};
}

}  // namespace

using base::sqlite::Statement;

struct MeteringEngine::Impl {
  std::mutex mu;  // serialises every use of db and the statements
  base::sqlite::Connection db;
  Statement insert, set_quota, get_quota, list_quotas, delete_quota, aggregate;

  std::string message() const { return db.message(); }

  bool insert_locked(const Event& e, std::string& error) {
    insert.reset()
        .bind(1, e.ts_ms)
        .bind(2, e.tenant_id)
        .bind(3, e.project_id)
        .bind(4, e.user_id)
        .bind(5, e.dimension)
        .bind(6, e.value)
        .bind(7, e.attrs_json.empty() ? std::string_view("{}") : std::string_view(e.attrs_json));
    if (insert.step() != SQLITE_DONE) {
      error = message();
      return false;
    }
    return true;
  }
};

MeteringEngine::MeteringEngine(const std::filesystem::path& path)
    : impl_(std::make_unique<Impl>()) {
  std::error_code ec;
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), ec);
  std::string error;
  auto fail = [&](const std::string& why) {
    throw std::runtime_error("metering: open " + path.string() + ": " + why);
  };
  if (!impl_->db.open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, error)) fail(error);
  for (const char* sql : {"PRAGMA journal_mode = WAL", "PRAGMA synchronous = NORMAL",
                          "PRAGMA foreign_keys = ON"}) {
    if (!impl_->db.exec(sql, error)) fail(error);
  }
  for (const char* sql : kSchema) {
    if (!impl_->db.exec(sql, error)) fail(error);
  }
  auto prepare = [&](const char* sql, Statement& out) {
    out = impl_->db.prepare(sql, error);
    if (!out) throw std::runtime_error("metering: prepare: " + error);
  };
  prepare(kInsert, impl_->insert);
  prepare(kSetQuota, impl_->set_quota);
  prepare(kGetQuota, impl_->get_quota);
  prepare(kListQuotas, impl_->list_quotas);
  prepare(kDeleteQuota, impl_->delete_quota);
  prepare(kAggregate, impl_->aggregate);
}

MeteringEngine::~MeteringEngine() = default;

bool MeteringEngine::record(std::int64_t ts_ms, const std::string& tenant_id,
                            const std::string& project_id, const std::string& user_id,
                            const std::string& dimension, std::int64_t value,
                            const std::string& attrs_json, std::string& error) {
  std::lock_guard lock(impl_->mu);
  return impl_->insert_locked({ts_ms, tenant_id, project_id, user_id, dimension, value, attrs_json},
                              error);
}

bool MeteringEngine::record_batch(const std::vector<Event>& events, std::string& error) {
  std::lock_guard lock(impl_->mu);
  base::sqlite::Transaction tx(impl_->db, error);
  if (!tx.ok()) return false;
  for (const auto& e : events) {
    if (!impl_->insert_locked(e, error)) return false;  // rolled back by tx
  }
  return tx.commit(error);
}

bool MeteringEngine::set_quota(const Quota& q, std::string& error) {
  std::lock_guard lock(impl_->mu);
  Statement& s = impl_->set_quota;
  s.reset()
      .bind(1, q.tenant_id)
      .bind(2, q.dimension)
      .bind(3, q.period.empty() ? std::string_view("monthly") : std::string_view(q.period))
      .bind(4, q.hard_limit)
      .bind(5, q.soft_limit);
  if (s.step() != SQLITE_DONE) {
    error = impl_->message();
    return false;
  }
  return true;
}

std::optional<Quota> MeteringEngine::get_quota(const std::string& tenant_id,
                                               const std::string& dimension) {
  std::lock_guard lock(impl_->mu);
  Statement& s = impl_->get_quota;
  s.reset().bind(1, tenant_id).bind(2, dimension);
  if (s.step() != SQLITE_ROW) return std::nullopt;
  Quota q;
  q.tenant_id = tenant_id;
  q.dimension = dimension;
  q.period = s.text(0);
  q.hard_limit = s.int64(1);
  q.soft_limit = s.int64(2);
  return q;
}

std::vector<Quota> MeteringEngine::list_quotas(const std::string& tenant_id) {
  std::lock_guard lock(impl_->mu);
  Statement& s = impl_->list_quotas;
  s.reset().bind(1, tenant_id);
  std::vector<Quota> out;
  while (s.step() == SQLITE_ROW) {
    Quota q;
    q.tenant_id = tenant_id;
    q.dimension = s.text(0);
    q.period = s.text(1);
    q.hard_limit = s.int64(2);
    q.soft_limit = s.int64(3);
    out.push_back(std::move(q));
  }
  return out;
}

bool MeteringEngine::delete_quota(const std::string& tenant_id, const std::string& dimension,
                                  std::string& error) {
  std::lock_guard lock(impl_->mu);
  Statement& s = impl_->delete_quota;
  s.reset().bind(1, tenant_id).bind(2, dimension);
  if (s.step() != SQLITE_DONE) {
    error = impl_->message();
    return false;
  }
  return true;
}

bool MeteringEngine::aggregate(const std::string& tenant_id, const std::string& dimension,
                               std::int64_t from_ms, std::int64_t to_ms,
                               const std::string& granularity, AggregateResult& out,
                               std::string& error) {
  const std::string g =
      granularity == "hour" || granularity == "month" ? granularity : std::string("day");
  // Sums by bucket number (hours or days since the epoch, or the month's
  // first millisecond); each distinct bucket is formatted once at the end.
  std::map<std::int64_t, std::int64_t> sums;
  {
    std::lock_guard lock(impl_->mu);
    Statement& s = impl_->aggregate;
    s.reset().bind(1, tenant_id).bind(2, dimension).bind(3, from_ms).bind(4, to_ms);
    std::int64_t last_bucket = 0, month_start = 1, month_end = 0;
    std::int64_t* last_sum = nullptr;
    int rc;
    while ((rc = s.step()) == SQLITE_ROW) {
      const std::int64_t ts = s.int64(0);
      const std::int64_t value = s.int64(1);
      std::int64_t bucket;
      if (g == "hour") {
        bucket = floor_div(ts, kHourMs);
      } else if (g == "day") {
        bucket = floor_div(ts, kDayMs);
      } else {
        if (ts < month_start || ts >= month_end) std::tie(month_start, month_end) = month_range(ts);
        bucket = month_start;
      }
      // Rows come in index order (by time), so most rows hit the same bucket.
      if (!last_sum || bucket != last_bucket) {
        last_sum = &sums[bucket];
        last_bucket = bucket;
      }
      *last_sum += value;
    }
    if (rc != SQLITE_DONE) {
      error = impl_->message();
      return false;
    }
  }
  out = AggregateResult{tenant_id, dimension, from_ms, to_ms, g, {}};
  for (const auto& [bucket, sum] : sums) {
    std::string key = g == "hour"  ? format_utc(bucket * kHourMs, "%Y-%m-%dT%H")
                      : g == "day" ? format_utc(bucket * kDayMs, "%Y-%m-%d")
                                   : format_utc(bucket, "%Y-%m");
    out.buckets.push_back({std::move(key), sum});
  }
  return true;
}

}  // namespace ostrel::metering
