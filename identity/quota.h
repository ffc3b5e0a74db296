#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace ostrel::identity {

struct QuotaCheck {
  bool ok = true;
  std::int64_t usage = 0;
  std::int64_t limit = -1;
  std::int64_t projected_usage = 0;
  std::string reason;  // "quota_exceeded" when refused
};

// Running usage per (tenant, resource). In memory: usage restarts at zero
// with the process. Thread-safe: mu_ guards usage_.
class QuotaAccountant {
 public:
  // Refuses when limit >= 0 and usage + increment > limit; changes nothing.
  QuotaCheck check(const std::string& tenant, const std::string& resource, std::int64_t increment,
                   std::int64_t limit) const;
  std::int64_t consume(const std::string& tenant, const std::string& resource, std::int64_t amount);
  std::int64_t release(const std::string& tenant, const std::string& resource, std::int64_t amount);
  std::int64_t usage(const std::string& tenant, const std::string& resource) const;
  std::map<std::string, std::int64_t> usage_of(const std::string& tenant) const;
  void drop_tenant(const std::string& tenant);

 private:
  mutable std::mutex mu_;  // guards usage_
  std::map<std::pair<std::string, std::string>, std::int64_t> usage_;
};

// Token buckets by key: created full, refilled continuously at `rate` tokens
// per second up to `capacity`; a call takes one token when one is there.
// Thread-safe: mu_ guards buckets_.
class RateLimiter {
 public:
  RateLimiter(double capacity, double rate_per_second)
      : capacity_(capacity), rate_(rate_per_second) {}
  bool try_consume(const std::string& key);
  bool try_consume_at(const std::string& key, std::chrono::steady_clock::time_point now);

 private:
  struct Bucket {
    double tokens;
    std::chrono::steady_clock::time_point last;
  };
  double capacity_;
  double rate_;
  std::mutex mu_;  // guards buckets_
  std::map<std::string, Bucket> buckets_;
};

}  // namespace ostrel::identity
