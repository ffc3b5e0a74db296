#include "data/row_buffer.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace ostrel::data {

namespace {

constexpr std::size_t kMinMapping = std::size_t{16} << 10;
constexpr std::size_t kPopulateStep = std::size_t{1} << 20;

}  // namespace

RowBuffer::~RowBuffer() { clear(); }

RowBuffer::RowBuffer(RowBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      mapped_(std::exchange(other.mapped_, 0)),
      populated_(std::exchange(other.populated_, 0)) {}

RowBuffer& RowBuffer::operator=(RowBuffer&& other) noexcept {
  if (this != &other) {
    clear();
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
    mapped_ = std::exchange(other.mapped_, 0);
    populated_ = std::exchange(other.populated_, 0);
  }
  return *this;
}

void RowBuffer::clear() {
  if (data_) ::munmap(data_, mapped_);
  data_ = nullptr;
  size_ = mapped_ = populated_ = 0;
}

void RowBuffer::reserve_bytes_(std::size_t bytes) {
  if (bytes > mapped_) {
    std::size_t want = std::max(kMinMapping, mapped_);
    while (want < bytes) want *= 2;
    void* p =
        data_ ? ::mremap(data_, mapped_, want, MREMAP_MAYMOVE)
              : ::mmap(nullptr, want, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) throw std::bad_alloc();
    data_ = static_cast<float*>(p);
    mapped_ = want;
  }
  // Past the first megabyte, fault in the pages ahead a megabyte at a time;
  // where the kernel refuses, the writes below fault them one by one as
  // usual. Small namespaces, the many, hold only the pages they touched.
  if (mapped_ < kPopulateStep) return;
  while (populated_ < bytes) {
    const std::size_t step = std::min(kPopulateStep, mapped_ - populated_);
#ifdef MADV_POPULATE_WRITE
    ::madvise(reinterpret_cast<char*>(data_) + populated_, step, MADV_POPULATE_WRITE);
#endif
    populated_ += step;
  }
}

void RowBuffer::append(const float* values, std::size_t n) {
  if (n == 0) return;
  reserve_bytes_((size_ + n) * sizeof(float));
  std::memcpy(data_ + size_, values, n * sizeof(float));
  size_ += n;
}

}  // namespace ostrel::data
