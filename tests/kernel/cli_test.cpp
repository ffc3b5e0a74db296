#include "kernel/boot/cli.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <map>

namespace ostrel::kernel::cli {
namespace {

struct Parsed {
  ParseOutcome outcome;
  std::string err;
};

Parsed parse_args(std::vector<std::string> args,
                  std::map<std::string, std::string> env = {{"HOME", "/home/u"}}) {
  args.insert(args.begin(), "ostrel-ulvo");
  std::vector<const char*> argv;
  for (const auto& a : args) argv.push_back(a.c_str());
  char* buf = nullptr;
  size_t len = 0;
  std::FILE* err = open_memstream(&buf, &len);
  Parsed r;
  r.outcome = parse(
      static_cast<int>(argv.size()), argv.data(),
      [&env](const char* name) -> std::optional<std::string> {
        auto it = env.find(name);
        if (it == env.end()) return std::nullopt;
        return it->second;
      },
      err);
  std::fclose(err);
  r.err.assign(buf, len);
  std::free(buf);
  return r;
}

TEST(CommandLine, DefaultsAndEnvironment) {
  Parsed r = parse_args({});
  const KernelConfig& c = r.outcome.config;
  EXPECT_EQ(r.outcome.action, Action::run);
  EXPECT_EQ(c.node_id, "node-1");
  EXPECT_EQ(c.data_dir, "/home/u/.local/share/ostrel");
  EXPECT_EQ(c.modules_d, "modules.d");
  EXPECT_TRUE(c.roles.empty());
  EXPECT_EQ(c.bind, "0.0.0.0");
  EXPECT_EQ(c.port, 8880);
  EXPECT_TRUE(c.strict_identity);
  EXPECT_EQ(c.auth_mode, AuthMode::off);

  EXPECT_EQ(parse_args({}, {}).outcome.config.data_dir, "/tmp/ostrel");
  EXPECT_EQ(parse_args({}, {{"OSTREL_DATA_DIR", ""}, {"HOME", "/h"}}).outcome.config.data_dir, "");
  auto env = parse_args({}, {{"OSTREL_AUTH", "on"}, {"OSTREL_ULVO_EXTENSIONS_D", "/ext"}});
  EXPECT_EQ(env.outcome.config.auth_mode, AuthMode::enforce);
  EXPECT_EQ(env.outcome.config.extensions_d, "/ext");
  // The node id: OSTREL_NODE_ID when set and not empty, --node-id over it.
  EXPECT_EQ(parse_args({}, {{"OSTREL_NODE_ID", "edge-7"}}).outcome.config.node_id, "edge-7");
  EXPECT_EQ(parse_args({}, {{"OSTREL_NODE_ID", ""}}).outcome.config.node_id, "node-1");
  EXPECT_EQ(parse_args({"--node-id=n9"}, {{"OSTREL_NODE_ID", "edge-7"}}).outcome.config.node_id,
            "n9");
  // The environment is matched case-sensitively and silently ignored otherwise.
  EXPECT_EQ(parse_args({}, {{"OSTREL_AUTH", "ON"}}).outcome.config.auth_mode, AuthMode::off);
  // The command line overrides the environment.
  auto both = parse_args({"--auth=off", "--data-dir", "/d"},
                         {{"OSTREL_AUTH", "enforce"}, {"OSTREL_DATA_DIR", "/env"}});
  EXPECT_EQ(both.outcome.config.auth_mode, AuthMode::off);
  EXPECT_EQ(both.outcome.config.data_dir, "/d");
}

TEST(CommandLine, ValuedOptionsInBothForms) {
  Parsed r = parse_args({"--role=data,,router", "--port", "70000", "--config-set", "a.b=1",
                         "--config-set=a.b=2", "--node-id=n7", "--bind", "127.0.0.1",
                         "--lax-identity", "--modules-d=/m", "--extensions-d", "/x", "--auth=1"});
  const KernelConfig& c = r.outcome.config;
  EXPECT_EQ(r.outcome.action, Action::run) << r.err;
  EXPECT_EQ(c.roles, (std::vector<std::string>{"data", "router"}));
  EXPECT_EQ(c.port, 4464);  // 70000 kept in 16 bits
  EXPECT_EQ(c.config_overrides, (std::vector<std::string>{"a.b=1", "a.b=2"}));
  EXPECT_EQ(c.node_id, "n7");
  EXPECT_EQ(c.bind, "127.0.0.1");
  EXPECT_FALSE(c.strict_identity);
  EXPECT_EQ(c.modules_d, "/m");
  EXPECT_EQ(c.extensions_d, "/x");
  EXPECT_EQ(c.auth_mode, AuthMode::enforce);

  EXPECT_EQ(parse_args({"--role= data"}).outcome.config.roles, std::vector<std::string>{" data"});
  EXPECT_EQ(parse_args({"--role=a", "--role=b"}).outcome.config.roles,
            std::vector<std::string>{"b"});
  EXPECT_TRUE(parse_args({"--role="}).outcome.config.roles.empty());
  EXPECT_EQ(parse_args({"--list-modules"}).outcome.action, Action::list_modules);
}

TEST(CommandLine, ExitsForHelpUnknownOptionsAndBadValues) {
  Parsed help = parse_args({"--port=1", "--help", "--bogus"});
  EXPECT_EQ(help.outcome.action, Action::exit);
  EXPECT_EQ(help.outcome.exit_status, 0);
  EXPECT_EQ(help.err.rfind("Ostrel ULVO \xe2\x80\x94 v5.0\n\nUsage: ostrel-ulvo [options]\n", 0),
            0u);
  EXPECT_NE(help.err.find("  OSTREL_DATA_VECTOR_BACKEND=faiss ostrel-ulvo --role=data\n"),
            std::string::npos);

  Parsed unknown = parse_args({"--bogus", "--help"});
  EXPECT_EQ(unknown.outcome.exit_status, 2);
  EXPECT_EQ(unknown.err.rfind("unknown option: --bogus\n\nOstrel ULVO", 0), 0u);

  // Every option is examined before --list-modules takes effect.
  EXPECT_EQ(parse_args({"--list-modules", "--bogus"}).outcome.exit_status, 2);
  // A valued option without a value is unknown; so are positional arguments.
  Parsed last = parse_args({"--node-id"});
  EXPECT_EQ(last.outcome.exit_status, 2);
  EXPECT_NE(last.err.find("unknown option: --node-id"), std::string::npos);
  EXPECT_EQ(parse_args({"serve"}).outcome.exit_status, 2);
  EXPECT_EQ(parse_args({"--Role=data"}).outcome.exit_status, 2);

  Parsed auth = parse_args({"--auth=ON"});
  EXPECT_EQ(auth.outcome.exit_status, 2);
  EXPECT_EQ(auth.err, "--auth must be off|enforce, got ON\n");

  Parsed port = parse_args({"--port=http"});
  EXPECT_EQ(port.outcome.action, Action::exit);
  EXPECT_NE(port.outcome.exit_status, 0);
}

}  // namespace
}  // namespace ostrel::kernel::cli
