#include "clusterfs/chunk_store.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
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

std::string errno_text() { return std::strerror(errno); }

}  // namespace

ChunkStore::ChunkStore(fs::path root) : root_(std::move(root)) {
  std::error_code ec;
  fs::create_directories(root_, ec);
  base::remove_stale_temporaries(root_, /*recursive=*/true);  // writes a crash cut short
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
  // Through a temporary file beside the chunk (or, while the name is not
  // known yet, in the root), flushed to disk before the rename, so an
  // acknowledged put survives a crash and a reader never sees part of one.
  base::AtomicFileWriter file(overlap ? root_ / "chunk" : final_path);
  if (!file.open(error) ||
      !file.write(std::string_view(static_cast<const char*>(data), length), error)) {
    error = "write chunk: " + error;
    return false;
  }
  if (overlap) {
    std::string sync_error;
    bool synced = false;
    std::thread syncer([&] { synced = file.sync(sync_error); });
    id = hash(data, length);
    syncer.join();
    if (!synced) {
      error = "write chunk: " + sync_error;
      return false;
    }
    final_path = path_for_(id);
    if (fs::exists(final_path, ec)) {  // the writer removes its temporary
      dedup_hits_.fetch_add(1);
      chunk_id = id;
      return true;
    }
    file.retarget(final_path);
  }
  // Another writer of the same bytes may have won the race: same content.
  if (!file.commit(error) && error != "file_exists") {
    error = "commit chunk: " + error;
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
