#include "base/durable_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ostrel::base {

namespace fs = std::filesystem;

bool write_file_atomically(const fs::path& path, std::string_view content, std::string& error) {
  std::error_code ec;
  if (path.has_parent_path()) {
    fs::create_directories(path.parent_path(), ec);
    if (ec) {
      error = "cannot create " + path.parent_path().string() + ": " + ec.message();
      return false;
    }
  }
  fs::path tmp = path;
  tmp += ".tmp." + std::to_string(::getpid());
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    error = std::string("open: ") + std::strerror(errno);
    return false;
  }
  auto fail = [&](const char* step) {
    error = std::string(step) + ": " + std::strerror(errno);
    ::close(fd);
    ::unlink(tmp.c_str());
    return false;
  };
  size_t written = 0;
  while (written < content.size()) {
    ssize_t n = ::write(fd, content.data() + written, content.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      return fail("write");
    }
    written += static_cast<size_t>(n);
  }
  if (::fsync(fd) != 0) return fail("fsync");
  if (::close(fd) != 0) {
    error = std::string("close: ") + std::strerror(errno);
    ::unlink(tmp.c_str());
    return false;
  }
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    error = std::string("rename: ") + std::strerror(errno);
    ::unlink(tmp.c_str());
    return false;
  }
  // Make the rename itself durable.
  int dir = ::open(path.has_parent_path() ? path.parent_path().c_str() : ".", O_RDONLY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  return true;
}

}  // namespace ostrel::base
