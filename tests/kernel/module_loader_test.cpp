#include <gtest/gtest.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cmath>

#include "kernel/boot/manifest.h"
#include "tests/support/test_support.h"

namespace ostrel::kernel {
namespace {

using module_loader::load_from_string;

bool contains(const std::vector<std::string>& v, const std::string& s) {
  return std::find(v.begin(), v.end(), s) != v.end();
}

TEST(ManifestLoader, MinimalManifestLoadsWithThreeWarnings) {
  auto r = load_from_string("module: {name: data}", "x.module.yaml");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.definition.version, "0.0.0");
  EXPECT_EQ(r.definition.source_path, "x.module.yaml");
  EXPECT_EQ(r.warnings,
            (std::vector<std::string>{
                "no help topics declared — per OstrelOS.md §8476 a module must ship at least one "
                ".help.md",
                "source_code.domain not declared (cannot self-register)",
                "no version declared — defaulting to 0.0.0"}));
}

TEST(ManifestLoader, SchemaErrorsAndWarnings) {
  auto upper = load_from_string("module: {name: Data}", "");
  EXPECT_FALSE(upper.ok);
  EXPECT_EQ(upper.errors,
            std::vector<std::string>{"module name must start with a lowercase letter: 'Data'"});
  auto dot = load_from_string("module: {name: da.ta}", "");
  EXPECT_EQ(dot.errors,
            std::vector<std::string>{"module name contains invalid character: 'da.ta'"});
  auto digit = load_from_string("module: {name: 9lives}", "");
  EXPECT_EQ(digit.errors,
            std::vector<std::string>{"module name must start with a lowercase letter: '9lives'"});

  auto missing = load_from_string("module: {version: 1.0.0}", "");
  EXPECT_TRUE(contains(missing.errors, "missing required field: module.name"));

  EXPECT_EQ(load_from_string("- a\n- b\n", "").errors,
            std::vector<std::string>{"root must be a YAML mapping with `module:` key"});
  EXPECT_EQ(load_from_string("other: 1\n", "").errors,
            std::vector<std::string>{"root must be a YAML mapping with `module:` key"});
  EXPECT_EQ(load_from_string("module: [1, 2]\n", "").errors,
            std::vector<std::string>{"`module:` root must be a mapping"});

  auto r = load_from_string(R"(
extra: 1
module:
  name: data
  version: 5.0.0
  default_port: 80
  colour: blue
  intent: {handles: [a], mood: x}
  source_code: {domain: data, subdomain: "0x02"}
  help:
    - {id: t1, title: One}
    - {id: t1, title: Again}
  api:
    endpoints:
      - {path: /ok}
      - {path: relative, method: POST}
      - just-a-string
)",
                            "");
  EXPECT_FALSE(r.ok);
  EXPECT_TRUE(contains(r.warnings, "unknown top-level key: 'extra' (ignored)"));
  EXPECT_TRUE(contains(r.warnings, "unknown module key: 'colour' (ignored)"));
  EXPECT_TRUE(contains(r.warnings, "unknown module key: 'mood' (ignored)"));
  EXPECT_TRUE(contains(r.warnings, "default_port 80 is in the privileged range (<1024)"));
  EXPECT_TRUE(contains(r.errors, "endpoint path must start with '/': 'relative'"));
  EXPECT_TRUE(contains(r.errors, "duplicate help topic id: 't1'"));
  ASSERT_EQ(r.definition.endpoints.size(), 2u);  // the plain string is skipped
  const EndpointDef& e = r.definition.endpoints[0];
  EXPECT_EQ(e.method, "GET");
  EXPECT_TRUE(e.auth);
  EXPECT_FALSE(e.streaming);
  EXPECT_EQ(r.definition.intent.handles, std::vector<std::string>{"a"});

  EXPECT_THROW(load_from_string("module: {name: [unclosed", ""), YAML::Exception);
}

TEST(ManifestLoader, ReadsEveryFieldLeniently) {
  auto r = load_from_string(R"(
module:
  name: data
  display_name: Data
  version: 5.0.0
  default_port: 8892
  hardware: {gpu: maybe, min_ram: 4G}
  depends_on: [inference]
  health: {interval: 15, timeout: oops, startup_probe: {period: 9}}
  config:
    vector_backend: {type: string, default: sqlite, values: [sqlite, faiss], min: -3, max: x}
    weights: {default: [1, 2]}
    plain: {}
  metrics:
    - {name: m, buckets: [1, .Inf, +.INF, -.inf, .NaN, 2.5, oops]}
  service:
    environment: {A: "1"}
  syscalls:
    - {name: data.vector.search, input: {query: string}}
  firewall: [{port: 8892}]
  source_code: {domain: data, subdomain_name: data}
  help: [{id: data.intro, path: help/data.help.md}]
)",
                            "");
  ASSERT_TRUE(r.ok) << (r.errors.empty() ? "" : r.errors[0]);
  const ModuleDefinition& d = r.definition;
  EXPECT_EQ(d.hardware.gpu, GpuNeed::none);
  EXPECT_EQ(d.hardware.min_ram, "4G");
  EXPECT_EQ(d.depends_on, std::vector<std::string>{"inference"});
  EXPECT_EQ(d.health.interval, 15u);
  EXPECT_EQ(d.health.timeout, 5u);  // unconvertible: default kept
  EXPECT_EQ(d.health.startup_probe.period, 9u);
  ASSERT_EQ(d.config.size(), 3u);
  EXPECT_EQ(d.config[0].key, "vector_backend");
  EXPECT_EQ(d.config[0].default_value, "sqlite");
  EXPECT_EQ(d.config[0].values, (std::vector<std::string>{"sqlite", "faiss"}));
  EXPECT_EQ(d.config[0].min, -3);
  EXPECT_FALSE(d.config[0].max.has_value());
  EXPECT_FALSE(d.config[1].default_value.empty());
  EXPECT_EQ(d.config[2].default_value, "");
  ASSERT_EQ(d.metrics[0].buckets.size(), 6u);
  EXPECT_TRUE(std::isinf(d.metrics[0].buckets[1]) && d.metrics[0].buckets[1] > 0);
  EXPECT_TRUE(std::isinf(d.metrics[0].buckets[2]));
  EXPECT_TRUE(d.metrics[0].buckets[3] < 0);
  EXPECT_TRUE(std::isnan(d.metrics[0].buckets[4]));
  EXPECT_EQ(d.service.environment[0], (std::pair<std::string, std::string>{"A", "1"}));
  EXPECT_NE(d.syscalls[0].input.find("query"), std::string::npos);
  EXPECT_EQ(d.firewall[0].protocol, "tcp");
  EXPECT_EQ(d.help[0].audience, "user");
}

TEST(ManifestLoader, DirectoryScan) {
  testing::TempDir dir;
  testing::write_file(dir / "a.module.yaml", "module: {name: data, version: 1.0.0}\n");
  testing::write_file(dir / "b.module.yaml", "module: {name: data, version: 2.0.0}\n");
  testing::write_file(dir / "broken.module.yaml", "module: {name: [\n");
  testing::write_file(dir / "bad.module.yaml", "module: {name: Bad}\n");
  testing::write_file(dir / "notes.yaml", "module: {name: ignored}\n");
  std::filesystem::create_directory(dir / "sub.module.yaml");

  auto bulk = module_loader::load_directory(dir.path());
  ASSERT_EQ(bulk.definitions.size(), 1u);
  EXPECT_EQ(bulk.definitions[0].name, "data");
  ASSERT_EQ(bulk.messages.size(), 1u);
  EXPECT_EQ(bulk.messages[0].rfind("duplicate module name 'data' at ", 0), 0u);
  EXPECT_NE(bulk.messages[0].find("(first definition wins)"), std::string::npos);
  ASSERT_EQ(bulk.failures.size(), 2u);  // the syntax error and the bad name

  auto none = module_loader::load_directory(dir / "missing");
  EXPECT_EQ(none.messages,
            std::vector<std::string>{"not a directory: " + (dir / "missing").string()});
}

}  // namespace
}  // namespace ostrel::kernel
