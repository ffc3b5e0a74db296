#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace ostrel::tools::result {

// The envelope of one executed tool call.
struct ToolResult {
  std::string tool;
  std::string trace_id;
  std::string user_id;
  std::int64_t started_ms = 0;
  std::int64_t finished_ms = 0;
  nlohmann::json output;
  std::vector<std::string> warnings;

  // In this order: {"ok": true, "tool", "output"} plus "trace_id", "user_id", "timing" and
  // "warnings" only when they carry something.
  nlohmann::ordered_json to_json() const;
};

}  // namespace ostrel::tools::result
