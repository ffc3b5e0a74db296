#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/encoding.h"

namespace ostrel::base {

// The running state of one of the node's hash-chained logs (the kernel's
// audit log, the security module's decision log): the hash of the newest
// record and how many records precede it. A record's hash always covers the
// hash before it, so editing, dropping or reordering a record breaks the
// chain from there on; which bytes of a record are hashed is the log's own
// format. Not thread-safe: the owning log's mutex guards it.
class HashChain {
 public:
  using Hash = std::array<unsigned char, 32>;

  // SHA-256 of `a` followed by `b` (all zeros if the library fails).
  Hash digest(std::string_view a, std::string_view b = {});
  // The chain rule of logs that hash raw: SHA-256(prev ‖ bytes).
  Hash link(const Hash& prev, std::string_view bytes) {
    return digest(std::string_view(reinterpret_cast<const char*>(prev.data()), prev.size()),
                  bytes);
  }

  void advance(const Hash& hash) {
    head_ = hash;
    ++length_;
  }
  void reset() {
    head_ = Hash{};
    length_ = 0;
  }
  const Hash& head() const { return head_; }
  std::uint64_t length() const { return length_; }

  static std::string hex(const Hash& hash) { return to_hex(hash.data(), hash.size()); }
  // False unless `text` is 64 hex digits.
  static bool from_hex(std::string_view text, Hash& out);

 private:
  Sha256 sha_;
  Hash head_{};
  std::uint64_t length_ = 0;
};

}  // namespace ostrel::base
