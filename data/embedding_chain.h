#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/logger.h"
#include "data/peers.h"
#include "identity/source_code.h"

namespace ostrel::kernel {
class SyscallTable;
}

namespace ostrel::data {

// Turns a text into an embedding vector for the data module, trying in
// order: the syscall "inference.embeddings", the syscall "cloud.embeddings",
// a peer that runs the cloud module (found once and cached), the legacy bus,
// then failing with "cloud.embeddings unavailable locally and no cloud peer
// discovered". The built-in model "ulvo-hash-embed-v1" is deterministic and
// computed in place: the inference module would answer the same numbers.
// Thread-safe: cache_mu_ guards the cloud-peer answer; nothing is held
// while calling a syscall or a peer.
class EmbeddingChain {
 public:
  // `ask_bus`: the question "which cloud peer?" put to the legacy bus
  // (its answer, a peer URL, or "").
  EmbeddingChain(kernel::SyscallTable* syscalls, identity::SourceCode self,
                 const PeerDirectory* peers, PeerIdentity me, base::Logger log,
                 std::function<std::string()> ask_bus = {});

  // The vector for `text`, or false with the reason.
  bool embed(const std::string& model, std::string_view text, std::vector<float>& out,
             std::string& error);

 private:
  bool via_syscall_(const char* name, const std::string& request, std::vector<float>& out,
                    std::string& error);
  std::string cloud_peer_();
  bool via_peer_(const std::string& peer, const std::string& request, std::vector<float>& out,
                 std::string& error);

  kernel::SyscallTable* syscalls_;  // borrowed: the kernel outlives the module
  identity::SourceCode self_;
  const PeerDirectory* peers_;  // borrowed: owned by the data module
  PeerIdentity me_;
  base::Logger log_;
  std::function<std::string()> ask_bus_;
  std::shared_mutex cache_mu_;  // guards cloud_peer_, cached_at_
  std::string cloud_peer_cached_;
  std::chrono::steady_clock::time_point cached_at_{};
  bool cached_ = false;
};

// The vector in an embeddings answer: "data"[0]["embedding"], else
// "embedding". False when neither is an array of numbers.
bool embedding_from_answer(std::string_view body, std::vector<float>& out);

}  // namespace ostrel::data
