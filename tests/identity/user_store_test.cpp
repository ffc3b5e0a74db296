// The user store against a real SQLite file, the login throttle's waits,
// and the logical clock under concurrent use.
#include "base/clock.h"
#include "identity/user_store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <memory>
#include <set>
#include <thread>

#include "identity/login_throttle.h"
#include "kernel/cluster/hybrid_clock.h"
#include "tests/support/test_support.h"

namespace ostrel::identity_registry {
namespace {

using ostrel::testing::TempDir;

std::string pragma(const std::filesystem::path& db, const std::string& sql) {
  sqlite3* h = nullptr;
  sqlite3_open(db.c_str(), &h);
  sqlite3_stmt* st = nullptr;
  std::string out;
  if (sqlite3_prepare_v2(h, sql.c_str(), -1, &st, nullptr) == SQLITE_OK &&
      sqlite3_step(st) == SQLITE_ROW) {
    out = reinterpret_cast<const char*>(sqlite3_column_text(st, 0));
  }
  sqlite3_finalize(st);
  sqlite3_close(h);
  return out;
}

// Registration rules, one superadmin out of a race, login, changes and the
// allowlist, all still there when the file is opened again.
TEST(UserStore, RulesRaceAndReopen) {
  TempDir dir;
  const auto path = dir / "identity.db";
  {
    UserStore closed;
    EXPECT_EQ(closed.register_user("a", "password1", "viewer", "human", "", "").error,
              "database not open");
  }
  auto store = std::make_unique<UserStore>();
  std::string error;
  ASSERT_TRUE(store->open(path, error)) << error;
  EXPECT_EQ(pragma(path, "PRAGMA journal_mode"), "wal");

  std::atomic<int> superadmins{0}, refused{0};
  std::vector<std::thread> racers;
  for (int i = 0; i < 8; ++i) {
    racers.emplace_back([&, i] {
      auto r = store->register_user("u" + std::to_string(i), "password1", "viewer", "human", "", "",
                                    "{}", true);
      if (r && r.user->role == "superadmin") ++superadmins;
      if (!r && r.error == "store_not_empty") ++refused;
    });
  }
  for (auto& t : racers) t.join();
  EXPECT_EQ(superadmins, 1);
  EXPECT_EQ(refused, 7);
  EXPECT_EQ(store->count_users(), 1);

  EXPECT_EQ(store->register_user("", "password1", "viewer", "human", "", "").error,
            "username required");
  EXPECT_EQ(store->register_user("x", "", "viewer", "human", "", "").error, "password required");
  EXPECT_EQ(store->register_user("x", "short", "viewer", "human", "", "").error,
            "password must be at least 8 characters");
  EXPECT_FALSE(store->register_user("x", "password1", "emperor", "human", "", ""));
  auto dev = store->register_user("dev", "password1", "developer", "human", "acme", "Dev");
  ASSERT_TRUE(dev) << dev.error;
  EXPECT_EQ(store->register_user("dev", "password2", "viewer", "human", "", "").error,
            "username already exists");
  EXPECT_EQ(dev.user->password_hash, UserStore::hash_password("password1"));
  EXPECT_EQ(UserStore::hash_password("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

  EXPECT_EQ(store->login("dev", "password2").error, "invalid username or password");
  EXPECT_EQ(store->login("nobody", "password1").error, "invalid username or password");
  auto in = store->login("dev", "password1");
  ASSERT_TRUE(in);
  EXPECT_FALSE(in.user->last_login.empty());
  EXPECT_EQ(store->authenticate_key(dev.user->api_key)->username, "dev");
  EXPECT_FALSE(store->authenticate_key("ak-" + std::string(48, '0')));

  EXPECT_EQ(store->update_user(dev.user->user_id, "emperor", ""), "invalid role");
  EXPECT_EQ(store->update_user(dev.user->user_id, "", "short"),
            "password must be at least 8 characters");
  EXPECT_EQ(store->update_user("usr-none", "admin", ""), "user not found");
  EXPECT_EQ(store->update_user(dev.user->user_id, "admin", "password9"), "");
  EXPECT_TRUE(store->login("dev", "password9"));

  EXPECT_EQ(store->add_domain("Example.COM", "acme", "u0"), "");
  EXPECT_EQ(store->add_email("o'neil@x.test", "acme", "u0"), "");
  EXPECT_EQ(store->domain_tenant("example.com").value_or(""), "acme");
  EXPECT_EQ(store->email_tenant("o'neil@x.test").value_or(""), "acme");
  EXPECT_FALSE(store->domain_tenant("x.test"));

  store = std::make_unique<UserStore>();
  ASSERT_TRUE(store->open(path, error)) << error;
  EXPECT_EQ(store->count_users(), 2);
  EXPECT_EQ(store->find_by_username("dev")->role, "admin");
  EXPECT_EQ(store->list_domains().size(), 1u);
  EXPECT_TRUE(store->delete_domain("example.com"));
  EXPECT_FALSE(store->delete_domain("example.com"));
  EXPECT_TRUE(store->delete_user(dev.user->user_id));
  EXPECT_FALSE(store->authenticate_key(dev.user->api_key));
  EXPECT_FALSE(store->delete_user(dev.user->user_id));
}

TEST(LoginThrottle, FreeAttemptsThenDoublingWaitsCappedAndCleared) {
  identity::LoginThrottle::Settings s;
  s.free_attempts = 2;
  s.max_wait = std::chrono::seconds(4);
  s.max_keys = 3;
  identity::LoginThrottle t(s);
  t.failed("user:a");
  EXPECT_EQ(t.wait_seconds("user:a"), 0);
  // The last free failure already makes the next attempt wait.
  std::vector<std::int64_t> waits;
  for (int i = 0; i < 5; ++i) {
    t.failed("user:a");
    waits.push_back(t.wait_seconds("user:a"));
  }
  EXPECT_EQ(waits, (std::vector<std::int64_t>{1, 2, 4, 4, 4}));
  EXPECT_EQ(t.wait_seconds("user:b"), 0);
  // The wait runs on the node's clock: once it has passed, the key may try
  // again (and a failure then waits the capped time again).
  base::advance_clock_for_tests(std::chrono::seconds(4));
  EXPECT_EQ(t.wait_seconds("user:a"), 0);
  t.failed("user:a");
  EXPECT_EQ(t.wait_seconds("user:a"), 4);
  t.succeeded("user:a");
  EXPECT_EQ(t.wait_seconds("user:a"), 0);
  // A full table makes room by dropping the key that failed longest ago,
  // never the one being counted: "old" goes, "kept" (failed again since)
  // stays.
  t.failed("user:old");
  t.failed("user:kept");
  t.failed("user:mid");
  t.failed("user:kept");  // now the newest
  t.failed("user:new");   // evicts "old"
  EXPECT_EQ(t.size(), 3u);
  EXPECT_EQ(t.wait_seconds("user:kept"), 1);
  t.failed("user:newer");  // evicts "mid"
  EXPECT_EQ(t.wait_seconds("user:kept"), 1);
  EXPECT_EQ(t.wait_seconds("user:old"), 0);
  // A flood of names keeps the table bounded and still tracks the newest.
  for (int i = 0; i < 50; ++i) {
    for (int k = 0; k < 3; ++k) t.failed("addr:" + std::to_string(i));
  }
  EXPECT_EQ(t.size(), 3u);
  EXPECT_EQ(t.wait_seconds("addr:49"), 2);
}

TEST(HybridClock, StampsOnlyGrowAcrossThreadsAndAfterPeers) {
  kernel::HybridClock clock;
  using Stamp = std::pair<std::int64_t, std::int64_t>;
  std::vector<std::vector<Stamp>> seen(4);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int n = 0; n < 2000; ++n) {
        auto s = clock.now();
        seen[i].push_back({s.physical_ms, s.logical});
      }
    });
  }
  for (auto& t : threads) t.join();
  std::set<Stamp> all;
  for (const auto& list : seen) {
    for (std::size_t n = 1; n < list.size(); ++n) EXPECT_LT(list[n - 1], list[n]);
    all.insert(list.begin(), list.end());
  }
  EXPECT_EQ(all.size(), 8000u);  // no stamp handed out twice
  const auto ahead = clock.now().physical_ms + 5000;
  auto merged = clock.update({ahead, 41});
  EXPECT_LT(Stamp(ahead, 41), Stamp(merged.physical_ms, merged.logical));
  auto next = clock.now();
  EXPECT_LT(Stamp(merged.physical_ms, merged.logical), Stamp(next.physical_ms, next.logical));
}

}  // namespace
}  // namespace ostrel::identity_registry
