#pragma once

#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

// The node's catalogue of the tools an agent may ask to run: what each does,
// the least role it is meant for, its category, whether it changes state or
// needs an administrator's approval, and the JSON schema of its arguments.
// The registry executes nothing and decides nothing.
namespace ostrel::tools {

struct ToolSpec {
  std::string name;
  std::string description;
  std::string min_role;
  std::string category;
  nlohmann::json input_schema;  // null when the tool declares none
  bool destructive = false;
  bool requires_approval = false;
};

// The catalogue entry of a tool ({"name", …, "input_schema"}).
nlohmann::json to_json(const ToolSpec& spec);
// The function-calling definition models accept for tool use.
nlohmann::json function_definition(const ToolSpec& spec);

// Thread-safe: mu_ guards the map for the whole of every operation; results
// are copies.
class Registry {
 public:
  // Throws std::invalid_argument("tool.name empty") for an empty name. An
  // empty category becomes "uncategorized"; a spec of the same name is
  // replaced whole.
  void register_tool(ToolSpec spec);
  // The default table, in its order.
  void seed_defaults();
  // Tools of exactly this category, sorted by name.
  std::vector<ToolSpec> by_category(const std::string& category) const;
  // Every tool, sorted by name.
  std::vector<ToolSpec> all() const;
  std::optional<ToolSpec> find(const std::string& name) const;
  // Every name, sorted.
  std::vector<std::string> names() const;

 private:
  mutable std::mutex mu_;
  std::unordered_map<std::string, ToolSpec> tools_;
};

}  // namespace ostrel::tools
