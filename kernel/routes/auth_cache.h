#pragma once

#include <cstdint>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "kernel/types.h"

namespace ostrel::kernel {

// Verified credentials, so that an enforcing node does not pay an Ed25519
// verification per request. Entries carry their token's expiry second; the
// verifier still checks expiry and revocation on every hit, so a cached entry
// never outlives its token. Bounded: when full, the table starts over.
// Thread-safe: mu_ guards entries_; lookups share it.
class AuthCache {
 public:
  struct Entry {
    AuthResult result;
    std::int64_t expires_at_s = 0;
  };

  explicit AuthCache(std::size_t capacity = 65536) : capacity_(capacity) {}

  std::optional<Entry> find(const std::string& credential) const;
  void put(const std::string& credential, Entry entry);
  void erase(const std::string& credential);
  void clear();

 private:
  std::size_t capacity_;
  mutable std::shared_mutex mu_;  // guards entries_
  std::unordered_map<std::string, Entry> entries_;
};

}  // namespace ostrel::kernel
