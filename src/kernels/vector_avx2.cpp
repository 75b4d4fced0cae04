// Element-wise float routines with 256-bit vectors. Each element is
// computed by the same single operation as in the reference path, so the
// blocking (32, then 8, then single elements) does not change any bit.
#include <immintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "kernels/impl.h"

namespace vo {
namespace avx2 {
namespace {

// y = f(x) over n elements; V is the vector form, S the scalar one.
template <typename V, typename S>
inline void unary(const float* x, float* y, int32_t n, V vf, S sf) {
    int32_t i = 0;
    for (; i + 32 <= n; i += 32) {
        __m256 a0 = _mm256_loadu_ps(x + i), a1 = _mm256_loadu_ps(x + i + 8);
        __m256 a2 = _mm256_loadu_ps(x + i + 16), a3 = _mm256_loadu_ps(x + i + 24);
        _mm256_storeu_ps(y + i, vf(a0));
        _mm256_storeu_ps(y + i + 8, vf(a1));
        _mm256_storeu_ps(y + i + 16, vf(a2));
        _mm256_storeu_ps(y + i + 24, vf(a3));
    }
    for (; i + 8 <= n; i += 8) _mm256_storeu_ps(y + i, vf(_mm256_loadu_ps(x + i)));
    for (; i < n; ++i) y[i] = sf(x[i]);
}

// y = f(a, b) over n elements.
template <typename V, typename S>
inline void binary(const float* a, const float* b, float* y, int32_t n, V vf, S sf) {
    int32_t i = 0;
    for (; i + 32 <= n; i += 32) {
        __m256 r0 = vf(_mm256_loadu_ps(a + i), _mm256_loadu_ps(b + i));
        __m256 r1 = vf(_mm256_loadu_ps(a + i + 8), _mm256_loadu_ps(b + i + 8));
        __m256 r2 = vf(_mm256_loadu_ps(a + i + 16), _mm256_loadu_ps(b + i + 16));
        __m256 r3 = vf(_mm256_loadu_ps(a + i + 24), _mm256_loadu_ps(b + i + 24));
        _mm256_storeu_ps(y + i, r0);
        _mm256_storeu_ps(y + i + 8, r1);
        _mm256_storeu_ps(y + i + 16, r2);
        _mm256_storeu_ps(y + i + 24, r3);
    }
    for (; i + 8 <= n; i += 8) _mm256_storeu_ps(y + i, vf(_mm256_loadu_ps(a + i), _mm256_loadu_ps(b + i)));
    for (; i < n; ++i) y[i] = sf(a[i], b[i]);
}

}  // namespace

void mul_scalar(float* x, int32_t n, float alpha) {
    const __m256 va = _mm256_set1_ps(alpha);
    unary(x, x, n, [&](__m256 v) { return _mm256_mul_ps(v, va); }, [&](float v) { return v * alpha; });
}

void axpy(const float* x, int32_t n, float* y, float alpha) {
    const __m256 va = _mm256_set1_ps(alpha);
    binary(x, y, y, n, [&](__m256 vx, __m256 vy) { return _mm256_fmadd_ps(va, vx, vy); },
           [&](float vx, float vy) { return std::fma(alpha, vx, vy); });
}

void alpha_multiply_vector_add_beta(const float* x, int32_t n, float* y, float alpha, float beta) {
    const __m256 va = _mm256_set1_ps(alpha), vb = _mm256_set1_ps(beta);
    unary(x, y, n, [&](__m256 v) { return _mm256_fmadd_ps(va, v, vb); },
          [&](float v) { return std::fma(alpha, v, beta); });
}

// maxps/minps return their second operand when the comparison is false
// (equal values or a NaN), which is exactly "x > v ? x : v".
void max_scalar(const float* x, float* y, int32_t n, float v) {
    const __m256 vv = _mm256_set1_ps(v);
    unary(x, y, n, [&](__m256 a) { return _mm256_max_ps(a, vv); }, [&](float a) { return a > v ? a : v; });
}

void min_scalar(const float* x, float* y, int32_t n, float v) {
    const __m256 vv = _mm256_set1_ps(v);
    unary(x, y, n, [&](__m256 a) { return _mm256_min_ps(a, vv); }, [&](float a) { return a < v ? a : v; });
}

void add_scalar(const float* x, float* y, int32_t n, float v) {
    const __m256 vv = _mm256_set1_ps(v);
    unary(x, y, n, [&](__m256 a) { return _mm256_add_ps(a, vv); }, [&](float a) { return a + v; });
}

void abs(const float* x, float* y, int32_t n) {
    const __m256 mask = _mm256_castsi256_ps(_mm256_set1_epi32(0x7fffffff));
    unary(x, y, n, [&](__m256 a) { return _mm256_and_ps(a, mask); },
          [](float a) {
              uint32_t bits;
              memcpy(&bits, &a, 4);
              bits &= 0x7fffffffu;
              memcpy(&a, &bits, 4);
              return a;
          });
}

void set(float* x, int32_t n, float v) {
    if (v == 0.0f) {
        memset(x, 0, size_t(n) * sizeof(float));
        return;
    }
    const __m256 vv = _mm256_set1_ps(v);
    int32_t i = 0;
    for (; i + 8 <= n; i += 8) _mm256_storeu_ps(x + i, vv);
    for (; i < n; ++i) x[i] = v;
}

void mul(const float* a, const float* b, int32_t n, float* y) {
    binary(a, b, y, n, [](__m256 u, __m256 v) { return _mm256_mul_ps(u, v); }, [](float u, float v) { return u * v; });
}

void max(const float* a, const float* b, int32_t n, float* y) {
    binary(a, b, y, n, [](__m256 u, __m256 v) { return _mm256_max_ps(v, u); },
           [](float u, float v) { return v > u ? v : u; });
}

void add(const float* a, const float* b, int32_t n, float* y) {
    binary(a, b, y, n, [](__m256 u, __m256 v) { return _mm256_add_ps(u, v); }, [](float u, float v) { return u + v; });
}

}  // namespace avx2
}  // namespace vo
