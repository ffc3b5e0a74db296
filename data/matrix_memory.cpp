#include "data/matrix_memory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "base/durable_file.h"
#include "base/text.h"
#include "data/matrix_kernels.h"

namespace ostrel::data {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kHeaderBytes = 128;
constexpr std::size_t kRecentWrites = 50;
constexpr std::uint32_t kMaxWalRecord = 10485760;
constexpr std::uint32_t kMaxWalFloats = 100000;

std::int64_t now_s() {
  using namespace std::chrono;
  return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

template <typename T>
void put(unsigned char* buf, std::size_t at, T v) {
  std::memcpy(buf + at, &v, sizeof v);
}
template <typename T>
T get(const unsigned char* buf, std::size_t at) {
  T v;
  std::memcpy(&v, buf + at, sizeof v);
  return v;
}

float norm(const std::vector<float>& v) {
  float s = 0;
  for (float x : v) s += x * x;
  return std::sqrt(s);
}

std::vector<float> normalised(const std::vector<float>& v) {
  float n = norm(v);
  if (n < 1e-8f) return v;
  std::vector<float> out(v.size());
  for (std::size_t i = 0; i < v.size(); ++i) out[i] = v[i] / n;
  return out;
}

// Component i of the result is component (i mod n) of the input.
std::vector<float> projected(const std::vector<float>& v, std::size_t d) {
  if (v.size() == d || v.empty()) return v;
  std::vector<float> out(d);
  for (std::size_t i = 0; i < d; ++i) out[i] = v[i % v.size()];
  return out;
}

std::uint64_t block_count(std::int64_t elements) {
  return elements <= 0 ? 0 : static_cast<std::uint64_t>((elements + 16382) / 16383);
}

void out_line(const std::string& s) { std::fprintf(stdout, "[MatrixMemory] %s\n", s.c_str()); }
void err_line(const std::string& s) { std::fprintf(stderr, "[MatrixMemory] %s\n", s.c_str()); }

}  // namespace

const char* level_name(MemoryLevel level) {
  static constexpr const char* kNames[] = {"unknown", "domain", "project", "run"};
  return text::enum_name(level, kNames, "unknown");
}

std::uint32_t crc32(const void* data, std::size_t length) {
  static const std::array<std::uint32_t, 256> table = [] {
    std::array<std::uint32_t, 256> t{};
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  std::uint32_t c = 0xFFFFFFFFu;
  const auto* p = static_cast<const unsigned char*>(data);
  for (std::size_t i = 0; i < length; ++i) c = table[(c ^ p[i]) & 0xFF] ^ (c >> 8);
  return c ^ 0xFFFFFFFFu;
}

nlohmann::ordered_json MatrixMemoryStats::toJson() const {
  nlohmann::ordered_json j;
  j["id"] = id;
  j["dimension"] = dimension;
  j["rank"] = rank;
  j["max_rank"] = max_rank;
  j["level"] = level;
  j["saturation"] = saturation;
  j["write_count"] = write_count;
  j["recall_count"] = recall_count;
  j["size_bytes"] = size_bytes;
  j["wal_size_bytes"] = wal_size_bytes;
  j["block_count"] = block_count;
  j["corrupted_blocks"] = corrupted_blocks;
  j["created_at"] = created_at;
  j["updated_at"] = updated_at;
  j["last_checkpoint"] = last_checkpoint;
  j["domain"] = domain;
  j["tier"] = tier;
  return j;
}

MatrixMemory::~MatrixMemory() {
  if (open_) {
    save();
    open_ = false;
  }
  if (wal_fd_ >= 0) ::close(wal_fd_);
}

bool MatrixMemory::create(const MatrixMemoryConfig& config, const std::string& base_dir) {
  std::lock_guard lock(mu_);
  config_ = config;
  dim_ = config.dimension;
  rank_ = config.rank;
  created_at_ = updated_at_ = now_s();
  matrix_.assign(static_cast<std::size_t>(std::max(dim_.load(), 0)) * std::max(rank_.load(), 0),
                 0.0f);
  fs::path dir = fs::path(base_dir) / config.tenant_id;
  std::error_code ec;
  fs::create_directories(dir, ec);
  fs::path file =
      dir / (config.user_id + "_" + config.domain + "_" + level_name(config.level) + ".qmm");
  config_.file_path = file.string();
  config_.wal_path = config_.file_path + ".wal";
  config_.checkpoint_path = config_.file_path + ".chk";
  if (wal_fd_ >= 0) ::close(wal_fd_);
  wal_fd_ = -1;
  if (!writeFile(config_.file_path)) {
    err_line("Failed to create file: " + config_.file_path);
    return false;
  }
  open_ = true;
  out_line("Created: " + config_.file_path + " (d=" + std::to_string(dim_) +
           ", r=" + std::to_string(rank_) + ", " + std::to_string(matrix_.size() * 4) + " bytes" +
           (config_.use_delta_rule ? ", DeltaNet v4" : ", v3 legacy") + ")");
  return true;
}

bool MatrixMemory::writeFile(const std::string& path) const {
  const std::int64_t elements = static_cast<std::int64_t>(matrix_.size());
  const std::uint64_t blocks = block_count(elements);
  std::vector<unsigned char> buf(kHeaderBytes + blocks * kBlockBytes, 0);
  unsigned char* h = buf.data();
  std::memcpy(h, "QMM\0", 4);
  put<std::uint32_t>(h, 4, kFormatVersion);
  put<std::uint32_t>(h, 8, static_cast<std::uint32_t>(std::max(dim_.load(), 0)));
  put<std::uint32_t>(h, 12, static_cast<std::uint32_t>(std::max(rank_.load(), 0)));
  put<std::uint32_t>(h, 16, static_cast<std::uint32_t>(std::max(config_.max_rank, 0)));
  h[20] = static_cast<std::uint8_t>(config_.level);
  h[22] = static_cast<std::uint8_t>(config_.format_mode & 0xFF);
  h[23] = config_.format_flags;
  put<std::uint32_t>(h, 24, kBlockBytes);
  put<std::uint32_t>(h, 28, static_cast<std::uint32_t>(blocks));
  put<std::uint64_t>(h, 32, write_count_.load());
  put<float>(h, 40, config_.decay);
  put<float>(h, 44, saturation_);
  put<std::int64_t>(h, 48, created_at_);
  put<std::int64_t>(h, 56, updated_at_);
  put<std::int64_t>(h, 64, last_checkpoint_);
  h[112] = config_.use_delta_rule ? 1 : 0;
  put<float>(h, 113, config_.beta_base);
  for (std::uint64_t b = 0; b < blocks; ++b) {
    const std::uint64_t first = b * kFloatsPerBlock;
    const std::uint64_t count =
        std::min<std::uint64_t>(kFloatsPerBlock, static_cast<std::uint64_t>(elements) - first);
    unsigned char* block = buf.data() + kHeaderBytes + b * kBlockBytes;
    std::memcpy(block + 4, matrix_.data() + first, count * 4);
    put<std::uint32_t>(block, 0, crc32(block + 4, count * 4));
  }
  // The primary file and the checkpoint are replaced whole: a crash leaves
  // the old copy or the new one.
  std::string error;
  if (!base::write_file_atomically(
          path, std::string_view(reinterpret_cast<const char*>(buf.data()), buf.size()), error)) {
    err_line("Write of " + path + " failed: " + error);
    return false;
  }
  return true;
}

bool MatrixMemory::readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  unsigned char h[kHeaderBytes];
  if (!in.read(reinterpret_cast<char*>(h), kHeaderBytes)) return false;
  if (std::memcmp(h, "QMM\0", 4) != 0) {
    err_line("Invalid magic in " + path);
    return false;
  }
  const std::uint32_t version = get<std::uint32_t>(h, 4);
  if (version > kFormatVersion) {
    err_line("Unsupported version " + std::to_string(version));
    return false;
  }
  dim_ = static_cast<std::int32_t>(get<std::uint32_t>(h, 8));
  rank_ = static_cast<std::int32_t>(get<std::uint32_t>(h, 12));
  config_.dimension = dim_;
  config_.max_rank = static_cast<std::int32_t>(get<std::uint32_t>(h, 16));
  config_.level = static_cast<MemoryLevel>(h[20]);
  config_.format_mode = h[22];
  config_.format_flags = h[23];
  const std::uint32_t blocks = get<std::uint32_t>(h, 28);
  write_count_ = get<std::uint64_t>(h, 32);
  config_.decay = get<float>(h, 40);
  saturation_ = get<float>(h, 44);
  created_at_ = get<std::int64_t>(h, 48);
  updated_at_ = get<std::int64_t>(h, 56);
  last_checkpoint_ = get<std::int64_t>(h, 64);
  if (version < kFormatVersion) {
    config_.use_delta_rule = true;
    config_.beta_base = 0.8f;
    err_line("Upgrading v" + std::to_string(version) + " → v" + std::to_string(kFormatVersion) +
             " (DeltaNet enabled)");
  } else {
    config_.use_delta_rule = h[112] != 0;
    config_.beta_base = get<float>(h, 113);
  }
  // Sizes come from the file: refuse shapes no memory of this system has.
  const std::uint64_t elements = static_cast<std::uint64_t>(std::max(dim_.load(), 0)) *
                                 static_cast<std::uint64_t>(std::max(rank_.load(), 0));
  if (dim_ < 0 || rank_ < 0 || elements > (1ull << 30)) {
    err_line("Implausible shape in " + path);
    return false;
  }
  matrix_.assign(elements, 0.0f);
  std::uint64_t corrupted = 0;
  std::vector<char> block(kBlockBytes);
  for (std::uint64_t b = 0; b < blocks && elements > 0; ++b) {
    const std::uint64_t first = b * kFloatsPerBlock;
    if (first >= elements) break;
    const std::uint64_t count = std::min<std::uint64_t>(kFloatsPerBlock, elements - first);
    if (!in.read(block.data(), kBlockBytes)) return false;
    std::uint32_t stored;
    std::memcpy(&stored, block.data(), 4);
    std::memcpy(matrix_.data() + first, block.data() + 4, count * 4);
    if (crc32(block.data() + 4, count * 4) != stored) {
      err_line("Block " + std::to_string(b) + " CRC mismatch!");
      ++corrupted;
    }
  }
  if (corrupted > 0) {
    err_line(std::to_string(corrupted) + " corrupted blocks in " + path);
  }
  return true;
}

void MatrixMemory::replay_wal_locked_() {
  std::ifstream in(config_.wal_path, std::ios::binary);
  if (!in) return;
  std::vector<unsigned char> rec;
  while (true) {
    std::uint32_t len = 0;
    if (!in.read(reinterpret_cast<char*>(&len), 4)) break;
    if (len == 0 || len > kMaxWalRecord) break;
    rec.resize(len);
    if (!in.read(reinterpret_cast<char*>(rec.data()), len)) break;  // torn tail
    if (len <= 36) continue;
    const unsigned char* r = rec.data();
    const std::uint32_t nk = get<std::uint32_t>(r, 24);
    if (nk > kMaxWalFloats || 28 + 4ull * nk + 4 > len) break;
    const std::uint32_t nv = get<std::uint32_t>(r, 28 + 4 * nk);
    if (nv > kMaxWalFloats || 36 + 4ull * (nk + nv) != len) break;
    if (crc32(r, len - 4) != get<std::uint32_t>(r, len - 4)) break;
    const std::uint64_t seq = get<std::uint64_t>(r, 0);
    if (seq <= wal_seq_) continue;
    const float strength = get<float>(r, 16);
    const float decay = get<float>(r, 20);
    std::vector<float> key(nk), value(nv);
    std::memcpy(key.data(), r + 28, 4ull * nk);
    std::memcpy(value.data(), r + 32 + 4ull * nk, 4ull * nv);
    // Recovery always applies the Hebbian rule, for delta-rule memories too.
    for (float& m : matrix_) m *= decay;
    outerProductUpdate(key, value, strength);
    wal_seq_ = seq;
    write_count_.fetch_add(1);
  }
}

bool MatrixMemory::load(const std::string& path) {
  std::lock_guard lock(mu_);
  config_.file_path = path;
  if (wal_fd_ >= 0) ::close(wal_fd_);
  wal_fd_ = -1;
  config_.wal_path = path + ".wal";
  config_.checkpoint_path = path + ".chk";
  if (!readFile(path)) {
    std::error_code ec;
    if (!fs::exists(config_.checkpoint_path, ec)) {
      err_line("Failed to load: " + path);
      return false;
    }
    err_line("Primary file corrupted, restoring from checkpoint");
    if (!readFile(config_.checkpoint_path)) {
      err_line("Checkpoint also corrupted: " + config_.checkpoint_path);
      return false;
    }
  }
  replay_wal_locked_();
  open_ = true;
  out_line("Loaded: " + path + " (d=" + std::to_string(dim_) + ", r=" + std::to_string(rank_) +
           ", writes=" + std::to_string(write_count_.load()) + ")");
  return true;
}

bool MatrixMemory::save() {
  std::lock_guard lock(mu_);
  if (!open_) return false;
  // The primary goes through a temporary file of its own and a rename.
  if (!writeFile(config_.file_path)) {
    err_line("Failed to write temp file");
    return false;
  }
  std::error_code ec;
  if (fs::exists(config_.wal_path, ec)) {
    // Records the primary already holds are skipped at replay by their
    // sequence numbers, so a WAL that could not be cut costs time, not data.
    if (::truncate(config_.wal_path.c_str(), 0) != 0) {
      err_line("WAL truncate failed: " + config_.wal_path + ": " + std::strerror(errno));
      return false;
    }
    wal_size_ = 0;
  }
  return true;
}

bool MatrixMemory::checkpoint() {
  std::lock_guard lock(mu_);
  if (!open_) return false;
  if (!writeFile(config_.checkpoint_path)) {
    err_line("Checkpoint failed");
    return false;
  }
  last_checkpoint_ = now_s();
  out_line("Checkpoint saved: " + config_.checkpoint_path);
  return true;
}

std::vector<float> MatrixMemory::matVecMultiply(const std::vector<float>& key) const {
  const std::size_t d = static_cast<std::size_t>(dim_), r = static_cast<std::size_t>(rank_);
  std::vector<float> k(r);
  for (std::size_t j = 0; j < r; ++j) k[j] = key[j % key.size()];
  std::vector<float> y(d, 0.0f);
  kernels::mat_vec(matrix_.data(), d, r, k.data(), y.data());
  return y;
}

void MatrixMemory::outerProductUpdate(const std::vector<float>& key,
                                      const std::vector<float>& value, float scale) {
  const std::size_t d = static_cast<std::size_t>(dim_), r = static_cast<std::size_t>(rank_);
  if (key.empty() || value.empty()) return;
  std::vector<float> k(r);
  for (std::size_t j = 0; j < r; ++j) k[j] = key[j % key.size()];
  for (std::size_t i = 0; i < d && i < value.size(); ++i) {
    const float t = value[i] * scale;
    if (std::fabs(t) < 1e-10f) continue;
    float* row = matrix_.data() + i * r;
    for (std::size_t j = 0; j < r; ++j) row[j] += k[j] * t;
  }
}

bool MatrixMemory::store(const std::vector<float>& key_in, const std::vector<float>& value_in,
                         float strength) {
  std::lock_guard lock(mu_);
  if (!open_ || key_in.empty() || value_in.empty()) return false;
  if (dim_ <= 0) {
    dim_ = static_cast<std::int32_t>(key_in.size());
    config_.dimension = dim_;
    matrix_.assign(static_cast<std::size_t>(dim_) * rank_, 0.0f);
    out_line("Auto-detected dimension=" + std::to_string(dim_) +
             " from first store (rank=" + std::to_string(rank_) + ")");
  }
  const std::size_t d = static_cast<std::size_t>(dim_), r = static_cast<std::size_t>(rank_);
  std::vector<float> key = key_in, value = value_in;
  if (key.size() != d || value.size() != d) {
    const std::uint64_t writes = write_count_.load();
    if (writes == 0 || writes % 1000 == 0) {
      err_line("Dimension projection: input key=" + std::to_string(key.size()) +
               " val=" + std::to_string(value.size()) + " → matrix d=" + std::to_string(d) +
               " (modular wrap)");
    }
    key = projected(key, d);
    value = projected(value, d);
  }
  key = normalised(key);
  value = normalised(value);

  // Journal first: the record is in the log before the matrix changes.
  ++wal_seq_;
  const std::uint32_t len = static_cast<std::uint32_t>(36 + 4 * (key.size() + value.size()));
  std::vector<unsigned char> rec(4 + len);
  put<std::uint32_t>(rec.data(), 0, len);
  unsigned char* r0 = rec.data() + 4;
  put<std::uint64_t>(r0, 0, wal_seq_);
  put<std::int64_t>(r0, 8, now_s());
  put<float>(r0, 16, strength);
  put<float>(r0, 20, config_.decay);
  put<std::uint32_t>(r0, 24, static_cast<std::uint32_t>(key.size()));
  std::memcpy(r0 + 28, key.data(), key.size() * 4);
  put<std::uint32_t>(r0, 28 + key.size() * 4, static_cast<std::uint32_t>(value.size()));
  std::memcpy(r0 + 32 + key.size() * 4, value.data(), value.size() * 4);
  put<std::uint32_t>(r0, len - 4, crc32(r0, len - 4));
  // The log stays open between stores; O_APPEND keeps writes at its end even
  // after save() truncates it.
  if (wal_fd_ < 0) {
    wal_fd_ = ::open(config_.wal_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  }
  if (wal_fd_ >= 0 &&
      ::write(wal_fd_, rec.data(), rec.size()) == static_cast<ssize_t>(rec.size())) {
    wal_size_ += rec.size();
  }

  const float decay = config_.decay;
  if (!config_.use_delta_rule) {
    for (float& m : matrix_) m *= decay;
    outerProductUpdate(key, value, strength);
  } else {
    const std::vector<float> p = matVecMultiply(key);
    const float rate = config_.beta_base * strength;
    std::vector<float> k(r), e(d);
    for (std::size_t j = 0; j < r; ++j) k[j] = key[j % d];
    for (std::size_t i = 0; i < d; ++i) e[i] = (value[i] - p[i]) * rate;
    kernels::decay_rank1(matrix_.data(), d, r, decay, k.data(), e.data());
  }
  const std::uint64_t writes = write_count_.fetch_add(1) + 1;
  updated_at_ = now_s();

  if (writes % 10 == 0) {
    bool replaced = false;
    float largest = 0;
    for (float& m : matrix_) {
      if (!std::isfinite(m)) {
        m = 0;
        replaced = true;
      } else {
        largest = std::max(largest, std::fabs(m));
      }
    }
    if (largest > 100) {
      const float scale = 1.0f / largest;
      for (float& m : matrix_) m *= scale;
    }
    if (replaced) {
      err_line("WARNING: NaN/inf detected in matrix data after " + std::to_string(writes) +
               " writes — clamped to safe range");
    }
  }
  recent_writes_.push_back({std::move(key), std::move(value)});
  if (recent_writes_.size() > kRecentWrites) recent_writes_.pop_front();
  if (config_.auto_expand && writes % 10 == 0) measure_saturation_locked_();
  return true;
}

void MatrixMemory::measure_saturation_locked_() {
  // M·key for every recent write in one pass over the matrix. Each product
  // is summed in component order, exactly as a plain loop would.
  const std::size_t d = static_cast<std::size_t>(dim_), r = static_cast<std::size_t>(rank_);
  const std::size_t n = recent_writes_.size();
  const std::size_t stride = kernels::multi_vec_stride(n);
  std::vector<float> keys_t(r * stride, 0.0f), ys(stride * d);
  for (std::size_t w = 0; w < n; ++w) {
    const std::vector<float>& key = recent_writes_[w].key;
    for (std::size_t j = 0; j < r; ++j) keys_t[j * stride + w] = key[j % key.size()];
  }
  kernels::mat_multi_vec(matrix_.data(), d, r, keys_t.data(), stride, ys.data());
  double sum = 0;
  int counted = 0;
  for (std::size_t w = 0; w < n; ++w) {
    std::vector<float> y(ys.begin() + static_cast<std::ptrdiff_t>(w * d),
                         ys.begin() + static_cast<std::ptrdiff_t>((w + 1) * d));
    if (norm(y) < 1e-8f) continue;
    y = normalised(y);
    ++counted;
    const std::vector<float>& value = recent_writes_[w].value;
    const float vn = norm(value);
    if (vn > 1e-8f) {
      float dotp = 0;
      const std::size_t m = std::min(y.size(), value.size());
      for (std::size_t i = 0; i < m; ++i) dotp += y[i] * value[i];
      sum += 1.0 - dotp / vn;
    }
  }
  saturation_ = counted ? static_cast<float>(sum / counted) : 0.0f;
  if (saturation_ > config_.saturation_threshold && rank_ < config_.max_rank) {
    const std::int32_t grown = std::min(rank_ * 2, config_.max_rank);
    if (grown <= rank_) return;
    out_line("Saturation " + std::to_string(saturation_) + " > " +
             std::to_string(config_.saturation_threshold) + ", expanding rank " +
             std::to_string(rank_) + " → " + std::to_string(grown));
    const std::size_t d = static_cast<std::size_t>(dim_);
    std::vector<float> bigger(d * grown, 0.0f);
    for (std::size_t i = 0; i < d; ++i) {
      std::memcpy(bigger.data() + i * grown, matrix_.data() + i * rank_, rank_ * sizeof(float));
    }
    matrix_.swap(bigger);
    rank_ = grown;
    out_line("Rank expanded to " + std::to_string(rank_) + " (" +
             std::to_string(matrix_.size() * 4) + " bytes)");
  }
}

RecallResult MatrixMemory::recall(const std::vector<float>& key_in) {
  std::lock_guard lock(mu_);
  RecallResult result;
  if (dim_ < 1 || key_in.empty()) return result;
  std::vector<float> key = normalised(key_in);
  key = projected(key, static_cast<std::size_t>(dim_));
  if (!open_) return result;
  const auto start = std::chrono::steady_clock::now();
  std::vector<float> y = matVecMultiply(key);
  bool replaced = false;
  for (float& v : y) {
    if (!std::isfinite(v)) {
      v = 0;
      replaced = true;
    }
  }
  if (!replaced) {
    float dotp = 0, ny = 0, nk = 0;
    for (std::size_t i = 0; i < y.size(); ++i) {
      dotp += y[i] * key[i];
      ny += y[i] * y[i];
      nk += key[i] * key[i];
    }
    const float denom = std::sqrt(ny) * std::sqrt(nk);
    result.confidence = denom > 1e-8f ? std::clamp(dotp / denom, 0.0f, 1.0f) : 0.0f;
  }
  result.value = norm(y) > 1e-8f ? normalised(y) : y;
  result.latency_us =
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start)
          .count() /
      1000;
  recall_count_.fetch_add(1);
  return result;
}

MatrixMemoryStats MatrixMemory::getStats() const {
  MatrixMemoryStats s;
  s.id = config_.id;
  s.dimension = dim_;
  s.rank = rank_;
  s.max_rank = config_.max_rank;
  s.level = level_name(config_.level);
  s.saturation = saturation_;
  s.write_count = write_count_.load();
  s.recall_count = recall_count_.load();
  s.size_bytes =
      static_cast<std::uint64_t>(std::max(dim_.load(), 0)) * std::max(rank_.load(), 0) * 4 + 128;
  std::error_code ec;
  auto wal = fs::file_size(config_.wal_path, ec);
  s.wal_size_bytes = ec ? 0 : wal;
  s.block_count =
      block_count(static_cast<std::int64_t>(std::max(dim_.load(), 0)) * std::max(rank_.load(), 0));
  s.corrupted_blocks = 0;
  s.created_at = created_at_;
  s.updated_at = updated_at_;
  s.last_checkpoint = last_checkpoint_;
  s.domain = config_.domain;
  s.tier = config_.tier;
  return s;
}

}  // namespace ostrel::data
