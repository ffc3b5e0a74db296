// The data module's stores: chunking, the vector journals and the matrix
// memory service, on real files.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "base/json.h"
#include "data/chunking.h"
#include "data/ingest_request.h"
#include "data/memory_service.h"
#include "data/row_buffer.h"
#include "data/vector_math.h"
#include "data/vector_store.h"
#include "base/hash_embedder.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/test_support.h"

namespace ostrel::data {
namespace {

namespace fs = std::filesystem;

// The rows buffer grows by remapping (the mapping may move): every float
// appended before stays where search reads it, also across moves of the
// buffer itself.
TEST(RowBuffer, KeepsEveryRowAcrossGrowthAndMoves) {
  RowBuffer rows;
  std::vector<float> row(384);
  for (int r = 0; r < 3000; ++r) {  // 4.6 MB: several remaps, megabyte steps
    for (std::size_t i = 0; i < row.size(); ++i) row[i] = static_cast<float>(r) + i * 1e-3f;
    rows.append(row.data(), row.size());
  }
  RowBuffer moved(std::move(rows));
  EXPECT_EQ(rows.size(), 0u);
  rows = std::move(moved);
  ASSERT_EQ(rows.size(), 3000u * 384);
  for (int r = 0; r < 3000; r += 7) {
    for (std::size_t i = 0; i < 384; i += 51) {
      ASSERT_EQ(rows.data()[static_cast<std::size_t>(r) * 384 + i],
                static_cast<float>(r) + i * 1e-3f);
    }
  }
  rows.clear();
  EXPECT_EQ(rows.size(), 0u);
  rows.append(row.data(), 1);
  EXPECT_EQ(rows.data()[0], row[0]);
}

TEST(Chunking, OffsetsOverlapAndDegenerateSizes) {
  const std::string text(3000, 'x');
  auto c = chunk_text(text, 1200, 150);
  ASSERT_EQ(c.size(), 3u);
  EXPECT_EQ(c[0], (std::pair<std::size_t, std::size_t>{0, 1200}));
  EXPECT_EQ(c[1], (std::pair<std::size_t, std::size_t>{1050, 1200}));
  EXPECT_EQ(c[2], (std::pair<std::size_t, std::size_t>{2100, 900}));
  // An overlap of at least the size becomes size / 4.
  auto q = chunk_text(text, 1200, 1500);
  ASSERT_GE(q.size(), 2u);
  EXPECT_EQ(q[1].first, 900u);
  EXPECT_EQ(chunk_text(text, 0, 150).size(), 1u);  // size 0: one chunk
  EXPECT_EQ(chunk_text("short", 1200, 150).size(), 1u);
  auto one = chunk_text(text, 1, 5);  // overlap ≥ size, size / 4 = 0: still progresses
  EXPECT_EQ(one.size(), 3000u);
  // The count ingest checks before cutting is the number chunk_text makes.
  for (std::size_t length : {0u, 1u, 63u, 64u, 65u, 1000u, 3000u, 4097u}) {
    for (std::size_t size : {0u, 1u, 7u, 64u, 100u, 1200u, 5000u}) {
      for (std::size_t overlap : {0u, 1u, 3u, 50u, 63u, 150u, 1199u, 1200u, 9000u}) {
        EXPECT_EQ(chunk_count(length, size, overlap),
                  chunk_text(std::string(length, 'y'), size, overlap).size())
            << length << " " << size << " " << overlap;
      }
    }
  }
}

// The ingest request reader takes documents of the usual shape without a
// JSON tree; whatever it is given, it must read what the JSON parser reads
// (or refuse the same way), escapes and multi-byte characters anywhere in a
// long text included.
TEST(IngestRequest, FastReaderAgreesWithTheJsonPath) {
  auto same = [](const std::string& text) {
    IngestRequest fast, slow;
    std::string fast_error, slow_error;
    const bool fast_ok = read_ingest_request(text, fast, fast_error);
    const bool slow_ok = ingest_request_from_json(
        text.empty() ? nlohmann::json::object() : base::parse_json(text), slow, slow_error);
    EXPECT_EQ(fast_ok, slow_ok) << text;
    EXPECT_EQ(fast_error, slow_error) << text;
    if (!fast_ok || !slow_ok) return;
    EXPECT_EQ(fast.tenant, slow.tenant) << text;
    EXPECT_EQ(fast.ns, slow.ns) << text;
    EXPECT_EQ(fast.text, slow.text) << text;
    EXPECT_EQ(fast.source, slow.source) << text;
    EXPECT_EQ(fast.model, slow.model) << text;
    EXPECT_EQ(fast.chunk_size, slow.chunk_size) << text;
    EXPECT_EQ(fast.chunk_overlap, slow.chunk_overlap) << text;
    EXPECT_EQ(fast.metadata, slow.metadata) << text;
  };
  const std::string plain =
      R"({"tenant_id":"acme","namespace":"docs","source":"notes.txt","chunk_size":300,)"
      R"("text":"The quick brown fox jumps over the lazy dog, then again and again until )"
      R"(the line is long enough to span several blocks of sixteen bytes.","metadata":{"k":1}})";
  const std::string odd =
      R"({"text":"tabs\there, quotes \"inside\", caf\u00e9 and \u2603 snow, a pair )"
      R"(\ud83d\ude00, plain bytes é ü ß — and a last backslash\\",)"
      R"("namespace_id":"n","embedding_model":"m","chunk_overlap":10})";
  IngestRequest r;
  std::string error;
  ASSERT_TRUE(read_ingest_request(odd, r, error)) << error;
  EXPECT_NE(r.text->find("quotes \"inside\""), std::string::npos);
  EXPECT_NE(r.text->find("\xf0\x9f\x98\x80"), std::string::npos);  // the pair, one character
  EXPECT_EQ(r.text->back(), '\\');
  for (const std::string& base : {plain, odd}) {
    for (std::size_t n = 0; n <= base.size(); ++n) same(base.substr(0, n));
  }
  const std::string alphabet = "{}[]\":,\\ut0123456789 abn\n\x01\x1f\x7f\x80\xc3\xa9\xff";
  std::mt19937 rng(41);
  for (int i = 0; i < 20000; ++i) {
    same(testing::mutate(i % 2 ? plain : odd, rng, alphabet));
    if (HasFailure()) return;
  }
}

std::vector<float> embed(const std::string& text) { return base::HashEmbedder::embed(text); }

VectorRecord record(const std::string& id, const std::string& text) {
  VectorRecord r;
  r.id = id;
  r.text = text;
  r.source = id + ".txt";
  r.embedding = embed(text);
  r.created_ms = 42;
  r.metadata = {{"chunk_index", 0}};
  return r;
}

class VectorStoreTest : public ::testing::Test {
 protected:
  base::Logger log() { return base::Logger("test/vectors"); }
  testing::TempDir dir_;
  testing::LogCapture logs_;
};

// Records survive a reload byte for byte and rank as a direct cosine would;
// a torn last line is cut and reported, every complete record kept.
TEST_F(VectorStoreTest, JournalRoundTripTornTailAndRanking) {
  std::string error;
  {
    VectorStore store(dir_.path(), log());
    ASSERT_TRUE(store.append(
        "acme", "docs",
        {record("a", "the cat sat on the mat"), record("b", "quarterly tax filing deadlines"),
         record("c", "a cat and a mat")},
        error))
        << error;
    auto hits = store.search("acme", "docs", embed("cat on a mat"), 0.0, 2);
    ASSERT_EQ(hits.size(), 2u);
    EXPECT_TRUE(hits[0].id == "a" || hits[0].id == "c");
    EXPECT_GE(hits[0].score, hits[1].score);
    EXPECT_TRUE(store.search("other", "docs", embed("cat"), 0.0, 5).empty());  // tenant isolation
  }
  const fs::path journal = dir_ / "acme_docs.jsonl";
  const std::string before = testing::read_file(journal);
  EXPECT_EQ(testing::lines_with(before, "\"embedding\":[").size(), 3u);
  {
    std::ofstream torn(journal, std::ios::app);
    torn << "{\"id\":\"d\",\"text\":\"half wr";
  }
  VectorStore reloaded(dir_.path(), log());
  auto hits = reloaded.search("acme", "docs", embed("tax filing"), 0.0, 1);
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_EQ(hits[0].id, "b");
  EXPECT_EQ(hits[0].source, "b.txt");
  EXPECT_EQ(hits[0].metadata["chunk_index"], 0);
  EXPECT_EQ(testing::read_file(journal), before);  // the torn tail is gone
  EXPECT_TRUE(logs_.has("cut 25 byte(s) of an unfinished last line"));
  // The same vectors score the same after the reload.
  VectorStore again(dir_.path(), log());
  EXPECT_EQ(again.search("acme", "docs", embed("tax filing"), 0.0, 1)[0].score, hits[0].score);
}

// Deleting rewrites the journal without the record; unknown names answer
// their codes; two tenants whose names differ only by '_' never share a file.
TEST_F(VectorStoreTest, RemoveNamesAndTenantSeparation) {
  VectorStore store(dir_.path(), log());
  std::string error, detail;
  ASSERT_TRUE(store.append("a", "b_c", {record("x", "one")}, error));
  ASSERT_TRUE(store.append("a_b", "c", {record("y", "two")}, error));
  EXPECT_NE(store.journal_path("a", "b_c"), store.journal_path("a_b", "c"));
  EXPECT_EQ(store.search("a_b", "c", embed("one"), -1, 5).size(), 1u);
  EXPECT_EQ(store.search("a_b", "c", embed("one"), -1, 5)[0].id, "y");
  auto listed = store.list("");
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_TRUE((listed[0].tenant == "a" && listed[0].name == "b_c") ||
              (listed[1].tenant == "a" && listed[1].name == "b_c"));

  EXPECT_FALSE(store.remove("a", "nope", "x", error, detail));
  EXPECT_EQ(error, "namespace_not_found");
  EXPECT_FALSE(store.remove("a", "b_c", "zzz", error, detail));
  EXPECT_EQ(error, "id_not_found");
  ASSERT_TRUE(store.append("a", "b_c", {record("x2", "three")}, error));
  ASSERT_TRUE(store.remove("a", "b_c", "x", error, detail)) << detail;
  EXPECT_EQ(testing::read_file(store.journal_path("a", "b_c")).find("\"id\":\"x\""),
            std::string::npos);
  VectorStore reloaded(dir_.path(), log());
  auto hits = reloaded.search("a", "b_c", embed("three"), -1, 5);
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_EQ(hits[0].id, "x2");

  for (const char* bad : {"../x", "a/b", "/abs", "..", ""}) {
    EXPECT_FALSE(store.append(bad, "ns", {record("q", "x")}, error)) << bad;
    EXPECT_FALSE(store.append("t", bad, {record("q", "x")}, error)) << bad;
  }
  EXPECT_FALSE(store.append("t", std::string("a\0b", 3), {record("q", "x")}, error));
  // Nothing was created beside the journals.
  for (const auto& e : fs::recursive_directory_iterator(dir_.path())) {
    EXPECT_TRUE(e.is_regular_file()) << e.path();
    EXPECT_EQ(e.path().extension(), ".jsonl") << e.path();
  }
  EXPECT_FALSE(fs::exists(dir_.path().parent_path() / "x_ns.jsonl"));
}

// An allocation failing anywhere in an append leaves the namespace whole:
// every record held is found with the score of its own text (the rows, their
// scores and the records stay in step), and appends go on afterwards.
TEST_F(VectorStoreTest, FailedAllocationLeavesTheNamespaceWhole) {
  VectorStore store(dir_.path(), log());
  std::string error;
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(store.append(
        "t", "n", {record("r" + std::to_string(i), "first text " + std::to_string(i))}, error));
  }
  const std::vector<float> query = embed("text 3");
  auto in_step = [&] {
    for (const VectorHit& h : store.search("t", "n", query, -1, 1000)) {
      const std::vector<float> own = embed(h.text);
      const double want = cosine(dot(query.data(), own.data(), own.size()),
                                 dot(query.data(), query.data(), query.size()),
                                 dot(own.data(), own.data(), own.size()));
      if (std::abs(h.score - want) > 1e-9) return false;
    }
    return true;
  };
  // Each append is tried with its first allocation failing, then its
  // second, and so on until it goes through; the namespace grows past the
  // points where its arrays move.
  int failed = 0;
  for (int i = 0; i < 40; ++i) {
    const std::string id = "x" + std::to_string(i), text = "more text " + std::to_string(i);
    const std::vector<VectorRecord> more = {record(id, text)};
    for (long k = 0;; ++k) {
      testing::fail_allocation_after(k);
      bool threw = false;
      try {
        ASSERT_TRUE(store.append("t", "n", more, error)) << error;
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      testing::fail_allocation_after(-1);
      ASSERT_TRUE(in_step()) << id << " with allocation " << k << " failing";
      if (!threw) break;
      ++failed;
    }
    const auto found = store.search("t", "n", embed(text), 0.9999, 1);
    ASSERT_EQ(found.size(), 1u) << id;
    EXPECT_EQ(found[0].id, id);
  }
  EXPECT_GT(failed, 100);
  ASSERT_TRUE(store.append("t", "n", {record("last", "the last text")}, error)) << error;
  EXPECT_EQ(store.search("t", "n", embed("the last text"), 0.99, 1).at(0).id, "last");
  EXPECT_TRUE(in_step());
}

// Appends from many threads all land once, in the journal and in memory.
TEST_F(VectorStoreTest, ConcurrentAppendsAndSearches) {
  VectorStore store(dir_.path(), log());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        std::string error;
        store.append("t", "n", {record(std::to_string(t) + "-" + std::to_string(i), "text")},
                     error);
        store.search("t", "n", embed("text"), 0.0, 3);
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(store.search("t", "n", embed("text"), 0.0, 1000).size(), 200u);
  EXPECT_EQ(testing::lines_with(testing::read_file(store.journal_path("t", "n")), "\"id\"").size(),
            200u);
}

class MemoryServiceTest : public ::testing::Test {
 protected:
  std::unique_ptr<MatrixMemoryService> open(bool with_embeddings = true) {
    MatrixMemoryService::Embed e;
    if (with_embeddings) {
      e = [](std::string_view text, std::vector<float>& out, std::string&) {
        out = base::HashEmbedder::embed(text);
        return true;
      };
    }
    auto s = std::make_unique<MatrixMemoryService>(dir_.path(), e, base::Logger("test/memory"));
    std::string error;
    EXPECT_TRUE(s->initialize(error)) << error;
    return s;
  }
  MemoryStoreRequest store(const std::string& key, const std::string& value,
                           const std::string& ns = "default") {
    MemoryStoreRequest r;
    r.tenant = "acme";
    r.ns = ns;
    r.key = key;
    r.value = value;
    return r;
  }
  testing::TempDir dir_;
};

// Stores are recalled by key and by words, survive a restart, and a
// forgotten key never comes back: not by recall, not after a restart, not
// through a late replica.
TEST_F(MemoryServiceTest, ForgottenKeysNeverComeBack) {
  ::testing::internal::CaptureStdout();
  {
    auto s = open();
    EXPECT_EQ(s->store(store("colour", "alice likes teal")).matrix, "yes");
    s->store(store("pet", "bob has a parrot"));
    s->store(store("car", "carol drives a van", "work"));
    auto r = s->recall("acme", "default", "colour", "general", 10);
    ASSERT_FALSE(r.hits.empty());
    EXPECT_EQ(r.hits[0].key, "colour");
    EXPECT_EQ(r.hits[0].via, "key");
    EXPECT_TRUE(r.enabled);
    auto words = s->recall("acme", "default", "who has a parrot", "general", 10);
    ASSERT_FALSE(words.hits.empty());
    EXPECT_EQ(words.hits[0].key, "pet");
    // Namespaces are separate; "_shared" spans the tenant.
    EXPECT_TRUE(s->recall("acme", "default", "van", "general", 10).hits.empty());
    EXPECT_EQ(s->recall("acme", "_shared", "van", "general", 10).hits.size(), 1u);
    EXPECT_TRUE(s->recall("other", "default", "colour", "general", 10).hits.empty());

    MemoryForgetRequest f;
    f.tenant = "acme";
    f.key = "colour";
    auto out = s->forget(f);
    EXPECT_TRUE(out.ok);
    EXPECT_EQ(out.kv_removed, 1u);
    EXPECT_EQ(out.matrices_touched, 1u);
    EXPECT_TRUE(s->is_tombstoned("acme", "default", "colour"));
    EXPECT_TRUE(s->recall("acme", "default", "colour", "general", 10).hits.empty());
    MemoryStoreRequest late = store("colour", "alice likes teal");
    late.replica = true;
    EXPECT_TRUE(s->store(late).ignored);
  }
  auto s = open();
  EXPECT_TRUE(s->is_tombstoned("acme", "default", "colour"));
  EXPECT_TRUE(s->recall("acme", "default", "alice teal colour", "general", 10).hits.empty());
  EXPECT_EQ(s->recall("acme", "default", "pet", "general", 10).hits[0].value, "bob has a parrot");
  // A checkpoint compacts the journals without losing the tombstone.
  s->checkpoint();
  s.reset();
  s = open();
  EXPECT_TRUE(s->is_tombstoned("acme", "default", "colour"));
  EXPECT_FALSE(s->recall("acme", "default", "pet", "general", 10).hits.empty());
  // A user storing the key again makes a new memory.
  s->store(store("colour", "alice now likes red"));
  EXPECT_EQ(s->recall("acme", "default", "colour", "general", 10).hits[0].value,
            "alice now likes red");
  ::testing::internal::GetCapturedStdout();
}

// Without embeddings the store still succeeds (matrix "skip") and recalls by
// key with no matrix taking part; bulk forgetting needs a tenant and a
// selector, and forgets by namespace prefix.
TEST_F(MemoryServiceTest, NoEmbeddingsAndBulkForget) {
  auto s = open(/*with_embeddings=*/false);
  auto stored = s->store(store("k1", "v1", "proj-a"));
  EXPECT_TRUE(stored.ok);
  EXPECT_EQ(stored.matrix, "skip");
  s->store(store("k2", "v2", "proj-b"));
  s->store(store("k3", "v3", "other"));
  auto r = s->recall("acme", "proj-a", "k1", "general", 10);
  ASSERT_EQ(r.hits.size(), 1u);
  EXPECT_FALSE(r.enabled);

  MemoryForgetRequest bulk;
  bulk.mode = "bulk";
  bulk.tenant = "";
  EXPECT_EQ(s->forget(bulk).error, "missing tenant_id (no cross-tenant bulk forget)");
  bulk.tenant = "acme";
  EXPECT_EQ(s->forget(bulk).error, "must specify namespace_prefix or older_than_seconds");
  bulk.ns_prefix = "proj-";
  auto out = s->forget(bulk);
  EXPECT_TRUE(out.ok);
  EXPECT_EQ(out.forgotten, 2u);
  EXPECT_TRUE(s->recall("acme", "proj-b", "k2", "general", 10).hits.empty());
  EXPECT_EQ(s->recall("acme", "other", "k3", "general", 10).hits.size(), 1u);
  MemoryForgetRequest bad;
  bad.tenant = "acme";
  bad.key = "x";
  bad.mode = "maybe";
  EXPECT_FALSE(s->forget(bad).ok);
  EXPECT_FALSE(s->store(store("", "v")).ok);
  MemoryStoreRequest escape = store("k", "v");
  escape.tenant = "../evil";
  EXPECT_FALSE(s->store(escape).ok);
}

// A store appends one line to its matrix's entry journal, however many
// entries the matrix holds: the whole entry file is only written at
// checkpoints.
TEST_F(MemoryServiceTest, AStoreAppendsOneEntryLine) {
  ::testing::internal::CaptureStdout();
  auto s = open();
  for (int i = 0; i < 50; ++i)
    s->store(store("k" + std::to_string(i), "value " + std::to_string(i)));
  auto matrices = s->list_matrices("acme", "");
  ASSERT_EQ(matrices.size(), 1u);
  const fs::path meta = dir_ / (matrices[0].file_path + ".meta.jsonl");
  EXPECT_EQ(testing::lines_with(testing::read_file(meta), "\"op\":\"add\"").size(), 50u);
  EXPECT_FALSE(fs::exists(dir_ / (matrices[0].file_path + ".meta.json")));
  s->checkpoint();
  EXPECT_TRUE(fs::exists(dir_ / (matrices[0].file_path + ".meta.json")));
  EXPECT_EQ(fs::file_size(meta), 0u);
  s.reset();
  s = open();
  EXPECT_EQ(s->recall("acme", "default", "k7", "general", 10).hits[0].value, "value 7");
  ::testing::internal::GetCapturedStdout();
}

}  // namespace
}  // namespace ostrel::data
