#include "base/journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "base/durable_file.h"
#include "base/json.h"

namespace ostrel::base {

namespace fs = std::filesystem;

bool append_journal_line(const fs::path& path, std::string_view line, std::string& error) {
  std::error_code ec;
  if (path.has_parent_path()) fs::create_directories(path.parent_path(), ec);
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) {
    error = std::string("open ") + path.string() + ": " + std::strerror(errno);
    return false;
  }
  std::string buf;
  buf.reserve(line.size() + 1);
  buf.append(line);
  buf += '\n';
  size_t written = 0;
  bool ok = true;
  while (written < buf.size()) {
    ssize_t n = ::write(fd, buf.data() + written, buf.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      ok = false;
      break;
    }
    written += static_cast<size_t>(n);
  }
  if (ok && ::fdatasync(fd) != 0) ok = false;
  if (!ok) error = std::string("write ") + path.string() + ": " + std::strerror(errno);
  ::close(fd);
  return ok;
}

std::size_t replay_journal_lines(const fs::path& path,
                                 const std::function<bool(std::string_view)>& apply,
                                 ReplayStats* stats) {
  ReplayStats local;
  ReplayStats& st = stats ? *stats : local;
  std::ifstream in(path, std::ios::binary);
  if (!in) return 0;
  // Read a megabyte at a time: a journal of any size replays in the room of
  // one chunk and its longest line, not in copies of the whole file.
  std::vector<char> chunk(1 << 20);
  std::string carry;        // the line begun in an earlier chunk
  std::uint64_t whole = 0;  // bytes up to the end of the last complete line
  std::size_t applied = 0;
  auto take = [&](std::string_view line) {
    if (!line.empty()) {
      ++st.lines;
      if (apply(line)) {
        ++applied;
      } else {
        ++st.skipped;
      }
    }
    whole += line.size() + 1;
  };
  while (in) {
    in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    const auto got = static_cast<std::size_t>(in.gcount());
    if (got == 0) break;
    const std::string_view view(chunk.data(), got);
    std::size_t start = 0;
    for (std::size_t nl; (nl = view.find('\n', start)) != std::string_view::npos; start = nl + 1) {
      if (carry.empty()) {
        take(view.substr(start, nl - start));
      } else {
        carry.append(view.substr(start, nl - start));
        take(carry);
        carry.clear();
      }
    }
    carry.append(view.substr(start));
  }
  in.close();
  if (!carry.empty()) {
    st.torn_bytes = carry.size();
    // Cut the torn tail so that the next append begins on its own line.
    std::error_code ec;
    fs::resize_file(path, whole, ec);
  }
  return applied;
}

std::size_t replay_journal(const fs::path& path,
                           const std::function<bool(const nlohmann::json&)>& apply,
                           ReplayStats* stats) {
  return replay_journal_lines(
      path,
      [&apply](std::string_view line) {
        nlohmann::json record = parse_json(line);
        return !record.is_discarded() && apply(record);
      },
      stats);
}

AppendLog::~AppendLog() { close(); }

bool AppendLog::open_locked_(std::string& error) {
  if (fd_ >= 0) return true;
  std::error_code ec;
  if (path_.has_parent_path()) fs::create_directories(path_.parent_path(), ec);
  fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd_ < 0) {
    error = "open " + path_.filename().string() + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

bool AppendLog::append(std::string_view bytes, bool sync, std::string& error) {
  std::lock_guard lock(mu_);
  if (!open_locked_(error)) return false;
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      error = "write " + path_.filename().string() + ": " + std::strerror(errno);
      // A partial record must not stay ahead of the next one. Appending
      // leaves the offset at the end of what was written, so the record
      // began `done` bytes before it.
      if (done > 0) {
        const off_t end = ::lseek(fd_, 0, SEEK_CUR);
        if (end < static_cast<off_t>(done) ||
            ::ftruncate(fd_, end - static_cast<off_t>(done)) != 0) {
          error += " (and the partial record could not be cut off)";
        }
      }
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  dirty_ = true;
  if (!sync) return true;
  if (::fdatasync(fd_) != 0) {
    error = "fdatasync " + path_.filename().string() + ": " + std::strerror(errno);
    return false;
  }
  dirty_ = false;
  return true;
}

bool AppendLog::sync(std::string& error) {
  std::lock_guard lock(mu_);
  if (fd_ < 0 || !dirty_) return true;
  if (::fdatasync(fd_) != 0) {
    error = "fdatasync " + path_.filename().string() + ": " + std::strerror(errno);
    return false;
  }
  dirty_ = false;
  return true;
}

bool AppendLog::dirty() const {
  std::lock_guard lock(mu_);
  return dirty_;
}

void AppendLog::close() {
  std::lock_guard lock(mu_);
  if (fd_ >= 0) {
    if (dirty_) ::fdatasync(fd_);
    ::close(fd_);
    fd_ = -1;
    dirty_ = false;
  }
}

bool RegistryJournal::append(const nlohmann::json& record) {
  if (replaying_ || path_.empty()) return true;
  std::string error;
  return append_journal_line(path_, dump_json(record), error);
}

std::size_t RegistryJournal::replay(const std::function<bool(const nlohmann::json&)>& apply) {
  if (path_.empty()) return 0;
  replaying_ = true;
  std::size_t n = replay_journal(path_, apply);
  replaying_ = false;
  return n;
}

bool rewrite_journal(const fs::path& path, const std::vector<std::string>& lines,
                     std::string& error) {
  std::string content;
  for (const auto& l : lines) {
    content += l;
    content += '\n';
  }
  return write_file_atomically(path, content, error);
}

}  // namespace ostrel::base
