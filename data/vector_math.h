#pragma once

#include <cmath>
#include <cstddef>

namespace ostrel::data {

// The one way similarity is computed over stored embeddings: double
// precision with four partial sums, so that every scan of the same vectors
// gives the same scores to the bit.
inline double dot(const float* a, const float* b, std::size_t n) {
  double s0 = 0, s1 = 0, s2 = 0, s3 = 0;
  std::size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    s0 += static_cast<double>(a[i]) * b[i];
    s1 += static_cast<double>(a[i + 1]) * b[i + 1];
    s2 += static_cast<double>(a[i + 2]) * b[i + 2];
    s3 += static_cast<double>(a[i + 3]) * b[i + 3];
  }
  for (; i < n; ++i) s0 += static_cast<double>(a[i]) * b[i];
  return (s0 + s1) + (s2 + s3);
}

inline double cosine(double dot_qr, double sumsq_q, double sumsq_r) {
  return dot_qr / (std::sqrt(sumsq_r) * std::sqrt(sumsq_q));
}

}  // namespace ostrel::data
