#pragma once

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "base/no_copy.h"

namespace ostrel::base {

// Append-only JSON-lines journals: one compact JSON object per line.

// Appends `line` and a newline in one write and flushes it to disk before
// returning. False with a reason when the file cannot be written.
bool append_journal_line(const std::filesystem::path& path, std::string_view line,
                         std::string& error);

// What a replay met besides the records it applied.
struct ReplayStats {
  std::size_t lines = 0;       // complete lines read
  std::size_t skipped = 0;     // complete lines that did not parse or were refused
  std::size_t torn_bytes = 0;  // bytes of an unfinished last line, cut off
};

// Calls `apply` for every complete line that parses as JSON, in order; lines
// that do not parse are skipped. A torn last line (no trailing newline, as a
// crash mid-append leaves it) is skipped and cut off the file so that the next
// append starts on a clean line. Returns how many records `apply` accepted.
std::size_t replay_journal(const std::filesystem::path& path,
                           const std::function<bool(const nlohmann::json&)>& apply,
                           ReplayStats* stats = nullptr);

// The same for callers that read lines themselves: `apply` gets each
// complete line (without its newline).
std::size_t replay_journal_lines(const std::filesystem::path& path,
                                 const std::function<bool(std::string_view)>& apply,
                                 ReplayStats* stats = nullptr);

// An append-only file kept open: whole lines go out in one write each, so a
// record written before a process crash is in the file afterwards (the
// kernel holds it); sync() makes what was written survive a power loss too.
// Thread-safe: mu_ serialises appends and syncs.
class AppendLog : private base::NoCopy {
 public:
  explicit AppendLog(std::filesystem::path path) : path_(std::move(path)) {}
  ~AppendLog();

  // Appends `bytes` (whole lines) in one write; with `sync`, also waits for
  // the disk. False with a reason, and nothing half-written is left behind
  // as far as the file system allows (a short write is cut off again).
  bool append(std::string_view bytes, bool sync, std::string& error);
  // Flushes what was appended since the last sync to the disk.
  bool sync(std::string& error);
  bool dirty() const;
  void close();
  const std::filesystem::path& path() const { return path_; }

 private:
  bool open_locked_(std::string& error);
  std::filesystem::path path_;
  mutable std::mutex mu_;  // guards fd_ and dirty_
  int fd_ = -1;
  bool dirty_ = false;
};

// Replaces the journal with `lines` (each without its newline) through a
// temporary file "<path>.tmp" and a rename.
bool rewrite_journal(const std::filesystem::path& path, const std::vector<std::string>& lines,
                     std::string& error);

// The journal of an in-memory registry. The registry calls append() under
// its own mutex for every change; replay() feeds the journal back through the
// registry's ordinary mutators, during which append() writes nothing.
// Thread-safety: as the owning registry's mutex provides.
class RegistryJournal {
 public:
  explicit RegistryJournal(std::filesystem::path path) : path_(std::move(path)) {}

  // True when the record is on disk (or there is nothing to write: no path,
  // or a replay in progress).
  bool append(const nlohmann::json& record);
  std::size_t replay(const std::function<bool(const nlohmann::json&)>& apply);
  bool replaying() const { return replaying_.load(); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
  std::atomic<bool> replaying_{false};
};

}  // namespace ostrel::base
