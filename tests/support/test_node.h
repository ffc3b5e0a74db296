#pragma once

#include <httplib.h>

#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/test_support.h"

namespace ostrel::testing {

// One HTTP answer: status 0 when there was none.
struct Answer {
  int status = 0;
  std::string text;
  nlohmann::json body;
  std::map<std::string, std::string> headers;
};

// One request to a node on a loopback port: `body` is sent as JSON unless
// `raw` is given; the token goes in X-Ostrel-Capability.
Answer call_port(int port, const std::string& method, const std::string& path,
                 const nlohmann::json& body = nlohmann::json(), const std::string& token = "",
                 const std::string& raw = "", const httplib::Headers& headers = {});

// A real node process on a loopback port of its own, with its own data,
// config and manifest directories under `root`, for end-to-end tests.
class TestNode {
 public:
  struct Options {
    std::vector<std::string> modules = {"inference", "data"};  // manifests copied in
    std::vector<std::string> args;                             // added to the command line
    std::map<std::string, std::string> env;                    // added to the environment
    bool enforce = false;  // OSTREL_AUTH=enforce; admin_token() is then the bootstrap token
    std::string node_id;   // --node-id; the node's name when empty
    std::string binary;    // default: the node binary under test
  };

  TestNode(const std::filesystem::path& root, const std::string& name, Options options);
  TestNode(const std::filesystem::path& root, const std::string& name)
      : TestNode(root, name, Options{}) {}

  bool started() const { return port_ > 0; }
  int port() const { return port_; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  const std::filesystem::path& data_dir() const { return data_; }
  Process& process() { return *process_; }
  const std::string& admin_token() const { return admin_; }

  // `body` is sent as JSON unless `raw` is given; the token goes in
  // X-Ostrel-Capability.
  Answer call(const std::string& method, const std::string& path,
              const nlohmann::json& body = nlohmann::json(), const std::string& token = "",
              const std::string& raw = "", const httplib::Headers& headers = {}) const;
  // Kills the process with SIGKILL and starts it again on the same data.
  void restart_hard();
  void stop();  // SIGTERM, waiting for the exit

 private:
  void launch_();

  std::filesystem::path root_;
  std::string name_;
  Options options_;
  std::filesystem::path data_;
  std::unique_ptr<Process> process_;
  int port_ = -1;
  std::string admin_;
};

}  // namespace ostrel::testing
