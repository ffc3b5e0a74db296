#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "base/logger.h"
#include "base/no_copy.h"

// Decentralised membership: every node keeps a table of the cluster's members
// and exchanges it with a few random peers at a fixed interval over a small
// HTTP listener of its own; silent members become suspect, then dead, then
// are forgotten.
namespace ostrel::cluster::gossip {

enum class NodeStatus { alive = 0, suspect = 1, dead = 2 };
const char* status_name(NodeStatus s);

struct NodeMember {
  std::string id;
  std::string address;  // "host:port" of the member's gossip listener
  NodeStatus status = NodeStatus::alive;
  std::uint64_t incarnation = 0;
  // The member's own clock when it last announced itself: every node ages a
  // member from the same instant, so all of them see it fall silent together.
  double last_seen_ms = 0;
  std::map<std::string, std::string> tags;
  // Proof that the member itself made this record (empty in a mesh that does
  // not sign): its Ed25519 public key (32 bytes), a node token it made for
  // its id, and its signature (64 bytes) over signed_bytes().
  std::string key;
  std::string token;
  std::string sig;
  // Where this node dials the member, when that differs from the address it
  // announced (seen from here); never sent on.
  std::string dial;
};

// The bytes a member signs: its id, address, incarnation, announcement time,
// tags, key and token (not its status: that is each observer's judgement).
std::string signed_bytes(const NodeMember& m);

nlohmann::json member_to_json(const NodeMember& m);
// False when a required field is missing or has the wrong type.
bool member_from_json(const nlohmann::json& j, NodeMember& out);

struct GossipStats {
  std::uint64_t gossip_rounds = 0;
  std::uint64_t messages_sent = 0;
  std::uint64_t messages_received = 0;
  std::uint64_t messages_rejected = 0;
  std::uint64_t records_rejected = 0;  // records that failed their proof
  int members_alive = 0;
  int members_suspect = 0;
  int members_dead = 0;
};

// Owns three threads (listener, gossip rounds, failure detector), joined by
// stop() or the destructor. One mutex guards the member table; no network I/O
// and no callback runs while it is held.
class GossipMesh : private base::NoCopy {
 public:
  struct Config {
    std::string self_id;
    std::string self_address;  // what peers should dial; host 0.0.0.0 is replaced by receivers
    std::string bind = "0.0.0.0:7946";
    std::vector<std::string> seeds;  // "host:port"
    int interval_ms = 1000;
    int suspect_after_ms = 5000;
    int remove_after_ms = 30000;
    int fanout = 3;
    int request_timeout_ms = 1500;
    std::size_t max_body_bytes = 1 << 20;
    std::size_t max_members = 4096;
    // Headers that prove this node's membership on each exchange, and the
    // check of a sender's (id, headers); both optional.
    std::function<std::vector<std::pair<std::string, std::string>>()> credentials;
    std::function<bool(const std::string& node_id, const std::string& token)> admit;
    // Signing. With `sign` set, this node signs its own record with the key
    // whose public half is `public_key` (32 raw bytes) and carries a fresh
    // `record_token()`; every record received must then carry its member's
    // key, a token `admit` accepts for the member's id, and a valid
    // signature — so a peer can relay others' records but never make or
    // change one. The first key seen for an id is kept while the member is
    // known: another key for that id is a second node using the same id,
    // refused and reported.
    std::string public_key;
    std::function<std::string(std::string_view message)> sign;
    std::function<std::string()> record_token;
    // Wall-clock milliseconds; the system clock unless a test supplies one.
    std::function<double()> clock;
  };
  using MemberFn = std::function<void(const NodeMember&)>;
  using StatusFn = std::function<void(const NodeMember&, NodeStatus)>;

  explicit GossipMesh(Config config);
  ~GossipMesh();

  void on_join(MemberFn fn);
  void on_leave(MemberFn fn);
  void on_status_change(StatusFn fn);
  // Where the mesh reports failed rounds and refused peers (WARN), and
  // conflicts an operator must fix (ERROR: two nodes with one id).
  void set_log(base::Logger log);

  // False when the bind or self address is invalid or cannot be bound.
  bool start();
  void stop();
  void set_self_tag(const std::string& key, const std::string& value);
  std::vector<NodeMember> members() const;
  GossipStats stats() const;
  // The port the listener is bound to (after start).
  int port() const;

  // One round and one detector pass, for tests that drive the clock.
  void run_round();
  void detect_failures();
  // Merges a received table as the listener does; returns the local table.
  nlohmann::json merge_json(const nlohmann::json& members, const std::string& sender_host);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Splits "a:1, b:2,,c:3" into trimmed, non-empty items.
std::vector<std::string> split_seeds(const std::string& text);

}  // namespace ostrel::cluster::gossip
