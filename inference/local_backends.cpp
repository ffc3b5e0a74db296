#include "inference/local_backends.h"

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "base/durable_file.h"
#include "base/env.h"
#include "base/journal.h"
#include "base/json.h"
#include "base/names.h"
#include "base/reply.h"

namespace ostrel::inference {

using Json = nlohmann::json;

std::string LocalBackend::resolved_key() const {
  if (!api_key.empty()) return api_key;
  if (!api_key_env.empty() && env_allowed) {
    return base::env::text(api_key_env);
  }
  return "";
}

std::string LocalBackend::normalised_base() const {
  std::string base = api_base;
  for (const char* suffix : {"/api/v1/", "/api/v1", "/v1/", "/v1", "/api/", "/api"}) {
    std::string_view s(suffix);
    if (base.size() >= s.size() && base.compare(base.size() - s.size(), s.size(), s) == 0) {
      base.erase(base.size() - s.size());
      break;
    }
  }
  while (!base.empty() && base.back() == '/') base.pop_back();
  return base;
}

void to_json(Json& j, const LocalBackend& b) {
  j = Json{{"id", b.id},
           {"provider", b.provider},
           {"api_base", b.api_base},
           {"api_key", b.api_key},
           {"api_key_env", b.api_key_env},
           {"display_name", b.display_name},
           {"models", b.models},
           {"capabilities", b.capabilities},
           {"priority", b.priority},
           {"auto_discover_models", b.auto_discover_models},
           {"source", b.source}};
}

Json public_view(const LocalBackend& b) {
  Json j = b;
  j.erase("api_key");
  j.erase("api_key_env");
  j["has_key"] = !b.resolved_key().empty();
  return j;
}

bool local_backend_from_json(const Json& j, LocalBackend& out, std::string& error) {
  auto str = [&](const char* key) {
    auto it = j.find(key);
    return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
  };
  if (!j.is_object()) {
    error = "missing id / provider / api_base";
    return false;
  }
  LocalBackend b;
  b.id = str("id");
  b.provider = str("provider");
  b.api_base = str("api_base");
  if (b.id.empty() || b.provider.empty() || b.api_base.empty()) {
    error = "missing id / provider / api_base";
    return false;
  }
  if (std::string why; !base::safe_id(b.id, why)) {
    error = "invalid id: " + why;
    return false;
  }
  if (b.api_base.rfind("http://", 0) != 0 && b.api_base.rfind("https://", 0) != 0) {
    error = "api_base must be an http or https URL";
    return false;
  }
  b.api_key = str("api_key");
  b.api_key_env = str("api_key_env");
  b.display_name = str("display_name");
  b.models = base::string_list(j, "models");
  b.capabilities = base::string_list(j, "capabilities");
  if (auto p = j.find("priority"); p != j.end() && p->is_number_integer()) b.priority = *p;
  if (auto a = j.find("auto_discover_models"); a != j.end() && a->is_boolean()) {
    b.auto_discover_models = *a;
  }
  if (auto s = str("source"); !s.empty()) b.source = s;
  out = std::move(b);
  return true;
}

bool LocalBackendRegistry::check_env(const LocalBackend& b, std::string& error) const {
  if (b.api_key_env.empty() || env_allowlist_.count(b.api_key_env)) return true;
  error = "api_key_env_not_allowed: " + b.api_key_env +
          " is not in the administrator's allowlist (inference.api_key_env_allowlist)";
  return false;
}

std::size_t LocalBackendRegistry::replay() {
  std::lock_guard lock(mu_);
  return base::replay_journal(journal_, [this](const Json& r) {
    const std::string op = r.value("op", "");
    const std::string id = r.value("id", "");
    if (op == "remove") {
      if (backends_.erase(id)) std::erase(order_, id);
      return true;
    }
    LocalBackend b;
    std::string error;
    if (op != "set" || !r.contains("backend") || !local_backend_from_json(r["backend"], b, error)) {
      return false;
    }
    b.source = "journal";
    // A journal written before the allowlist changed keeps its entry, but
    // the variable is only read while it is allowed.
    b.env_allowed = !b.api_key_env.empty() && env_allowlist_.count(b.api_key_env);
    if (!backends_.count(b.id)) order_.push_back(b.id);
    backends_[b.id] = std::move(b);
    return true;
  });
}

LocalBackendRegistry::Change LocalBackendRegistry::set(LocalBackend b, std::string& error) {
  b.env_allowed = !b.api_key_env.empty() && env_allowlist_.count(b.api_key_env);
  std::lock_guard lock(mu_);
  Json record = {{"op", "set"}, {"id", b.id}, {"backend", b}};
  std::error_code ec;
  std::filesystem::create_directories(journal_.parent_path(), ec);
  if (!base::append_journal_line(journal_, base::dump_json(record), error)) {
    return Change::not_saved;
  }
  const bool fresh = !backends_.count(b.id);
  if (fresh) order_.push_back(b.id);
  backends_[b.id] = std::move(b);
  return fresh ? Change::added : Change::replaced;
}

bool LocalBackendRegistry::compact(std::string& error) {
  std::lock_guard lock(mu_);
  std::string text;
  for (const auto& id : order_) {
    auto it = backends_.find(id);
    if (it == backends_.end()) continue;
    text += base::dump_json(Json{{"op", "set"}, {"id", id}, {"backend", it->second}}) + "\n";
  }
  return base::write_file_atomically(journal_, text, error);
}

LocalBackendRegistry::Change LocalBackendRegistry::remove(const std::string& id,
                                                          std::string& error) {
  std::lock_guard lock(mu_);
  if (!backends_.count(id)) return Change::unknown;
  if (!base::append_journal_line(journal_, base::dump_json(Json{{"op", "remove"}, {"id", id}}),
                                 error)) {
    return Change::not_saved;
  }
  backends_.erase(id);
  std::erase(order_, id);
  return Change::removed;
}

std::vector<LocalBackend> LocalBackendRegistry::list() const {
  std::lock_guard lock(mu_);
  std::vector<LocalBackend> out;
  for (const auto& [id, b] : backends_) out.push_back(b);
  return out;
}

std::optional<LocalBackend> LocalBackendRegistry::find_for_model(const std::string& model) const {
  std::lock_guard lock(mu_);
  for (const auto& id : order_) {
    const LocalBackend& b = backends_.at(id);
    if (std::find(b.models.begin(), b.models.end(), model) != b.models.end()) return b;
  }
  return std::nullopt;
}

}  // namespace ostrel::inference
