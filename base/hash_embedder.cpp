#include "base/hash_embedder.h"

#include <cctype>
#include <cmath>
#include <cstdint>

namespace ostrel::base {
namespace {

// FNV-1a, 64-bit: stable across builds and platforms.
std::uint64_t fnv1a(std::string_view s, std::uint64_t seed) {
  std::uint64_t h = 1469598103934665603ULL ^ seed;
  for (unsigned char c : s) {
    h ^= c;
    h *= 1099511628211ULL;
  }
  return h;
}

void add_feature(std::vector<float>& v, std::string_view feature, std::uint64_t seed,
                 float weight) {
  std::uint64_t h = fnv1a(feature, seed);
  std::size_t bucket = static_cast<std::size_t>(h % HashEmbedder::kDimensions);
  float sign = (h >> 63) ? -1.0f : 1.0f;
  v[bucket] += sign * weight;
}

std::string normalise(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  bool space = true;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c >= 0x80) {
      out += static_cast<char>(std::tolower(c));
      space = false;
    } else if (!space) {
      out += ' ';
      space = true;
    }
  }
  if (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

}  // namespace

std::vector<float> HashEmbedder::embed(std::string_view text) {
  std::vector<float> v(kDimensions, 0.0f);
  const std::string norm = normalise(text);
  size_t start = 0;
  while (start < norm.size()) {
    size_t end = norm.find(' ', start);
    if (end == std::string::npos) end = norm.size();
    std::string_view word(norm.data() + start, end - start);
    add_feature(v, word, 0x77, 1.0f);
    // Trigrams of the word with boundary marks, so "embed" and "embedding" meet.
    std::string padded = "<" + std::string(word) + ">";
    for (size_t i = 0; i + 3 <= padded.size(); ++i) {
      add_feature(v, std::string_view(padded).substr(i, 3), 0x33, 0.5f);
    }
    start = end + 1;
  }
  double norm2 = 0;
  for (float x : v) norm2 += static_cast<double>(x) * x;
  if (norm2 > 0) {
    float inv = static_cast<float>(1.0 / std::sqrt(norm2));
    for (float& x : v) x *= inv;
  }
  return v;
}

std::size_t HashEmbedder::token_count(std::string_view text) {
  std::size_t n = 0;
  bool in_word = false;
  for (unsigned char c : text) {
    bool space = std::isspace(c);
    if (!space && !in_word) ++n;
    in_word = !space;
  }
  return n;
}

}  // namespace ostrel::base
