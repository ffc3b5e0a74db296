#pragma once

#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace ostrel::agents {

// A tool contributed by a plugin, run through the plugin host.
struct DynamicTool {
  std::string plugin_id;
  std::string tool_name;
  std::string executor;
  nlohmann::json schema;
};

// The dynamic tool table, keyed by tool name, kept whole in one JSON file
// that is rewritten (temporary file and rename) on every change before the
// change is made in memory.
// Thread-safe: mu_ guards the table and is held while the file is written.
class DynamicTools {
 public:
  explicit DynamicTools(std::filesystem::path file);
  // Reads the file; false (with the reason) when it exists but cannot be read.
  bool load(std::string& error);
  bool add(DynamicTool tool, std::string& error);
  // Removes every tool of the plugin; the number removed, or -1 on a failed write.
  int remove_plugin(const std::string& plugin_id, std::string& error);
  std::optional<DynamicTool> find(const std::string& name) const;
  std::vector<DynamicTool> list() const;

 private:
  bool save_locked_(const std::vector<DynamicTool>& tools, std::string& error) const;

  std::filesystem::path file_;
  mutable std::mutex mu_;
  std::vector<DynamicTool> tools_;
};

nlohmann::json to_json(const DynamicTool& t);

}  // namespace ostrel::agents
