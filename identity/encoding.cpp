#include "identity/encoding.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace ostrel::identity {

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

std::string sha256(std::string_view data) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_Digest(data.data(), data.size(), md, &len, EVP_sha256(), nullptr) != 1) return "";
  return std::string(reinterpret_cast<const char*>(md), len);
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

bool constant_time_equal(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace ostrel::identity
