#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "base/http_client.h"
#include "identity/source_code.h"
#include "kernel/syscall_table.h"

namespace ostrel::data {

// The other nodes the data module talks to, as base URLs ("http://host:port").
// When some module registers the syscall "cluster.members" (cluster
// membership), its answer is the list; until then the list is the module's
// "peers" setting (comma-separated; OSTREL_ULVO_PEERS when unset). This is the one
// place the data module learns who its peers are.
// Thread-safe: it holds only configuration; the syscall table is borrowed
// from the kernel, which outlives the module.
class PeerDirectory {
 public:
  PeerDirectory(kernel::SyscallTable* syscalls, identity::SourceCode self, std::string configured);

  // Peers that run the data module, without duplicates, in a stable order.
  std::vector<std::string> data_peers() const;
  // Every known peer (for discovery of other modules).
  std::vector<std::string> all_peers() const;

 private:
  std::vector<std::string> from_membership_(bool data_only) const;

  kernel::SyscallTable* syscalls_;
  identity::SourceCode self_;
  std::vector<std::string> configured_;
};

// "http://host:port" from "host:port", "http://host:port/" and the like.
std::string normalise_peer_url(std::string url);

// One HTTP call to a peer, carrying this node's identity so that a peer
// enforcing auth admits it.
using PeerReply = base::HttpReply;

struct PeerIdentity {
  std::string node_id;
  std::string node_token;
};

PeerReply peer_post(const std::string& base_url, const std::string& path, const std::string& body,
                    const PeerIdentity& me, std::chrono::milliseconds timeout);
PeerReply peer_get(const std::string& base_url, const std::string& path, const PeerIdentity& me,
                   std::chrono::milliseconds timeout);

}  // namespace ostrel::data
