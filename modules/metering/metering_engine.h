#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/no_copy.h"

namespace ostrel::metering {

struct Quota {
  std::string tenant_id;
  std::string dimension;
  std::string period = "monthly";
  std::int64_t hard_limit = 0;  // 0: none
  std::int64_t soft_limit = 0;
};

struct AggregateBucket {
  std::string key;  // "%Y-%m-%dT%H", "%Y-%m-%d" or "%Y-%m" in UTC
  std::int64_t sum = 0;
};

struct AggregateResult {
  std::string tenant_id;
  std::string dimension;
  std::int64_t from_ms = 0;
  std::int64_t to_ms = 0;
  std::string granularity;
  std::vector<AggregateBucket> buckets;  // ascending key order
};

// Usage events and quotas per tenant and dimension in an embedded SQLite
// database, aggregated into UTC time buckets. Knows nothing of HTTP.
// Construction throws std::runtime_error ("metering: open …", "metering:
// prepare: …"); every other operation reports failure as false plus the
// database's message. Thread-safe: one mutex serialises the connection.
class MeteringEngine : private base::NoCopy {
 public:
  explicit MeteringEngine(const std::filesystem::path& db);
  ~MeteringEngine();

  bool record(std::int64_t ts_ms, const std::string& tenant_id, const std::string& project_id,
              const std::string& user_id, const std::string& dimension, std::int64_t value,
              const std::string& attrs_json, std::string& error);
  // Many events in one transaction (what an ingesting module should use).
  struct Event {
    std::int64_t ts_ms = 0;
    std::string tenant_id, project_id, user_id, dimension;
    std::int64_t value = 0;
    std::string attrs_json = "{}";
  };
  bool record_batch(const std::vector<Event>& events, std::string& error);

  bool set_quota(const Quota& q, std::string& error);
  std::optional<Quota> get_quota(const std::string& tenant_id, const std::string& dimension);
  std::vector<Quota> list_quotas(const std::string& tenant_id);
  bool delete_quota(const std::string& tenant_id, const std::string& dimension, std::string& error);

  // Sums of the events with from_ms <= ts < to_ms by "hour", "day" or
  // "month" (anything else counts as "day").
  bool aggregate(const std::string& tenant_id, const std::string& dimension, std::int64_t from_ms,
                 std::int64_t to_ms, const std::string& granularity, AggregateResult& out,
                 std::string& error);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ostrel::metering
