#include "base/env.h"

#include <atomic>
#include <charconv>
#include <cstdlib>

#include "base/text.h"

namespace ostrel::base::env {
namespace {

// The variables read outside module settings, and what they do (README.md
// lists them for operators):
//   OSTREL_DATA_DIR, OSTREL_AUTH, OSTREL_NODE_ID, OSTREL_CONFIG_DIR, HOME —
//     where the node keeps its state and configuration, and who it is;
//   OSTREL_CLUSTER_SECRET, OSTREL_CLUSTER_JOIN_TOKEN, OSTREL_ULVO_PEERS,
//   OSTREL_ULVO_CONTROLLER_URL, OSTREL_ULVO_HEARTBEAT_S, OSTREL_GOSSIP_* —
//     the cluster it belongs to;
//   OSTREL_ULVO_HTTP_* — the gateway's limits;
//   OSTREL_FIRST_USER_OPEN, OSTREL_AUDIT_CHECKPOINT_S — identity;
//   OSTREL_LOG_TO_STDERR, OSTREL_TRACE_TO_STDERR, OSTREL_OTLP_* —
//     observability;
//   OSTREL_DASHBOARD_DIR, OSTREL_HELP_DIR, OSTREL_SEARCH_DEADLINE_MS — pages,
//     help and search.
std::atomic<Lookup> lookup_{nullptr};

const char* raw(std::string_view name) {
  const std::string key(name);
  if (Lookup l = lookup_.load()) return l(key.c_str());
  return std::getenv(key.c_str());
}

}  // namespace

std::optional<std::string> value(std::string_view name) {
  const char* v = raw(name);
  if (!v) return std::nullopt;
  return std::string(v);
}

std::string text(std::string_view name, const std::string& fallback) {
  const char* v = raw(name);
  return v && *v ? std::string(v) : fallback;
}

std::int64_t integer(std::string_view name, std::int64_t fallback, std::int64_t min,
                     std::int64_t max) {
  const char* v = raw(name);
  if (!v || !*v) return fallback;
  std::string_view s(v);
  std::int64_t out = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
  if (ec != std::errc() || end != s.data() + s.size() || out < min || out > max) return fallback;
  return out;
}

bool flag(std::string_view name) {
  const std::string v = text(name);
  return text::iequals(v, "1") || text::iequals(v, "true") || text::iequals(v, "yes") ||
         text::iequals(v, "on");
}

bool is_set(std::string_view name) {
  const char* v = raw(name);
  return v && *v;
}

void set_lookup_for_tests(Lookup lookup) { lookup_ = lookup; }

}  // namespace ostrel::base::env
