#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace ostrel::data {

// Keeps the best k by score; a candidate displaces the current k-th best only
// when strictly better, so earlier rows win ties.
template <typename T>
class TopK {
 public:
  explicit TopK(std::size_t k) : k_(k) {}
  void offer(double score, T&& item) {
    if (k_ == 0) return;
    if (heap_.size() < k_) {
      heap_.push_back({score, seq_++, std::move(item)});
      std::push_heap(heap_.begin(), heap_.end(), worse_first);
    } else if (score > heap_.front().score) {
      std::pop_heap(heap_.begin(), heap_.end(), worse_first);
      heap_.back() = {score, seq_++, std::move(item)};
      std::push_heap(heap_.begin(), heap_.end(), worse_first);
    }
  }
  bool full() const { return heap_.size() >= k_; }
  double floor_score() const { return heap_.front().score; }
  // Best first; equal scores in arrival order.
  std::vector<T> take() {
    std::sort(heap_.begin(), heap_.end(), [](const Entry& a, const Entry& b) {
      return a.score != b.score ? a.score > b.score : a.seq < b.seq;
    });
    std::vector<T> out;
    out.reserve(heap_.size());
    for (auto& e : heap_) out.push_back(std::move(e.item));
    return out;
  }

 private:
  struct Entry {
    double score;
    std::uint64_t seq;
    T item;
  };
  // Heap top = the worst kept entry (lowest score; among equals, the latest).
  static bool worse_first(const Entry& a, const Entry& b) {
    return a.score != b.score ? a.score > b.score : a.seq < b.seq;
  }
  std::size_t k_;
  std::uint64_t seq_ = 0;
  std::vector<Entry> heap_;
};

}  // namespace ostrel::data
