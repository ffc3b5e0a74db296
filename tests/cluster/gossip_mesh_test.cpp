// The gossip mesh's rules with the clock in the test's hands: which record
// of a member wins, the suspect → dead → forgotten timings, no resurrection
// of a forgotten member, and two meshes converging over their listeners.
#include "cluster/gossip_mesh.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "tests/support/test_support.h"

namespace ostrel::cluster::gossip {
namespace {

using Json = nlohmann::json;
using namespace std::chrono_literals;

double wall_ms() {
  return std::chrono::duration<double, std::milli>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

Json record(const std::string& id, std::uint64_t incarnation, double seen, int status = 0) {
  return {{"id", id},
          {"address", "10.0.0.9:7946"},
          {"status", status},
          {"incarnation", incarnation},
          {"last_seen_ms", static_cast<std::int64_t>(seen)},
          {"tags", {{"v", std::to_string(incarnation)}}}};
}

NodeStatus status_of(const GossipMesh& mesh, const std::string& id, bool& present) {
  for (const auto& m : mesh.members()) {
    if (m.id == id) {
      present = true;
      return m.status;
    }
  }
  present = false;
  return NodeStatus::dead;
}

TEST(GossipMesh, FreshnessTimingsAndNoResurrection) {
  double clock = wall_ms();
  GossipMesh::Config c;
  c.self_id = "me";
  c.self_address = "127.0.0.1:1";
  c.clock = [&clock] { return clock; };
  GossipMesh mesh(c);
  std::vector<std::string> events;
  mesh.on_join([&](const NodeMember& m) { events.push_back("join " + m.id); });
  mesh.on_leave([&](const NodeMember& m) { events.push_back("leave " + m.id); });
  mesh.on_status_change(
      [&](const NodeMember& m, NodeStatus s) { events.push_back(m.id + " " + status_name(s)); });

  const double t0 = clock;
  mesh.merge_json(Json::array({record("p", 5, t0)}), "");
  ASSERT_EQ(events, std::vector<std::string>{"join p"});
  // An older incarnation, or the same one announced earlier, changes nothing.
  mesh.merge_json(Json::array({record("p", 4, t0 + 1000), record("p", 5, t0 - 1000)}), "");
  EXPECT_EQ(mesh.members()[1].tags.at("v"), "5");
  EXPECT_EQ(mesh.members()[1].last_seen_ms, static_cast<std::int64_t>(t0));
  // Malformed records are skipped, the rest merged.
  mesh.merge_json(Json::array({Json{{"id", 3}}, record("", 1, t0), "x", record("q", 1, t0, 7),
                               record("r", 1, t0)}),
                  "");
  bool present = false;
  status_of(mesh, "q", present);
  EXPECT_FALSE(present);
  status_of(mesh, "r", present);
  EXPECT_TRUE(present);

  events.clear();
  clock = t0 + 4000;
  mesh.detect_failures();
  EXPECT_TRUE(events.empty());
  clock = t0 + 6000;
  mesh.detect_failures();  // 6 s of silence: suspect
  EXPECT_EQ(status_of(mesh, "p", present), NodeStatus::suspect);
  clock = t0 + 11000;
  mesh.detect_failures();  // 11 s: dead
  EXPECT_EQ(status_of(mesh, "p", present), NodeStatus::dead);
  // Another node still gossiping the old record does not bring it back.
  mesh.merge_json(Json::array({record("p", 5, t0)}), "");
  EXPECT_EQ(status_of(mesh, "p", present), NodeStatus::dead);
  clock = t0 + 31000;
  mesh.detect_failures();  // 31 s: forgotten
  status_of(mesh, "p", present);
  EXPECT_FALSE(present);
  mesh.merge_json(Json::array({record("p", 5, t0)}), "");
  status_of(mesh, "p", present);
  EXPECT_FALSE(present) << "a forgotten member came back from stale news";
  std::sort(events.begin(), events.end());
  EXPECT_EQ(events, (std::vector<std::string>{"leave p", "leave r", "p dead", "p suspect", "r dead",
                                              "r suspect"}));

  // A restarted member (higher incarnation, fresh) is a member again.
  events.clear();
  mesh.merge_json(Json::array({record("p", 9, clock)}), "");
  EXPECT_EQ(events, std::vector<std::string>{"join p"});
  // News about ourselves from a previous run makes us outbid it.
  mesh.merge_json(Json::array({record("me", std::uint64_t(1) << 62, clock)}), "");
  for (const auto& m : mesh.members()) {
    if (m.id == "me") {
      EXPECT_GT(m.incarnation, std::uint64_t(1) << 62);
    }
  }
}

TEST(GossipMesh, TwoMeshesConvergeAndStatsCount) {
  // Both listen on port 0; the address each announces carries the bound port.
  GossipMesh::Config a;
  a.self_id = "a";
  a.bind = a.self_address = "127.0.0.1:0";
  a.interval_ms = 50;
  GossipMesh ma(a);
  ASSERT_TRUE(ma.start());
  GossipMesh::Config b = a;
  b.self_id = "b";
  b.seeds = {"127.0.0.1:" + std::to_string(ma.port())};
  GossipMesh mb(b);
  mb.set_self_tag("role", "data");
  ASSERT_TRUE(mb.start());
  EXPECT_TRUE(ostrel::testing::eventually(
      [&] { return ma.members().size() == 2 && mb.members().size() == 2; }, 3s));
  for (const auto& m : ma.members()) {
    if (m.id == "b") {
      EXPECT_EQ(m.address, "127.0.0.1:" + std::to_string(mb.port()));
      EXPECT_EQ(m.tags.at("role"), "data");
    }
  }
  // a may learn of b from b's pushes before its own loop has run a round.
  EXPECT_TRUE(ostrel::testing::eventually([&] { return ma.stats().gossip_rounds > 0; }, 3s));
  const GossipStats s = ma.stats();
  EXPECT_EQ(s.members_alive, 2);
  EXPECT_GT(s.messages_received, 0u);
  mb.stop();
  ma.stop();

  // A mesh stopped right after it started (before its listener thread got
  // to serve) still stops.
  for (int i = 0; i < 50; ++i) {
    GossipMesh quick(a);
    ASSERT_TRUE(quick.start());
    quick.stop();
  }

  GossipMesh::Config bad = a;
  bad.self_address = "no-port";
  GossipMesh mbad(bad);
  EXPECT_FALSE(mbad.start());
  EXPECT_EQ(split_seeds(" a:1 , ,b:2,"), (std::vector<std::string>{"a:1", "b:2"}));
}

}  // namespace
}  // namespace ostrel::cluster::gossip
