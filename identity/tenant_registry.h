#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/journal.h"

namespace ostrel::identity {

// Resource limits of a tenant; a negative value means no limit.
struct TenantQuotas {
  std::int64_t cpu_cores = -1;
  std::int64_t ram_gb = -1;
  std::int64_t disk_gb = -1;
  std::int64_t tokens_per_day = -1;
  std::int64_t extensions_count = -1;

  // The limit named by a resource ("tokens_per_day", …); nullopt for an unknown name.
  std::optional<std::int64_t> limit(const std::string& resource) const;
};

struct Tenant {
  std::string id;
  std::string display_name;
  std::string state = "active";  // "active", "suspended" or "terminating"
  std::int64_t created_at_ms = 0;
  std::int64_t updated_at_ms = 0;
  std::vector<std::string> admin_contacts;
  std::string notes;
  TenantQuotas quotas;
};

// The flattened JSON form: id, display_name, state, times, contacts, notes and
// the five quota members at the top level.
void to_json(nlohmann::json& j, const Tenant& t);

// Isolated customer spaces with a lifecycle (active ⇄ suspended → terminating,
// which is final) and quotas, journalled in "tenants.jsonl".
// Thread-safe: mu_ guards the table and every journal append; the synced journal append happens
// under it on purpose, so that the journal's order is the order of the changes in memory and a
// replay rebuilds exactly this state; changes are rare administrative acts, so one fdatasync under
// the mutex costs little.
class TenantRegistry {
 public:
  // An empty path keeps the registry in memory only.
  explicit TenantRegistry(std::filesystem::path journal = {});

  bool create(Tenant tenant, std::string& error);
  // `fields` may hold "display_name", "notes", "admin_contacts" and "quotas"
  // (an object with any of the five quota members); nothing else is read.
  bool update_metadata(const std::string& id, const nlohmann::json& fields, std::string& error);
  bool transition(const std::string& id, const std::string& new_state, std::string& error);
  bool exists(const std::string& id) const;
  bool get(const std::string& id, Tenant& out) const;
  bool is_active(const std::string& id) const;
  std::vector<Tenant> list() const;  // sorted by id

  std::size_t replay_journal();
  // Rewrites the journal as one create record per tenant.
  bool compact_journal(std::string& error);
  const std::filesystem::path& journal_path() const { return journal_.path(); }

 private:
  // The tenant, or null with "not_found" or `when_terminating` in `error`.
  // REQUIRES: mu_ is held.
  Tenant* changeable_locked_(const std::string& id, const char* when_terminating,
                             std::string& error);
  bool apply_update_locked_(Tenant& t, const nlohmann::json& fields, nlohmann::json& changed,
                            std::string& error);

  base::RegistryJournal journal_;
  mutable std::mutex mu_;  // guards tenants_ and journal appends
  std::unordered_map<std::string, Tenant> tenants_;
};

}  // namespace ostrel::identity
