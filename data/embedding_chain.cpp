#include "data/embedding_chain.h"

#include <nlohmann/json.hpp>

#include "base/hash_embedder.h"
#include "base/json.h"
#include "kernel/syscall_table.h"

namespace ostrel::data {
namespace {

using Json = nlohmann::json;

constexpr auto kPeerCacheTtl = std::chrono::seconds(60);
constexpr auto kPeerTimeout = std::chrono::seconds(5);

bool floats_from(const Json& arr, std::vector<float>& out) {
  if (!arr.is_array() || arr.empty()) return false;
  out.clear();
  out.reserve(arr.size());
  for (const auto& v : arr) {
    if (!v.is_number()) return false;
    out.push_back(v.get<float>());
  }
  return true;
}

// The port a peer's public routes are served on: its own, else 8880.
std::string with_default_port(const std::string& url) {
  std::size_t scheme = url.find("://");
  std::size_t host = scheme == std::string::npos ? 0 : scheme + 3;
  if (url.find(':', host) != std::string::npos) return url;
  return url + ":8880";
}

}  // namespace

bool embedding_from_answer(std::string_view body, std::vector<float>& out) {
  Json j = base::parse_json(body);
  if (!j.is_object()) return false;
  if (auto d = j.find("data"); d != j.end() && d->is_array() && !d->empty() &&
                               (*d)[0].is_object() && (*d)[0].contains("embedding")) {
    return floats_from((*d)[0]["embedding"], out);
  }
  if (auto e = j.find("embedding"); e != j.end()) return floats_from(*e, out);
  return false;
}

EmbeddingChain::EmbeddingChain(kernel::SyscallTable* syscalls, identity::SourceCode self,
                               const PeerDirectory* peers, PeerIdentity me, base::Logger log,
                               std::function<std::string()> ask_bus)
    : syscalls_(syscalls),
      self_(self),
      peers_(peers),
      me_(std::move(me)),
      log_(std::move(log)),
      ask_bus_(std::move(ask_bus)) {}

bool EmbeddingChain::via_syscall_(const char* name, const std::string& request,
                                  std::vector<float>& out, std::string& error) {
  kernel::SyscallResult r = syscalls_->call(self_, name, request);
  if (r.status == 0 && embedding_from_answer(r.body, out)) return true;
  error = r.body.empty() ? "no answer" : r.body;
  return false;
}

bool EmbeddingChain::embed(const std::string& model, std::string_view text, std::vector<float>& out,
                           std::string& error) {
  if (model == base::HashEmbedder::kModelId) {
    out = base::HashEmbedder::embed(text);
    return true;
  }
  const std::string request = base::dump_json(Json{{"model", model}, {"input", std::string(text)}});
  std::string first_error;

  // 1. The node's inference module.
  if (syscalls_->has("inference.embeddings")) {
    std::string e;
    if (via_syscall_("inference.embeddings", request, out, e)) {
      log_.debug("embed: inference.embeddings ok (dim=" + std::to_string(out.size()) + ")");
      return true;
    }
    first_error = e;
    log_.debug("embed: inference.embeddings did not serve model — trying cloud.embeddings");
  }
  // 2. A cloud module on this node.
  if (syscalls_->has("cloud.embeddings")) {
    std::string e;
    if (via_syscall_("cloud.embeddings", request, out, e)) {
      log_.debug("embed: local cloud.embeddings ok (dim=" + std::to_string(out.size()) + ")");
      return true;
    }
    if (first_error.empty()) first_error = e;
    log_.debug("embed: local cloud.embeddings unavailable (" + e + ") — trying peer");
  } else {
    log_.debug("embed: cloud.embeddings syscall not registered on this kernel — trying peer");
  }
  // 3–4. A peer that runs the cloud module.
  if (std::string peer = cloud_peer_(); !peer.empty()) {
    std::string e;
    if (via_peer_(peer, request, out, e)) {
      log_.debug("embed: peer cloud.embeddings ok via " + peer +
                 " (dim=" + std::to_string(out.size()) + ")");
      return true;
    }
    if (first_error.empty()) first_error = e;
  }
  // 5. The legacy bus, for a cloud peer someone on it knows.
  if (std::string bus_peer = ask_bus_ ? ask_bus_() : ""; !bus_peer.empty()) {
    // Scheme and path go: the peer is dialled as host[:port].
    if (auto at = bus_peer.find("://"); at != std::string::npos) bus_peer.erase(0, at + 3);
    bus_peer = bus_peer.substr(0, bus_peer.find('/'));
    std::string e;
    if (via_peer_(bus_peer, request, out, e)) {
      log_.debug("embed: OstrelBus-resolved cloud peer ok via " + bus_peer);
      return true;
    }
    log_.debug("embed: OstrelBus cloud peer failed (" + e + ")");
  } else {
    log_.debug("embed: OstrelBus cloud peer failed (no member of the legacy bus knows one)");
  }
  // 6.
  error = "cloud.embeddings unavailable locally and no cloud peer discovered";
  if (!first_error.empty()) error += " (inference.embeddings: " + first_error + ")";
  return false;
}

std::string EmbeddingChain::cloud_peer_() {
  {
    std::shared_lock lock(cache_mu_);
    if (cached_ && std::chrono::steady_clock::now() - cached_at_ < kPeerCacheTtl) {
      return cloud_peer_cached_;
    }
  }
  std::string found;
  std::vector<std::string> candidates = peers_ ? peers_->all_peers() : std::vector<std::string>{};
  for (const auto& candidate : candidates) {
    PeerReply r = peer_get(candidate, "/api/v1/kernel/modules", me_, kPeerTimeout);
    if (!r.transport_ok || r.status != 200) continue;
    Json mods = base::parse_json(r.body);
    if (!mods.is_array()) continue;
    for (const auto& m : mods) {
      if (m.is_object() && m.value("name", "") == "cloud") found = candidate;
    }
    if (!found.empty()) break;
  }
  if (candidates.empty()) {
    log_.debug("cloud peer discovery: no candidate (local topology + peers env both empty)");
  } else if (found.empty()) {
    log_.debug("cloud peer discovery: none of " + std::to_string(candidates.size()) +
               " peer(s) runs the cloud module");
  } else {
    log_.info("cloud peer discovered via peers: " + found);
  }
  std::unique_lock lock(cache_mu_);
  cloud_peer_cached_ = found;
  cached_at_ = std::chrono::steady_clock::now();
  cached_ = true;
  return found;
}

bool EmbeddingChain::via_peer_(const std::string& peer, const std::string& request,
                               std::vector<float>& out, std::string& error) {
  PeerReply r =
      peer_post(with_default_port(peer), "/v1/cloud/embeddings", request, me_, kPeerTimeout);
  if (!r.transport_ok) {
    error = "peer curl: " + r.error;
    return false;
  }
  if (r.status != 200) {
    error = "peer http " + std::to_string(r.status);
    return false;
  }
  if (!embedding_from_answer(r.body, out)) {
    error = r.body.empty() ? "peer empty embedding response" : "peer embedding parse: bad JSON";
    return false;
  }
  return true;
}

}  // namespace ostrel::data
