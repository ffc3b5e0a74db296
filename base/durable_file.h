#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "base/no_copy.h"

// Whole files written so that readers and a crash see the old content or the
// new one, never a mix. Every write goes to a temporary file of its own
// beside the target (".<name>.tmp.<pid>.<n>", unique per write, so two
// threads writing one file never share a temporary), is flushed to disk,
// renamed over the target, and the directory is synced so that the rename
// itself survives a crash. Every failing step is reported and the temporary
// removed.
namespace ostrel::base {

// Writes `content` as the whole of `path`, creating parent directories.
bool write_file_atomically(const std::filesystem::path& path, std::string_view content,
                           std::string& error);

// The same for content that arrives in pieces (uploads, downloads): write()
// appends to the temporary; commit() makes it the target. Abandoned (the
// temporary removed) unless committed.
// Not thread-safe: one writer, one thread at a time.
class AtomicFileWriter : private base::NoCopy {
 public:
  explicit AtomicFileWriter(std::filesystem::path target);
  ~AtomicFileWriter();

  bool open(std::string& error);
  bool write(std::string_view data, std::string& error);
  // Flushes what was written to the disk now (commit then has nothing left
  // to flush): a caller may run it on another thread while it does other
  // work, as long as it writes nothing meanwhile.
  bool sync(std::string& error);
  // Content-addressed stores learn the name from the bytes: commit() then
  // renames to `target` instead (on the same file system; its directory is
  // created there).
  void retarget(std::filesystem::path target) { target_ = std::move(target); }
  std::uint64_t size() const { return size_; }
  const std::filesystem::path& temporary() const { return tmp_; }
  // Syncs and renames over the target. With `replace` false an existing
  // target is kept and the commit fails with "file_exists".
  bool commit(std::string& error, bool replace = true);
  void abandon();

 private:
  std::filesystem::path target_;
  std::filesystem::path tmp_;
  int fd_ = -1;
  std::uint64_t size_ = 0;
  bool synced_ = false;  // nothing written since the last sync()
};

// Makes the entries of `dir` (a rename, a new file) durable.
bool sync_directory(const std::filesystem::path& dir, std::string& error);

// True for the names of temporaries made above (and the older "*.tmp.<pid>"
// and "*.part" forms): never listed as content, removed at start.
bool is_temporary_name(std::string_view filename);

// Removes temporaries that writes cut short by a crash left in `dir` (and,
// with `recursive`, below it). Returns how many were removed.
std::size_t remove_stale_temporaries(const std::filesystem::path& dir, bool recursive = false);

}  // namespace ostrel::base
