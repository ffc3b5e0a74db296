// The cluster with real node processes on loopback: a controller and two
// joiners form a cluster, see each other in gossip and in the topology, a
// killed node turns suspect then dead on time and rejoins by itself after a
// restart; webhook deliveries verify under both signature schemes; forged
// registrations, foreign gossip and bad webhook targets are refused.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <thread>

#include "base/encoding.h"
#include "cluster/gossip_mesh.h"
#include "identity/capability_issuer.h"
#include "identity/node_token.h"
#include "tests/support/test_node.h"
#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// A webhook receiver that checks both signatures of every delivery against
// the shared secret, independently of the node's code.
class Receiver {
 public:
  explicit Receiver(std::string key, int status = 200) : key_(std::move(key)), status_(status) {
    server_.Post("/hook", [this](const httplib::Request& req, httplib::Response& res) {
      std::lock_guard lock(mu_);
      ++calls_;
      Json body = Json::parse(req.body, nullptr, false);
      const std::string ostrel = req.get_header_value("X-Ostrel-Signature");
      const std::string expect = "sha256=" + base::to_hex(base::hmac_sha256(secret(), req.body));
      const std::string id = req.get_header_value("webhook-id");
      const std::string ts = req.get_header_value("webhook-timestamp");
      const std::string std_sig = req.get_header_value("webhook-signature");
      const std::string std_expect =
          "v1," + base::base64_encode(base::hmac_sha256(key_, id + "." + ts + "." + req.body));
      const bool ok = ostrel == expect && std_sig == std_expect && !id.empty() &&
                      req.get_header_value("X-Ostrel-Event") == body.value("event", "");
      if (ok) {
        events_.push_back(body);
      } else {
        ++bad_;
      }
      res.status = status_;
      res.set_content("{}", "application/json");
    });
    thread_ = serve_on_loopback(server_, port_);
  }
  ~Receiver() {
    server_.stop();
    thread_.join();
  }
  // The subscription secret in the Standard Webhooks form.
  std::string secret() const { return "whsec_" + base::base64_encode(key_); }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/hook"; }
  std::vector<Json> events() {
    std::lock_guard lock(mu_);
    return events_;
  }
  int calls() {
    std::lock_guard lock(mu_);
    return calls_;
  }
  int bad() {
    std::lock_guard lock(mu_);
    return bad_;
  }

 private:
  std::string key_;
  int status_;
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex mu_;
  std::vector<Json> events_;
  int calls_ = 0, bad_ = 0;
};

std::string state_of(const TestNode& node, const std::string& member) {
  const Json members = node.call("GET", "/api/v1/cluster/members").body["members"];
  for (const auto& m : members) {
    // A member counts once its API address has arrived with it.
    if (m["id"] == member) return m["url"] == "" ? "no-url" : m["state"].get<std::string>();
  }
  return "absent";
}

// The "host:port" a node's gossip listener is bound to (it binds port 0).
std::string gossip_address(const TestNode& node) {
  const Json members = node.call("GET", "/api/v1/cluster/members").body["members"];
  for (const auto& m : members) {
    if (m.value("self", false)) return m["address"];
  }
  return "";
}

int gossip_port(const TestNode& node) {
  const std::string a = gossip_address(node);
  return a.empty() ? 0 : std::stoi(a.substr(a.rfind(':') + 1));
}

constexpr const char* kJoinToken = "join-4f1c2e";

// A gossip record of member `id`, signed with `key` as that member would.
Json signed_record(const identity::KeyPair& key, const std::string& secret, const std::string& id,
                   const std::string& address, const std::string& url) {
  cluster::gossip::NodeMember m;
  m.id = id;
  m.address = address;
  m.incarnation = 1;
  m.last_seen_ms = static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::system_clock::now().time_since_epoch())
                                           .count());
  m.tags = {{"url", url}, {"modules", "data"}};
  m.key = key.public_key();
  m.token = identity::generate_node_token(secret, id);
  m.sig = key.sign(cluster::gossip::signed_bytes(m));
  return cluster::gossip::member_to_json(m);
}

TestNode::Options gossip_node(const std::string& seeds, const std::string& controller = "") {
  TestNode::Options o;
  o.modules = {"controller", "data"};
  o.env = {{"OSTREL_GOSSIP_ENABLED", "1"},
           {"OSTREL_CLUSTER_JOIN_TOKEN", kJoinToken},
           {"OSTREL_GOSSIP_BIND", "127.0.0.1:0"},
           {"OSTREL_GOSSIP_INTERVAL_MS", "200"},
           {"OSTREL_ULVO_HEARTBEAT_S", "1"}};
  if (!seeds.empty()) o.env["OSTREL_GOSSIP_SEEDS"] = seeds;
  if (!controller.empty()) {
    o.env["OSTREL_ULVO_PEERS"] = controller;
    o.env["OSTREL_ULVO_CONTROLLER_URL"] = controller;
    o.modules = {"data"};
  }
  return o;
}

TEST(ClusterNodes, ThreeFormHealRejoinAndReport) {
  TempDir dir;
  Receiver hooks("0123456789abcdef0123456789abcdef");
  TestNode::Options ao = gossip_node("");
  ao.args = {"--config-set", "controller.sync_interval_s=1", "--config-set",
             "controller.webhook_private_hosts=127.0.0.1"};
  TestNode a(dir.path(), "a", ao);
  ASSERT_TRUE(a.started()) << a.process().err();
  Answer sub = a.call("POST", "/api/v1/webhooks/subscriptions",
                      {{"url", hooks.url()},
                       {"events", {"cluster.topology.changed"}},
                       {"secret", hooks.secret()},
                       {"description", "topology"}});
  ASSERT_EQ(sub.status, 200) << sub.text;
  EXPECT_EQ(sub.body["subscription_id"].get<std::string>().rfind("wh-", 0), 0u);

  const std::string seed = gossip_address(a);
  ASSERT_FALSE(seed.empty());
  TestNode b(dir.path(), "b", gossip_node(seed, a.url()));
  auto c = std::make_unique<TestNode>(dir.path(), "c", gossip_node(seed, a.url()));
  ASSERT_TRUE(b.started()) << b.process().err();
  ASSERT_TRUE(c->started()) << c->process().err();
  EXPECT_TRUE(b.process().wait_for_err("cluster join successful: cluster_id=", 1s));
  EXPECT_TRUE(a.process().wait_for_err("cluster join: node b joined", 1s));

  // One cluster: the same id everywhere, saved by the joiners.
  const std::string cluster_id = a.call("GET", "/api/v1/cluster/node-info").body["cluster_id"];
  Json saved = Json::parse(read_file(b.data_dir() / "state" / "cluster.json"));
  EXPECT_EQ(saved["cluster_id"], cluster_id);
  EXPECT_EQ(saved["controller_node_id"], "a");
  Json on_a = Json::parse(read_file(a.data_dir() / "state" / "cluster.json"));
  EXPECT_TRUE(on_a["registered_nodes"].contains("b"));
  EXPECT_TRUE(on_a["registered_nodes"].contains("c"));

  // Everyone sees everyone alive, and the controller's topology lists both.
  for (TestNode* n : {&a, &b, c.get()}) {
    EXPECT_TRUE(eventually(
        [&] {
          return state_of(*n, "a") == "alive" && state_of(*n, "b") == "alive" &&
                 state_of(*n, "c") == "alive";
        },
        10s))
        << n->call("GET", "/api/v1/cluster/members").text;
  }
  EXPECT_TRUE(eventually(
      [&] {
        Json t = a.call("GET", "/api/v1/cluster/topology").body;
        int alive = 0;
        for (const auto& n : t["nodes"]) alive += n["state"] == "alive";
        return alive == 3;
      },
      10s));
  Json topo = a.call("GET", "/api/v1/cluster/topology/public").body;
  for (const auto& n : topo["nodes"]) {
    if (n["node_id"] == "b") {
      EXPECT_EQ(n["url"], b.url());
    }
  }

  // The sync pass has read b's module list (versions come only from there);
  // discovery and the registration counter know both joiners.
  EXPECT_TRUE(eventually(
      [&] {
        Json t = a.call("GET", "/api/v1/cluster/topology").body;
        return t["peer_modules"].contains("b") && !t["peer_modules"]["b"].empty() &&
               t["peer_modules"]["b"][0].contains("version");
      },
      5s));
  Json discovered = a.call("GET", "/api/v1/cluster/discover").body;
  EXPECT_EQ(discovered["count"], 2) << discovered.dump();
  EXPECT_NE(
      a.call("GET", "/metrics").text.find("ostrel_controller_peer_register_total{role=\"all\"}"),
      std::string::npos);
  EXPECT_EQ(a.call("DELETE", "/api/v1/cluster/peers/nobody").status, 404);

  // The data module's peers are the members: a document on c is found from b.
  ASSERT_EQ(c->call("POST", "/api/v1/vector/ingest",
                    {{"namespace", "kb"}, {"text", "the lighthouse keeper counts gulls"}})
                .status,
            200);
  Answer found = b.call("POST", "/api/v1/vector/search",
                        {{"namespace", "kb"}, {"query", "lighthouse gulls"}, {"top_k", 3}});
  ASSERT_EQ(found.status, 200) << found.text;
  EXPECT_NE(found.text.find("lighthouse keeper"), std::string::npos) << found.text;

  // Kill c: suspect after about 5 s of silence, dead after about 10 s.
  const auto killed = Clock::now();
  c->process().signal(SIGKILL);
  c->process().wait_exit(5s);
  ASSERT_TRUE(eventually([&] { return state_of(a, "c") == "suspect"; }, 9s));
  const double to_suspect = std::chrono::duration<double>(Clock::now() - killed).count();
  ASSERT_TRUE(eventually([&] { return state_of(a, "c") == "dead"; }, 9s));
  const double to_dead = std::chrono::duration<double>(Clock::now() - killed).count();
  EXPECT_GE(to_suspect, 4.5);
  EXPECT_LE(to_suspect, 8.0);
  EXPECT_GE(to_dead, 9.5);
  EXPECT_LE(to_dead, 13.0);
  EXPECT_TRUE(a.process().wait_for_err("gossip: c is now dead", 1s));
  EXPECT_EQ(state_of(b, "a"), "alive");
  EXPECT_EQ(b.call("GET", "/health").status, 200);
  EXPECT_EQ(a.call("GET", "/api/v1/cluster/topology").status, 200);

  // Restarted on its saved state, c comes back with no help.
  c->restart_hard();
  ASSERT_TRUE(c->started()) << c->process().err();
  EXPECT_TRUE(c->process().wait_for_err("cluster secret loaded from cluster.json", 1s));
  EXPECT_TRUE(eventually([&] { return state_of(a, "c") == "alive"; }, 10s));
  EXPECT_EQ(c->call("GET", "/api/v1/cluster/members").body["members"].size(), 3u);

  // Signed topology events reached the receiver; every delivery verified.
  EXPECT_TRUE(eventually(
      [&] {
        for (const auto& e : hooks.events()) {
          if (e["payload"].value("event", "") == "peer_registered") return true;
        }
        return false;
      },
      10s));
  EXPECT_EQ(hooks.bad(), 0);
  Answer deliveries = a.call("GET", "/api/v1/webhooks/deliveries?subscription_id=" +
                                        sub.body["subscription_id"].get<std::string>());
  ASSERT_FALSE(deliveries.body["deliveries"].empty()) << deliveries.text;
  EXPECT_EQ(deliveries.body["deliveries"][0]["http_status"], 200);
}

// Two nodes started with one id (a recipe followed too literally): the first
// holds it; the second is refused by the controller's registry and by
// gossip, and both sides log an ERROR that names the two addresses.
TEST(ClusterNodes, TwoNodesWithOneIdAreRefusedAndReported) {
  TempDir dir;
  TestNode a(dir.path(), "a", gossip_node(""));
  ASSERT_TRUE(a.started()) << a.process().err();
  const std::string seed = gossip_address(a);
  TestNode::Options twin = gossip_node(seed, a.url());
  twin.node_id = "twin";
  TestNode first(dir.path(), "first", twin);
  ASSERT_TRUE(first.started()) << first.process().err();
  ASSERT_TRUE(eventually([&] { return state_of(a, "twin") == "alive"; }, 10s));
  const std::string first_url = a.call("GET", "/api/v1/cluster/peers").body["registered"][0]["url"];
  TestNode second(dir.path(), "second", twin);
  ASSERT_TRUE(second.started()) << second.process().err();

  EXPECT_TRUE(a.process().wait_for_err(
      "[ERROR][kernel/controller] duplicate node id 'twin': registered from " + first_url +
          " and now from http://127.0.0.1:" + std::to_string(second.port()),
      5s))
      << a.process().err();
  EXPECT_TRUE(second.process().wait_for_err(
      "[ERROR][kernel] the controller refuses this node's id 'twin': another node registered it "
      "from " + first_url,
      5s));
  EXPECT_TRUE(a.process().wait_for_err("[ERROR][kernel] duplicate node id 'twin': announced from",
                                       10s));
  // The registry and the member table keep the first.
  const Json peers = a.call("GET", "/api/v1/cluster/peers").body["registered"];
  ASSERT_EQ(peers.size(), 1u) << peers.dump();
  EXPECT_EQ(peers[0]["url"], first_url);
  int twins = 0;
  const Json members = a.call("GET", "/api/v1/cluster/members").body["members"];
  for (const auto& m : members) {
    if (m["id"] == "twin") {
      ++twins;
      EXPECT_EQ(m["url"], first.url()) << m.dump();
    }
  }
  EXPECT_EQ(twins, 1) << members.dump();
}

// Registrations that must not get in, gossip from outside the cluster and
// malformed gossip; none of it changes the registry or the member table.
TEST(ClusterNodes, ForgedRegistrationsAndForeignGossipAreRefused) {
  TempDir dir;
  TestNode a(dir.path(), "a", gossip_node(""));
  ASSERT_TRUE(a.started()) << a.process().err();
  const int ga = gossip_port(a);
  ASSERT_GT(ga, 0);
  const std::string secret =
      Json::parse(read_file(a.data_dir() / "state" / "cluster.json"))["cluster_secret"];
  const std::string cid = identity::cluster_id_from_secret(secret);
  auto reg = [&](const Json& body) { return a.call("POST", "/api/v1/cluster/register", body); };
  auto body = [&](const std::string& node, const std::string& token, const std::string& id) {
    return Json{{"node_id", node},
                {"token", token},
                {"cluster_id", id},
                {"url", "http://127.0.0.1:9"},
                {"modules", {"data"}}};
  };
  const std::int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count();
  EXPECT_EQ(reg({{"node_id", "x"}}).body["error"], "missing node_id or token");
  Answer wrong_id = reg(body("x", identity::generate_node_token(secret, "x"), "0000000000000000"));
  EXPECT_EQ(wrong_id.body["error"], "cluster_id_mismatch");
  EXPECT_TRUE(
      a.process().wait_for_err("cluster register rejected: cluster_id mismatch from x", 1s));
  const std::string other = identity::generate_random_secret();
  EXPECT_EQ(reg(body("x", identity::generate_node_token(other, "x"), cid)).body["error"],
            "invalid_node_token");
  EXPECT_TRUE(a.process().wait_for_err("cluster register rejected: invalid token from x", 1s));
  EXPECT_EQ(reg(body("x", identity::generate_node_token(secret, "y"), cid)).body["error"],
            "invalid_node_token");  // another node's token
  EXPECT_EQ(reg(body("x", identity::generate_node_token_at(secret, "x", now - 3 * 86400), cid))
                .body["error"],
            "invalid_node_token");  // expired
  Answer good = reg(body("x", identity::generate_node_token_at(secret, "x", now), cid));
  ASSERT_EQ(good.status, 200) << good.text;
  EXPECT_EQ(good.body["status"], "registered");
  EXPECT_EQ(
      reg(body("x", identity::generate_node_token_at(secret, "x", now - 60), cid)).body["error"],
      "invalid_node_token");  // replayed: older than one accepted
  int nodes = 0;
  const Json listed = a.call("GET", "/api/v1/cluster/topology").body["nodes"];
  for (const auto& n : listed) nodes += n["node_id"] == "x";
  EXPECT_EQ(nodes, 1);

  // Gossip: no token, a foreign cluster's token, garbage, a huge body, GET.
  httplib::Client g("127.0.0.1", ga);
  const std::string sync = Json{{"from_node", "evil"},
                                {"members",
                                 {{{"id", "evil"},
                                   {"address", "127.0.0.1:1"},
                                   {"status", 0},
                                   {"incarnation", 1},
                                   {"last_seen_ms", now * 1000},
                                   {"tags", {{"url", "http://127.0.0.1:1"}}}}}}}
                               .dump();
  EXPECT_EQ(g.Post("/api/v1/cluster/gossip/sync", sync, "application/json")->status, 403);
  httplib::Headers foreign = {
      {"X-Ostrel-Node-Id", "evil"},
      {"X-Ostrel-Node-Token", identity::generate_node_token(other, "evil")}};
  EXPECT_EQ(g.Post("/api/v1/cluster/gossip/sync", foreign, sync, "application/json")->status, 403);
  EXPECT_TRUE(a.process().wait_for_err("[gossip] rejected sync from 'evil'", 1s));
  httplib::Headers ours = {{"X-Ostrel-Node-Id", "evil"},
                           {"X-Ostrel-Node-Token", identity::generate_node_token(secret, "evil")}};
  EXPECT_EQ(g.Post("/api/v1/cluster/gossip/sync", ours, "{not json", "application/json")->status,
            400);
  EXPECT_EQ(g.Post("/api/v1/cluster/gossip/sync", ours, R"({"from_node":"evil","members":7})",
                   "application/json")
                ->status,
            400);
  auto huge =
      g.Post("/api/v1/cluster/gossip/sync", ours, std::string(3 << 20, '['), "application/json");
  EXPECT_TRUE(!huge || huge->status == 413);
  EXPECT_EQ(g.Get("/api/v1/cluster/gossip/sync")->status, 404);
  EXPECT_EQ(a.call("GET", "/api/v1/cluster/members").body["count"], 1);
  Json stats = a.call("GET", "/api/v1/cluster/gossip/stats").body;
  EXPECT_GE(stats["messages_rejected"].get<int>(), 4);
  // A member of the cluster speaks only for itself. Its unsigned record is
  // dropped; its own signed record gets in; a copy whose address was changed
  // after signing, or a record of it signed with another key (a second node
  // using its id), is refused and the duplicate id is reported.
  auto in = g.Post("/api/v1/cluster/gossip/sync", ours, sync, "application/json");
  ASSERT_TRUE(in);
  EXPECT_EQ(in->status, 200);
  EXPECT_EQ(state_of(a, "evil"), "absent");
  EXPECT_GE(a.call("GET", "/api/v1/cluster/gossip/stats").body["records_rejected"].get<int>(), 1);
  auto evil_key = identity::KeyPair::generate();
  auto send = [&](const Json& record) {
    auto r = g.Post("/api/v1/cluster/gossip/sync", ours,
                    Json{{"from_node", "evil"}, {"members", {record}}}.dump(), "application/json");
    return r ? r->status : 0;
  };
  EXPECT_EQ(send(signed_record(*evil_key, secret, "evil", "127.0.0.1:1", "http://127.0.0.1:1")),
            200);
  EXPECT_EQ(state_of(a, "evil"), "alive");
  Json moved = signed_record(*evil_key, secret, "evil", "127.0.0.1:1", "http://127.0.0.1:1");
  moved["tags"]["url"] = "http://10.9.9.9:1";
  moved["last_seen_ms"] = moved["last_seen_ms"].get<std::int64_t>() + 5;
  EXPECT_EQ(send(moved), 200);
  auto twin_key = identity::KeyPair::generate();
  EXPECT_EQ(send(signed_record(*twin_key, secret, "evil", "127.0.0.1:2", "http://127.0.0.1:2")),
            200);
  EXPECT_TRUE(a.process().wait_for_err(
      "duplicate node id 'evil': announced from 127.0.0.1:1 and from 127.0.0.1:2", 1s));
  const Json listed_members = a.call("GET", "/api/v1/cluster/members").body["members"];
  for (const auto& m : listed_members) {
    if (m["id"] == "evil") EXPECT_EQ(m["url"], "http://127.0.0.1:1") << m.dump();
  }
  // Nobody may speak as the node itself.
  EXPECT_EQ(send(signed_record(*twin_key, secret, "a", "127.0.0.1:3", "http://127.0.0.1:3")), 200);
  EXPECT_TRUE(a.process().wait_for_err(
      "duplicate node id 'a': another node announces it from 127.0.0.1:3", 1s));

  // Workers: registration, heartbeats, unknown ids, and stale after a restart.
  EXPECT_EQ(a.call("POST", "/api/v1/workers/nobody/heartbeat").body["error"], "unknown_worker");
  ASSERT_EQ(a.call("POST", "/api/v1/workers",
                   {{"id", "gpu-1"},
                    {"worker_type", "inference"},
                    {"url", "http://10.0.0.7:8880"},
                    {"node_id", "far"}})
                .status,
            200);
  EXPECT_EQ(a.call("POST", "/api/v1/workers", {{"worker_type", "inference"}}).status, 400);
  EXPECT_EQ(a.call("POST", "/api/v1/workers/gpu-1/heartbeat").body["status"], "ack");
  a.restart_hard();
  ASSERT_TRUE(a.started());
  EXPECT_TRUE(a.process().wait_for_err("worker registry: restored 1 remote worker(s)", 2s));
  Json workers = a.call("GET", "/api/v1/workers").body["workers"];
  ASSERT_EQ(workers.size(), 1u) << workers.dump();
  EXPECT_EQ(workers[0]["state"], "stale");
  EXPECT_EQ(a.call("POST", "/api/v1/workers/gpu-1/heartbeat").body["status"], "ack");
  EXPECT_EQ(a.call("GET", "/api/v1/workers").body["workers"][0]["state"], "healthy");
  EXPECT_EQ(a.call("POST", "/api/v1/cluster/join", Json::object()).body["error"],
            "missing node_id");
}

// Subscribers that fail: 500 is retried, then disabled after ten failed
// deliveries; 410 disables at once. Bad targets are refused.
TEST(ClusterNodes, FailingWebhooksAreRetriedThenDisabled) {
  TempDir dir;
  Receiver broken("k", 500), gone("k", 410);
  TestNode::Options o;
  o.modules = {"controller"};
  o.args = {"--config-set", "controller.webhook_retry_pause_ms=10", "--config-set",
            "controller.webhook_private_hosts=127.0.0.1"};
  TestNode a(dir.path(), "a", o);
  ASSERT_TRUE(a.started()) << a.process().err();
  for (const char* bad : {"ftp://example.com/x", "file:///etc/passwd", "", "http://a b/"}) {
    Answer r = a.call("POST", "/api/v1/webhooks/subscriptions", {{"url", bad}, {"events", {"x"}}});
    EXPECT_EQ(r.body["error"], "missing_or_invalid_url") << bad;
  }
  // Inside addresses not named in the setting: the cloud metadata service,
  // other loopback addresses, the link-local and private ranges.
  for (const char* inside :
       {"http://169.254.169.254/latest/meta-data", "http://127.0.0.2:9/x", "http://localhost:9/",
        "http://10.1.2.3/hook", "http://[::1]:9/", "http://[fe80::1]/"}) {
    Answer r =
        a.call("POST", "/api/v1/webhooks/subscriptions", {{"url", inside}, {"events", {"x"}}});
    EXPECT_EQ(r.status, 400) << inside;
    EXPECT_EQ(r.body["error"], "private_target_refused") << inside;
  }
  EXPECT_EQ(a.call("DELETE", "/api/v1/webhooks/subscriptions/wh-none").body["error"], "not_found");
  EXPECT_EQ(a.call("POST", "/api/v1/webhooks/subscriptions/wh-none/test").body["error"],
            "not_found_or_disabled");
  const std::string s500 = a.call("POST", "/api/v1/webhooks/subscriptions",
                                  {{"url", broken.url()}, {"secret", broken.secret()}})
                               .body["subscription_id"];
  const std::string s410 = a.call("POST", "/api/v1/webhooks/subscriptions",
                                  {{"url", gone.url()}, {"secret", gone.secret()}})
                               .body["subscription_id"];
  auto sub = [&](const std::string& id) {
    const Json subs = a.call("GET", "/api/v1/webhooks/subscriptions").body["subscriptions"];
    for (const auto& s : subs)
      if (s["id"] == id) return s;
    return Json();
  };
  EXPECT_EQ(a.call("POST", "/api/v1/webhooks/subscriptions/" + s410 + "/test").body["status"],
            "queued");
  ASSERT_TRUE(eventually([&] { return sub(s410)["disabled"] == true; }, 5s));
  EXPECT_EQ(gone.calls(), 1);
  EXPECT_FALSE(a.call("GET", "/api/v1/webhooks/subscriptions").text.find("whsec_") !=
               std::string::npos);

  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(a.call("POST", "/api/v1/webhooks/subscriptions/" + s500 + "/test").status, 200);
    ASSERT_TRUE(eventually([&] { return sub(s500)["failure_count"] == i + 1; }, 5s)) << i;
  }
  EXPECT_EQ(sub(s500)["disabled"], true);
  EXPECT_EQ(broken.calls(), 30);  // three attempts per delivery
  EXPECT_EQ(broken.bad(), 0);     // and every one correctly signed
  EXPECT_EQ(a.call("POST", "/api/v1/webhooks/subscriptions/" + s500 + "/test").body["error"],
            "not_found_or_disabled");
  Json rows = a.call("GET", "/api/v1/webhooks/deliveries?subscription_id=" + s500).body;
  ASSERT_EQ(rows["deliveries"].size(), 10u);
  EXPECT_EQ(rows["deliveries"][0]["http_status"], 500);
  EXPECT_EQ(rows["deliveries"][0]["retry_count"], 2);
  EXPECT_EQ(a.call("DELETE", "/api/v1/webhooks/subscriptions/" + s500).body["status"], "deleted");
}

// Joining: only the first peer is tried; a torn state file still boots and
// rejoins; a node whose peer is unreachable runs standalone and says so.
TEST(ClusterNodes, JoinPathsAndTornState) {
  TempDir dir;
  TestNode::Options co;
  co.modules = {"controller"};
  co.env = {{"OSTREL_CLUSTER_JOIN_TOKEN", kJoinToken}};
  TestNode a(dir.path(), "a", co);
  ASSERT_TRUE(a.started());
  TestNode::Options jo;
  jo.modules = {};
  jo.env = {{"OSTREL_ULVO_PEERS", " " + a.url() + "/ , http://second-peer.invalid:9"},
            {"OSTREL_CLUSTER_JOIN_TOKEN", kJoinToken}};
  TestNode b(dir.path(), "b", jo);
  ASSERT_TRUE(b.started());
  // Trimmed, its trailing "/" gone, and the second peer never named.
  EXPECT_TRUE(b.process().wait_for_err("joining cluster via " + a.url() + "\n", 1s));
  EXPECT_EQ(b.process().err().find("second-peer"), std::string::npos);
  const std::string cid = a.call("GET", "/api/v1/cluster/node-info").body["cluster_id"];
  EXPECT_NE(b.process().err().find("cluster join successful: cluster_id=" + cid),
            std::string::npos);

  // Torn: half a JSON object where the state was.
  b.stop();
  write_file(b.data_dir() / "state" / "cluster.json", "{\"cluster_secret\": \"ab");
  b.restart_hard();
  ASSERT_TRUE(b.started()) << b.process().err();
  EXPECT_TRUE(b.process().wait_for_err("cluster join successful: cluster_id=" + cid, 2s));
  EXPECT_EQ(Json::parse(read_file(b.data_dir() / "state" / "cluster.json"))["cluster_id"], cid);

  TestNode::Options lone;
  lone.modules = {};
  lone.env = {{"OSTREL_ULVO_PEERS", ", " + a.url()}};
  TestNode c(dir.path(), "c", lone);
  ASSERT_TRUE(c.started());
  EXPECT_NE(c.process().err().find("join_cluster: no valid peer URL in OSTREL_ULVO_PEERS"),
            std::string::npos);
  EXPECT_NE(c.process().err().find("this node is NOT part of the cluster until join succeeds"),
            std::string::npos);
  EXPECT_FALSE(fs::exists(c.data_dir() / "state" / "cluster.json"));
}

// The web tools against a loopback site and search service, and the
// watchdog's promotion when the data primary never shows up.
TEST(ClusterNodes, WebToolsAndFailoverWatchdog) {
  httplib::Server site;
  site.Get("/page", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(
        "<html><head><title>Gulls &amp; Terns</title><style>p{}</style></head><body><script>"
        "var x=1;</script><header>Sea</header><p>Gulls   nest on\n cliffs.</p></body></html>",
        "text/html");
  });
  site.Get("/search", [](const httplib::Request& req, httplib::Response& res) {
    res.set_content(Json{{"results",
                          {{{"title", "About " + req.get_param_value("q")},
                            {"url", "https://example.org/a"},
                            {"content", "snippet"}}}}}
                        .dump(),
                    "application/json");
  });
  int port = 0;
  std::thread serving = serve_on_loopback(site, port);
  const std::string base = "http://127.0.0.1:" + std::to_string(port);

  TempDir dir;
  TestNode::Options o;
  o.modules = {"controller"};
  o.args = {"--config-set", "controller.data_primary=ghost",
            "--config-set", "controller.data_replica=replica-2",
            "--config-set", "controller.failover_after_s=1",
            "--config-set", "controller.web_search_url=" + base};
  TestNode a(dir.path(), "a", o);
  ASSERT_TRUE(a.started()) << a.process().err();
  Answer blocked = a.call("POST", "/api/v1/tools/web_fetch", {{"url", base + "/page"}});
  EXPECT_EQ(blocked.status, 403) << blocked.text;
  EXPECT_EQ(blocked.body["error"], "address_not_allowed");
  EXPECT_EQ(a.call("POST", "/api/v1/tools/web_fetch", {{"url", "file:///etc/passwd"}}).status, 400);
  Answer searched = a.call("POST", "/api/v1/tools/web_search", {{"query", "sea birds"}});
  ASSERT_EQ(searched.status, 200) << searched.text;
  EXPECT_EQ(searched.body["results"][0]["title"], "About sea birds");
  EXPECT_EQ(a.call("POST", "/api/v1/tools/web_search", Json::object()).status, 400);

  TestNode::Options open = o;
  open.args = {"--config-set", "controller.allow_private_fetch=true"};
  TestNode b(dir.path(), "b", open);
  ASSERT_TRUE(b.started());
  Answer page = b.call("POST", "/api/v1/tools/web_fetch", {{"url", base + "/page"}});
  ASSERT_EQ(page.status, 200) << page.text;
  EXPECT_EQ(page.body["title"], "Gulls & Terns");
  EXPECT_EQ(page.body["text"], "Sea Gulls nest on cliffs.");  // <header> is not <head>
  EXPECT_EQ(b.call("POST", "/api/v1/tools/web_search", {{"query", "x"}}).body["error"],
            "web_search_not_configured");

  ASSERT_TRUE(
      a.process().wait_for_err("watchdog: auto-promoting replica-2 (primary ghost down for", 6s));
  EXPECT_TRUE(a.process().wait_for_err("watchdog: run_failover_swap_ returned status=501", 1s));
  Json rows = a.call("GET", "/api/v1/cluster/failovers").body["failovers"];
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0]["primary_was"], "ghost");
  EXPECT_EQ(rows[0]["replica_promoted"], "replica-2");
  EXPECT_EQ(rows[0]["failover_id"].get<std::string>().rfind("wfo-", 0), 0u);
  // Still one after the watchdog has looked twice more: a promotion per outage.
  const auto passes = a.call("GET", "/api/v1/cluster/failovers").body["watchdog_passes"];
  ASSERT_TRUE(eventually(
      [&] {
        return a.call("GET", "/api/v1/cluster/failovers").body["watchdog_passes"] >=
               passes.get<std::uint64_t>() + 2;
      },
      6s));
  EXPECT_EQ(a.call("GET", "/api/v1/cluster/failovers").body["failovers"].size(), 1u);
  site.stop();
  serving.join();
}

}  // namespace
}  // namespace ostrel::testing
