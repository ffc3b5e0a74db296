// The dense loops behind MatrixMemory: matrix-vector products and the
// rank-one update, over a d x r row-major float matrix.
//
// Each kernel is built twice, for baseline x86-64 and for AVX2, and the
// faster one is picked when the program loads. Both builds do the same
// arithmetic in the same order (eight lanes, no fused multiply-add), so a
// result never depends on the processor it was computed on.
#pragma once

#include <cstddef>

namespace ostrel::data::kernels {

// y[i] = sum over j of m[i][j] * k[j], for the d rows of m.
void mat_vec(const float* m, std::size_t d, std::size_t r, const float* k, float* y);

// m[i][j] = m[i][j] * decay + k[j] * e[i]: decay every element, then add the
// outer product of e (d values) and k (r values).
void decay_rank1(float* m, std::size_t d, std::size_t r, float decay, const float* k,
                 const float* e);

// Many products at once: for keys laid out component-major in kt
// (kt[j * stride + w] is component j of key w; stride is a multiple of 16
// and unused columns are zero), ys[w * d + i] = sum over j of m[i][j] * key_w[j]
// for every w < stride. ys holds stride * d floats.
void mat_multi_vec(const float* m, std::size_t d, std::size_t r, const float* kt,
                   std::size_t stride, float* ys);

// The column count mat_multi_vec works in: n rounded up to a multiple of 16.
inline std::size_t multi_vec_stride(std::size_t n) { return (n + 15) / 16 * 16; }

}  // namespace ostrel::data::kernels
