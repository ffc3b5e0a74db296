#include "base/encoding.h"

#include <algorithm>
#include <array>
#include <random>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace ostrel::base {

std::string to_hex(std::string_view bytes) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    out += digits[c >> 4];
    out += digits[c & 0xf];
  }
  return out;
}

bool from_hex(std::string_view hex, std::string& out) {
  if (hex.size() % 2 != 0) return false;
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  out.clear();
  out.reserve(hex.size() / 2);
  for (size_t i = 0; i < hex.size(); i += 2) {
    int hi = nibble(hex[i]), lo = nibble(hex[i + 1]);
    if (hi < 0 || lo < 0) return false;
    out += static_cast<char>((hi << 4) | lo);
  }
  return true;
}

namespace {
constexpr char kB64Url[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
}  // namespace

namespace {
std::string base64_with(std::string_view bytes, const char* alphabet, bool pad);
}  // namespace

std::string base64url_encode(std::string_view bytes) { return base64_with(bytes, kB64Url, false); }

std::string base64_encode(std::string_view bytes) {
  static constexpr char kB64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  return base64_with(bytes, kB64, true);
}

namespace {
std::string base64_with(std::string_view bytes, const char* kB64Url, bool pad) {
  std::string out;
  out.reserve((bytes.size() * 4 + 2) / 3);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    std::uint32_t v = (static_cast<unsigned char>(bytes[i]) << 16) |
                      (static_cast<unsigned char>(bytes[i + 1]) << 8) |
                      static_cast<unsigned char>(bytes[i + 2]);
    out += kB64Url[(v >> 18) & 63];
    out += kB64Url[(v >> 12) & 63];
    out += kB64Url[(v >> 6) & 63];
    out += kB64Url[v & 63];
  }
  size_t rest = bytes.size() - i;
  if (rest == 1) {
    std::uint32_t v = static_cast<unsigned char>(bytes[i]) << 16;
    out += kB64Url[(v >> 18) & 63];
    out += kB64Url[(v >> 12) & 63];
  } else if (rest == 2) {
    std::uint32_t v = (static_cast<unsigned char>(bytes[i]) << 16) |
                      (static_cast<unsigned char>(bytes[i + 1]) << 8);
    out += kB64Url[(v >> 18) & 63];
    out += kB64Url[(v >> 12) & 63];
    out += kB64Url[(v >> 6) & 63];
  }
  if (pad) {
    while (out.size() % 4) out += '=';
  }
  return out;
}
}  // namespace

bool base64url_decode(std::string_view text, std::string& out) {
  static const auto table = [] {
    std::array<int, 256> t{};
    t.fill(-1);
    for (int i = 0; i < 64; ++i) t[static_cast<unsigned char>(kB64Url[i])] = i;
    return t;
  }();
  if (text.size() % 4 == 1) return false;
  out.clear();
  out.reserve(text.size() * 3 / 4);
  std::uint32_t acc = 0;
  int bits = 0;
  for (char c : text) {
    int v = table[static_cast<unsigned char>(c)];
    if (v < 0) return false;
    acc = (acc << 6) | static_cast<std::uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((acc >> bits) & 0xff);
    }
  }
  // Leftover bits must be zero, or the text was not produced by an encoder.
  return (acc & ((1u << bits) - 1)) == 0;
}

std::string sha256(std::string_view data) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_Digest(data.data(), data.size(), md, &len, EVP_sha256(), nullptr) != 1) return "";
  return std::string(reinterpret_cast<const char*>(md), len);
}

Sha256::Sha256() : md_(EVP_MD_fetch(nullptr, "SHA256", nullptr)), ctx_(EVP_MD_CTX_new()) {}

Sha256::~Sha256() {
  EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(ctx_));
  EVP_MD_free(static_cast<EVP_MD*>(md_));
}

bool Sha256::digest(std::string_view a, std::string_view b, unsigned char out[32]) {
  auto* ctx = static_cast<EVP_MD_CTX*>(ctx_);
  unsigned int len = 0;
  return md_ && ctx && EVP_DigestInit_ex2(ctx, static_cast<EVP_MD*>(md_), nullptr) == 1 &&
         EVP_DigestUpdate(ctx, a.data(), a.size()) == 1 &&
         EVP_DigestUpdate(ctx, b.data(), b.size()) == 1 &&
         EVP_DigestFinal_ex(ctx, out, &len) == 1 && len == 32;
}

std::string hmac_sha256(std::string_view key, std::string_view message) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (!HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
            reinterpret_cast<const unsigned char*>(message.data()), message.size(), md, &len)) {
    return "";
  }
  return std::string(reinterpret_cast<const char*>(md), len);
}

std::string random_bytes(std::size_t size) {
  std::string out(size, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(out.data()), static_cast<int>(size)) != 1) {
    return "";
  }
  return out;
}

void append_hex(std::string& out, std::uint64_t v, int digits) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (int i = digits - 1; i >= 0; --i) out += kDigits[(v >> (4 * i)) & 0xf];
}

std::string random_hex(int digits) {
  thread_local std::mt19937_64 rng(std::random_device{}());
  std::string out;
  out.reserve(static_cast<std::size_t>(digits));
  for (; digits > 0; digits -= 16) append_hex(out, rng(), std::min(digits, 16));
  return out;
}

std::string random_alnum(std::size_t n) {
  static constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::string out;
  out.reserve(n);
  for (unsigned char c : random_bytes(n)) out += kAlphabet[c % 36];
  return out;
}

bool ed25519_verify(std::string_view public_key, std::string_view message,
                    std::string_view signature) {
  if (public_key.size() != 32 || signature.size() != 64) return false;
  EVP_PKEY* key = EVP_PKEY_new_raw_public_key(
      EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(public_key.data()), 32);
  if (!key) return false;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  const bool ok =
      ctx && EVP_DigestVerifyInit(ctx, nullptr, nullptr, nullptr, key) == 1 &&
      EVP_DigestVerify(ctx, reinterpret_cast<const unsigned char*>(signature.data()),
                       signature.size(), reinterpret_cast<const unsigned char*>(message.data()),
                       message.size()) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(key);
  return ok;
}

bool constant_time_equal(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace ostrel::base
