#include "data/chunking.h"

#include <algorithm>

namespace ostrel::data {

std::vector<std::pair<std::size_t, std::size_t>> chunk_text(std::string_view text,
                                                            std::size_t size,
                                                            std::size_t overlap) {
  const std::size_t n = text.size();
  if (size == 0 || n <= size) return {{0, n}};
  if (overlap >= size) overlap = size / 4;
  std::vector<std::pair<std::size_t, std::size_t>> out;
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = std::min(start + size, n);
    out.emplace_back(start, end - start);
    if (end == n) break;
    start = end - overlap;
  }
  return out;
}

std::size_t chunk_count(std::size_t length, std::size_t size, std::size_t overlap) {
  if (size == 0 || length <= size) return 1;
  if (overlap >= size) overlap = size / 4;
  const std::size_t step = size - overlap;
  // Chunks start at 0, step, 2·step, …; the last one reaches the end.
  return 1 + (length - size + step - 1) / step;
}

}  // namespace ostrel::data
