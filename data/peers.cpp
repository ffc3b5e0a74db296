#include "data/peers.h"

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "base/http_client.h"
#include "base/json.h"
#include "base/text.h"
#include "kernel/syscall_table.h"

namespace ostrel::data {
namespace {

using Json = nlohmann::json;

std::vector<std::string> split_urls(const std::string& text) {
  std::vector<std::string> out;
  for (const auto& item : text::split_list(text)) {
    std::string url = normalise_peer_url(item);
    if (!url.empty() && std::find(out.begin(), out.end(), url) == out.end()) out.push_back(url);
  }
  return out;
}

base::HttpHeaders identity_headers(const PeerIdentity& me) {
  base::HttpHeaders h;
  if (!me.node_id.empty() && !me.node_token.empty()) {
    h.emplace_back("X-Ostrel-Node-Id", me.node_id);
    h.emplace_back("X-Ostrel-Node-Token", me.node_token);
  }
  return h;
}

}  // namespace

std::string normalise_peer_url(std::string url) { return base::normalise_base_url(std::move(url)); }

PeerDirectory::PeerDirectory(kernel::SyscallTable* syscalls, identity::SourceCode self,
                             std::string configured)
    : syscalls_(syscalls), self_(self) {
  configured_ = split_urls(configured);
}

std::vector<std::string> PeerDirectory::from_membership_(bool data_only) const {
  std::vector<std::string> out;
  if (!syscalls_ || !syscalls_->has("cluster.members")) return out;
  kernel::SyscallResult r = syscalls_->call(self_, "cluster.members", "{}");
  Json j = base::parse_json(r.body);
  if (r.status != 0 || !j.is_object() || !j.contains("members") || !j["members"].is_array()) {
    return out;
  }
  for (const auto& m : j["members"]) {
    if (!m.is_object() || m.value("self", false) || m.value("state", "alive") != "alive") continue;
    std::string url = normalise_peer_url(m.value("url", ""));
    if (url.empty()) continue;
    if (data_only && m.contains("modules") && m["modules"].is_array()) {
      const auto& mods = m["modules"];
      if (std::find(mods.begin(), mods.end(), "data") == mods.end()) continue;
    }
    out.push_back(url);
  }
  return out;
}

std::vector<std::string> PeerDirectory::data_peers() const {
  if (syscalls_ && syscalls_->has("cluster.members")) return from_membership_(true);
  return configured_;
}

std::vector<std::string> PeerDirectory::all_peers() const {
  if (syscalls_ && syscalls_->has("cluster.members")) return from_membership_(false);
  return configured_;
}

PeerReply peer_post(const std::string& base_url, const std::string& path, const std::string& body,
                    const PeerIdentity& me, std::chrono::milliseconds timeout) {
  return base::http_post(base_url, path, body, identity_headers(me), timeout);
}

PeerReply peer_get(const std::string& base_url, const std::string& path, const PeerIdentity& me,
                   std::chrono::milliseconds timeout) {
  return base::http_get(base_url, path, identity_headers(me), timeout);
}

}  // namespace ostrel::data
