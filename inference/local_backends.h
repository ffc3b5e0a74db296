#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace ostrel::inference {

// A model server on the local network, registered at run time.
struct LocalBackend {
  std::string id;
  std::string provider;  // "ollama", "openai", …
  std::string api_base;
  std::string api_key;
  std::string api_key_env;
  std::string display_name;
  std::vector<std::string> models;
  std::vector<std::string> capabilities;
  std::int64_t priority = 0;
  bool auto_discover_models = false;
  std::string source = "api";
  // api_key_env names a variable the administrator allowed; set by the
  // registry, never read from outside.
  bool env_allowed = false;

  // The key itself, or the value of the variable named by api_key_env when
  // that variable is allowed.
  std::string resolved_key() const;
  // api_base without a trailing "/api/v1/", "/api/v1", "/v1/", "/v1", "/api/" or "/api".
  std::string normalised_base() const;
};

void to_json(nlohmann::json& j, const LocalBackend& b);
// False with a reason when id, provider or api_base is missing or malformed
// (an id longer than 128 bytes, an api_base that is not http(s)).
bool local_backend_from_json(const nlohmann::json& j, LocalBackend& out, std::string& error);
// The public view: no key, no key variable.
nlohmann::json public_view(const LocalBackend& b);

// The registered local backends, journalled in
// "inference-local-backends.jsonl" ({"op":"set"|"remove","id",…}).
// Thread-safe: mu_ guards the map and every journal append; the synced journal append happens under
// it on purpose, so that the journal's order is the order of the changes in memory and a replay
// rebuilds exactly this state; changes are rare administrative acts, so one fdatasync under the
// mutex costs little.
class LocalBackendRegistry {
 public:
  // `env_allowlist`: the environment variables a backend's api_key_env may
  // name (an administrator's choice; none by default). A key sent to a model
  // server is a secret leaving the node, so no client may pick the variable.
  LocalBackendRegistry(std::filesystem::path journal, std::set<std::string> env_allowlist = {})
      : journal_(std::move(journal)), env_allowlist_(std::move(env_allowlist)) {}

  std::size_t replay();
  // False with "api_key_env_not_allowed: …" when `b` names a variable that
  // is not on the allowlist.
  bool check_env(const LocalBackend& b, std::string& error) const;
  // Journal first, then memory: when the append fails nothing changes.
  enum class Change { added, replaced, removed, unknown, not_saved };
  // added (the id was new) or replaced; not_saved with the reason in `error`.
  Change set(LocalBackend b, std::string& error);
  // removed, unknown, or not_saved with the reason in `error`.
  Change remove(const std::string& id, std::string& error);
  std::vector<LocalBackend> list() const;  // sorted by id
  // Rewrites the journal as one "set" record per backend, in registration
  // order (temporary file and rename); false with the reason.
  bool compact(std::string& error);
  std::optional<LocalBackend> find_for_model(const std::string& model) const;
  const std::filesystem::path& journal_path() const { return journal_; }

 private:
  std::filesystem::path journal_;
  const std::set<std::string> env_allowlist_;
  mutable std::mutex mu_;  // guards backends_, order_ and journal appends
  std::map<std::string, LocalBackend> backends_;
  std::vector<std::string> order_;  // registration order: first match wins for a model
};

}  // namespace ostrel::inference
