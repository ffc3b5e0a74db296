#include "identity/quota.h"

#include <algorithm>
#include <limits>

namespace ostrel::identity {
namespace {

// a + b without wrapping: clamped to the range of int64.
std::int64_t saturating_add(std::int64_t a, std::int64_t b) {
  std::int64_t out = 0;
  if (!__builtin_add_overflow(a, b, &out)) return out;
  return b > 0 ? std::numeric_limits<std::int64_t>::max()
               : std::numeric_limits<std::int64_t>::min();
}

std::int64_t saturating_sub(std::int64_t a, std::int64_t b) {
  std::int64_t out = 0;
  if (!__builtin_sub_overflow(a, b, &out)) return out;
  return b < 0 ? std::numeric_limits<std::int64_t>::max()
               : std::numeric_limits<std::int64_t>::min();
}

}  // namespace

QuotaCheck QuotaAccountant::check(const std::string& tenant, const std::string& resource,
                                  std::int64_t increment, std::int64_t limit) const {
  QuotaCheck c;
  c.usage = usage(tenant, resource);
  c.limit = limit;
  c.projected_usage = saturating_add(c.usage, increment);
  if (limit >= 0 && c.projected_usage > limit) {
    c.ok = false;
    c.reason = "quota_exceeded";
  }
  return c;
}

std::int64_t QuotaAccountant::consume(const std::string& tenant, const std::string& resource,
                                      std::int64_t amount) {
  std::lock_guard lock(mu_);
  std::int64_t& v = usage_[{tenant, resource}];
  return v = saturating_add(v, amount);
}

std::int64_t QuotaAccountant::release(const std::string& tenant, const std::string& resource,
                                      std::int64_t amount) {
  std::lock_guard lock(mu_);
  std::int64_t& v = usage_[{tenant, resource}];
  return v = saturating_sub(v, amount);
}

std::int64_t QuotaAccountant::usage(const std::string& tenant, const std::string& resource) const {
  std::lock_guard lock(mu_);
  auto it = usage_.find({tenant, resource});
  return it == usage_.end() ? 0 : it->second;
}

std::map<std::string, std::int64_t> QuotaAccountant::usage_of(const std::string& tenant) const {
  std::lock_guard lock(mu_);
  std::map<std::string, std::int64_t> out;
  for (const auto& [key, v] : usage_) {
    if (key.first == tenant) out[key.second] = v;
  }
  return out;
}

void QuotaAccountant::drop_tenant(const std::string& tenant) {
  std::lock_guard lock(mu_);
  std::erase_if(usage_, [&](const auto& e) { return e.first.first == tenant; });
}

bool RateLimiter::try_consume(const std::string& key) {
  return try_consume_at(key, std::chrono::steady_clock::now());
}

bool RateLimiter::try_consume_at(const std::string& key,
                                 std::chrono::steady_clock::time_point now) {
  std::lock_guard lock(mu_);
  auto [it, created] = buckets_.try_emplace(key, Bucket{capacity_, now});
  Bucket& b = it->second;
  if (!created) {
    double elapsed =
        std::chrono::duration_cast<std::chrono::nanoseconds>(now - b.last).count() / 1e9;
    if (elapsed > 0) b.tokens = std::min(capacity_, b.tokens + elapsed * rate_);
    b.last = now;
  }
  if (b.tokens < 1.0) return false;
  b.tokens -= 1.0;
  return true;
}

}  // namespace ostrel::identity
