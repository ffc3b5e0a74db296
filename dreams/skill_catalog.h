#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "dreams/dream_engine.h"

namespace ostrel::dreams {

// A reusable instruction: written by hand, or distilled by a dream cycle
// from an important theme (distilled skills start inactive until someone
// reviews and activates them).
struct Skill {
  std::string id;  // "skill-" + 8 hex digits
  std::string name;
  std::string description;
  std::string instructions;
  std::vector<std::string> tags;
  bool active = true;
  std::string origin = "manual";  // "manual" or "dream"
  std::string source_session;
  double importance = 0;
  std::int64_t created_at_unix = 0;
  std::int64_t updated_at_unix = 0;
  std::int64_t applied_count = 0;
  std::int64_t last_applied_at_unix = 0;
};

nlohmann::json to_json(const Skill& s);

// The skill catalogue, kept whole in one JSON file written through a
// temporary file and a rename before memory changes: a failed write leaves
// both as they were. Answers are JSON objects; errors are {"error": code}
// with "missing name", "not_found", "skill_inactive", "invalid_field" and
// "persist_failed", and `status` is the HTTP status that goes with them.
// Thread-safe: mu_ guards the list and serialises writes of the file.
class SkillCatalog {
 public:
  explicit SkillCatalog(std::filesystem::path file);
  // Reads the file; false (with the reason) when it exists but is not a
  // catalogue (the catalogue then starts empty and the file is left alone).
  bool load(std::string& error);

  nlohmann::json list(bool active_only) const;
  nlohmann::json create(const nlohmann::json& body, int& status);
  nlohmann::json get(const std::string& id, int& status) const;
  nlohmann::json update(const std::string& id, const nlohmann::json& body, int& status);
  nlohmann::json remove(const std::string& id, int& status);
  nlohmann::json apply(const std::string& id, const nlohmann::json& body, int& status);

  // Inactive skills from themes at least `threshold` important whose names
  // are not in the catalogue yet; their ids.
  std::vector<std::string> distill(const std::vector<ThemeRecord>& themes, double threshold);
  std::size_t size() const;

 private:
  bool persist_(const std::vector<Skill>& skills, std::string& error) const;
  static std::string new_id_(const std::vector<Skill>& taken);
  // Applies the members of `body` to `s`; false with `error` on a bad type.
  static bool apply_fields_(const nlohmann::json& body, Skill& s, std::string& error);

  std::filesystem::path file_;
  mutable std::mutex mu_;
  std::vector<Skill> skills_;
};

}  // namespace ostrel::dreams
