#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ostrel::base {

// The embedded embedding model: words and character trigrams hashed into a
// fixed number of signed buckets, then L2-normalised. Deterministic, needs no
// model server, and places texts that share words or word pieces near each
// other. Meant as the offline default, not as a semantic model.
class HashEmbedder {
 public:
  static constexpr const char* kModelId = "ulvo-hash-embed-v1";
  static constexpr std::size_t kDimensions = 384;

  static std::vector<float> embed(std::string_view text);
  // Rough token count used for usage reporting: whitespace-separated words.
  static std::size_t token_count(std::string_view text);
};

}  // namespace ostrel::base
