#include "data/sqlite_vector_backend.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <random>

#include "tests/support/test_support.h"

namespace ostrel::modules_data {
namespace {

namespace fs = std::filesystem;

// The writer side of a namespace database, as the data worker lays it out.
class Writer {
 public:
  explicit Writer(const fs::path& path, bool with_fts = true) {
    sqlite3_open(path.c_str(), &db_);
    exec(
        "CREATE TABLE vectors (id TEXT, content TEXT, source TEXT, namespace_id TEXT, metadata "
        "TEXT, embedding BLOB, created_at INTEGER, updated_at INTEGER, chunk_index INTEGER, "
        "total_chunks INTEGER)");
    if (with_fts) exec("CREATE VIRTUAL TABLE vectors_fts USING fts5(content)");
    fts_ = with_fts;
  }
  ~Writer() { sqlite3_close(db_); }
  void exec(const std::string& sql) {
    ASSERT_EQ(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
  }
  void add(const std::string& id, const std::string& content, const std::vector<float>& v,
           const std::string& metadata = "{}") {
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db_,
                       "INSERT INTO vectors VALUES (?, ?, 'src', 'ns', ?, ?, 1700000000, "
                       "1700000001, 2, 5)",
                       -1, &s, nullptr);
    sqlite3_bind_text(s, 1, id.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(s, 2, content.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(s, 3, metadata.c_str(), -1, SQLITE_TRANSIENT);
    if (v.empty()) {
      sqlite3_bind_null(s, 4);
    } else {
      sqlite3_bind_blob(s, 4, v.data(), static_cast<int>(v.size() * 4), SQLITE_TRANSIENT);
    }
    ASSERT_EQ(sqlite3_step(s), SQLITE_DONE);
    sqlite3_finalize(s);
    if (fts_) {
      sqlite3_prepare_v2(db_,
                         "INSERT INTO vectors_fts(rowid, content) VALUES (last_insert_rowid(), ?)",
                         -1, &s, nullptr);
      sqlite3_bind_text(s, 1, content.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_step(s);
      sqlite3_finalize(s);
    }
  }

 private:
  sqlite3* db_ = nullptr;
  bool fts_ = true;
};

std::vector<std::string> ids(const std::vector<SearchHit>& hits) {
  std::vector<std::string> out;
  for (const auto& h : hits) out.push_back(h.id);
  return out;
}

TEST(SqliteVectorBackend, NamesFilesAndListsNamespaces) {
  testing::TempDir dir;
  base::Logger log("test");
  {
    Writer a(dir / "acme_docs.db");
    a.add("1", "x", {1, 0, 0});
    Writer b(dir / "docs.db");
    Writer c(dir / "beta_notes.db");
  }
  testing::write_file(dir / "README.txt", "not a namespace");
  SqliteVectorBackend backend;
  ASSERT_TRUE(backend.initialize(dir.path().string(), log));
  auto all = backend.list_namespaces("");
  ASSERT_EQ(all.size(), 2u);  // docs.db has no "_"
  auto acme = backend.list_namespaces("acme");
  ASSERT_EQ(acme.size(), 1u);
  EXPECT_EQ(acme[0].tenant, "acme");
  EXPECT_EQ(acme[0].name, "docs");
  EXPECT_EQ(acme[0].document_count, 1);
  EXPECT_EQ(acme[0].embedding_dim, 3);
  EXPECT_GT(acme[0].size_bytes, 0u);
  EXPECT_EQ(backend.list_namespaces("beta")[0].embedding_dim, 0);
  EXPECT_EQ(backend.search("acme", "docs", {1, 0, 0}, 5, 0, "").size(), 1u);
  EXPECT_TRUE(backend.search("", "docs", {1, 0, 0}, 5, 0, "").empty());
  EXPECT_TRUE(backend.search("acme", "missing", {1, 0, 0}, 5, 0, "").empty());

  SqliteVectorBackend off;
  testing::write_file(dir / "afile", "x");
  EXPECT_FALSE(off.initialize((dir / "afile").string(), log));
  EXPECT_TRUE(off.list_namespaces("").empty());
  EXPECT_TRUE(off.search("acme", "docs", {1, 0, 0}, 5, 0, "").empty());
}

TEST(SqliteVectorBackend, ExactCosineThresholdsTopKAndPrefilter) {
  testing::TempDir dir;
  base::Logger log("test");
  Writer w(dir / "t1_kb.db");
  w.add("a", "alpha particles decay", {1, 0, 0}, "{\"lang\":\"en\"}");
  w.add("b", "beta decay rates", {0.6f, 0.8f, 0}, "not json");
  w.add("c", "gamma rays", {0, 0, 1});
  w.add("d", "zero vector", {0, 0, 0});
  w.add("e", "two dimensions", {1, 0});
  w.add("f", "no embedding", {});
  SqliteVectorBackend backend;
  ASSERT_TRUE(backend.initialize(dir.path().string(), log));

  auto hits = backend.search("t1", "kb", {1, 0, 0}, 3, 0.0, "");
  EXPECT_EQ(ids(hits), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_DOUBLE_EQ(hits[0].score, 1.0);
  EXPECT_NEAR(hits[1].score, 0.6, 1e-7);
  EXPECT_EQ(hits[0].metadata["lang"], "en");
  EXPECT_TRUE(hits[1].metadata.is_object() && hits[1].metadata.empty());
  EXPECT_EQ(hits[0].content, "alpha particles decay");
  EXPECT_EQ(hits[0].created_at, 1700000000);
  EXPECT_EQ(hits[0].chunk_index, 2);
  EXPECT_EQ(hits[0].total_chunks, 5);

  // A score equal to the minimum is kept; k larger than the matches returns them all.
  double exact_b = hits[1].score;
  EXPECT_EQ(ids(backend.search("t1", "kb", {1, 0, 0}, 10, exact_b, "")),
            (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(ids(backend.search("t1", "kb", {1, 0, 0}, 1, 0.0, "")), std::vector<std::string>{"a"});

  // Full-text narrowing: every token must match.
  EXPECT_EQ(ids(backend.search("t1", "kb", {1, 0, 0}, 5, -1.0, "Decay!")),
            (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(ids(backend.search("t1", "kb", {1, 0, 0}, 5, -1.0, "beta decay")),
            std::vector<std::string>{"b"});
  // Only one-letter words: the full scan, same as no text.
  EXPECT_EQ(ids(backend.search("t1", "kb", {1, 0, 0}, 5, -1.0, "a b ,")),
            ids(backend.search("t1", "kb", {1, 0, 0}, 5, -1.0, "")));
  EXPECT_EQ(SqliteVectorBackend::fts_query("Hello, w\xc3\xb6rld a X-ray!"),
            "\"hello\" \"rld\" \"x-ray\"");  // non-ASCII bytes split words
  EXPECT_TRUE(backend.search("t1", "kb", {0, 0, 0}, 5, -1.0, "").empty());
}

TEST(SqliteVectorBackend, SeesRowsWrittenAfterItOpenedTheFile) {
  testing::TempDir dir;
  base::Logger log("test");
  Writer w(dir / "t_live.db", /*with_fts=*/false);
  w.add("first", "one", {1, 0});
  SqliteVectorBackend backend;
  ASSERT_TRUE(backend.initialize(dir.path().string(), log));
  EXPECT_EQ(ids(backend.search("t", "live", {1, 0}, 5, 0.5, "")),
            std::vector<std::string>{"first"});
  w.add("second", "two", {0.9f, 0.1f});
  EXPECT_EQ(ids(backend.search("t", "live", {1, 0}, 5, 0.5, "")),
            (std::vector<std::string>{"first", "second"}));
  w.exec("DELETE FROM vectors WHERE id = 'first'");
  EXPECT_EQ(ids(backend.search("t", "live", {1, 0}, 5, 0.5, "")),
            std::vector<std::string>{"second"});
  // Without an FTS table, a text search falls back to the full scan.
  EXPECT_EQ(ids(backend.search("t", "live", {1, 0}, 5, 0.5, "second")),
            std::vector<std::string>{"second"});
}

TEST(SqliteVectorBackend, DecodedCopyGivesTheScansResults) {
  testing::TempDir dir;
  base::Logger log("test");
  {
    Writer w(dir / "t_big.db", false);
    w.exec("BEGIN");
    std::mt19937 rng(7);
    std::normal_distribution<float> n;
    for (int i = 0; i < 2000; ++i) {
      std::vector<float> v(64);
      for (auto& x : v) x = n(rng);
      w.add("r" + std::to_string(i), "row", v);
    }
    w.exec("COMMIT");
  }
  SqliteVectorBackend backend;
  ASSERT_TRUE(backend.initialize(dir.path().string(), log));
  std::mt19937 rng(99);
  std::normal_distribution<float> n;
  for (int q = 0; q < 5; ++q) {
    std::vector<float> query(64);
    for (auto& x : query) x = n(rng);
    auto cached = backend.search("t", "big", query, 10, -1.0, "");      // decoded copy
    auto scanned = backend.search("t", "big", query, 10, -1.0, "x y");  // full scan
    ASSERT_EQ(cached.size(), 10u);
    ASSERT_EQ(ids(cached), ids(scanned));
    for (size_t i = 0; i < cached.size(); ++i) EXPECT_EQ(cached[i].score, scanned[i].score);
  }
}

}  // namespace
}  // namespace ostrel::modules_data
