#include "agents/dynamic_tools.h"

#include <algorithm>

#include "base/durable_file.h"
#include "base/json.h"

namespace ostrel::agents {

using Json = nlohmann::json;

Json to_json(const DynamicTool& t) {
  return {{"plugin_id", t.plugin_id},
          {"tool_name", t.tool_name},
          {"executor", t.executor},
          {"schema", t.schema}};
}

DynamicTools::DynamicTools(std::filesystem::path file) : file_(std::move(file)) {}

bool DynamicTools::load(std::string& error) {
  bool opened = false;
  Json j = base::read_json_file(file_, opened);
  std::lock_guard lock(mu_);
  tools_.clear();
  if (!opened) return true;
  if (!j.is_object() || !j.contains("tools") || !j["tools"].is_array()) {
    error = "not a dynamic tool table";
    return false;
  }
  for (const auto& t : j["tools"]) {
    if (!t.is_object() || !t.contains("tool_name") || !t["tool_name"].is_string()) continue;
    tools_.push_back({t.value("plugin_id", ""), t["tool_name"], t.value("executor", ""),
                      t.value("schema", Json())});
  }
  return true;
}

bool DynamicTools::save_locked_(const std::vector<DynamicTool>& tools, std::string& error) const {
  Json list = Json::array();
  for (const auto& t : tools) list.push_back(to_json(t));
  return base::write_file_atomically(file_, base::dump_json(Json{{"tools", list}}) + "\n", error);
}

bool DynamicTools::add(DynamicTool tool, std::string& error) {
  std::lock_guard lock(mu_);
  std::vector<DynamicTool> next = tools_;
  auto it = std::find_if(next.begin(), next.end(),
                         [&](const DynamicTool& t) { return t.tool_name == tool.tool_name; });
  if (it != next.end()) {
    *it = std::move(tool);
  } else {
    next.push_back(std::move(tool));
  }
  if (!save_locked_(next, error)) return false;
  tools_ = std::move(next);
  return true;
}

int DynamicTools::remove_plugin(const std::string& plugin_id, std::string& error) {
  std::lock_guard lock(mu_);
  std::vector<DynamicTool> next = tools_;
  auto end = std::remove_if(next.begin(), next.end(),
                            [&](const DynamicTool& t) { return t.plugin_id == plugin_id; });
  const int removed = static_cast<int>(next.end() - end);
  next.erase(end, next.end());
  if (removed == 0) return 0;
  if (!save_locked_(next, error)) return -1;
  tools_ = std::move(next);
  return removed;
}

std::optional<DynamicTool> DynamicTools::find(const std::string& name) const {
  std::lock_guard lock(mu_);
  for (const auto& t : tools_) {
    if (t.tool_name == name) return t;
  }
  return std::nullopt;
}

std::vector<DynamicTool> DynamicTools::list() const {
  std::lock_guard lock(mu_);
  return tools_;
}

}  // namespace ostrel::agents
