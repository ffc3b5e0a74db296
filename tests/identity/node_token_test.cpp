#include "identity/node_token.h"

#include <gtest/gtest.h>

#include <cctype>
#include <thread>

namespace ostrel::identity {
namespace {

const std::string kSecret = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";
constexpr std::int64_t kNow = 1700000000;

TEST(NodeToken, WireFormatMatchesAnIndependentHmac) {
  // Expected values computed outside this code base (Python's hmac and hashlib).
  EXPECT_EQ(generate_node_token_at(kSecret, "gpu-7", kNow),
            "nt-000000006553f100"
            "b6d69b5617b31cf882464cfe2cc61b2ea0dd58368e33aa8fa3128c63f728518a");
  EXPECT_EQ(cluster_id_from_secret(kSecret), "2a8abfa8cb990629");

  std::string s1 = generate_random_secret(), s2 = generate_random_secret();
  EXPECT_EQ(s1.size(), 64u);
  EXPECT_NE(s1, s2);
  for (char c : s1) EXPECT_TRUE(std::isxdigit(static_cast<unsigned char>(c)) && !std::isupper(c));
  EXPECT_EQ(generate_node_token(s1, "n").size(), 83u);
  EXPECT_TRUE(verify_node_token(s1, "n", generate_node_token(s1, "n")));
}

TEST(NodeToken, RefusesWrongNodeSecretAgeAndShape) {
  std::string token = generate_node_token_at(kSecret, "a", kNow);
  EXPECT_TRUE(verify_node_token_at(kSecret, "a", token, kNow));
  EXPECT_FALSE(verify_node_token_at(kSecret, "b", token, kNow));
  EXPECT_FALSE(verify_node_token_at(kSecret + "0", "a", token, kNow));

  // One day either side is the limit.
  EXPECT_TRUE(verify_node_token_at(kSecret, "a", token, kNow + 23 * 3600));
  EXPECT_TRUE(verify_node_token_at(kSecret, "a", token, kNow + 86400));
  EXPECT_FALSE(verify_node_token_at(kSecret, "a", token, kNow + 86401));
  EXPECT_FALSE(verify_node_token_at(kSecret, "a", token, kNow - 86401));

  EXPECT_FALSE(verify_node_token_at(kSecret, "a", token.substr(0, 82), kNow));
  EXPECT_FALSE(verify_node_token_at(kSecret, "a", token + "0", kNow));
  std::string wrong_prefix = token;
  wrong_prefix[1] = 'x';
  EXPECT_FALSE(verify_node_token_at(kSecret, "a", wrong_prefix, kNow));
  std::string bad_digit = token;
  bad_digit[10] = 'g';
  EXPECT_FALSE(verify_node_token_at(kSecret, "a", bad_digit, kNow));

  // Upper-case timestamp digits parse to the same time but change the MAC input.
  std::string upper = token;
  for (size_t i = 3; i < 19; ++i) upper[i] = static_cast<char>(std::toupper(upper[i]));
  ASSERT_NE(upper, token);
  EXPECT_FALSE(verify_node_token_at(kSecret, "a", upper, kNow));

  // A flipped MAC bit anywhere is refused.
  for (size_t i = 19; i < token.size(); i += 7) {
    std::string flipped = token;
    flipped[i] = flipped[i] == '0' ? '1' : '0';
    EXPECT_FALSE(verify_node_token_at(kSecret, "a", flipped, kNow)) << i;
  }
  // An absurd timestamp does not overflow into acceptance.
  std::string far = generate_node_token_at(kSecret, "a", -1);
  EXPECT_FALSE(verify_node_token_at(kSecret, "a", far, kNow));
}

}  // namespace
}  // namespace ostrel::identity
