#include "inference/ollama_fields.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "tests/support/test_support.h"

namespace ostrel::inference {
namespace {

using Json = nlohmann::json;

std::optional<std::string> string_member(const Json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end()) return std::nullopt;
  if (!it->is_string()) return "<not a string>";
  return it->get<std::string>();
}

std::optional<std::int64_t> integer_member(const Json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end()) return std::nullopt;
  if (!it->is_number_integer()) return -424242;
  return it->get<std::int64_t>();
}

// Whatever the scanner accepts, the JSON parser reads the same way.
void expect_agrees(const std::string& text) {
  OllamaFields f;
  if (!scan_ollama_fields(text, f)) return;
  Json j = Json::parse(text, nullptr, false);
  ASSERT_TRUE(j.is_object()) << text;
  EXPECT_EQ(f.model, string_member(j, "model")) << text;
  EXPECT_EQ(f.response, string_member(j, "response")) << text;
  EXPECT_EQ(f.done_reason, string_member(j, "done_reason")) << text;
  EXPECT_EQ(f.prompt_eval_count, integer_member(j, "prompt_eval_count")) << text;
  EXPECT_EQ(f.eval_count, integer_member(j, "eval_count")) << text;
  auto done = j.find("done");
  EXPECT_EQ(f.done.has_value(), done != j.end()) << text;
  if (f.done && done != j.end()) {
    ASSERT_TRUE(done->is_boolean()) << text;
    EXPECT_EQ(*f.done, done->get<bool>()) << text;
  }
  auto message = j.find("message");
  EXPECT_EQ(f.message_is_object, message != j.end() && message->is_object()) << text;
  if (f.message_is_object) {
    EXPECT_EQ(f.content, string_member(*message, "content")) << text;
  }
}

const std::string kLine =
    R"({"model":"llama3","created_at":"2024-01-01T00:00:00Z","message":{"role":"assistant",)"
    R"("content":"Hello, world","images":null},"done":false,"stats":[1,-2.5e3,{"x":[]}]})";
const std::string kLast =
    R"({"model":"llama3","message":{"role":"assistant","content":""},"done":true,)"
    R"("done_reason":"stop","prompt_eval_count":26,"eval_count":298,"total_duration":5.1e9})";

TEST(OllamaFields, ReadsThePlainCasesAndRefusesTheRest) {
  OllamaFields f;
  ASSERT_TRUE(scan_ollama_fields(kLine, f));
  EXPECT_EQ(f.model, "llama3");
  EXPECT_TRUE(f.message_is_object);
  EXPECT_EQ(f.content, "Hello, world");
  EXPECT_EQ(f.done, false);
  ASSERT_TRUE(scan_ollama_fields(" \t" + kLast + "\r\n", f));
  EXPECT_EQ(f.done, true);
  EXPECT_EQ(f.done_reason, "stop");
  EXPECT_EQ(f.prompt_eval_count, 26);
  EXPECT_EQ(f.eval_count, 298);
  ASSERT_TRUE(scan_ollama_fields(R"({"response":"hi","message":"not an object"})", f));
  EXPECT_FALSE(f.message_is_object);
  EXPECT_EQ(f.response, "hi");
  ASSERT_TRUE(scan_ollama_fields("{}", f));
  EXPECT_FALSE(f.model);

  // Left to the full parser: escapes and other characters in the strings it
  // reads, other types, repeats, and anything that is not one valid object.
  for (const std::string text : {
           R"({"message":{"content":"line\nbreak"}})",
           R"({"message":{"content":"caf\u00e9"}})",
           "{\"message\":{\"content\":\"caf\xc3\xa9\"}}",
           R"({"model":7})",
           R"({"done":"true"})",
           R"({"done":null})",
           R"({"eval_count":1.0})",
           R"({"eval_count":99999999999999999999})",
           R"({"model":"a","model":"b"})",
           R"({"message":{"content":"a","content":"b"}})",
           R"({"mod\u0065l":"x"})",
           R"({"model":"a",})",
           R"({"model":"a"} x)",
           R"({"n":01})",
           R"({"n":1.})",
           R"({"n":-})",
           R"({"s":"\x"})",
           R"([{"model":"a"}])",
           "",
       }) {
    EXPECT_FALSE(scan_ollama_fields(text, f)) << text;
  }
  // Members it does not read may hold anything valid, escapes included.
  EXPECT_TRUE(scan_ollama_fields(R"({"x":"a\"b\\c\u00e9\/","y":[true,false,null,-0,1e-5]})", f));
  // Nesting is bounded rather than recursed without end.
  EXPECT_FALSE(
      scan_ollama_fields(R"({"x":)" + std::string(100, '[') + std::string(100, ']') + "}", f));
}

TEST(OllamaFields, AgreesWithTheJsonParserOnEveryMutation) {
  // Every prefix of the typical lines, then random edits of them.
  for (const std::string& base : {kLine, kLast}) {
    for (std::size_t n = 0; n <= base.size(); ++n) expect_agrees(base.substr(0, n));
  }
  const std::string alphabet = "{}[]\":,.-+eE0123456789 \\utfnlrsa\n\x01\xc3";
  std::mt19937 rng(11);
  int accepted = 0;
  for (int i = 0; i < 30000; ++i) {
    std::string text = (i % 2) ? kLine : kLast;
    text = ostrel::testing::mutate(std::move(text), rng, alphabet);
    OllamaFields f;
    accepted += scan_ollama_fields(text, f);
    expect_agrees(text);
    if (HasFailure()) return;
  }
  EXPECT_GT(accepted, 1000);  // the edits do leave many texts it reads itself
}

}  // namespace
}  // namespace ostrel::inference
