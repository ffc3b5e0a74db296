#include "base/durable_file.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace ostrel::base {

namespace fs = std::filesystem;

namespace {

std::string errno_text(const char* step) { return std::string(step) + ": " + std::strerror(errno); }

fs::path temporary_for(const fs::path& target) {
  static std::atomic<std::uint64_t> counter{0};
  return target.parent_path() /
         ("." + target.filename().string() + ".tmp." + std::to_string(::getpid()) + "." +
          std::to_string(counter.fetch_add(1)));
}

bool write_all(int fd, std::string_view data) {
  std::size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

bool sync_directory(const fs::path& dir, std::string& error) {
  int fd = ::open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    error = errno_text("open directory");
    return false;
  }
  bool ok = ::fsync(fd) == 0;
  if (!ok) error = errno_text("fsync directory");
  ::close(fd);
  return ok;
}

AtomicFileWriter::AtomicFileWriter(fs::path target) : target_(std::move(target)) {}

AtomicFileWriter::~AtomicFileWriter() { abandon(); }

bool AtomicFileWriter::open(std::string& error) {
  std::error_code ec;
  if (target_.has_parent_path()) {
    fs::create_directories(target_.parent_path(), ec);
    if (ec) {
      error = "cannot create directory: " + ec.message();
      return false;
    }
  }
  tmp_ = temporary_for(target_);
  fd_ = ::open(tmp_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd_ < 0) {
    error = errno_text("open");
    tmp_.clear();
    return false;
  }
  return true;
}

bool AtomicFileWriter::write(std::string_view data, std::string& error) {
  if (fd_ < 0) {
    error = "write: not open";
    return false;
  }
  if (!write_all(fd_, data)) {
    error = errno_text("write");
    return false;
  }
  size_ += data.size();
  synced_ = false;
  return true;
}

bool AtomicFileWriter::sync(std::string& error) {
  if (fd_ < 0) {
    error = "sync: not open";
    return false;
  }
  if (::fdatasync(fd_) != 0) {
    error = errno_text("fdatasync");
    return false;
  }
  synced_ = true;
  return true;
}

bool AtomicFileWriter::commit(std::string& error, bool replace) {
  if (fd_ < 0) {
    error = "commit: not open";
    return false;
  }
  if (!synced_ && ::fdatasync(fd_) != 0) {
    error = errno_text("fdatasync");
    abandon();
    return false;
  }
  if (target_.has_parent_path()) {
    std::error_code ec;
    fs::create_directories(target_.parent_path(), ec);
  }
  int fd = fd_;
  fd_ = -1;
  if (::close(fd) != 0) {
    error = errno_text("close");
    abandon();
    return false;
  }
  int rc = replace
               ? ::rename(tmp_.c_str(), target_.c_str())
               : ::renameat2(AT_FDCWD, tmp_.c_str(), AT_FDCWD, target_.c_str(), RENAME_NOREPLACE);
  if (rc != 0) {
    error = !replace && errno == EEXIST ? "file_exists" : errno_text("rename");
    abandon();
    return false;
  }
  tmp_.clear();
  return sync_directory(target_.parent_path(), error);
}

void AtomicFileWriter::abandon() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
  if (!tmp_.empty()) {
    ::unlink(tmp_.c_str());
    tmp_.clear();
  }
}

bool write_file_atomically(const fs::path& path, std::string_view content, std::string& error) {
  AtomicFileWriter w(path);
  return w.open(error) && w.write(content, error) && w.commit(error);
}

bool is_temporary_name(std::string_view name) {
  if (name.size() > 5 && name.substr(name.size() - 5) == ".part") return true;
  std::size_t at = name.rfind(".tmp.");
  if (at == std::string_view::npos) return false;
  // ".tmp." followed by digits and dots only: a process id and a counter.
  for (char c : name.substr(at + 5)) {
    if ((c < '0' || c > '9') && c != '.') return false;
  }
  return at + 5 < name.size();
}

std::size_t remove_stale_temporaries(const fs::path& dir, bool recursive) {
  std::size_t removed = 0;
  std::error_code ec;
  auto consider = [&](const fs::directory_entry& e) {
    std::error_code type_ec;
    if (!e.is_regular_file(type_ec)) return;
    if (!is_temporary_name(e.path().filename().string())) return;
    if (fs::remove(e.path(), type_ec)) ++removed;
  };
  if (recursive) {
    for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
      consider(*it);
    }
  } else {
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
      consider(*it);
    }
  }
  return removed;
}

}  // namespace ostrel::base
