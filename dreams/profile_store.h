#pragma once

#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace ostrel::dreams {

// Per-conversation dream profiles: one JSON object per session id in
// "<dir>/<session>.json", each written whole through a temporary file and a
// rename. A profile with "dream": false keeps its conversation out of cycles.
// Every call answers a JSON object; errors are {"error": code} with the codes
// "missing_session_id", "bad_args", "corrupt_profile", "write_failed" and
// "rename_failed".
// Thread-safe: mu_ serialises read-modify-write of the files.
class ProfileStore {
 public:
  explicit ProfileStore(std::filesystem::path dir);

  // {"session_ids": [...] or "session_id": "...", "profile": {...}}: the
  // profile's members are merged into each session's profile.
  nlohmann::json update(const nlohmann::json& args);
  // {"session_ids": [...]} → {"profiles": {id: profile or null}}.
  nlohmann::json get(const nlohmann::json& args);
  // {"session_ids": [...]} → {"removed": n}.
  nlohmann::json clear(const nlohmann::json& args);
  // {"profiles": [{"session_id", "updated_at_unix"}], "count"}.
  nlohmann::json list();
  // False when the session's profile says not to dream it.
  bool dreamable(const std::string& session_id);

  const std::filesystem::path& dir() const { return dir_; }

 private:
  // The session ids of `args`, or an {"error"} answer in `error`.
  bool session_ids_(const nlohmann::json& args, std::vector<std::string>& ids,
                    nlohmann::json& error) const;
  std::filesystem::path file_(const std::string& id) const { return dir_ / (id + ".json"); }

  std::filesystem::path dir_;
  std::mutex mu_;
};

}  // namespace ostrel::dreams
