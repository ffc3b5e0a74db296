// The audit log's chain on real journal files: exact canonical bytes, every
// field bound by the hash, edits and deletions found after a restart, torn
// last lines, concurrent appends, filters.
#include "identity/audit_log.h"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "base/encoding.h"
#include "tests/support/test_support.h"

namespace ostrel::identity {
namespace {

using Json = nlohmann::json;
using testing::TempDir;

void write_lines(const std::filesystem::path& p, const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& l : lines) text += l + "\n";
  testing::write_file(p, text);
}

void fill(AuditLog& log, int n) {
  for (int i = 0; i < n; ++i) {
    log.append({0x04, 0x02}, "user:u" + std::to_string(i), "data.write", "doc-" + std::to_string(i),
               "ok", i % 2 ? "acme" : "globex", "{\"i\":" + std::to_string(i) + "}");
  }
}

// The hashed bytes are exactly the fields joined by "|", nothing escaped; the
// first event chains to 32 zero bytes; the hash is SHA-256(prev ‖ body).
TEST(AuditLog, CanonicalBodyAndChainRule) {
  TempDir dir;
  AuditLog log(dir / "audit.jsonl");
  log.replay_journal();
  AuditEvent a =
      log.append({0x0e, 0x06}, "actor|x", "policy.mode.set", "r", "ok", "t", "{\"m\":\"a|b\"}");
  EXPECT_EQ(a.seq, 1u);
  EXPECT_EQ(AuditLog::to_hex(a.prev_hash), std::string(64, '0'));
  EXPECT_EQ(
      AuditLog::canonical_body(a),
      "1|" + std::to_string(a.ts_ms) + "|14:6|actor|x|policy.mode.set|r|ok|t|{\"m\":\"a|b\"}");
  const std::string expected = base::sha256(std::string(32, '\0') + AuditLog::canonical_body(a));
  EXPECT_EQ(AuditLog::to_hex(a.hash), base::to_hex(expected));

  AuditEvent b = log.append({0x04, 0x02}, "a", "b", "", "ok", "", "{}");
  EXPECT_EQ(b.seq, 2u);
  EXPECT_EQ(b.prev_hash, a.hash);
  EXPECT_TRUE(log.verify().ok);
  EXPECT_EQ(log.verify().checked, 2u);
  // Fields read back as appended, "|" inside them and empty ones included.
  std::size_t total = 0;
  const auto back = log.query({}, total);
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(
      std::vector<std::string>({back[0].actor, back[0].action, back[0].resource, back[0].outcome,
                                back[0].tenant, back[0].metadata}),
      std::vector<std::string>({"actor|x", "policy.mode.set", "r", "ok", "t", "{\"m\":\"a|b\"}"}));
  EXPECT_EQ(std::vector<std::string>({back[1].resource, back[1].tenant, back[1].metadata}),
            std::vector<std::string>({"", "", "{}"}));

  Json line = Json::parse(testing::file_lines(dir / "audit.jsonl").at(0));
  for (const char* key : {"seq", "ts_ms", "actor", "action", "resource", "outcome", "tenant",
                          "metadata", "prev_hash", "hash"}) {
    EXPECT_TRUE(line.contains(key)) << key;
  }
}

// Editing any one field of one journal line, or deleting a line, is found
// after a restart at that line's seq (or the next one's); an untouched
// journal verifies after any number of restarts.
TEST(AuditLog, EveryFieldIsBoundAndEditsAreFoundAfterRestart) {
  TempDir dir;
  const auto path = dir / "audit.jsonl";
  {
    AuditLog log(path);
    log.replay_journal();
    fill(log, 6);
  }
  const std::vector<std::string> original = testing::file_lines(path);
  for (int restart = 0; restart < 3; ++restart) {
    AuditLog log(path);
    EXPECT_EQ(log.replay_journal(), 6u);
    EXPECT_TRUE(log.verify().ok);
  }
  struct Edit {
    const char* key;
    Json value;
  };
  for (const Edit& e : std::vector<Edit>{{"ts_ms", 1},
                                         {"source", "0x0e01"},
                                         {"actor", "user:mallory"},
                                         {"action", "data.read"},
                                         {"resource", "doc-x"},
                                         {"outcome", "denied"},
                                         {"tenant", "other"},
                                         {"metadata", "{\"i\":99}"},
                                         {"hash", std::string(64, 'a')}}) {
    std::vector<std::string> lines = original;
    Json j = Json::parse(lines[3]);
    j[e.key] = e.value;
    lines[3] = j.dump();
    write_lines(path, lines);
    AuditLog log(path);
    log.replay_journal();
    AuditLog::Verification v = log.verify();
    EXPECT_FALSE(v.ok) << e.key;
    EXPECT_EQ(v.first_bad_seq, 4u) << e.key;
    EXPECT_EQ(v.checked, 3u);
  }
  // A deleted line: the next one no longer chains.
  std::vector<std::string> lines = original;
  lines.erase(lines.begin() + 2);
  write_lines(path, lines);
  {
    AuditLog log(path);
    log.replay_journal();
    EXPECT_EQ(log.verify().first_bad_seq, 4u);
  }
  // Swapped lines.
  lines = original;
  std::swap(lines[1], lines[2]);
  write_lines(path, lines);
  {
    AuditLog log(path);
    log.replay_journal();
    EXPECT_EQ(log.verify().first_bad_seq, 3u);
  }
}

// A line torn by a crash is reported by verify; the log keeps appending
// after it on a line of its own, with the next seq, and every new line reads
// back.
TEST(AuditLog, TornLastLineIsReportedAndAppendingContinues) {
  TempDir dir;
  const auto path = dir / "audit.jsonl";
  {
    AuditLog log(path);
    log.replay_journal();
    fill(log, 3);
  }
  std::string text = testing::read_file(path);
  const std::string last = testing::file_lines(path).back();
  text += last.substr(0, last.size() / 2);  // a fourth line cut short, no newline
  testing::write_file(path, text);
  {
    AuditLog log(path);
    EXPECT_EQ(log.replay_journal(), 4u);
    AuditLog::Verification v = log.verify();
    EXPECT_FALSE(v.ok);
    EXPECT_EQ(v.first_bad_seq, 4u);
    EXPECT_EQ(log.append({0x0e, 0x01}, "kernel", "kernel.boot", "", "ok", "", "{}").seq, 5u);
  }
  const auto lines = testing::file_lines(path);
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_TRUE(Json::parse(lines[4], nullptr, false).is_object());
  AuditLog again(path);
  EXPECT_EQ(again.replay_journal(), 5u);
  EXPECT_EQ(again.verify().first_bad_seq, 4u);
  EXPECT_EQ(again.append({0x0e, 0x01}, "k", "a", "", "ok", "", "{}").seq, 6u);
}

// Eight threads appending at once get consecutive seq values, one valid
// chain in memory and on disk.
TEST(AuditLog, ConcurrentAppendsShareOneChain) {
  TempDir dir;
  const auto path = dir / "audit.jsonl";
  int counted = 0;
  std::mutex counted_mu;
  {
    AuditLog log(path);
    log.set_on_append([&] {
      std::lock_guard lock(counted_mu);
      ++counted;
    });
    log.replay_journal();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&log, t] {
        for (int i = 0; i < 250; ++i) {
          log.append({0x06, 0x02}, "thread-" + std::to_string(t), "agent.tool", "", "ok", "", "{}");
        }
      });
    }
    for (auto& th : threads) th.join();
    EXPECT_TRUE(log.verify().ok);
    std::size_t total = 0;
    AuditLog::Filter everything;
    everything.limit = 5000;
    auto all = log.query(everything, total);
    ASSERT_EQ(all.size(), 2000u);
    for (std::size_t i = 0; i < all.size(); ++i) EXPECT_EQ(all[i].seq, i + 1);
  }
  EXPECT_EQ(counted, 2000);
  AuditLog again(path);
  EXPECT_EQ(again.replay_journal(), 2000u);
  EXPECT_TRUE(again.verify().ok);
}

// Filters all apply at once; the limit keeps the newest, oldest first.
TEST(AuditLog, QueryFilters) {
  TempDir dir;
  AuditLog log(dir / "audit.jsonl");
  log.replay_journal();
  fill(log, 10);
  std::size_t total = 0;
  AuditLog::Filter f;
  f.tenant = "acme";
  auto acme = log.query(f, total);
  EXPECT_EQ(total, 10u);
  ASSERT_EQ(acme.size(), 5u);
  EXPECT_EQ(acme.front().seq, 2u);
  f.limit = 2;
  auto newest = log.query(f, total);
  ASSERT_EQ(newest.size(), 2u);
  EXPECT_EQ(newest[0].seq, 8u);
  EXPECT_EQ(newest[1].seq, 10u);
  f = {};
  f.actor = "user:u3";
  f.action = "data.write";
  EXPECT_EQ(log.query(f, total).size(), 1u);
  f.since_ms = log.query({}, total).back().ts_ms + 1;
  EXPECT_TRUE(log.query(f, total).empty());
}

}  // namespace
}  // namespace ostrel::identity
