#include "clusterfs/chunk_store.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <thread>

#include "base/durable_file.h"
#include "base/encoding.h"

namespace ostrel::clusterfs {
namespace {

namespace fs = std::filesystem;

bool valid_id(const std::string& id) {
  if (id.empty() || id.size() > 128) return false;
  for (char c : id) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

std::uint64_t temp_suffix() {
  thread_local std::mt19937_64 rng(
      (static_cast<std::uint64_t>(std::random_device{}()) << 32) ^
      static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
  return rng();
}

std::string errno_text() { return std::strerror(errno); }

}  // namespace

ChunkStore::ChunkStore(fs::path root) : root_(std::move(root)) {
  std::error_code ec;
  fs::create_directories(root_, ec);
}

std::string ChunkStore::hash(const void* data, std::size_t length) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_Digest(data, length, md, &len, EVP_sha256(), nullptr);
  return base::to_hex(md, len);
}

fs::path ChunkStore::path_for_(const std::string& id) const {
  if (!valid_id(id)) return {};
  if (id.size() < 2) return root_ / id;
  return root_ / id.substr(0, 2) / id.substr(2);
}

bool ChunkStore::put(const void* data, std::size_t length, std::string& chunk_id,
                     std::string& error) {
  if (length > kMaxChunkBytes) {
    error = "chunk exceeds " + std::to_string(kMaxChunkBytes) + " bytes";
    return false;
  }
  if (length == 0) {
    error = "empty chunk rejected";
    return false;
  }
  // Small chunks are hashed first so that a duplicate costs no write. Large
  // ones are written to a temporary file in the root first and hashed while
  // that file is flushed to disk: flush and hash take turns otherwise.
  const bool overlap = length >= kOverlapThreshold;
  std::string id;
  fs::path final_path;
  std::error_code ec;
  if (!overlap) {
    id = hash(data, length);
    final_path = path_for_(id);
    if (fs::exists(final_path, ec)) {
      dedup_hits_.fetch_add(1);
      chunk_id = id;
      return true;
    }
  }
  const fs::path tmp_dir = overlap ? root_ : final_path.parent_path();
  fs::create_directories(tmp_dir, ec);
  if (ec) {
    error = "mkdir " + tmp_dir.string() + ": " + ec.message();
    return false;
  }
  fs::path tmp = tmp_dir / ("." + std::to_string(temp_suffix()) + ".tmp");
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    error = "open tmp " + tmp.string() + ": " + errno_text();
    return false;
  }
  auto discard = [&](const std::string& why) {
    error = why;
    ::unlink(tmp.c_str());
    return false;
  };
  const char* p = static_cast<const char*>(data);
  std::size_t done = 0;
  while (done < length) {
    ssize_t n = ::write(fd, p + done, length - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      std::string why = "write tmp " + tmp.string() + ": " + errno_text();
      ::close(fd);
      return discard(why);
    }
    done += static_cast<std::size_t>(n);
  }
  // On disk before it becomes visible: an acknowledged put survives a crash.
  int sync_errno = 0;
  if (overlap) {
    std::thread syncer([&] { sync_errno = ::fdatasync(fd) == 0 ? 0 : errno; });
    id = hash(data, length);
    syncer.join();
    final_path = path_for_(id);
  } else if (::fdatasync(fd) != 0) {
    sync_errno = errno;
  }
  if (::close(fd) != 0 && sync_errno == 0) sync_errno = errno;
  if (sync_errno != 0) {
    return discard("write tmp " + tmp.string() + ": " + std::strerror(sync_errno));
  }
  if (overlap) {
    if (fs::exists(final_path, ec)) {
      ::unlink(tmp.c_str());
      dedup_hits_.fetch_add(1);
      chunk_id = id;
      return true;
    }
    fs::create_directories(final_path.parent_path(), ec);
    if (ec) return discard("mkdir " + final_path.parent_path().string() + ": " + ec.message());
  }
  if (::rename(tmp.c_str(), final_path.c_str()) != 0) {
    return discard(std::string("rename failed: ") + errno_text());
  }
  // The rename itself must survive a crash before the put is acknowledged.
  if (std::string sync_error; !base::sync_directory(final_path.parent_path(), sync_error)) {
    error = "sync " + final_path.parent_path().string() + ": " + sync_error;
    return false;
  }
  written_.fetch_add(1);
  chunk_id = id;
  return true;
}

bool ChunkStore::get(const std::string& id, std::string& bytes, std::string& error) const {
  const fs::path path = path_for_(id);
  if (path.empty()) {
    error = "chunk not present: " + id;
    return false;
  }
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    error = errno == ENOENT ? "chunk not present: " + id
                            : "open " + path.string() + ": " + errno_text();
    return false;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    error = "stat " + path.string() + ": " + errno_text();
    ::close(fd);
    return false;
  }
  bytes.resize(static_cast<std::size_t>(st.st_size));
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      error = "read " + path.string() + ": " + (n == 0 ? std::string("short file") : errno_text());
      ::close(fd);
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  ::close(fd);
  return true;
}

bool ChunkStore::has(const std::string& id) const {
  const fs::path path = path_for_(id);
  std::error_code ec;
  return !path.empty() && fs::is_regular_file(path, ec);
}

bool ChunkStore::remove(const std::string& id, std::string& error) {
  const fs::path path = path_for_(id);
  std::error_code ec;
  if (path.empty() || !fs::exists(path, ec)) {
    error = "no such chunk: " + id;
    return false;
  }
  if (::unlink(path.c_str()) != 0) {
    error = "remove " + path.string() + ": " + errno_text();
    return false;
  }
  return true;
}

}  // namespace ostrel::clusterfs
