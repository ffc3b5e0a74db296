#include "inference/gguf.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "tests/support/test_support.h"

namespace ostrel::inference::gguf {
namespace {

// Builds GGUF bytes field by field, little-endian as the format is.
class Writer {
 public:
  template <typename T>
  Writer& pod(T v) {
    bytes_.append(reinterpret_cast<const char*>(&v), sizeof v);
    return *this;
  }
  Writer& str(const std::string& s) {
    pod<std::uint64_t>(s.size());
    bytes_ += s;
    return *this;
  }
  Writer& raw(const std::string& s) {
    bytes_ += s;
    return *this;
  }
  Writer& kv_u32(const std::string& key, std::uint32_t v) {
    return str(key).pod<std::uint32_t>(4).pod(v);
  }
  Writer& kv_str(const std::string& key, const std::string& v) {
    return str(key).pod<std::uint32_t>(8).str(v);
  }
  Writer& tensor(const std::string& name, std::vector<std::uint64_t> shape, std::uint32_t dtype,
                 std::uint64_t offset) {
    str(name).pod<std::uint32_t>(static_cast<std::uint32_t>(shape.size()));
    for (auto d : shape) pod(d);
    return pod(dtype).pod(offset);
  }
  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

std::string header(std::uint32_t version, std::uint64_t tensors, std::uint64_t kvs) {
  Writer w;
  w.raw("GGUF").pod(version).pod(tensors).pod(kvs);
  return w.bytes();
}

// A small but complete model file: five keys (one an array of 3 floats, one an
// array of 65 strings), two tensors listed out of offset order.
std::string sample(std::uint32_t version, bool with_alignment) {
  Writer w;
  w.raw(header(version, 2, with_alignment ? 6 : 5));
  w.kv_str("general.architecture", "llama");
  w.kv_u32("llama.context_length", 4096);
  w.kv_u32("llama.embedding_length", 64);
  w.kv_u32("llama.block_count", 2);
  if (with_alignment) w.kv_u32("general.alignment", 64);
  w.str("tokenizer.ggml.tokens").pod<std::uint32_t>(9).pod<std::uint32_t>(8).pod<std::uint64_t>(65);
  for (int i = 0; i < 65; ++i) w.str("t" + std::to_string(i));
  w.tensor("blk.0.ffn", {64, 32}, 8 /* Q8_0 */, 4096);
  w.tensor("token_embd", {64, 100}, 0 /* F32 */, 0);
  return w.bytes();
}

std::string write(const testing::TempDir& dir, const std::string& name, const std::string& bytes) {
  std::string path = (dir / name).string();
  testing::write_file(path, bytes);
  return path;
}

TEST(GGUF, ReadsVersionsTwoAndThree) {
  testing::TempDir dir;
  for (std::uint32_t version : {2u, 3u}) {
    GGUFFile f;
    std::string error;
    ASSERT_TRUE(f.open(write(dir, "m.gguf", sample(version, true)), error)) << error;
    EXPECT_EQ(f.version, version);
    EXPECT_EQ(f.architecture, "llama");
    EXPECT_EQ(f.context_length, 4096u);
    EXPECT_EQ(f.embedding_length, 64u);
    EXPECT_EQ(f.block_count, 2u);
    EXPECT_EQ(f.alignment, 64u);
    EXPECT_EQ(f.parameter_count, 64u * 32 + 64u * 100);
    EXPECT_EQ(f.metadata["tokenizer.ggml.tokens"], "[array len=65 type=8]");
    ASSERT_EQ(f.tensors.size(), 2u);
    EXPECT_EQ(f.tensors[0].name, "token_embd");  // sorted by offset
    EXPECT_EQ(f.tensors[0].bytes, 64u * 100 * 4);
    EXPECT_EQ(f.tensors[1].bytes, 64u * 32 / 32 * 34);
    EXPECT_STREQ(dtype_name(f.tensors[1].dtype), "Q8_0");
    EXPECT_EQ(f.data_offset % 64, 0u);
    EXPECT_GE(f.data_offset, sample(version, true).size());
  }
  GGUFFile f;
  std::string error;
  ASSERT_TRUE(f.open(write(dir, "noalign.gguf", sample(3, false)), error));
  EXPECT_EQ(f.alignment, 32u);
  EXPECT_EQ(f.data_offset % 32, 0u);
  EXPECT_STREQ(dtype_name(30), "BF16");
  EXPECT_STREQ(dtype_name(4), "unknown");
  EXPECT_STREQ(dtype_name(31), "unknown");
}

TEST(GGUF, RendersShortArraysAndScalars) {
  testing::TempDir dir;
  Writer w;
  w.raw(header(3, 0, 3));
  w.str("a.floats").pod<std::uint32_t>(9).pod<std::uint32_t>(6).pod<std::uint64_t>(2);
  w.pod(1.5f).pod(-2.0f);
  w.str("a.flag").pod<std::uint32_t>(7).pod<std::uint8_t>(1);
  w.str("a.big").pod<std::uint32_t>(10).pod<std::uint64_t>(1ULL << 40);
  GGUFFile f;
  std::string error;
  ASSERT_TRUE(f.open(write(dir, "s.gguf", w.bytes()), error)) << error;
  EXPECT_EQ(f.metadata["a.floats"], "[1.500000, -2.000000]");
  EXPECT_EQ(f.metadata["a.flag"], "true");
  EXPECT_EQ(f.metadata["a.big"], "1099511627776");
}

TEST(GGUF, RefusesBadHeadersWithTheirReasons) {
  testing::TempDir dir;
  auto fails = [&](const std::string& bytes, const std::string& want) {
    GGUFFile f;
    std::string error;
    EXPECT_FALSE(f.open(write(dir, "bad.gguf", bytes), error)) << want;
    EXPECT_EQ(error, want);
  };
  fails(std::string(20, 'x'), "file too small to be GGUF");
  fails("GGUF" + std::string(20, '\0'), "unsupported GGUF version 0");
  fails(header(1, 0, 0), "unsupported GGUF version 1");
  fails("GGUX" + header(3, 0, 0).substr(4), "bad magic (not a GGUF file)");
  fails(header(3, 1ULL << 30, 0), "implausible counts in header");
  fails(header(3, 0, 2000000), "implausible counts in header");

  GGUFFile missing;
  std::string error;
  EXPECT_FALSE(missing.open((dir / "nope.gguf").string(), error));
  EXPECT_EQ(error.rfind("open: ", 0), 0u);
}

TEST(GGUF, EveryTruncationFailsCleanly) {
  testing::TempDir dir;
  const std::string full = sample(3, true);
  // Cut the file at every length past the minimum: each open must fail with
  // a reason (never crash, never read past the end), except where the cut
  // only removes padding that is not there anyway.
  int failures = 0;
  for (size_t len = 24; len < full.size(); ++len) {
    GGUFFile f;
    std::string error;
    bool ok = f.open(write(dir, "cut.gguf", full.substr(0, len)), error);
    EXPECT_FALSE(ok) << "length " << len;
    EXPECT_FALSE(error.empty()) << "length " << len;
    failures += !ok;
  }
  EXPECT_EQ(failures, static_cast<int>(full.size() - 24));

  // A tensor with more than eight dimensions, and a nested array.
  Writer w;
  w.raw(header(3, 1, 0)).str("t").pod<std::uint32_t>(9);
  GGUFFile f;
  std::string error;
  EXPECT_FALSE(f.open(write(dir, "dims.gguf", w.bytes() + std::string(64, '\0')), error));
  EXPECT_EQ(error, "implausible tensor n_dims");
  Writer n;
  n.raw(header(3, 0, 1))
      .str("nested")
      .pod<std::uint32_t>(9)
      .pod<std::uint32_t>(9)
      .pod<std::uint64_t>(1000);
  EXPECT_FALSE(f.open(write(dir, "nested.gguf", n.bytes() + std::string(64, '\0')), error));
  Writer bad_type;
  bad_type.raw(header(3, 0, 1)).str("k").pod<std::uint32_t>(13).pod<std::uint64_t>(0);
  EXPECT_FALSE(f.open(write(dir, "type.gguf", bad_type.bytes()), error));
  EXPECT_EQ(error.rfind("kv type 0", 0), 0u);
  // A key length pointing past the end of the file.
  Writer long_key;
  long_key.raw(header(3, 0, 1)).pod<std::uint64_t>(1ULL << 40).raw("abc");
  EXPECT_FALSE(f.open(write(dir, "key.gguf", long_key.bytes()), error));
  EXPECT_EQ(error, "kv key 0 truncated");
}

}  // namespace
}  // namespace ostrel::inference::gguf
