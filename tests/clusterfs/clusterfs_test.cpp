#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>

#include "base/durable_file.h"
#include "clusterfs/chunk_store.h"
#include "clusterfs/metadata_store.h"
#include "clusterfs/ost.h"
#include "tests/support/test_support.h"

namespace ostrel::clusterfs {
namespace {

namespace fs = std::filesystem;

TEST(ChunkStore, ContentAddressedFilesWithLimits) {
  testing::TempDir dir;
  ChunkStore store(dir / "chunks");
  std::string id, error;
  ASSERT_TRUE(store.put("abc", 3, id, error)) << error;
  // The id is the SHA-256 of the bytes, as any other tool computes it.
  EXPECT_EQ(id, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  fs::path file =
      dir / "chunks" / "ba" / "7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  EXPECT_EQ(store.path_for_(id), file);
  EXPECT_EQ(testing::read_file(file), "abc");

  std::string mib(1 << 20, 'x');
  std::string a, b;
  ASSERT_TRUE(store.put(mib.data(), mib.size(), a, error));
  ASSERT_TRUE(store.put(mib.data(), mib.size(), b, error));
  EXPECT_EQ(a, b);
  EXPECT_EQ(store.chunks_written(), 2u);
  EXPECT_EQ(store.dedup_hits(), 1u);
  std::string back;
  ASSERT_TRUE(store.get(a, back, error));
  EXPECT_EQ(back, mib);

  std::string max(ChunkStore::kMaxChunkBytes, 'y');
  EXPECT_TRUE(store.put(max.data(), max.size(), id, error)) << error;
  max.push_back('y');
  EXPECT_FALSE(store.put(max.data(), max.size(), id, error));
  EXPECT_EQ(error, "chunk exceeds 67108864 bytes");
  EXPECT_FALSE(store.put("", 0, id, error));
  EXPECT_EQ(error, "empty chunk rejected");

  EXPECT_FALSE(store.get(std::string(64, '0'), back, error));
  EXPECT_EQ(error, "chunk not present: " + std::string(64, '0'));
  EXPECT_FALSE(store.get("../../etc/passwd", back, error));  // never a path outside the root
  EXPECT_FALSE(store.has("../x"));
  EXPECT_TRUE(store.remove(a, error));
  EXPECT_FALSE(store.remove(a, error));
  EXPECT_EQ(error, "no such chunk: " + a);

  LocalOst ost("node-7", {"ssd"}, std::make_shared<ChunkStore>(dir / "chunks"));
  EXPECT_EQ(ost.id(), "node-7/ost0");
  EXPECT_TRUE(ost.put(ChunkStore::hash("hello", 5), "hello", error));
  EXPECT_FALSE(ost.put(std::string(64, 'a'), "hello", error));
  EXPECT_EQ(error.rfind("chunk id mismatch", 0), 0u);
}

TEST(ChunkStore, AWriterKilledMidWriteLeavesNoVisiblePartialChunk) {
  testing::TempDir dir;
  int done[2];
  ASSERT_EQ(::pipe(done), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(done[0]);
    ChunkStore store(dir / "chunks");
    std::string data(8 << 20, '\0');
    for (std::uint64_t i = 0;; ++i) {
      std::memcpy(data.data(), &i, sizeof i);
      std::string id, error;
      store.put(data.data(), data.size(), id, error);
      if (::write(done[1], "x", 1) != 1) ::_exit(1);  // one byte per chunk written
    }
  }
  ::close(done[1]);
  // Two chunks are whole; the third is being written when the kill lands.
  char byte;
  for (int written = 0; written < 2;) written += static_cast<int>(::read(done[0], &byte, 1) == 1);
  ::kill(child, SIGKILL);
  ::close(done[0]);
  int status = 0;
  ::waitpid(child, &status, 0);

  // The killed writer's temporary is gone once the store opens again.
  ChunkStore store(dir / "chunks");
  int complete = 0;
  for (const auto& entry : fs::recursive_directory_iterator(dir / "chunks")) {
    if (!entry.is_regular_file()) continue;
    const std::string name = entry.path().filename().string();
    if (base::is_temporary_name(name)) {
      ADD_FAILURE() << "temporary left behind: " << name;
      continue;
    }
    // Every visible chunk is whole: its bytes hash to its name.
    std::string id = entry.path().parent_path().filename().string() + name;
    std::string bytes = testing::read_file(entry.path());
    EXPECT_EQ(ChunkStore::hash(bytes.data(), bytes.size()), id);
    EXPECT_EQ(bytes.size(), 8u << 20);
    ++complete;
  }
  EXPECT_GE(complete, 2);
}

TEST(ChunkStore, ConcurrentWritersOfTheSameAndOtherChunks) {
  testing::TempDir dir;
  ChunkStore store(dir / "chunks");
  std::atomic<int> ok{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        std::string shared(4096, static_cast<char>('a' + i % 5));
        std::string own = "thread " + std::to_string(t) + " chunk " + std::to_string(i);
        std::string id, error;
        ok += store.put(shared.data(), shared.size(), id, error);
        ok += store.put(own.data(), own.size(), id, error);
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(ok.load(), 400);
  int files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(dir / "chunks")) {
    files += entry.is_regular_file();
  }
  EXPECT_EQ(files, 5 + 200);  // no temporary file left behind
}

ObjectMeta object(const std::string& tenant, const std::string& path,
                  std::vector<ChunkRef> chunks) {
  ObjectMeta m;
  m.tenant_id = tenant;
  m.path = path;
  m.content_type = "text/plain";
  m.chunks = std::move(chunks);
  for (const auto& c : m.chunks) m.size_bytes += c.length;
  m.layout.ost_ids = {"node-1/ost0"};
  return m;
}

TEST(MetadataStore, VersionsCascadesAndLiteralPrefixes) {
  testing::TempDir dir;
  std::string error;
  {
    MetadataStore mds;
    ASSERT_TRUE(mds.open(dir / "mds.db", error)) << error;
    ObjectMeta m = object("acme", "a/x", {{"c1", 0, 10, 0}, {"c2", 10, 5, 0}});
    ASSERT_TRUE(mds.put(m, error)) << error;
    EXPECT_EQ(m.version, 1);
    const std::string id = m.object_id;
    ObjectMeta again = object("acme", "a/x", {{"c3", 0, 7, 0}});
    again.content_type = "";  // keeps the stored content type
    ASSERT_TRUE(mds.put(again, error));
    EXPECT_EQ(again.object_id, id);
    EXPECT_EQ(again.version, 2);

    ObjectMeta got;
    ASSERT_TRUE(mds.lookup("acme", "a/x", got, error));
    EXPECT_EQ(got.version, 2);
    EXPECT_EQ(got.size_bytes, 7u);
    EXPECT_EQ(got.content_type, "text/plain");
    ASSERT_EQ(got.chunks.size(), 1u);
    EXPECT_EQ(got.chunks[0].chunk_id, "c3");
    EXPECT_EQ(got.layout.ost_ids, std::vector<std::string>{"node-1/ost0"});
    EXPECT_FALSE(got.accessed_at.has_value());
    ASSERT_TRUE(mds.touch_access(id, error));
    ASSERT_TRUE(mds.get(id, got, error));
    EXPECT_TRUE(got.accessed_at.has_value());
    EXPECT_EQ(got.access_count, 1);

    for (const char* p : {"a/y/z", "ab", "a%/q", "a_/q", "A/x"}) {
      ObjectMeta o = object("acme", p, {{"c", 0, 1, 0}});
      ASSERT_TRUE(mds.put(o, error)) << p << error;
    }
    ObjectMeta other = object("beta", "a/x", {});
    ASSERT_TRUE(mds.put(other, error));

    std::vector<std::string> paths;
    for (const auto& o : mds.list("acme", "a/")) paths.push_back(o.path);
    EXPECT_EQ(paths, (std::vector<std::string>{"a/x", "a/y/z"}));
    paths.clear();
    for (const auto& o : mds.list("acme", "a%")) paths.push_back(o.path);
    EXPECT_EQ(paths, std::vector<std::string>{"a%/q"});
    paths.clear();
    for (const auto& o : mds.list("acme", "a_")) paths.push_back(o.path);
    EXPECT_EQ(paths, std::vector<std::string>{"a_/q"});

    EXPECT_FALSE(mds.lookup("Acme", "a/x", got, error));
    EXPECT_EQ(
        error,
        "invalid_id (lowercase ascii, digits, hyphen; 2-63 chars; no leading/trailing hyphen)");
    EXPECT_FALSE(mds.lookup("acme", "nope", got, error));
    EXPECT_EQ(error, "no object at acme:nope");
    EXPECT_FALSE(mds.get("missing", got, error));
    EXPECT_EQ(error, "no such object: missing");

    auto before = mds.stats();
    EXPECT_EQ(before.objects, 7);
    EXPECT_EQ(before.chunk_rows, 6);
    ASSERT_TRUE(mds.remove(id, error));
    auto after = mds.stats();
    EXPECT_EQ(after.objects, 6);
    EXPECT_EQ(after.chunk_rows, 5);  // the cascade took the object's chunk row
    EXPECT_TRUE(mds.set_tier(other.object_id, 1, error));
  }
  // The file holds the documented schema and survives a reopen.
  MetadataStore reopened;
  ASSERT_TRUE(reopened.open(dir / "mds.db", error));
  int count = 0;
  reopened.for_each([&](const ObjectMeta& m) {
    ++count;
    if (m.tenant_id == "beta") {
      EXPECT_EQ(m.tier, 1);
    }
  });
  EXPECT_EQ(count, 6);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir / "mds.db").c_str(), &db), SQLITE_OK);
  sqlite3_stmt* s = nullptr;
  sqlite3_prepare_v2(db,
                     "SELECT name FROM sqlite_master WHERE type IN ('table','index') AND name NOT "
                     "LIKE 'sqlite_%' ORDER BY name",
                     -1, &s, nullptr);
  std::vector<std::string> names;
  while (sqlite3_step(s) == SQLITE_ROW) {
    names.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(s, 0)));
  }
  sqlite3_finalize(s);
  sqlite3_close(db);
  EXPECT_EQ(names,
            (std::vector<std::string>{"chunks", "idx_chunks_chunk_id", "idx_objects_tenant_path",
                                      "idx_objects_tier", "objects"}));
}

}  // namespace
}  // namespace ostrel::clusterfs
