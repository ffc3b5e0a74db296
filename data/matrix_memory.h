#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "base/no_copy.h"

namespace ostrel::data {

enum class MemoryLevel : std::uint8_t { domain = 1, project = 2, run = 3 };
const char* level_name(MemoryLevel level);  // "domain", "project", "run" or "unknown"

struct MatrixMemoryConfig {
  std::string id;
  std::string tenant_id;
  std::string user_id;
  std::string domain;
  std::string name;
  std::int32_t dimension = 768;
  std::int32_t rank = 64;
  std::int32_t max_rank = 0;
  MemoryLevel level = MemoryLevel::domain;
  std::string description;
  float decay = 0.995f;
  float saturation_threshold = 0.85f;
  bool auto_expand = true;
  bool use_delta_rule = true;
  float beta_base = 0.8f;
  std::uint8_t format_flags = 0;
  std::int32_t format_mode = 1;
  std::vector<std::string> tags;
  std::int32_t maintenance_interval_s = 3600;
  std::uint64_t size_limit_bytes = 104857600;
  std::uint8_t tier = 0;
  std::int32_t retention_days_short = 7;
  std::int32_t retention_days_long = 30;
  std::string file_path;
  std::string wal_path;
  std::string checkpoint_path;
};

struct RecallResult {
  std::vector<float> value;
  float confidence = 0;
  std::int64_t latency_us = 0;
};

struct MatrixMemoryStats {
  std::string id;
  std::int64_t dimension = 0;
  std::int64_t rank = 0;
  std::int64_t max_rank = 0;
  std::string level;
  double saturation = 0;
  std::uint64_t write_count = 0;
  std::uint64_t recall_count = 0;
  std::uint64_t size_bytes = 0;
  std::uint64_t wal_size_bytes = 0;
  std::uint64_t block_count = 0;
  std::uint64_t corrupted_blocks = 0;
  std::int64_t created_at = 0;
  std::int64_t updated_at = 0;
  std::int64_t last_checkpoint = 0;
  std::string domain;
  std::int64_t tier = 0;
  nlohmann::ordered_json toJson() const;  // the 17 members, in this order
};

// CRC-32 with the zlib polynomial (reflected EDB88320, initial and final
// complement), over one buffer.
std::uint32_t crc32(const void* data, std::size_t length);

// A fixed-size associative memory: one d × r float matrix that absorbs
// key/value pairs (Hebbian or delta rule) and recalls values for keys. One
// file (128-byte header + 64 KiB CRC-checked blocks), a write-ahead log of
// every store since the last save, and a checkpoint copy.
// Thread-safe: mu_ serialises create, load, save, checkpoint, store and
// recall; the two counters are atomic for getStats.
class MatrixMemory : private base::NoCopy {
 public:
  static constexpr std::uint32_t kFormatVersion = 4;
  static constexpr std::uint32_t kBlockBytes = 65536;
  static constexpr std::uint32_t kFloatsPerBlock = 16383;

  MatrixMemory() = default;
  ~MatrixMemory();

  bool create(const MatrixMemoryConfig& config, const std::string& base_dir);
  bool load(const std::string& path);
  bool save();
  bool checkpoint();
  bool store(const std::vector<float>& key, const std::vector<float>& value, float strength);
  RecallResult recall(const std::vector<float>& key);
  MatrixMemoryStats getStats() const;

  const MatrixMemoryConfig& config() const { return config_; }
  bool is_open() const { return open_; }

 private:
  void outerProductUpdate(const std::vector<float>& key, const std::vector<float>& value,
                          float scale);
  std::vector<float> matVecMultiply(const std::vector<float>& key) const;
  bool readFile(const std::string& path);
  bool writeFile(const std::string& path) const;
  void replay_wal_locked_();
  void measure_saturation_locked_();

  MatrixMemoryConfig config_;
  bool open_ = false;
  mutable std::mutex mu_;  // guards everything below but the atomics
  std::vector<float> matrix_;
  // Written under mu_; atomic because getStats reads them without it while
  // a store may grow the rank.
  std::atomic<std::int32_t> dim_{0};
  std::atomic<std::int32_t> rank_{0};
  std::atomic<std::uint64_t> write_count_{0};
  std::atomic<std::uint64_t> recall_count_{0};
  std::atomic<float> saturation_{0};
  std::atomic<std::int64_t> created_at_{0};
  std::atomic<std::int64_t> updated_at_{0};
  std::atomic<std::int64_t> last_checkpoint_{0};
  std::uint64_t wal_seq_ = 0;
  std::uint64_t wal_size_ = 0;
  int wal_fd_ = -1;  // the open write-ahead log, or -1
  struct RecentWrite {
    std::vector<float> key;
    std::vector<float> value;
  };
  std::deque<RecentWrite> recent_writes_;
};

}  // namespace ostrel::data
