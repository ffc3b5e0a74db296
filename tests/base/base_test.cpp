// The shared helpers under every layer: durable files, names, JSON limits,
// UTF-8, numbers as JSON text and the SQLite wrapper.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>
#include <vector>

#include "base/durable_file.h"
#include "base/encoding.h"
#include "base/env.h"
#include "base/journal.h"
#include "base/json.h"
#include "base/names.h"
#include "base/roles.h"
#include "base/sqlite.h"
#include "base/text.h"
#include "base/text_arena.h"
#include "tests/support/test_support.h"

namespace ostrel::base {
namespace {

namespace fs = std::filesystem;

// Eight writers replace one file over and over while readers read it: every
// read sees one writer's whole content, never a mix or a truncated file, and
// no temporary is left behind.
TEST(DurableFile, ConcurrentWritersLeaveOneWholeVersion) {
  testing::TempDir dir;
  const fs::path target = dir / "settings.json";
  ASSERT_TRUE([&] {
    std::string e;
    return write_file_atomically(target, std::string(100000, 'a'), e);
  }());
  std::atomic<bool> stop{false};
  std::atomic<int> torn{0}, reads{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 2; ++r) {
    readers.emplace_back([&] {
      while (!stop) {
        std::string c = testing::read_file(target);
        ++reads;
        if (c.size() != 100000 || c.find_first_not_of(c[0]) != std::string::npos) ++torn;
      }
    });
  }
  std::vector<std::thread> writers;
  std::atomic<int> failures{0};
  for (int w = 0; w < 8; ++w) {
    writers.emplace_back([&, w] {
      for (int i = 0; i < 25; ++i) {
        std::string error;
        if (!write_file_atomically(target, std::string(100000, static_cast<char>('b' + w)),
                                   error)) {
          ++failures;
        }
      }
    });
  }
  for (auto& t : writers) t.join();
  stop = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(torn.load(), 0) << "of " << reads.load() << " reads";
  std::string last = testing::read_file(target);
  ASSERT_EQ(last.size(), 100000u);
  EXPECT_GE(last[0], 'b');
  EXPECT_LE(last[0], 'i');
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);
}

// A writer that is not committed leaves nothing; one that must not replace
// an existing file refuses with "file_exists"; temporaries of killed writes
// are recognised and removed, other files are not.
TEST(DurableFile, AbandonNoReplaceAndStaleTemporaries) {
  testing::TempDir dir;
  {
    AtomicFileWriter w(dir / "a.bin");
    std::string error;
    ASSERT_TRUE(w.open(error));
    ASSERT_TRUE(w.write("partial", error));
    EXPECT_TRUE(fs::exists(w.temporary()));
  }
  EXPECT_FALSE(fs::exists(dir / "a.bin"));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 0);

  testing::write_file(dir / "b.bin", "old");
  AtomicFileWriter w(dir / "b.bin");
  std::string error;
  ASSERT_TRUE(w.open(error));
  ASSERT_TRUE(w.write("new", error));
  EXPECT_FALSE(w.commit(error, /*replace=*/false));
  EXPECT_EQ(error, "file_exists");
  EXPECT_EQ(testing::read_file(dir / "b.bin"), "old");

  EXPECT_TRUE(is_temporary_name(".b.bin.tmp.123.4"));
  EXPECT_TRUE(is_temporary_name("model.gguf.part"));
  EXPECT_TRUE(is_temporary_name("x.tmp.99"));
  EXPECT_FALSE(is_temporary_name("notes.tmp.txt"));
  EXPECT_FALSE(is_temporary_name("b.bin"));
  testing::write_file(dir / ".b.bin.tmp.123.4", "x");
  testing::write_file(dir / "sub" / "m.gguf.part", "x");
  testing::write_file(dir / "keep.tmp.txt", "x");
  EXPECT_EQ(remove_stale_temporaries(dir.path()), 1u);
  EXPECT_EQ(remove_stale_temporaries(dir.path(), true), 1u);
  EXPECT_TRUE(fs::exists(dir / "keep.tmp.txt"));
  EXPECT_TRUE(fs::exists(dir / "b.bin"));
}

// Names that become paths never leave their directory.
TEST(Names, OnlySafeNamesReachTheFileSystem) {
  std::string why;
  for (const char* bad : {"", "..", ".", "../x", "a/b", "a\\b", "/abs", ".hidden", "a b", "a\nb"}) {
    EXPECT_FALSE(safe_name(bad, why)) << bad;
  }
  EXPECT_FALSE(safe_name(std::string("a\0b", 3), why));
  EXPECT_FALSE(safe_name(std::string(129, 'a'), why));
  EXPECT_TRUE(safe_name(std::string(128, 'a'), why));
  EXPECT_TRUE(safe_name("llama3:8b@v2+q4_K-M.x", why));

  EXPECT_FALSE(safe_tenant_id("../x", why));
  EXPECT_FALSE(safe_tenant_id("a/b", why));
  EXPECT_FALSE(safe_tenant_id("-lead", why));
  EXPECT_FALSE(safe_tenant_id(std::string(65, 'a'), why));
  EXPECT_TRUE(safe_tenant_id("acme_Corp-2", why));

  for (const char* bad : {"", "/etc/passwd", "a/../b", "../a", "a//b", "a/", ".x/y", "a/.b", "a\\b",
                          "\xff\xfe.gguf", "a\x01.gguf"}) {
    EXPECT_FALSE(safe_file_path(bad, why)) << bad;
  }
  EXPECT_TRUE(safe_file_path("models/llama-3 8B.gguf", why));
  EXPECT_TRUE(safe_file_path("caf\xc3\xa9.gguf", why));
  EXPECT_FALSE(safe_id("two words", why));
  EXPECT_TRUE(safe_id("sess-0123abcd", why));
}

// The nesting limit counts only structure: brackets inside strings (escaped
// quotes included) do not count, and exactly the limit passes.
// The same tree, types included (the library compares 1 and 1u as equal).
bool same_tree(const nlohmann::json& a, const nlohmann::json& b) {
  if (a.is_discarded() || b.is_discarded()) return a.is_discarded() && b.is_discarded();
  if (a.type() != b.type()) return false;
  if (a.is_object()) {
    if (a.size() != b.size()) return false;
    for (auto it = a.begin(); it != a.end(); ++it) {
      auto o = b.find(it.key());
      if (o == b.end() || !same_tree(*it, *o)) return false;
    }
    return true;
  }
  if (a.is_array()) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
      if (!same_tree(a[i], b[i])) return false;
    }
    return true;
  }
  if (a.is_number_float()) return a.get<double>() == b.get<double>() || (a != a && b != b);
  return a == b;
}

// The lean reader builds the library's own tree for every text, whatever it
// refuses (those go to the library): typical bodies, odd numbers, escapes,
// repeated keys, and 20,000 random edits of them.
TEST(Json, LeanParseMatchesTheLibraryOnEveryEdit) {
  const std::vector<std::string> seeds = {
      R"({"model":"echo","messages":[{"role":"user","content":"hi \"there\"\n\u00e9\ud83d\ude00"}],"stream":true,"temperature":0.7,"max_tokens":128,"n":-3,"big":18446744073709551615,"neg":-9223372036854775808,"e":1e-7,"z":-0,"t":[true,false,null]})",
      R"([1, 2.5, -0.0, 1E3, "a", {"k": {"k": [{}]}}, [], "\/\b\f\r\t"])",
      R"({"a":1,"a":2,"b":{"c":"cafÃ©"},"tools":[{"type":"function","function":{"name":"f","parameters":{}}}]})",
      R"("just a string")",
      R"(123456789012345678901234567890)",
      R"({"x":1e400,"y":0.1e-400})"};
  for (const auto& text : seeds) {
    EXPECT_TRUE(same_tree(parse_json_lean(text), parse_json(text))) << text;
  }
  std::mt19937 rng(7);
  const std::string alphabet = "{}[]\",:0123456789.eE-+tfnul\\ \u00e9";
  int parsed = 0;
  for (int i = 0; i < 20000; ++i) {
    const std::string text = testing::mutate(seeds[i % seeds.size()], rng, alphabet);
    const nlohmann::json lean = parse_json_lean(text), lib = parse_json(text);
    ASSERT_TRUE(same_tree(lean, lib)) << text;
    parsed += !lib.is_discarded();
  }
  EXPECT_GT(parsed, 1000);  // the edits reach both outcomes
  // A long string is held once, not grown by doubling.
  const std::string long_text = "{\"content\":\"" + std::string(1 << 20, 'x') + "\\n\"}";
  const nlohmann::json long_tree = parse_json_lean(long_text);
  const auto& content = long_tree["content"].get_ref<const std::string&>();
  EXPECT_EQ(content.size(), (1u << 20) + 1);
  EXPECT_LE(content.capacity(), (1u << 20) + 16);
}

TEST(Json, NestingLimitAndUtf8SafeOutput) {
  EXPECT_TRUE(json_depth_ok(std::string(64, '[') + std::string(64, ']')));
  EXPECT_FALSE(json_depth_ok(std::string(65, '[')));
  EXPECT_TRUE(json_depth_ok("\"" + std::string(1000, '[') + "\""));
  EXPECT_TRUE(json_depth_ok("[\"\\\"" + std::string(1000, '{') + "\"]"));
  EXPECT_FALSE(json_depth_ok("{\"a\":\"\\\\\"," + std::string(100, '[')));
  EXPECT_TRUE(parse_json(std::string(100000, '[')).is_discarded());
  EXPECT_EQ(parse_json("{\"a\":[1,[2]]}")["a"][1][0], 2);

  nlohmann::json bad = {{"name", std::string("\xff\xfe ok")}};
  EXPECT_EQ(dump_json(bad), "{\"name\":\"\xef\xbf\xbd\xef\xbf\xbd ok\"}");
  EXPECT_FALSE(text::valid_utf8("\xc0\xaf"));          // overlong '/'
  EXPECT_FALSE(text::valid_utf8("\xed\xa0\x80"));      // surrogate
  EXPECT_FALSE(text::valid_utf8("\xf4\x90\x80\x80"));  // above U+10FFFF
  EXPECT_TRUE(text::valid_utf8("caf\xc3\xa9 \xf0\x9f\x98\x80"));
  EXPECT_EQ(text::json_quote("a\xff\"b"), "\"a\xef\xbf\xbd\\\"b\"");
  EXPECT_TRUE(nlohmann::json::accept(text::json_quote(std::string("\x80\x01\xe2\x82", 4))));
  // Plain runs are measured sixteen and eight bytes at a time: every
  // character that needs escaping is still found wherever it sits in a
  // block, a word or the tail.
  for (const char special : {'"', '\\', '\n', '\x01', '\x1f', '\x7f', ' ', '~'}) {
    for (std::size_t at = 0; at < 43; ++at) {
      std::string t(43, 'a');
      t[at] = special;
      EXPECT_EQ(text::json_quote(t), nlohmann::json(t).dump()) << int(special) << " at " << at;
    }
  }
  EXPECT_EQ(text::json_quote("abcdefg\xc3\xa9hijklmnop\xffq"),
            "\"abcdefg\xc3\xa9hijklmnop\xef\xbf\xbdq\"");

  // Fields and lists as every module reads them from requests and settings.
  EXPECT_EQ(string_field({{"a", "x"}, {"b", 3}}, "a"), "x");
  EXPECT_EQ(string_field({{"b", 3}}, "b"), "");
  EXPECT_EQ(string_field(nlohmann::json::array({"a"}), "a"), "");
  EXPECT_EQ(text::split_list(" a:1 , ,b:2,\t"), (std::vector<std::string>{"a:1", "b:2"}));
  EXPECT_EQ(text::split_list(", http://x"), (std::vector<std::string>{"http://x"}));
  EXPECT_TRUE(text::split_list("").empty());
}

// Embeddings are journalled as JSON numbers: every float must read back as
// itself through both ways a reader may parse it (strtof, or strtod and a
// cast), in no more than the promised bytes; the shapes stay plain JSON.
// (All 2^32 patterns were checked once by hand; here every 4099th.)
TEST(Text, FloatsReadBackExactlyAsJsonNumbers) {
  std::string out;
  std::size_t longest = 0;
  for (std::uint64_t u = 0; u < (std::uint64_t{1} << 32); u += 4099) {
    const auto bits = static_cast<std::uint32_t>(u);
    float f;
    std::memcpy(&f, &bits, sizeof f);
    if (!std::isfinite(f)) continue;
    char buf[text::kFloatChars + 8];
    const char* end = text::write_float(buf, f);
    const std::string s(buf, static_cast<std::size_t>(end - buf));
    longest = std::max(longest, s.size());
    ASSERT_EQ(std::strtof(s.c_str(), nullptr), f) << s;
    ASSERT_EQ(static_cast<float>(std::strtod(s.c_str(), nullptr)), f) << s;
  }
  EXPECT_LE(longest, text::kFloatChars);
  const float cases[] = {1.0f,   0.5f,    -0.0123f, 100.0f, 123456789.0f, 1e9f,          3.4e38f,
                         1e-45f, 2.5e-5f, 9.9e-6f,  0.0f,   -0.0f,        std::nanf(""), -INFINITY};
  const char* want[] = {"1",
                        "0.5",
                        "-0.0122999996",
                        "100",
                        "123456792",
                        "1e9",
                        "3.39999995e38",
                        "1.40129846e-45",
                        "0.0000249999994",
                        "9.8999999e-6",
                        "0",
                        "0",
                        "0",
                        "0"};
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    out.clear();
    text::append_float(out, cases[i]);
    EXPECT_EQ(out, want[i]) << i;
  }
  const std::vector<float> list = {0.25f, -3.0f, 1e-7f};
  out = "[";
  text::append_floats(out, list.data(), list.size());
  out += "]";
  EXPECT_EQ(out, "[0.25,-3,1.00000001e-7]");
  EXPECT_EQ(nlohmann::json::parse(out)[2].get<float>(), 1e-7f);
  out = "x";
  text::append_floats(out, list.data(), 0);
  EXPECT_EQ(out, "x");
}

// Texts laid out in the arena keep their bytes and addresses while it grows
// by blocks, large ones included.
TEST(Text, ArenaTextsStayPut) {
  TextArena arena;
  std::vector<std::pair<char*, std::string>> kept;
  for (int i = 0; i < 20000; ++i) {
    std::string t = std::to_string(i) + std::string(static_cast<std::size_t>(i % 300), 'x');
    if (i % 5000 == 0) t.assign(TextArena::kBlock / 2 + static_cast<std::size_t>(i), 'L');
    char* p = arena.allocate(t.size());
    std::memcpy(p, t.data(), t.size());
    kept.emplace_back(p, std::move(t));
  }
  for (const auto& [p, t] : kept) ASSERT_EQ(std::string_view(p, t.size()), t);
  arena.clear();
  EXPECT_NE(arena.allocate(10), nullptr);
}

// A write the file system cuts short is taken back: the journal keeps only
// whole lines, and the next append lands right after them.
TEST(Journal, ShortWriteIsCutOff) {
  testing::TempDir dir;
  const auto path = dir.path() / "log.jsonl";
  AppendLog log(path);
  std::string error;
  ASSERT_TRUE(log.append("{\"a\":1}\n", false, error)) << error;
  // A file size limit ten bytes past the first line makes the next write stop there.
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  rlimit tight = old;
  tight.rlim_cur = 8 + 10;
  auto* previous = ::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
  const bool written = log.append(std::string(100, 'x') + "\n", false, error);
  ::setrlimit(RLIMIT_FSIZE, &old);
  ::signal(SIGXFSZ, previous);
  EXPECT_FALSE(written);
  EXPECT_NE(error.find("write log.jsonl"), std::string::npos) << error;
  EXPECT_EQ(error.find("could not be cut off"), std::string::npos) << error;
  EXPECT_EQ(testing::read_file(path), "{\"a\":1}\n");
  ASSERT_TRUE(log.append("{\"b\":2}\n", false, error)) << error;
  EXPECT_EQ(testing::read_file(path), "{\"a\":1}\n{\"b\":2}\n");
}

// Replay reads a megabyte at a time: lines across chunk edges and lines
// longer than a chunk come back whole and in order, blank lines are passed
// over, and a torn tail is counted and cut so the next append starts clean.
TEST(Journal, ReplayStreamsAcrossChunksAndCutsATornTail) {
  testing::TempDir dir;
  const auto path = dir.path() / "big.jsonl";
  std::vector<std::string> lines;
  std::string text;
  for (int i = 0; i < 3000; ++i) {
    // 1 KiB lines put line ends at every offset relative to the chunk edges.
    lines.push_back(std::to_string(i) + std::string(1000 + i % 7, 'a' + i % 26));
    if (i == 1500) lines.push_back(std::string(3 << 20, 'L'));  // three chunks long
    if (i == 2000) text += "\n";
  }
  for (const auto& l : lines) text += l + "\n";
  const std::size_t whole = text.size();
  text += "{\"torn";
  testing::write_file(path, text);
  std::vector<std::string> seen;
  ReplayStats stats;
  const std::size_t n = replay_journal_lines(
      path,
      [&](std::string_view l) {
        seen.emplace_back(l);
        return l[0] != 'x';
      },
      &stats);
  EXPECT_EQ(n, lines.size());
  EXPECT_EQ(seen, lines);
  EXPECT_EQ(stats.lines, lines.size());
  EXPECT_EQ(stats.torn_bytes, 6u);
  EXPECT_EQ(std::filesystem::file_size(path), whole);
}

// Identifier pieces: exact hex digits, random suffixes of the promised
// length and alphabet that do not repeat.
TEST(Text, HexDigitsAndRandomSuffixes) {
  std::string out = "x";
  append_hex(out, 0x0123456789abcdefULL, 16);
  append_hex(out, 0xabcULL, 2);
  append_hex(out, 0x5ULL, 4);
  EXPECT_EQ(out, "x0123456789abcdefbc0005");
  const std::string h = random_hex(40), a = random_alnum(24);
  EXPECT_EQ(h.size(), 40u);
  EXPECT_EQ(h.find_first_not_of("0123456789abcdef"), std::string::npos) << h;
  EXPECT_EQ(a.size(), 24u);
  EXPECT_EQ(a.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789"), std::string::npos) << a;
  EXPECT_NE(random_hex(16), random_hex(16));
  EXPECT_NE(random_alnum(12), random_alnum(12));
}

// The wrapper reports SQLite's text and rolls back an unfinished transaction.
TEST(Sqlite, StatementsAndTransactions) {
  testing::TempDir dir;
  sqlite::Connection db;
  std::string error;
  ASSERT_TRUE(db.open(dir / "t.db", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, error)) << error;
  ASSERT_TRUE(db.exec("CREATE TABLE t (k TEXT PRIMARY KEY, v INTEGER)", error));
  EXPECT_FALSE(db.exec("CREATE TABLE t (x)", error));
  EXPECT_NE(error.find("already exists"), std::string::npos) << error;
  sqlite::Statement bad = db.prepare("SELECT nope FROM t", error);
  EXPECT_FALSE(bad);
  EXPECT_NE(error.find("nope"), std::string::npos);

  sqlite::Statement ins = db.prepare("INSERT INTO t VALUES (?, ?)", error);
  ASSERT_TRUE(ins);
  {
    sqlite::Transaction tx(db, error);
    ASSERT_TRUE(tx.ok());
    EXPECT_EQ(ins.reset().bind(1, std::string_view("a")).bind(2, std::int64_t{1}).step(),
              SQLITE_DONE);
  }  // not committed: rolled back
  EXPECT_EQ(db.scalar("SELECT COUNT(*) FROM t"), 0);
  {
    sqlite::Transaction tx(db, error);
    EXPECT_EQ(ins.reset().bind(1, std::string_view("b")).bind(2, std::int64_t{2}).step(),
              SQLITE_DONE);
    EXPECT_NE(ins.reset().bind(1, std::string_view("b")).bind(2, std::int64_t{3}).step(),
              SQLITE_DONE);  // duplicate key
    ASSERT_TRUE(tx.commit(error)) << error;
  }
  sqlite::Statement q = db.prepare("SELECT k, v FROM t", error);
  ASSERT_EQ(q.step(), SQLITE_ROW);
  EXPECT_EQ(q.text(0), "b");
  EXPECT_EQ(q.int64(1), 2);
  EXPECT_EQ(q.step(), SQLITE_DONE);
}

// One role table answers every question about roles: order, the scopes of a
// key, the role scopes stand for; anything outside it grants nothing.
TEST(Roles, OneTableForRanksScopesAndCredentials) {
  namespace roles = base::roles;
  EXPECT_LT(roles::rank("viewer"), roles::rank("developer"));
  EXPECT_LT(roles::rank("admin"), roles::rank("superadmin"));
  EXPECT_EQ(roles::rank("root"), -1);
  EXPECT_EQ(roles::name_of(roles::rank("admin")), "admin");
  EXPECT_EQ(roles::name_of(9), "none");
  EXPECT_EQ(roles::key_scopes("superadmin"),
            (std::vector<std::string>{"admin.*", "kernel.*", "tenant.*"}));
  EXPECT_EQ(roles::key_scopes("no-such-role"), (std::vector<std::string>{"read.*"}));
  EXPECT_EQ(roles::for_scopes({"agent.invoke", "tenant.users.manage"}), "admin");
  EXPECT_EQ(roles::for_scopes({"read.*"}), "viewer");
  EXPECT_EQ(roles::for_scopes({"data.vector.search", "kernel.*"}), "superadmin");
  // A key of each role stands for that role again.
  for (const auto& r : roles::table()) {
    EXPECT_EQ(roles::for_scopes(r.key_scopes), r.name);
  }
}

// Environment values are read the same way everywhere: unset and empty
// alike, numbers in range or the fallback.
TEST(Env, TypedReadsWithFallbacks) {
  base::env::set_lookup_for_tests([](const char* name) -> const char* {
    std::string_view n = name;
    if (n == "A_NUM") return "42";
    if (n == "A_BAD") return "42x";
    if (n == "A_EMPTY") return "";
    if (n == "A_FLAG") return "Yes";
    return nullptr;
  });
  EXPECT_EQ(base::env::integer("A_NUM", 7), 42);
  EXPECT_EQ(base::env::integer("A_NUM", 7, 0, 10), 7);
  EXPECT_EQ(base::env::integer("A_BAD", 7), 7);
  EXPECT_EQ(base::env::text("A_EMPTY", "x"), "x");
  EXPECT_TRUE(base::env::value("A_EMPTY").has_value());
  EXPECT_FALSE(base::env::value("A_UNSET").has_value());
  EXPECT_TRUE(base::env::flag("A_FLAG"));
  EXPECT_FALSE(base::env::flag("A_UNSET"));
  base::env::set_lookup_for_tests(nullptr);
}

}  // namespace
}  // namespace ostrel::base
