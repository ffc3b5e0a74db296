#include "identity/node_token.h"

#include <chrono>
#include <cstdio>

#include "base/clock.h"
#include "base/encoding.h"

namespace ostrel::identity {
using base::constant_time_equal;
using base::hmac_sha256;
using base::random_bytes;
using base::sha256;
using base::to_hex;
namespace {

constexpr std::size_t kTokenLength = 83;
constexpr std::int64_t kMaxSkewSeconds = 86400;

std::string mac_hex(const std::string& secret, const std::string& node_id,
                    std::string_view ts_digits) {
  std::string message = node_id + ":" + std::string(ts_digits);
  return to_hex(hmac_sha256(secret, message));
}

bool parse_hex64(std::string_view digits, std::uint64_t& out) {
  out = 0;
  for (char c : digits) {
    int v;
    if (c >= '0' && c <= '9') {
      v = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      v = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      v = c - 'A' + 10;
    } else {
      return false;
    }
    out = (out << 4) | static_cast<std::uint64_t>(v);
  }
  return true;
}

}  // namespace

std::string generate_random_secret() { return to_hex(random_bytes(32)); }

std::string cluster_id_from_secret(const std::string& secret) {
  return to_hex(sha256(secret).substr(0, 8));
}

std::string generate_node_token_at(const std::string& secret, const std::string& node_id,
                                   std::int64_t unix_seconds) {
  char ts[17];
  std::snprintf(ts, sizeof ts, "%016llx", static_cast<unsigned long long>(unix_seconds));
  return "nt-" + std::string(ts) + mac_hex(secret, node_id, ts);
}

std::string generate_node_token(const std::string& secret, const std::string& node_id) {
  return generate_node_token_at(secret, node_id, base::unix_s());
}

bool verify_node_token_at(const std::string& secret, const std::string& node_id,
                          const std::string& token, std::int64_t now) {
  if (token.size() != kTokenLength || token.compare(0, 3, "nt-") != 0) return false;
  std::string_view digits = std::string_view(token).substr(3, 16);
  std::uint64_t issued = 0;
  if (!parse_hex64(digits, issued)) return false;
  // Compare in unsigned arithmetic so that absurd timestamps cannot overflow.
  std::uint64_t n = static_cast<std::uint64_t>(now);
  std::uint64_t skew = issued > n ? issued - n : n - issued;
  if (skew > static_cast<std::uint64_t>(kMaxSkewSeconds)) return false;
  return constant_time_equal(mac_hex(secret, node_id, digits), std::string_view(token).substr(19));
}

bool verify_node_token(const std::string& secret, const std::string& node_id,
                       const std::string& token) {
  return verify_node_token_at(secret, node_id, token, base::unix_s());
}

}  // namespace ostrel::identity
