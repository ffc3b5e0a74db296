#include <gtest/gtest.h>

#include <map>

#include "kernel/boot/config_view.h"
#include "kernel/boot/manifest.h"

namespace ostrel::kernel {
namespace {

std::map<std::string, std::string>* g_env = nullptr;

const char* fake_env(const char* name) {
  auto it = g_env->find(name);
  return it == g_env->end() ? nullptr : it->second.c_str();
}

ModuleDefinition data_module() {
  ModuleDefinition def;
  def.name = "data";
  ConfigField backend;
  backend.key = "vector_backend";
  backend.default_value = "sqlite";
  ConfigField model;
  model.key = "embed.model-name";
  model.default_value = "m1";
  def.config = {backend, model};
  return def;
}

TEST(ConfigResolution, CommandLineBeatsEnvironmentBeatsManifest) {
  std::map<std::string, std::string> env = {{"OSTREL_DATA_VECTOR_BACKEND", "sqlite-env"},
                                            {"OSTREL_DATA_EMBED_MODEL_NAME", "m-env"},
                                            {"OSTREL_DATA_UNDECLARED", "1"}};
  g_env = &env;
  unsigned n = 0;
  ConfigView v =
      config_overlay::resolve(data_module(),
                              {"data.vector_backend=faiss", "novalue", "router.x=1", "data.a.b=1",
                               "data.undeclared=2", "data.vector_backend=hnsw"},
                              n, fake_env);
  EXPECT_EQ(v.get("vector_backend"), "hnsw");  // later --config-set wins
  EXPECT_EQ(v.get("embed.model-name"), "m-env");
  EXPECT_EQ(v.get("a.b"), "1");
  EXPECT_EQ(v.get("undeclared"), "2");
  EXPECT_FALSE(v.has("x"));
  EXPECT_EQ(n, 2u + 4u);  // two from the environment, four from the command line

  // Numbers and switches: anything that is not wholly one keeps the default.
  ConfigView t({{"n", "42"},
                {"neg", "-3"},
                {"bad", "12x"},
                {"huge", "99999999999999999999"},
                {"empty", ""},
                {"on", "TRUE"},
                {"off", "no"}});
  EXPECT_EQ(t.get_int("n", 7), 42);
  EXPECT_EQ(t.get_int("neg", 7), -3);
  EXPECT_EQ(t.get_int("bad", 7), 7);
  EXPECT_EQ(t.get_int("huge", 7), 7);
  EXPECT_EQ(t.get_int("empty", 7), 7);
  EXPECT_EQ(t.get_int("absent", 7), 7);
  EXPECT_TRUE(t.get_bool("on", false));
  EXPECT_FALSE(t.get_bool("off", true));
  EXPECT_TRUE(t.get_bool("absent", true));
}

TEST(ConfigResolution, EmptyEnvironmentAndUndeclaredKeysAreIgnored) {
  std::map<std::string, std::string> env = {{"OSTREL_DATA_VECTOR_BACKEND", ""},
                                            {"OSTREL_DATA_UNDECLARED", "1"}};
  g_env = &env;
  unsigned n = 7;
  ConfigView v = config_overlay::resolve(data_module(), {}, n, fake_env);
  EXPECT_EQ(v.get("vector_backend"), "sqlite");
  EXPECT_FALSE(v.has("undeclared"));
  EXPECT_EQ(n, 0u);

  ConfigView empty(std::unordered_map<std::string, std::string>{{"blank", ""}});
  EXPECT_EQ(empty.get("missing", "d"), "d");
  EXPECT_EQ(empty.get("blank", "d"), "");
  EXPECT_EQ(config_overlay::sanitize_env_piece("embed.model-Name_x9"), "EMBED_MODEL_NAME_X9");
}

}  // namespace
}  // namespace ostrel::kernel
