// The tool registry's default table, registration rules and the result
// envelope.
#include "tools/registry.h"

#include <gtest/gtest.h>

#include <thread>

#include "tools/tool_result.h"

namespace ostrel::tools {
namespace {

std::vector<std::string> names(const std::vector<ToolSpec>& v) {
  std::vector<std::string> out;
  for (const auto& s : v) out.push_back(s.name);
  return out;
}

TEST(ToolRegistry, DefaultsCategoriesAndReplacement) {
  Registry r;
  r.seed_defaults();
  EXPECT_EQ(r.all().size(), 16u);
  EXPECT_EQ(names(r.by_category("filesystem")),
            (std::vector<std::string>{"Edit", "Glob", "Grep", "Read", "Write"}));
  auto bash = r.find("Bash");
  ASSERT_TRUE(bash);
  EXPECT_TRUE(bash->destructive);
  EXPECT_TRUE(bash->requires_approval);
  EXPECT_EQ(bash->min_role, "developer");
  auto learn = r.find("Learn");
  EXPECT_TRUE(learn->destructive);
  EXPECT_FALSE(learn->requires_approval);
  EXPECT_TRUE(r.find("Read")->input_schema.is_null());
  EXPECT_TRUE(r.by_category("nope").empty());

  r.register_tool({"Read", "Read anything.", "admin", "", {{"type", "object"}}, true, true});
  auto read = r.find("Read");
  EXPECT_EQ(read->description, "Read anything.");
  EXPECT_EQ(read->category, "uncategorized");
  EXPECT_TRUE(read->requires_approval);
  EXPECT_EQ(names(r.by_category("uncategorized")), std::vector<std::string>{"Read"});
  EXPECT_EQ(r.all().size(), 16u);

  EXPECT_THROW(r.register_tool({}), std::invalid_argument);
  try {
    r.register_tool({});
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "tool.name empty");
  }

  nlohmann::json def = function_definition(*r.find("Glob"));
  EXPECT_EQ(def["type"], "function");
  EXPECT_EQ(def["function"]["parameters"], nlohmann::json({{"type", "object"}}));
  EXPECT_EQ(def["function"]["name"], "Glob");
  EXPECT_EQ(function_definition(*read)["function"]["parameters"], read->input_schema);
  nlohmann::json entry = to_json(*r.find("Glob"));
  EXPECT_EQ(entry.size(), 7u);
  EXPECT_TRUE(entry["input_schema"].is_null());

  // Registrations from many threads at once.
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&r, t] {
      for (int i = 0; i < 100; ++i)
        r.register_tool({"t" + std::to_string(t * 100 + i), "", "", "x", nullptr});
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(r.by_category("x").size(), 400u);
}

TEST(ToolResult, OnlyWhatCarriesSomething) {
  result::ToolResult r;
  r.tool = "Read";
  r.output = "text";
  r.finished_ms = 1250;
  EXPECT_EQ(r.to_json().dump(), R"({"ok":true,"tool":"Read","output":"text"})");
  r.started_ms = 1000;
  r.trace_id = "t1";
  r.warnings = {"truncated"};
  EXPECT_EQ(
      r.to_json().dump(),
      R"({"ok":true,"tool":"Read","output":"text","trace_id":"t1",)"
      R"("timing":{"started_ms":1000,"finished_ms":1250,"duration_ms":250},"warnings":["truncated"]})");
}

}  // namespace
}  // namespace ostrel::tools
