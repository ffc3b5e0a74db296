#include "inference/backend_counters.h"

#include <chrono>

namespace ostrel::inference {
namespace {

std::int64_t steady_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

const char* error_type(std::uint16_t code) {
  switch (code) {
    case 400:
      return "invalid_request_error";
    case 401:
      return "authentication_error";
    case 404:
      return "not_found_error";
    case 409:
      return "conflict_error";
    case 499:
      return "cancelled";
    case 502:
      return "upstream_unreachable";
    case 504:
      return "upstream_timeout";
    case 507:
      return "quota_exceeded";
    default:
      return "internal_error";
  }
}

BackendCounters::Scope::Scope(BackendCounters& c) : c_(c), start_ms_(steady_ms()) {
  c_.requests.fetch_add(1);
  c_.in_flight.fetch_add(1);
}

BackendCounters::Scope::~Scope() {
  c_.in_flight.fetch_sub(1);
  if (ok_) {
    c_.completed.fetch_add(1);
    c_.total_latency_ms.fetch_add(static_cast<std::uint64_t>(steady_ms() - start_ms_));
    c_.total_tokens.fetch_add(tokens_);
  } else {
    c_.errors.fetch_add(1);
  }
}

void BackendCounters::fill(BackendStats& s) const {
  s.requests_total = requests.load();
  s.in_flight = in_flight.load();
  s.completed = completed.load();
  s.errors = errors.load();
  s.avg_latency_ms = s.completed ? total_latency_ms.load() / s.completed : 0;
  s.avg_tokens = s.completed ? total_tokens.load() / s.completed : 0;
}

}  // namespace ostrel::inference
