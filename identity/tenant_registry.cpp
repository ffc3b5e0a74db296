#include "identity/tenant_registry.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "base/journal.h"
#include "base/json.h"
#include "base/names.h"

namespace ostrel::identity {
namespace {

using Json = nlohmann::json;

bool valid_state(const std::string& s) {
  return s == "active" || s == "suspended" || s == "terminating";
}

constexpr const char* kQuotaNames[] = {"cpu_cores", "ram_gb", "disk_gb", "tokens_per_day",
                                       "extensions_count"};

std::int64_t* quota_slot(TenantQuotas& q, const std::string& name) {
  if (name == "cpu_cores") return &q.cpu_cores;
  if (name == "ram_gb") return &q.ram_gb;
  if (name == "disk_gb") return &q.disk_gb;
  if (name == "tokens_per_day") return &q.tokens_per_day;
  if (name == "extensions_count") return &q.extensions_count;
  return nullptr;
}

Tenant tenant_from_json(const Json& j) {
  Tenant t;
  t.id = j.value("id", "");
  t.display_name = j.value("display_name", "");
  t.state = j.value("state", "active");
  t.created_at_ms = base::int_value(j, "created_at_ms", 0);
  t.updated_at_ms = base::int_value(j, "updated_at_ms", 0);
  t.notes = j.value("notes", "");
  t.admin_contacts = base::string_list(j, "admin_contacts");
  for (const char* name : kQuotaNames) {
    if (auto q = j.find(name); q != j.end() && q->is_number_integer()) {
      *quota_slot(t.quotas, name) = q->get<std::int64_t>();
    }
  }
  return t;
}

}  // namespace

std::optional<std::int64_t> TenantQuotas::limit(const std::string& resource) const {
  TenantQuotas copy = *this;
  std::int64_t* slot = quota_slot(copy, resource);
  if (!slot) return std::nullopt;
  return *slot;
}

void to_json(Json& j, const Tenant& t) {
  j = Json{{"id", t.id},
           {"display_name", t.display_name},
           {"state", t.state},
           {"created_at_ms", t.created_at_ms},
           {"updated_at_ms", t.updated_at_ms},
           {"admin_contacts", t.admin_contacts},
           {"notes", t.notes},
           {"cpu_cores", t.quotas.cpu_cores},
           {"ram_gb", t.quotas.ram_gb},
           {"disk_gb", t.quotas.disk_gb},
           {"tokens_per_day", t.quotas.tokens_per_day},
           {"extensions_count", t.quotas.extensions_count}};
}

TenantRegistry::TenantRegistry(std::filesystem::path journal) : journal_(std::move(journal)) {}

bool TenantRegistry::create(Tenant t, std::string& error) {
  if (t.id.empty()) {
    error = "missing id";
    return false;
  }
  // Tenant ids become directory names in the data and memory stores.
  if (std::string why; !base::safe_tenant_id(t.id, why)) {
    error = "invalid_tenant_id: " + why;
    return false;
  }
  if (t.state.empty()) t.state = "active";
  if (!valid_state(t.state)) {
    error = "invalid_state";
    return false;
  }
  std::lock_guard lock(mu_);
  if (tenants_.count(t.id)) {
    error = "already_exists";
    return false;
  }
  if (!journal_.replaying()) t.created_at_ms = t.updated_at_ms = base::unix_ms();
  if (!journal_.append(Json{{"op", "create"}, {"tenant", t}})) {
    error = "journal_write_failed";
    return false;
  }
  tenants_[t.id] = std::move(t);
  return true;
}

bool TenantRegistry::apply_update_locked_(Tenant& t, const Json& fields, Json& changed,
                                          std::string& error) {
  if (!fields.is_object()) {
    error = "invalid_fields";
    return false;
  }
  if (auto v = fields.find("display_name"); v != fields.end()) {
    if (!v->is_string()) return error = "display_name must be a string", false;
    t.display_name = *v;
    changed["display_name"] = *v;
  }
  if (auto v = fields.find("notes"); v != fields.end()) {
    if (!v->is_string()) return error = "notes must be a string", false;
    t.notes = *v;
    changed["notes"] = *v;
  }
  if (auto v = fields.find("admin_contacts"); v != fields.end()) {
    if (!v->is_array() ||
        !std::all_of(v->begin(), v->end(), [](const Json& e) { return e.is_string(); })) {
      return error = "admin_contacts must be an array of strings", false;
    }
    t.admin_contacts = v->get<std::vector<std::string>>();
    changed["admin_contacts"] = *v;
  }
  if (auto v = fields.find("quotas"); v != fields.end()) {
    if (!v->is_object()) return error = "quotas must be an object", false;
    Json q = Json::object();
    for (const char* name : kQuotaNames) {
      auto m = v->find(name);
      if (m == v->end()) continue;
      if (!m->is_number_integer()) return error = std::string(name) + " must be an integer", false;
      *quota_slot(t.quotas, name) = m->get<std::int64_t>();
      q[name] = *m;
    }
    changed["quotas"] = q;
  }
  return true;
}

Tenant* TenantRegistry::changeable_locked_(const std::string& id, const char* when_terminating,
                                           std::string& error) {
  auto it = tenants_.find(id);
  if (it == tenants_.end()) {
    error = "not_found";
    return nullptr;
  }
  if (it->second.state == "terminating") {
    error = when_terminating;
    return nullptr;
  }
  return &it->second;
}

bool TenantRegistry::update_metadata(const std::string& id, const Json& fields,
                                     std::string& error) {
  std::lock_guard lock(mu_);
  Tenant* current = changeable_locked_(id, "terminating_immutable", error);
  if (!current) return false;
  Tenant updated = *current;
  Json changed = Json::object();
  if (!apply_update_locked_(updated, fields, changed, error)) return false;
  if (!journal_.replaying()) updated.updated_at_ms = base::unix_ms();
  Json record = {{"op", "update"}, {"id", id}};
  record.update(changed);
  record["updated_at_ms"] = updated.updated_at_ms;
  if (!journal_.append(record)) {
    error = "journal_write_failed";
    return false;
  }
  *current = std::move(updated);
  return true;
}

bool TenantRegistry::transition(const std::string& id, const std::string& new_state,
                                std::string& error) {
  if (!valid_state(new_state)) {
    error = "invalid_state";
    return false;
  }
  std::lock_guard lock(mu_);
  Tenant* current = changeable_locked_(id, "terminating_terminal", error);
  if (!current) return false;
  std::int64_t stamp = journal_.replaying() ? current->updated_at_ms : base::unix_ms();
  if (!journal_.append(Json{
          {"op", "transition"}, {"id", id}, {"new_state", new_state}, {"updated_at_ms", stamp}})) {
    error = "journal_write_failed";
    return false;
  }
  current->state = new_state;
  current->updated_at_ms = stamp;
  return true;
}

bool TenantRegistry::exists(const std::string& id) const {
  std::lock_guard lock(mu_);
  return tenants_.count(id) != 0;
}

bool TenantRegistry::get(const std::string& id, Tenant& out) const {
  std::lock_guard lock(mu_);
  auto it = tenants_.find(id);
  if (it == tenants_.end()) return false;
  out = it->second;
  return true;
}

bool TenantRegistry::is_active(const std::string& id) const {
  std::lock_guard lock(mu_);
  auto it = tenants_.find(id);
  return it != tenants_.end() && it->second.state == "active";
}

std::vector<Tenant> TenantRegistry::list() const {
  std::vector<Tenant> out;
  {
    std::lock_guard lock(mu_);
    for (const auto& [id, t] : tenants_) out.push_back(t);
  }
  std::sort(out.begin(), out.end(), [](const Tenant& a, const Tenant& b) { return a.id < b.id; });
  return out;
}

std::size_t TenantRegistry::replay_journal() {
  return journal_.replay([this](const Json& r) {
    if (!r.is_object()) return false;
    std::string op = r.value("op", ""), error;
    if (op == "create" && r.contains("tenant") && r["tenant"].is_object()) {
      Tenant t = tenant_from_json(r["tenant"]);
      return create(std::move(t), error);
    }
    bool applied = false;
    if (op == "update") {
      Json fields = r;
      fields.erase("op");
      fields.erase("id");
      fields.erase("updated_at_ms");
      applied = update_metadata(r.value("id", ""), fields, error);
    } else if (op == "transition") {
      applied = transition(r.value("id", ""), r.value("new_state", ""), error);
    }
    // Records carry the time of the change, so a replay rebuilds it exactly.
    if (applied && r.contains("updated_at_ms") && r["updated_at_ms"].is_number_integer()) {
      std::lock_guard lock(mu_);
      tenants_[r.value("id", "")].updated_at_ms = r["updated_at_ms"].get<std::int64_t>();
    }
    return applied;
  });
}

bool TenantRegistry::compact_journal(std::string& error) {
  std::vector<std::string> lines;
  std::lock_guard lock(mu_);
  std::vector<const Tenant*> sorted;
  for (const auto& [id, t] : tenants_) sorted.push_back(&t);
  std::sort(sorted.begin(), sorted.end(),
            [](const Tenant* a, const Tenant* b) { return a->id < b->id; });
  for (const Tenant* t : sorted) lines.push_back(Json{{"op", "create"}, {"tenant", *t}}.dump());
  return base::rewrite_journal(journal_.path(), lines, error);
}

}  // namespace ostrel::identity
