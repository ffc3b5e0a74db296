// The node's cluster secret and the cluster-state file "<data_dir>/state/cluster.json".
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "base/clock.h"
#include "base/durable_file.h"
#include "base/encoding.h"
#include "base/env.h"
#include "base/json.h"
#include "base/reply.h"
#include "identity/node_token.h"
#include "kernel/kernel.h"

namespace ostrel::kernel {
using base::read_json_file;
using base::unix_ms;
using base::write_file_atomically;
namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;

}  // namespace

fs::path Kernel::cluster_state_path_() const {
  return fs::path(config_.data_dir) / "state" / "cluster.json";
}

bool Kernel::load_cluster_state_() {
  bool opened = false;
  Json state = read_json_file(cluster_state_path_(), opened);
  if (!opened) return false;
  if (!state.is_object()) {
    logger_.warn("cluster state " + cluster_state_path_().string() +
                 " is not a JSON object — ignoring it");
    return false;
  }
  auto secret = state.find("cluster_secret");
  if (secret == state.end() || !secret->is_string() || secret->get<std::string>().empty()) {
    return false;
  }
  cluster_secret_ = secret->get<std::string>();
  if (auto c = state.find("controller_node_id"); c != state.end() && c->is_string()) {
    controller_node_id_ = c->get<std::string>();
  }
  return true;
}

void Kernel::persist_cluster_state_() {
  const fs::path path = cluster_state_path_();
  bool opened = false;
  Json existing = read_json_file(path, opened);
  Json registered = Json::object();
  if (existing.is_object()) {
    auto r = existing.find("registered_nodes");
    if (r != existing.end() && r->is_object()) registered = *r;
  }
  Json state = {{"cluster_secret", cluster_secret_},
                {"cluster_id", identity::cluster_id_from_secret(cluster_secret_)},
                {"controller_node_id", controller_node_id_},
                {"registered_nodes", registered}};
  std::string error;
  if (!write_file_atomically(path, state.dump(2) + "\n", error)) {
    logger_.error("failed to write cluster.json to " + path.string() + " (" + error + ")");
    return;
  }
  logger_.info("cluster state persisted to " + path.string());
}

void Kernel::establish_cluster_identity_() {
  if (std::string secret = base::env::text("OSTREL_CLUSTER_SECRET"); !secret.empty()) {
    cluster_secret_ = secret;
    logger_.info("cluster secret loaded from OSTREL_CLUSTER_SECRET");
  } else if (load_cluster_state_()) {
    logger_.info("cluster secret loaded from cluster.json");
  } else if (std::string peers = base::env::text("OSTREL_ULVO_PEERS"); !peers.empty()) {
    logger_.info("no cluster secret — attempting cluster join via peers");
    if (!join_cluster_(peers)) {
      // Not saved: a later boot with a reachable peer can still join.
      cluster_secret_ = identity::generate_random_secret();
      logger_.warn("cluster join failed — generated standalone secret");
      logger_.warn("this node is NOT part of the cluster until join succeeds");
    }
  } else {
    cluster_secret_ = identity::generate_random_secret();
    controller_node_id_ = config_.node_id;
    logger_.info("controller: generated cluster secret");
    persist_cluster_state_();
  }

  identity_.node_id = config_.node_id;
  identity_.cluster_id = identity::cluster_id_from_secret(cluster_secret_);
  identity_.node_token = identity::generate_node_token(cluster_secret_, config_.node_id);
  identity_.issued_at_ms = unix_ms();
  identity_.expires_at_ms = identity_.issued_at_ms + 24LL * 3600 * 1000;
  logger_.info("node identity: id=" + identity_.node_id + ", cluster=" + identity_.cluster_id);
  if (std::string url = base::env::text("OSTREL_ULVO_CONTROLLER_URL"); !url.empty()) {
    logger_.info("identity fallback → " + url);
  }

  // Peers prove who they are with node tokens minted from the shared secret.
  gateway_.set_node_token_verifier(
      [secret = cluster_secret_](const std::string& node_id, const std::string& token) {
        return identity::verify_node_token(secret, node_id, token);
      });
  gateway_.set_cluster_secret_verifier([secret = cluster_secret_](const std::string& presented) {
    return base::constant_time_equal(presented, secret);
  });
}

}  // namespace ostrel::kernel
