#include "dreams/profile_store.h"

#include "base/clock.h"
#include "base/durable_file.h"
#include "base/json.h"
#include "base/names.h"
#include "base/reply.h"

namespace ostrel::dreams {

using Json = nlohmann::json;
namespace fs = std::filesystem;

namespace {

constexpr std::size_t kMaxIds = 1000;
constexpr std::size_t kMaxProfileBytes = 64 * 1024;

Json error_of(const char* code, const std::string& detail = {}) {
  Json e = base::error_body(code);
  if (!detail.empty()) e["detail"] = detail;
  return e;
}

}  // namespace

ProfileStore::ProfileStore(fs::path dir) : dir_(std::move(dir)) {}

bool ProfileStore::session_ids_(const Json& args, std::vector<std::string>& ids,
                                Json& error) const {
  auto it = args.find("session_ids");
  if (it == args.end() || it->is_null()) it = args.find("session_id");
  if (it == args.end() || it->is_null()) {
    error = error_of("missing_session_id");
    return false;
  }
  auto add = [&](const Json& v) {
    std::string why;
    if (!v.is_string() || !base::safe_name(v.get<std::string>(), why)) {
      error = error_of("bad_args",
                       v.is_string() ? "session id: " + why : "session ids must be strings");
      return false;
    }
    ids.push_back(v.get<std::string>());
    return true;
  };
  if (it->is_string()) return add(*it);
  if (!it->is_array()) {
    error = error_of("bad_args", "session_ids must be a list of strings");
    return false;
  }
  if (it->empty()) {
    error = error_of("missing_session_id");
    return false;
  }
  if (it->size() > kMaxIds) {
    error = error_of("bad_args", "at most 1000 session ids per call");
    return false;
  }
  for (const auto& v : *it) {
    if (!add(v)) return false;
  }
  return true;
}

Json ProfileStore::update(const Json& args) {
  std::vector<std::string> ids;
  Json error;
  if (!session_ids_(args, ids, error)) return error;
  auto profile = args.find("profile");
  if (profile == args.end() || !profile->is_object()) {
    return error_of("bad_args", "profile must be an object");
  }
  if (base::dump_json(*profile).size() > kMaxProfileBytes) {
    return error_of("bad_args", "profile larger than 64 KiB");
  }
  std::lock_guard lock(mu_);
  Json updated = Json::array();
  for (const std::string& id : ids) {
    bool opened = false;
    Json current = base::read_json_file(file_(id), opened);
    if (opened && !current.is_object()) return error_of("corrupt_profile", id);
    if (!opened) current = Json::object();
    current.update(*profile);
    current["session_id"] = id;
    current["updated_at_unix"] = base::unix_s();
    std::string why;
    if (!base::write_file_atomically(file_(id), base::dump_json(current) + "\n", why)) {
      return error_of(why.rfind("rename", 0) == 0 ? "rename_failed" : "write_failed", id);
    }
    updated.push_back(id);
  }
  return {{"ok", true}, {"updated", updated}, {"count", updated.size()}};
}

Json ProfileStore::get(const Json& args) {
  std::vector<std::string> ids;
  Json error;
  if (!session_ids_(args, ids, error)) return error;
  std::lock_guard lock(mu_);
  Json profiles = Json::object();
  for (const std::string& id : ids) {
    bool opened = false;
    Json p = base::read_json_file(file_(id), opened);
    if (opened && !p.is_object()) return error_of("corrupt_profile", id);
    profiles[id] = opened ? p : Json(nullptr);
  }
  return {{"profiles", profiles}};
}

Json ProfileStore::clear(const Json& args) {
  std::vector<std::string> ids;
  Json error;
  if (!session_ids_(args, ids, error)) return error;
  std::lock_guard lock(mu_);
  int removed = 0;
  for (const std::string& id : ids) {
    std::error_code ec;
    if (fs::remove(file_(id), ec)) ++removed;
  }
  return {{"ok", true}, {"removed", removed}};
}

Json ProfileStore::list() {
  std::lock_guard lock(mu_);
  Json out = Json::array();
  std::error_code ec;
  std::vector<fs::path> files;
  for (fs::directory_iterator it(dir_, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (it->path().extension() != ".json" || base::is_temporary_name(name) || name[0] == '.') {
      continue;
    }
    files.push_back(it->path());
  }
  std::sort(files.begin(), files.end());
  for (const auto& f : files) {
    bool opened = false;
    Json p = base::read_json_file(f, opened);
    out.push_back(
        {{"session_id", f.stem().string()},
         {"updated_at_unix", p.is_object() ? base::int_value(p, "updated_at_unix", 0) : 0},
         {"corrupt", !p.is_object()}});
  }
  return {{"profiles", out}, {"count", out.size()}};
}

bool ProfileStore::dreamable(const std::string& session_id) {
  std::string why;
  if (!base::safe_name(session_id, why)) return true;
  std::lock_guard lock(mu_);
  bool opened = false;
  Json p = base::read_json_file(file_(session_id), opened);
  return !(p.is_object() && p.contains("dream") && p["dream"] == false);
}

}  // namespace ostrel::dreams
