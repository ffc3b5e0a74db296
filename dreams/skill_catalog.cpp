#include "dreams/skill_catalog.h"

#include <algorithm>
#include <random>

#include "base/clock.h"
#include "base/durable_file.h"
#include "base/json.h"
#include "base/reply.h"
#include "base/text.h"

namespace ostrel::dreams {

using Json = nlohmann::json;

namespace {

constexpr std::size_t kMaxSkills = 10000;
constexpr std::size_t kMaxText = 64 * 1024;

Json error_of(const std::string& code, int code_status, int& status,
              const std::string& detail = {}) {
  status = code_status;
  Json e = base::error_body(code);
  if (!detail.empty()) e["detail"] = detail;
  return e;
}

bool blank(std::string_view s) { return s.find_first_not_of(" \t\r\n") == std::string_view::npos; }

Skill from_json(const Json& j) {
  Skill s;
  s.id = j.value("id", "");
  s.name = j.value("name", "");
  s.description = j.value("description", "");
  s.instructions = j.value("instructions", "");
  if (j.contains("tags") && j["tags"].is_array()) {
    for (const auto& t : j["tags"]) {
      if (t.is_string()) s.tags.push_back(t);
    }
  }
  s.active = j.value("active", true);
  s.origin = j.value("origin", "manual");
  s.source_session = j.value("source_session", "");
  s.importance = j.value("importance", 0.0);
  s.created_at_unix = base::int_value(j, "created_at_unix", 0);
  s.updated_at_unix = base::int_value(j, "updated_at_unix", 0);
  s.applied_count = base::int_value(j, "applied_count", 0);
  s.last_applied_at_unix = base::int_value(j, "last_applied_at_unix", 0);
  return s;
}

}  // namespace

Json to_json(const Skill& s) {
  return {{"id", s.id},
          {"name", s.name},
          {"description", s.description},
          {"instructions", s.instructions},
          {"tags", s.tags},
          {"active", s.active},
          {"status", s.active ? "active" : "inactive"},
          {"origin", s.origin},
          {"source_session", s.source_session},
          {"importance", s.importance},
          {"created_at_unix", s.created_at_unix},
          {"updated_at_unix", s.updated_at_unix},
          {"applied_count", s.applied_count},
          {"last_applied_at_unix", s.last_applied_at_unix}};
}

SkillCatalog::SkillCatalog(std::filesystem::path file) : file_(std::move(file)) {}

bool SkillCatalog::load(std::string& error) {
  bool opened = false;
  Json j = base::read_json_file(file_, opened);
  std::lock_guard lock(mu_);
  skills_.clear();
  if (!opened) return true;
  if (!j.is_object() || !j.contains("skills") || !j["skills"].is_array()) {
    error = "not a skill catalogue";
    return false;
  }
  for (const auto& s : j["skills"]) {
    if (s.is_object() && s.value("id", "").rfind("skill-", 0) == 0) {
      try {
        skills_.push_back(from_json(s));
      } catch (const std::exception&) {
        // A member of the wrong type: that skill is dropped, the rest kept.
      }
    }
  }
  return true;
}

bool SkillCatalog::persist_(const std::vector<Skill>& skills, std::string& error) const {
  Json list = Json::array();
  for (const auto& s : skills) list.push_back(to_json(s));
  return base::write_file_atomically(file_, base::dump_json(Json{{"skills", list}}) + "\n", error);
}

std::string SkillCatalog::new_id_(const std::vector<Skill>& taken) {
  static thread_local std::mt19937 rng(std::random_device{}());
  for (;;) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "skill-%08x", static_cast<unsigned>(rng()));
    std::string id = buf;
    if (std::none_of(taken.begin(), taken.end(), [&](const Skill& s) { return s.id == id; })) {
      return id;
    }
  }
}

bool SkillCatalog::apply_fields_(const Json& body, Skill& s, std::string& error) {
  for (auto [key, slot] : {std::pair{"name", &s.name},
                           {"description", &s.description},
                           {"instructions", &s.instructions}}) {
    auto it = body.find(key);
    if (it == body.end() || it->is_null()) continue;
    if (!it->is_string()) {
      error = key;
      return false;
    }
    if (it->get_ref<const std::string&>().size() > kMaxText) {
      error = key;
      return false;
    }
    *slot = it->get<std::string>();
  }
  if (auto it = body.find("active"); it != body.end() && !it->is_null()) {
    if (!it->is_boolean()) {
      error = "active";
      return false;
    }
    s.active = *it;
  }
  if (auto it = body.find("tags"); it != body.end() && !it->is_null()) {
    if (!it->is_array() ||
        !std::all_of(it->begin(), it->end(), [](const Json& t) { return t.is_string(); })) {
      error = "tags";
      return false;
    }
    s.tags = it->get<std::vector<std::string>>();
  }
  return true;
}

Json SkillCatalog::list(bool active_only) const {
  std::lock_guard lock(mu_);
  Json out = Json::array();
  for (const auto& s : skills_) {
    if (!active_only || s.active) out.push_back(to_json(s));
  }
  return {{"skills", out}, {"count", out.size()}};
}

Json SkillCatalog::create(const Json& body, int& status) {
  auto name = body.find("name");
  if (name == body.end() || !name->is_string() || blank(name->get<std::string>())) {
    return error_of("missing name", 400, status);
  }
  Skill s;
  std::string error;
  if (!apply_fields_(body, s, error)) {
    Json e = error_of("invalid_field", 400, status);
    e["field"] = error;
    return e;
  }
  s.origin = "manual";
  s.created_at_unix = s.updated_at_unix = base::unix_s();
  std::lock_guard lock(mu_);
  if (skills_.size() >= kMaxSkills) return error_of("catalogue_full", 409, status);
  s.id = new_id_(skills_);
  std::vector<Skill> next = skills_;
  next.push_back(s);
  if (!persist_(next, error)) return error_of("persist_failed", 500, status);
  skills_ = std::move(next);
  status = 201;
  return to_json(s);
}

Json SkillCatalog::get(const std::string& id, int& status) const {
  std::lock_guard lock(mu_);
  for (const auto& s : skills_) {
    if (s.id == id) {
      status = 200;
      return to_json(s);
    }
  }
  return error_of("not_found", 404, status);
}

Json SkillCatalog::update(const std::string& id, const Json& body, int& status) {
  std::lock_guard lock(mu_);
  auto it =
      std::find_if(skills_.begin(), skills_.end(), [&](const Skill& s) { return s.id == id; });
  if (it == skills_.end()) return error_of("not_found", 404, status);
  Skill s = *it;
  std::string error;
  if (!apply_fields_(body, s, error)) {
    Json e = error_of("invalid_field", 400, status);
    e["field"] = error;
    return e;
  }
  if (blank(s.name)) return error_of("missing name", 400, status);
  s.updated_at_unix = base::unix_s();
  std::vector<Skill> next = skills_;
  next[static_cast<std::size_t>(it - skills_.begin())] = s;
  if (!persist_(next, error)) return error_of("persist_failed", 500, status);
  skills_ = std::move(next);
  status = 200;
  return to_json(s);
}

Json SkillCatalog::remove(const std::string& id, int& status) {
  std::lock_guard lock(mu_);
  std::vector<Skill> next = skills_;
  auto it = std::remove_if(next.begin(), next.end(), [&](const Skill& s) { return s.id == id; });
  if (it == next.end()) return error_of("not_found", 404, status);
  next.erase(it, next.end());
  std::string error;
  if (!persist_(next, error)) return error_of("persist_failed", 500, status);
  skills_ = std::move(next);
  status = 200;
  return {{"ok", true}, {"deleted", id}};
}

Json SkillCatalog::apply(const std::string& id, const Json& body, int& status) {
  std::lock_guard lock(mu_);
  auto it =
      std::find_if(skills_.begin(), skills_.end(), [&](const Skill& s) { return s.id == id; });
  if (it == skills_.end()) return error_of("not_found", 404, status);
  if (!it->active) return error_of("skill_inactive", 409, status);
  std::string input;
  if (auto in = body.find("input"); in != body.end() && in->is_string()) input = *in;
  Skill s = *it;
  ++s.applied_count;
  s.last_applied_at_unix = base::unix_s();
  std::vector<Skill> next = skills_;
  next[static_cast<std::size_t>(it - skills_.begin())] = s;
  std::string error;
  // The count is bookkeeping: an unwritable catalogue does not refuse the skill.
  if (persist_(next, error)) skills_ = std::move(next);
  const std::string text = s.instructions.empty() ? s.description : s.instructions;
  status = 200;
  return {{"skill_id", s.id},
          {"name", s.name},
          {"instructions", text},
          {"prompt", input.empty() ? text : text + "\n\n" + input},
          {"applied_count", s.applied_count}};
}

std::vector<std::string> SkillCatalog::distill(const std::vector<ThemeRecord>& themes,
                                               double threshold) {
  std::lock_guard lock(mu_);
  std::vector<Skill> next = skills_;
  std::vector<std::string> ids;
  for (const auto& t : themes) {
    if (t.importance < threshold || next.size() >= kMaxSkills) continue;
    if (std::any_of(next.begin(), next.end(),
                    [&](const Skill& s) { return text::iequals(s.name, t.theme); })) {
      continue;
    }
    Skill s;
    s.id = new_id_(next);
    s.name = t.theme;
    s.description = t.abstract;
    s.instructions = t.abstract;
    s.active = false;
    s.origin = "dream";
    s.source_session = t.source_session;
    s.importance = t.importance;
    s.created_at_unix = s.updated_at_unix = base::unix_s();
    next.push_back(s);
    ids.push_back(s.id);
  }
  if (ids.empty()) return ids;
  std::string error;
  if (!persist_(next, error)) return {};
  skills_ = std::move(next);
  return ids;
}

std::size_t SkillCatalog::size() const {
  std::lock_guard lock(mu_);
  return skills_.size();
}

}  // namespace ostrel::dreams
