// The matrix product on AVX-512F: 8 x 32 tiles (16 accumulators). Only this
// file is compiled for AVX-512, and only reached after the CPU check.
#include <immintrin.h>
#include <stdint.h>
#include <string.h>

#include "kernels/gemm_internal.h"
#include "kernels/impl.h"

#pragma GCC push_options
#pragma GCC target("avx512f")

#include "kernels/gemm_micro.h"

namespace {

struct V512 {
    typedef __m512 R;
    static constexpr int W = 16;
    static R zero() { return _mm512_setzero_ps(); }
    static R load(const float* p) { return _mm512_load_ps(p); }
    static R loadu(const float* p) { return _mm512_loadu_ps(p); }
    static void storeu(float* p, R v) { _mm512_storeu_ps(p, v); }
    static void store(float* p, R v) { _mm512_store_ps(p, v); }
    static R bcast(const float* p) { return _mm512_set1_ps(*p); }
    static R fma(R a, R b, R c) { return _mm512_fmadd_ps(a, b, c); }
    static R add(R a, R b) { return _mm512_add_ps(a, b); }
};

}  // namespace

namespace vo {
namespace avx512 {

int gemm(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B, float beta,
         float* C) {
    // k blocks of 192 keep a 32-column B panel (24 KB) and an 8-row A panel
    // in L1; 12 A panels (96 rows) and a 1024-column B block stay in L2.
    return gemm_with_tiles<V512, 8, 2, 192, 12, 1024>(transA, transB, M, N, K, alpha, A, B, beta, C);
}

}  // namespace avx512
}  // namespace vo

#pragma GCC pop_options
