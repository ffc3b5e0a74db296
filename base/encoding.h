#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/no_copy.h"

namespace ostrel::base {

// Lower-case hexadecimal of raw bytes.
std::string to_hex(std::string_view bytes);
inline std::string to_hex(const unsigned char* data, std::size_t size) {
  return to_hex(std::string_view(reinterpret_cast<const char*>(data), size));
}

// Appends the low `digits` hex digits of `v`, lower case, most significant
// first (digits <= 16).
void append_hex(std::string& out, std::uint64_t v, int digits);

// Parses lower- or upper-case hex; false on an odd length or a non-hex digit.
bool from_hex(std::string_view hex, std::string& out);

// RFC 4648 URL-safe base64 without "=" padding, and its strict decoder (which
// refuses padding, other alphabets and impossible lengths).
std::string base64url_encode(std::string_view bytes);
// RFC 4648 base64 with "=" padding.
std::string base64_encode(std::string_view bytes);
bool base64url_decode(std::string_view text, std::string& out);

// SHA-256 of `data`, as 32 raw bytes.
std::string sha256(std::string_view data);
// A SHA-256 hasher for many small inputs: the digest implementation is
// fetched once and one context reused, which saves most of the per-call cost
// of the one-shot function. Not thread-safe: one owner at a time.
class Sha256 : private base::NoCopy {
 public:
  Sha256();
  ~Sha256();
  // SHA-256 of `a` followed by `b`, into 32 bytes; false on a library failure.
  bool digest(std::string_view a, std::string_view b, unsigned char out[32]);

 private:
  void* md_;   // EVP_MD*
  void* ctx_;  // EVP_MD_CTX*
};

// HMAC-SHA256 of `message` under `key`, as 32 raw bytes.
std::string hmac_sha256(std::string_view key, std::string_view message);
// `size` bytes from the system's secure random source; empty on failure.
std::string random_bytes(std::size_t size);
// Identifier suffixes. random_hex: `digits` lower-case hex digits from a
// per-thread generator seeded from the system (cheap; for names that must not
// collide, not for secrets). random_alnum: `n` characters of a-z0-9 from the
// secure source (for names a caller must not guess).
std::string random_hex(int digits);
std::string random_alnum(std::size_t n);
// True when `signature` is a valid Ed25519 signature of `message` under the
// 32-byte raw public key `public_key`.
bool ed25519_verify(std::string_view public_key, std::string_view message,
                    std::string_view signature);
// Constant-time comparison of two equally long texts; false when lengths differ.
bool constant_time_equal(std::string_view a, std::string_view b);

}  // namespace ostrel::base
