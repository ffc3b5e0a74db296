#include "modules/metering/metering_engine.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <ctime>

#include "tests/support/test_support.h"

namespace ostrel::metering {
namespace {

// 2026-03-31T23:59:00Z and friends, as Unix milliseconds.
constexpr std::int64_t kMar31_2359 = 1775001540000;
constexpr std::int64_t kApr01_0001 = kMar31_2359 + 2 * 60 * 1000;

std::vector<std::pair<std::string, std::int64_t>> buckets(const AggregateResult& r) {
  std::vector<std::pair<std::string, std::int64_t>> out;
  for (const auto& b : r.buckets) out.emplace_back(b.key, b.sum);
  return out;
}

TEST(MeteringEngine, UtcBucketsAndHalfOpenRanges) {
  // A server time zone far from UTC must not move events between buckets.
  ::setenv("TZ", "America/Los_Angeles", 1);
  ::tzset();
  testing::TempDir dir;
  MeteringEngine m(dir / "metering.db");
  std::string error;
  ASSERT_TRUE(m.record(kMar31_2359, "acme", "", "u1", "tokens", 10, "{}", error)) << error;
  ASSERT_TRUE(m.record(kApr01_0001, "acme", "p", "u1", "tokens", 5, "{\"m\":1}", error));
  ASSERT_TRUE(m.record(kApr01_0001 + 3600 * 1000, "acme", "", "", "tokens", 7, "", error));
  ASSERT_TRUE(m.record(kApr01_0001, "acme", "", "", "requests", 100, "{}", error));
  ASSERT_TRUE(m.record(kApr01_0001, "beta", "", "", "tokens", 1000, "{}", error));

  AggregateResult r;
  ASSERT_TRUE(m.aggregate("acme", "tokens", 0, kApr01_0001 + 86400000, "day", r, error));
  EXPECT_EQ(buckets(r), (std::vector<std::pair<std::string, std::int64_t>>{{"2026-03-31", 10},
                                                                           {"2026-04-01", 12}}));
  ASSERT_TRUE(m.aggregate("acme", "tokens", 0, kApr01_0001 + 86400000, "hour", r, error));
  EXPECT_EQ(buckets(r), (std::vector<std::pair<std::string, std::int64_t>>{
                            {"2026-03-31T23", 10}, {"2026-04-01T00", 5}, {"2026-04-01T01", 7}}));
  ASSERT_TRUE(m.aggregate("acme", "tokens", 0, kApr01_0001 + 86400000, "month", r, error));
  EXPECT_EQ(buckets(r),
            (std::vector<std::pair<std::string, std::int64_t>>{{"2026-03", 10}, {"2026-04", 12}}));
  ASSERT_TRUE(m.aggregate("acme", "tokens", 0, kApr01_0001 + 86400000, "fortnight", r, error));
  EXPECT_EQ(r.granularity, "day");

  // [from, to): an event at `from` counts, one at `to` does not.
  ASSERT_TRUE(
      m.aggregate("acme", "tokens", kApr01_0001, kApr01_0001 + 3600 * 1000, "day", r, error));
  EXPECT_EQ(buckets(r), (std::vector<std::pair<std::string, std::int64_t>>{{"2026-04-01", 5}}));
  ::unsetenv("TZ");
  ::tzset();
}

TEST(MeteringEngine, QuotasBatchesAndReopen) {
  testing::TempDir dir;
  std::string error;
  {
    MeteringEngine m(dir / "metering.db");
    ASSERT_TRUE(m.set_quota({"acme", "tokens", "monthly", 1000, 800}, error));
    ASSERT_TRUE(m.set_quota({"acme", "tokens", "daily", 50, 0}, error));
    ASSERT_TRUE(m.set_quota({"acme", "requests", "", 10, 5}, error));
    auto q = m.get_quota("acme", "tokens");
    ASSERT_TRUE(q);
    EXPECT_EQ(q->period, "daily");
    EXPECT_EQ(q->hard_limit, 50);
    EXPECT_EQ(m.list_quotas("acme").size(), 2u);
    EXPECT_EQ(m.get_quota("acme", "requests")->period, "monthly");
    ASSERT_TRUE(m.delete_quota("acme", "requests", error));
    EXPECT_FALSE(m.get_quota("acme", "requests"));

    std::vector<MeteringEngine::Event> batch;
    for (int i = 0; i < 1000; ++i)
      batch.push_back({kApr01_0001 + i, "acme", "", "", "tokens", 2, "{}"});
    ASSERT_TRUE(m.record_batch(batch, error)) << error;
  }
  MeteringEngine reopened(dir / "metering.db");
  AggregateResult r;
  ASSERT_TRUE(reopened.aggregate("acme", "tokens", 0, kApr01_0001 + 86400000, "day", r, error));
  ASSERT_EQ(r.buckets.size(), 1u);
  EXPECT_EQ(r.buckets[0].sum, 2000);
  EXPECT_EQ(reopened.list_quotas("acme").size(), 1u);

  // The rows sit in the documented table, readable by any SQLite client.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir / "metering.db").c_str(), &db), SQLITE_OK);
  sqlite3_stmt* s = nullptr;
  sqlite3_prepare_v2(db, "SELECT COUNT(*), SUM(value) FROM events WHERE tenant_id='acme'", -1, &s,
                     nullptr);
  ASSERT_EQ(sqlite3_step(s), SQLITE_ROW);
  EXPECT_EQ(sqlite3_column_int64(s, 0), 1000);
  EXPECT_EQ(sqlite3_column_int64(s, 1), 2000);
  sqlite3_finalize(s);
  sqlite3_close(db);

  try {
    MeteringEngine bad(dir / "metering.db" / "inside-a-file.db");
    ADD_FAILURE() << "opening under a file must fail";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()).rfind("metering: open ", 0), 0u) << e.what();
  }
}

}  // namespace
}  // namespace ostrel::metering
