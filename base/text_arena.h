#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace ostrel::base {

// Append-only storage for many small texts that live as long as their owner:
// texts are laid out one after another in 1 MiB blocks (no per-text
// allocation, no allocator header, neighbours in memory), and never move, so
// pointers into the arena stay valid. A text larger than a quarter block gets
// a block of its own. From the second block on, a new block's pages are
// faulted in with one system call rather than a trap each (an arena that
// has filled one megabyte is likely to fill the next; small arenas hold only
// the pages they touched). Not thread-safe: the owner serialises calls.
class TextArena {
 public:
  static constexpr std::size_t kBlock = std::size_t{1} << 20;

  // `n` uninitialised bytes, valid until the arena is cleared or destroyed.
  char* allocate(std::size_t n) {
    if (n > kBlock / 4) {
      blocks_.push_back(std::make_unique_for_overwrite<char[]>(n));
      return blocks_.back().get();
    }
    if (n > left_) {
      blocks_.push_back(std::make_unique_for_overwrite<char[]>(kBlock));
      next_ = blocks_.back().get();
      left_ = kBlock;
      if (blocks_.size() > 1) populate_(next_, kBlock);
    }
    char* p = next_;
    next_ += n;
    left_ -= n;
    return p;
  }

  void clear() {
    blocks_.clear();
    next_ = nullptr;
    left_ = 0;
  }

 private:
  // Where the kernel refuses, the writes fault the pages in as usual.
  static void populate_(char* p, std::size_t n) {
#ifdef MADV_POPULATE_WRITE
    constexpr std::uintptr_t kPage = 4096;
    const auto from = (reinterpret_cast<std::uintptr_t>(p) + kPage - 1) & ~(kPage - 1);
    const auto to = (reinterpret_cast<std::uintptr_t>(p) + n) & ~(kPage - 1);
    if (to > from) ::madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE);
#else
    (void)p;
    (void)n;
#endif
  }

  std::vector<std::unique_ptr<char[]>> blocks_;
  char* next_ = nullptr;  // the free space of the current block
  std::size_t left_ = 0;
};

}  // namespace ostrel::base
