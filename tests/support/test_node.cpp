#include "tests/support/test_node.h"

#include <signal.h>

namespace ostrel::testing {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

TestNode::TestNode(const fs::path& root, const std::string& name, Options options)
    : root_(root), name_(name), options_(std::move(options)), data_(root / name) {
  const fs::path manifests = root_ / ("modules.d-" + name_);
  fs::create_directories(manifests);
  for (const auto& m : options_.modules) {
    fs::copy_file(fs::path(OSTREL_SOURCE_DIR) / "modules.d" / (m + ".module.yaml"),
                  manifests / (m + ".module.yaml"), fs::copy_options::overwrite_existing);
  }
  launch_();
}

void TestNode::launch_() {
  Process::Options o;
  o.args = {"--port=0",
            "--bind=127.0.0.1",
            "--node-id=" + (options_.node_id.empty() ? name_ : options_.node_id),
            "--data-dir=" + data_.string(),
            "--modules-d=" + (root_ / ("modules.d-" + name_)).string(),
            "--config-set",
            "data.embedding_model=ulvo-hash-embed-v1",
            "--config-set",
            "inference.ollama_url=http://127.0.0.1:9"};
  o.args.insert(o.args.end(), options_.args.begin(), options_.args.end());
  o.unset_env = {"OSTREL_AUTH",
                 "OSTREL_DATA_DIR",
                 "OSTREL_ULVO_PEERS",
                 "OSTREL_GOSSIP_ENABLED",
                 "OSTREL_ULVO_CONTROLLER_URL",
                 "OSTREL_CLUSTER_SECRET",
                 "OSTREL_CLUSTER_JOIN_TOKEN"};
  o.set_env = {{"OSTREL_CONFIG_DIR", (data_ / "config").string()},
               {"OSTREL_INFERENCE_MODEL_DIR", (data_ / "models").string()}};
  if (options_.enforce) o.set_env["OSTREL_AUTH"] = "enforce";
  for (const auto& [k, v] : options_.env) o.set_env[k] = v;
  process_ = std::make_unique<Process>(options_.binary.empty() ? OSTREL_BINARY : options_.binary, o,
                                       root_ / ("logs-" + name_));
  port_ = wait_for_ready_port(*process_, 20s);
  if (options_.enforce && port_ > 0) admin_ = bootstrap_token(*process_);
}

Answer call_port(int port, const std::string& method, const std::string& path,
                 const nlohmann::json& body, const std::string& token, const std::string& raw,
                 const httplib::Headers& headers) {
  httplib::Client c("127.0.0.1", port);
  c.set_read_timeout(60, 0);
  httplib::Headers h = headers;
  if (!token.empty()) h.emplace("X-Ostrel-Capability", token);
  const std::string text = raw.empty() ? (body.is_null() ? "" : body.dump()) : raw;
  httplib::Result r = method == "GET"      ? c.Get(path, h)
                      : method == "PUT"    ? c.Put(path, h, text, "application/json")
                      : method == "DELETE" ? c.Delete(path, h)
                                           : c.Post(path, h, text, "application/json");
  Answer a;
  if (!r) return a;
  a.status = r->status;
  a.text = r->body;
  a.body = nlohmann::json::parse(r->body, nullptr, false);
  for (const auto& [k, v] : r->headers) a.headers[k] = v;
  return a;
}

Answer TestNode::call(const std::string& method, const std::string& path,
                      const nlohmann::json& body, const std::string& token, const std::string& raw,
                      const httplib::Headers& headers) const {
  return call_port(port_, method, path, body, token, raw, headers);
}

void TestNode::restart_hard() {
  process_->signal(SIGKILL);
  process_->wait_exit(5s);
  launch_();
}

void TestNode::stop() {
  process_->signal(SIGTERM);
  process_->wait_exit(15s);
}

}  // namespace ostrel::testing
