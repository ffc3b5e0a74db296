// What a new user meets on the real binary: configuration that cannot be
// saved, a configured model nothing serves, what a viewer may see of the
// host, and the small things a browser asks for.
#include <gtest/gtest.h>
#include <httplib.h>

#include <nlohmann/json.hpp>

#include "tests/support/test_node.h"
#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
namespace fs = std::filesystem;

// A configuration directory the node cannot write (here: a path through a
// regular file, which no user can create): a registration fails with a
// clear error and changes nothing, not "registered" and lost at restart.
TEST(NewUser, ConfigurationThatCannotBeSavedIsRefused) {
  TempDir dir;
  write_file(dir / "not-a-directory", "x");
  TestNode node(dir.path(), "n1",
                TestNode::Options{
                    .modules = {"inference"},
                    .env = {{"OSTREL_CONFIG_DIR", (dir / "not-a-directory" / "config").string()}}});
  ASSERT_TRUE(node.started()) << node.process().err();
  const Json backend = {{"id", "lan"},
                        {"provider", "ollama"},
                        {"api_base", "http://127.0.0.1:9"},
                        {"models", {"lan-model"}}};
  Answer reg = node.call("POST", "/api/v1/inference/local-backends", backend);
  EXPECT_EQ(reg.status, 507) << reg.text;
  EXPECT_EQ(reg.body["error"], "not_saved");
  const Json listed = node.call("GET", "/api/v1/inference/local-backends").body;
  EXPECT_EQ(listed.dump().find("lan-model"), std::string::npos) << listed.dump();
  EXPECT_EQ(node.call("GET", "/v1/models").text.find("lan-model"), std::string::npos);
  Answer put = node.call("PUT", "/api/v1/inference/config", {{"gpu_layers", 10}});
  EXPECT_EQ(put.status, 507) << put.text;
}

// A configured embedding model that no backend offers is said at boot, not
// found out from a 502 on the first ingest; the model files' place on the
// host is an administrator's to see.
TEST(NewUser, UnservedEmbeddingModelIsWarnedAndHostPathsStayHidden) {
  TempDir dir;
  TestNode node(
      dir.path(), "n1",
      TestNode::Options{.modules = {"inference", "data"},
                        .args = {"--config-set", "data.embedding_model=nomic-embed-text:v1.5"},
                        .enforce = true});
  ASSERT_TRUE(node.started()) << node.process().err();
  EXPECT_TRUE(node.process().wait_for_err(
      "[WARN][kernel/data] data.embedding_model 'nomic-embed-text:v1.5' embeds nothing here", 10s))
      << node.process().err();
  const std::string admin = node.admin_token();
  const std::string viewer =
      node.call("POST", "/api/v1/capabilities/issue", {{"scopes", {"read.*"}}}, admin)
          .body.value("token", "");
  const Json seen = node.call("GET", "/api/v1/inference/config", {}, viewer).body;
  EXPECT_FALSE(seen.contains("model_dir")) << seen.dump();
  EXPECT_EQ(seen.dump().find(node.data_dir().string()), std::string::npos);
  EXPECT_TRUE(node.call("GET", "/api/v1/inference/config", {}, admin).body.contains("model_dir"));
}

}  // namespace
}  // namespace ostrel::testing
