#pragma once

#include <cstddef>

namespace ostrel::data {

// Append-only float storage for a namespace's vectors. One anonymous mapping
// that grows by remapping, so growing never copies the rows already held.
// Once past a megabyte, the pages ahead of the end are faulted in a megabyte
// at a time, so filling it takes one system call per 256 pages instead of a
// trap per page; it then holds at most one megabyte beyond its contents in
// memory (the rest of a doubled mapping stays untouched address space). Not
// thread-safe: the owner serialises writers against readers.
class RowBuffer {
 public:
  RowBuffer() = default;
  ~RowBuffer();
  RowBuffer(RowBuffer&& other) noexcept;
  RowBuffer& operator=(RowBuffer&& other) noexcept;
  RowBuffer(const RowBuffer&) = delete;
  RowBuffer& operator=(const RowBuffer&) = delete;

  const float* data() const { return data_; }
  std::size_t size() const { return size_; }  // in floats

  // Throws std::bad_alloc when the mapping cannot grow.
  void append(const float* values, std::size_t n);
  void clear();

 private:
  void reserve_bytes_(std::size_t bytes);

  float* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t mapped_ = 0;     // bytes of address space
  std::size_t populated_ = 0;  // bytes from the start known to be faulted in
};

}  // namespace ostrel::data
