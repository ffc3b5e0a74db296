#include "modules/controller/worker_registry.h"

#include "base/clock.h"
#include "base/durable_file.h"
#include "base/json.h"

namespace ostrel::controller {
namespace {

using Json = nlohmann::json;

const char* type_name(const Json& j) {
  return j.is_object()    ? "object"
         : j.is_string()  ? "string"
         : j.is_number()  ? "number"
         : j.is_boolean() ? "boolean"
         : j.is_null()    ? "null"
                          : "other";
}

double number(const Json& j, const char* key) {
  auto it = j.find(key);
  return it != j.end() && it->is_number() ? it->get<double>() : 0.0;
}

WorkerInfo from_json(const Json& j) {
  WorkerInfo w;
  w.id = base::string_field(j, "id");
  w.worker_type = base::string_field(j, "worker_type");
  if (w.worker_type.empty()) w.worker_type = base::string_field(j, "type");
  w.url = base::string_field(j, "url");
  w.node_id = base::string_field(j, "node_id");
  w.cpu = number(j, "cpu");
  w.ram_gb = number(j, "ram_gb");
  w.gpu = number(j, "gpu");
  w.vram_gb = number(j, "vram_gb");
  if (auto it = j.find("local"); it != j.end() && it->is_boolean()) w.local = *it;
  for (const char* key : {"models", "capabilities", "labels"}) {
    if (auto it = j.find(key); it != j.end()) w.extra[key] = *it;
  }
  return w;
}

}  // namespace

Json worker_json(const WorkerInfo& w) {
  Json j = {{"id", w.id},           {"worker_type", w.worker_type},
            {"url", w.url},         {"node_id", w.node_id},
            {"state", w.state},     {"healthy", w.state == "healthy"},
            {"local", w.local},     {"cpu", w.cpu},
            {"ram_gb", w.ram_gb},   {"gpu", w.gpu},
            {"vram_gb", w.vram_gb}, {"last_heartbeat_ms", w.last_heartbeat_ms}};
  for (auto it = w.extra.begin(); it != w.extra.end(); ++it) j[it.key()] = it.value();
  return j;
}

WorkerRegistry::WorkerRegistry(std::filesystem::path file, base::Logger log)
    : file_(std::move(file)), log_(std::move(log)) {}

void WorkerRegistry::restore() {
  std::error_code ec;
  if (!std::filesystem::exists(file_, ec)) {
    log_.info("worker registry: no persisted state at " + file_.string());
    return;
  }
  bool opened = false;
  Json saved = base::read_json_file(file_, opened);
  if (!opened) {
    log_.info("worker registry: could not open " + file_.string());
    return;
  }
  if (!saved.is_array()) {
    log_.info(std::string("worker registry: expected array, got ") + type_name(saved));
    return;
  }
  std::size_t remote = 0;
  std::lock_guard lock(mu_);
  for (const auto& j : saved) {
    if (!j.is_object()) continue;
    WorkerInfo w = from_json(j);
    if (w.id.empty()) continue;
    // A remote worker proves itself alive again before it is trusted.
    if (!w.local) {
      w.state = "stale";
      ++remote;
    }
    w.last_heartbeat_ms = static_cast<std::int64_t>(number(j, "last_heartbeat_ms"));
    workers_[w.id] = std::move(w);
  }
  log_.info("worker registry: restored " + std::to_string(remote) + " remote worker(s) from " +
            file_.string());
}

std::string WorkerRegistry::register_worker(const Json& body, const std::string& this_node,
                                            WorkerInfo& out, bool& is_new) {
  if (!body.is_object()) return "body must be a JSON object";
  WorkerInfo w = from_json(body);
  if (w.id.empty()) return "missing id";
  if (w.id.size() > 200) return "id too long";
  if (w.worker_type.empty()) return "missing worker_type";
  if (w.node_id.empty()) w.node_id = this_node;
  if (body.find("local") == body.end()) w.local = w.node_id == this_node;
  w.state = "healthy";
  w.last_heartbeat_ms = base::unix_ms();
  std::lock_guard lock(mu_);
  if (workers_.size() >= 10000 && !workers_.count(w.id)) return "registry full";
  is_new = !workers_.count(w.id);
  workers_[w.id] = w;
  out = w;
  persist_locked_();
  return "";
}

bool WorkerRegistry::heartbeat(const std::string& id) {
  std::lock_guard lock(mu_);
  auto it = workers_.find(id);
  if (it == workers_.end()) return false;
  it->second.state = "healthy";
  it->second.last_heartbeat_ms = base::unix_ms();
  return true;
}

void WorkerRegistry::mark_stale(std::int64_t now_ms, std::int64_t stale_after_ms) {
  std::lock_guard lock(mu_);
  for (auto& [id, w] : workers_) {
    if (w.state == "healthy" && now_ms - w.last_heartbeat_ms > stale_after_ms) w.state = "stale";
  }
}

void WorkerRegistry::replace_peer_workers(const std::string& peer,
                                          std::vector<WorkerInfo> workers) {
  std::lock_guard lock(mu_);
  peer_workers_[peer] = std::move(workers);
}

void WorkerRegistry::replace_peer_modules(const std::string& peer, Json modules) {
  std::lock_guard lock(mu_);
  peer_modules_[peer] = std::move(modules);
}

void WorkerRegistry::drop_peer(const std::string& peer) {
  std::lock_guard lock(mu_);
  peer_workers_.erase(peer);
  peer_modules_.erase(peer);
}

Json WorkerRegistry::list() const {
  std::lock_guard lock(mu_);
  Json out = Json::array();
  for (const auto& [id, w] : workers_) out.push_back(worker_json(w));
  for (const auto& [peer, list] : peer_workers_) {
    for (const auto& w : list) out.push_back(worker_json(w));
  }
  return out;
}

Json WorkerRegistry::peer_modules() const {
  std::lock_guard lock(mu_);
  Json out = Json::object();
  for (const auto& [peer, mods] : peer_modules_) out[peer] = mods;
  return out;
}

std::size_t WorkerRegistry::size() const {
  std::lock_guard lock(mu_);
  return workers_.size();
}

void WorkerRegistry::persist_locked_() {
  Json all = Json::array();
  for (const auto& [id, w] : workers_) all.push_back(worker_json(w));
  std::string error;
  if (!base::write_file_atomically(file_, all.dump(2) + "\n", error)) {
    log_.info("worker registry: could not write " + file_.string() + ": " + error);
  }
}

}  // namespace ostrel::controller
