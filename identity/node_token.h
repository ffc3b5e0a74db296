#pragma once

#include <cstdint>
#include <string>

// The cluster secret and what is derived from it: the public cluster id and
// node tokens, which prove that a request comes from a given node of the
// cluster. Stateless functions; thread-safe.
namespace ostrel::identity {

// 32 random bytes as 64 lower-case hex characters.
std::string generate_random_secret();

// The first 8 bytes of SHA-256(secret) as 16 hex characters.
std::string cluster_id_from_secret(const std::string& secret);

// "nt-" + 16 hex digits of the issue time (Unix seconds) + 64 hex digits of
// HMAC-SHA256(secret, node_id + ":" + those 16 digits). 83 characters.
std::string generate_node_token(const std::string& secret, const std::string& node_id);
std::string generate_node_token_at(const std::string& secret, const std::string& node_id,
                                   std::int64_t unix_seconds);

// True for a well-formed token made for `node_id` with this secret within one
// day (either side) of now. The MAC comparison runs in constant time.
bool verify_node_token(const std::string& secret, const std::string& node_id,
                       const std::string& token);
bool verify_node_token_at(const std::string& secret, const std::string& node_id,
                          const std::string& token, std::int64_t now_seconds);

}  // namespace ostrel::identity
