#include "tools/tool_result.h"

namespace ostrel::tools::result {

nlohmann::ordered_json ToolResult::to_json() const {
  nlohmann::ordered_json j;
  j["ok"] = true;
  j["tool"] = tool;
  j["output"] = output;
  if (!trace_id.empty()) j["trace_id"] = trace_id;
  if (!user_id.empty()) j["user_id"] = user_id;
  if (started_ms != 0) {
    j["timing"] = {{"started_ms", started_ms},
                   {"finished_ms", finished_ms},
                   {"duration_ms", finished_ms - started_ms}};
  }
  if (!warnings.empty()) j["warnings"] = warnings;
  return j;
}

}  // namespace ostrel::tools::result
