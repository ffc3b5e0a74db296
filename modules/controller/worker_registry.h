#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "base/logger.h"

// The controller's workers: registered on this node or by peers, mirrored to
// "<data_dir>/controller/workers.json" on every change, and those learned
// from peers by the sync pass (never persisted).
namespace ostrel::controller {

struct WorkerInfo {
  std::string id, worker_type, url, node_id;
  std::string state = "healthy";  // "healthy" or "stale"
  bool local = true;
  double cpu = 0, ram_gb = 0, gpu = 0, vram_gb = 0;
  std::int64_t last_heartbeat_ms = 0;
  nlohmann::json extra = nlohmann::json::object();  // models and other fields, kept as sent
};

nlohmann::json worker_json(const WorkerInfo& w);

// Thread-safe: mu_ guards every table; the file is written under it (a
// small local file, no network).
class WorkerRegistry {
 public:
  WorkerRegistry(std::filesystem::path file, base::Logger log);

  // Reads the file back; remote workers come back "stale".
  void restore();
  // "" on success, else the reason ("missing id", …). `is_new` tells a first
  // registration from a repeat.
  std::string register_worker(const nlohmann::json& body, const std::string& this_node,
                              WorkerInfo& out, bool& is_new);
  // False for an unknown id.
  bool heartbeat(const std::string& id);
  // Workers not heard of for `stale_after_ms` become "stale".
  void mark_stale(std::int64_t now_ms, std::int64_t stale_after_ms);
  void replace_peer_workers(const std::string& peer, std::vector<WorkerInfo> workers);
  void replace_peer_modules(const std::string& peer, nlohmann::json modules);
  void drop_peer(const std::string& peer);
  nlohmann::json list() const;
  nlohmann::json peer_modules() const;
  std::size_t size() const;

 private:
  void persist_locked_();

  std::filesystem::path file_;
  base::Logger log_;
  mutable std::mutex mu_;  // guards the three tables below
  std::map<std::string, WorkerInfo> workers_;
  std::map<std::string, std::vector<WorkerInfo>> peer_workers_;
  std::map<std::string, nlohmann::json> peer_modules_;
};

}  // namespace ostrel::controller
