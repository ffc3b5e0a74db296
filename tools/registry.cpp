#include "tools/registry.h"

#include <algorithm>
#include <stdexcept>

namespace ostrel::tools {

using Json = nlohmann::json;

namespace {

void sort_by_name(std::vector<ToolSpec>& v) {
  std::sort(v.begin(), v.end(),
            [](const ToolSpec& a, const ToolSpec& b) { return a.name < b.name; });
}

}  // namespace

Json to_json(const ToolSpec& s) {
  Json j = Json::object();
  j["name"] = s.name;
  j["description"] = s.description;
  j["min_role"] = s.min_role;
  j["category"] = s.category;
  j["destructive"] = s.destructive;
  j["requires_approval"] = s.requires_approval;
  j["input_schema"] = s.input_schema;
  return j;
}

Json function_definition(const ToolSpec& s) {
  return {{"type", "function"},
          {"function",
           {{"name", s.name},
            {"description", s.description},
            {"parameters", s.input_schema.is_null() ? Json{{"type", "object"}} : s.input_schema}}}};
}

void Registry::register_tool(ToolSpec spec) {
  if (spec.name.empty()) throw std::invalid_argument("tool.name empty");
  if (spec.category.empty()) spec.category = "uncategorized";
  std::lock_guard lock(mu_);
  std::string name = spec.name;
  tools_[std::move(name)] = std::move(spec);
}

void Registry::seed_defaults() {
  struct Row {
    const char* name;
    const char* description;
    const char* min_role;
    const char* category;
    bool destructive;
    bool approval;
  };
  static const Row kDefaults[] = {
      {"Read", "Read a file from the filesystem.", "viewer", "filesystem", false, false},
      {"Write", "Write/overwrite a file.", "developer", "filesystem", true, false},
      {"Edit", "Edit-in-place a file.", "developer", "filesystem", true, false},
      {"Glob", "Pattern-match files by path.", "viewer", "filesystem", false, false},
      {"Grep", "Search file contents.", "viewer", "filesystem", false, false},
      {"Bash", "Execute a shell command.", "developer", "system", true, true},
      {"WebFetch", "HTTP GET an external URL.", "viewer", "network", false, false},
      {"WebSearch", "Search the public web.", "viewer", "network", false, false},
      {"RAGSearch", "Vector search over a KB.", "viewer", "knowledge", false, false},
      {"DBQuery", "Read-only SQL.", "viewer", "database", false, false},
      {"DBExecute", "Mutating SQL.", "developer", "database", true, true},
      {"Learn", "Add knowledge to a KB.", "developer", "knowledge", true, false},
      {"Forget", "Remove knowledge from a KB.", "admin", "knowledge", true, true},
      {"SSH", "SSH to a remote host.", "admin", "network", true, true},
      {"ClusterStatus", "Read cluster topology.", "viewer", "ops", false, false},
      {"WorkerDeploy", "Deploy a worker.", "admin", "ops", true, true},
  };
  for (const Row& r : kDefaults) {
    register_tool(
        {r.name, r.description, r.min_role, r.category, nullptr, r.destructive, r.approval});
  }
}

std::vector<ToolSpec> Registry::by_category(const std::string& category) const {
  std::vector<ToolSpec> out;
  {
    std::lock_guard lock(mu_);
    for (const auto& [name, spec] : tools_) {
      if (spec.category == category) out.push_back(spec);
    }
  }
  sort_by_name(out);
  return out;
}

std::vector<ToolSpec> Registry::all() const {
  std::vector<ToolSpec> out;
  {
    std::lock_guard lock(mu_);
    for (const auto& [name, spec] : tools_) out.push_back(spec);
  }
  sort_by_name(out);
  return out;
}

std::optional<ToolSpec> Registry::find(const std::string& name) const {
  std::lock_guard lock(mu_);
  auto it = tools_.find(name);
  if (it == tools_.end()) return std::nullopt;
  return it->second;
}

std::vector<std::string> Registry::names() const {
  std::vector<std::string> out;
  {
    std::lock_guard lock(mu_);
    for (const auto& [name, spec] : tools_) out.push_back(name);
  }
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace ostrel::tools
