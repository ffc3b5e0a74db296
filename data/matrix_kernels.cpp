#include "data/matrix_kernels.h"

#include <cstring>

// GCC and Clang build a function under target_clones once per listed target
// and resolve the call through an ifunc at load time. Other compilers (and
// sanitizer builds, where ifuncs confuse the interceptors) get one build.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__SANITIZE_ADDRESS__) && \
    !defined(__SANITIZE_THREAD__)
#define OSTREL_KERNEL __attribute__((target_clones("avx2", "default")))
#else
#define OSTREL_KERNEL
#endif

namespace ostrel::data::kernels {
namespace {

// Eight floats; on baseline x86-64 the compiler splits it into two SSE halves.
typedef float v8 __attribute__((vector_size(32)));

inline v8 load8(const float* p) {
  v8 v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void store8(float* p, v8 v) { std::memcpy(p, &v, sizeof v); }
inline v8 splat8(float x) { return v8{x, x, x, x, x, x, x, x}; }
inline float sum8(v8 v) {
  return ((v[0] + v[1]) + (v[2] + v[3])) + ((v[4] + v[5]) + (v[6] + v[7]));
}

}  // namespace

OSTREL_KERNEL
void mat_vec(const float* m, std::size_t d, std::size_t r, const float* k, float* y) {
  for (std::size_t i = 0; i < d; ++i) {
    const float* row = m + i * r;
    v8 a0 = splat8(0), a1 = splat8(0);
    std::size_t j = 0;
    for (; j + 16 <= r; j += 16) {
      a0 += load8(row + j) * load8(k + j);
      a1 += load8(row + j + 8) * load8(k + j + 8);
    }
    for (; j + 8 <= r; j += 8) a0 += load8(row + j) * load8(k + j);
    float s = sum8(a0 + a1);
    for (; j < r; ++j) s += row[j] * k[j];
    y[i] = s;
  }
}

OSTREL_KERNEL
void decay_rank1(float* m, std::size_t d, std::size_t r, float decay, const float* k,
                 const float* e) {
  const v8 dv = splat8(decay);
  for (std::size_t i = 0; i < d; ++i) {
    float* row = m + i * r;
    const float ei = e[i];
    const v8 ev = splat8(ei);
    std::size_t j = 0;
    for (; j + 8 <= r; j += 8) store8(row + j, load8(row + j) * dv + load8(k + j) * ev);
    for (; j < r; ++j) row[j] = row[j] * decay + k[j] * ei;
  }
}

OSTREL_KERNEL
void mat_multi_vec(const float* m, std::size_t d, std::size_t r, const float* kt,
                   std::size_t stride, float* ys) {
  // Blocks of four rows by sixteen keys keep eight accumulators in registers
  // while each loaded key slice is used four times.
  std::size_t i = 0;
  for (; i + 4 <= d; i += 4) {
    const float* r0 = m + i * r;
    const float* r1 = r0 + r;
    const float* r2 = r1 + r;
    const float* r3 = r2 + r;
    for (std::size_t w = 0; w < stride; w += 16) {
      v8 a00 = splat8(0), a01 = splat8(0), a10 = splat8(0), a11 = splat8(0);
      v8 a20 = splat8(0), a21 = splat8(0), a30 = splat8(0), a31 = splat8(0);
      for (std::size_t j = 0; j < r; ++j) {
        const v8 k0 = load8(kt + j * stride + w), k1 = load8(kt + j * stride + w + 8);
        const v8 m0 = splat8(r0[j]), m1 = splat8(r1[j]), m2 = splat8(r2[j]), m3 = splat8(r3[j]);
        a00 += m0 * k0;
        a01 += m0 * k1;
        a10 += m1 * k0;
        a11 += m1 * k1;
        a20 += m2 * k0;
        a21 += m2 * k1;
        a30 += m3 * k0;
        a31 += m3 * k1;
      }
      for (int l = 0; l < 8; ++l) {
        float* out = ys + (w + l) * d + i;
        float* out8 = ys + (w + 8 + l) * d + i;
        out[0] = a00[l], out[1] = a10[l], out[2] = a20[l], out[3] = a30[l];
        out8[0] = a01[l], out8[1] = a11[l], out8[2] = a21[l], out8[3] = a31[l];
      }
    }
  }
  for (; i < d; ++i) {
    const float* row = m + i * r;
    for (std::size_t w = 0; w < stride; w += 8) {
      v8 a = splat8(0);
      for (std::size_t j = 0; j < r; ++j) a += splat8(row[j]) * load8(kt + j * stride + w);
      for (int l = 0; l < 8; ++l) ys[(w + l) * d + i] = a[l];
    }
  }
}

}  // namespace ostrel::data::kernels
