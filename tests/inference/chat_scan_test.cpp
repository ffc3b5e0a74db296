#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

#include "inference/chat_json.h"
#include "tests/support/test_support.h"

namespace ostrel::inference {
namespace {

using Json = nlohmann::json;

// Every member of a request, floats by their bits.
std::string describe(const ChatRequest& r, bool stream) {
  auto f = [](const std::optional<float>& v) {
    if (!v) return std::string("-");
    std::uint32_t bits;
    std::memcpy(&bits, &*v, sizeof bits);
    return std::to_string(bits);
  };
  std::string out = "model=" + r.model + " session=" + r.session_id + " tenant=" + r.tenant_id +
                    " user=" + r.user_id + " stream=" + (stream ? "1" : "0") +
                    " t=" + f(r.temperature) + " p=" + f(r.top_p) + " pp=" + f(r.presence_penalty) +
                    " fp=" + f(r.frequency_penalty) +
                    " max=" + (r.max_tokens ? std::to_string(*r.max_tokens) : "-") +
                    " prio=" + std::to_string(r.priority) + " stop=";
  for (const auto& s : r.stop) out += "[" + s + "]";
  for (const auto& m : r.messages) {
    out += " {" + m.role + "|" + m.content + "|" + m.name + "|" + m.tool_call_id + "|" +
           m.tool_calls + "}";
  }
  return out + " tools=" + r.tools + " choice=" + r.tool_choice;
}

// parse_chat_text, fast path or not, reads every text as the JSON-tree path
// does: the same request, or the same error.
void expect_same_as_json_path(const std::string& text) {
  ChatRequest fast, tree;
  bool fast_stream = false, tree_stream = false;
  std::string fast_error, tree_error;
  const bool fast_ok = chat_json::parse_chat_text(text, fast, fast_stream, fast_error);
  Json j = text.empty() ? Json::object() : Json::parse(text, nullptr, false);
  const bool tree_ok =
      !j.is_discarded() && chat_json::parse_chat_request(j, tree, tree_stream, tree_error);
  if (j.is_discarded()) tree_error = "invalid JSON body";
  ASSERT_EQ(fast_ok, tree_ok) << text;
  if (!fast_ok) {
    EXPECT_EQ(fast_error, tree_error) << text;
    return;
  }
  EXPECT_EQ(describe(fast, fast_stream), describe(tree, tree_stream)) << text;
}

bool scanned(const std::string& text) {
  ChatRequest r;
  bool stream = false;
  return chat_json::scan_chat_request(text, r, stream);
}

const std::string kPlain =
    R"({"model":"llama3","messages":[{"role":"system","content":"Be terse."},)"
    R"({"role":"user","content":"hello there","name":"ann"}],"stream":true,"temperature":0.7,)"
    R"("top_p":1,"max_tokens":256,"stop":["END","STOP"],"priority":-3,"user":"u1",)"
    R"("metadata":{"k":[1,2.5e3,null,true]}})";
// What the tool loop sends: tools, a tool call and its answer, escaped text.
const std::string kTools =
    R"({"model":"m","messages":[{"role":"system","content":"Use tools.\nNever guess."},)"
    R"({"role":"user","content":"caf\u00e9 \"now\"\t\ud83d\ude00"},{"role":"assistant","content":null,)"
    R"("tool_calls":[{"id":"c1","type":"function","function":{"name":"search","arguments":"{\"q\":1}"}}]},)"
    R"({"role":"tool","tool_call_id":"c1","name":"search","content":"{\"hits\":[]}"}],)"
    R"("tools":[{"type":"function","function":{"name":"search","parameters":{"type":"object"}}}],)"
    R"("tool_choice":"auto","stream":false})";
const std::string kOdd =
    R"({"model":"m","messages":[{"content":"caf\u00e9"},{"role":"","content":[{"type":"text",)"
    R"("text":"a"}]}],"stop":"\n","user_id":"id","user":null,"frequency_penalty":-0,)"
    R"("presence_penalty":1e-3,"stream":false})";

TEST(ChatScan, CommonRequestsTakeTheFastPathAndOthersTheJsonPath) {
  EXPECT_TRUE(scanned(kPlain));
  EXPECT_TRUE(scanned(R"({"model":"m","messages":[{"content":"x"}]})"));
  EXPECT_TRUE(scanned(R"( { "model" : "m" , "stream" : false } )"));
  EXPECT_TRUE(scanned("{}"));
  EXPECT_TRUE(scanned(kTools));  // tools and escaped text no longer need the tree
  ChatRequest r;
  bool stream = true;
  ASSERT_TRUE(chat_json::scan_chat_request(
      R"({"messages":[{"content":"x"},{"role":"","content":"y"}],"user":"u","stop":"S"})", r,
      stream));
  EXPECT_FALSE(stream);
  ASSERT_EQ(r.messages.size(), 2u);
  EXPECT_EQ(r.messages[0].role, "user");  // absent or empty roles are the user's
  EXPECT_EQ(r.messages[1].role, "user");
  EXPECT_EQ(r.user_id, "u");
  EXPECT_EQ(r.stop, std::vector<std::string>{"S"});

  // Escapes, content parts, nulls, repeats, wrong types, trailing bytes,
  // huge numbers: the JSON path decides.
  for (const char* text :
       {R"({"model":"a\nb"})", R"({"messages":[{"content":[{"type":"text","text":"a"}]}]})",
        R"({"model":null})", R"({"model":"a","model":"b"})", R"({"stream":"yes"})",
        R"({"model":"m"} x)", R"({"max_tokens":1.5})", R"({"temperature":1e999})",
        R"({"priority":99999999999999999999})", "[]", ""}) {
    EXPECT_FALSE(scanned(text)) << text;
    expect_same_as_json_path(text);
  }
  expect_same_as_json_path(kPlain);
  expect_same_as_json_path(kOdd);
  expect_same_as_json_path(kTools);
  expect_same_as_json_path(R"({"model":"a","model":"b"})");
}

TEST(ChatScan, AgreesWithTheJsonPathOnEveryMutation) {
  for (const std::string& base : {kPlain, kOdd, kTools}) {
    for (std::size_t n = 0; n <= base.size(); ++n) {
      expect_same_as_json_path(base.substr(0, n));
      if (HasFailure()) return;
    }
  }
  const std::string alphabet = "{}[]\":,.-+eE0123456789 \\utfnlrsa\n\x01\xc3";
  std::mt19937 rng(29);
  int fast = 0;
  for (int i = 0; i < 30000; ++i) {
    std::string text = i % 3 == 0 ? kOdd : i % 3 == 1 ? kPlain : kTools;
    text = ostrel::testing::mutate(std::move(text), rng, alphabet);
    fast += scanned(text);
    expect_same_as_json_path(text);
    if (HasFailure()) return;
  }
  EXPECT_GT(fast, 2000);  // many edited texts are still read by the fast path
}

}  // namespace
}  // namespace ostrel::inference
