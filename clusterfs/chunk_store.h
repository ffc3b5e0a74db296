#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace ostrel::clusterfs {

// Content-addressed chunk files: a chunk lives once, under the lower-case hex
// SHA-256 of its bytes, at <root>/<id[0..2]>/<id[2..]>. Writes go to a
// temporary file that is flushed to disk and renamed into place, so a reader
// never sees a partial chunk and two writers of one chunk cannot collide.
// Thread-safe: file work needs no lock; the counters are atomic.
class ChunkStore {
 public:
  static constexpr std::size_t kMaxChunkBytes = 64ull * 1024 * 1024;
  // From this size on, hashing overlaps the flush to disk.
  static constexpr std::size_t kOverlapThreshold = 256 * 1024;

  explicit ChunkStore(std::filesystem::path root);

  static std::string hash(const void* data, std::size_t length);

  bool put(const void* data, std::size_t length, std::string& chunk_id, std::string& error);
  bool get(const std::string& chunk_id, std::string& bytes, std::string& error) const;
  bool has(const std::string& chunk_id) const;
  bool remove(const std::string& chunk_id, std::string& error);
  // The file of a chunk id. Ids are hex text; anything else has no path.
  std::filesystem::path path_for_(const std::string& chunk_id) const;

  const std::filesystem::path& root() const { return root_; }
  std::uint64_t chunks_written() const { return written_.load(); }
  std::uint64_t dedup_hits() const { return dedup_hits_.load(); }

 private:
  std::filesystem::path root_;
  std::atomic<std::uint64_t> written_{0};
  std::atomic<std::uint64_t> dedup_hits_{0};
};

}  // namespace ostrel::clusterfs
