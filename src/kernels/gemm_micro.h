// Register-blocked tiles of the float matrix product, written once over a
// vector type V. Included by one source file per instruction set; all of
// it has internal linkage so that code compiled for a wider instruction set
// can never be shared with another path.
#ifndef VONET_KERNELS_GEMM_MICRO_H
#define VONET_KERNELS_GEMM_MICRO_H

#include <immintrin.h>
#include <stdint.h>
#include <string.h>

#include "kernels/gemm_internal.h"

namespace {

struct V256 {
    typedef __m256 R;
    static constexpr int W = 8;
    static R zero() { return _mm256_setzero_ps(); }
    static R load(const float* p) { return _mm256_load_ps(p); }
    static R loadu(const float* p) { return _mm256_loadu_ps(p); }
    static void storeu(float* p, R v) { _mm256_storeu_ps(p, v); }
    static void store(float* p, R v) { _mm256_store_ps(p, v); }
    static R bcast(const float* p) { return _mm256_broadcast_ss(p); }
    static R fma(R a, R b, R c) { return _mm256_fmadd_ps(a, b, c); }
    static R add(R a, R b) { return _mm256_add_ps(a, b); }
};

// acc(i, j) = fma(a[k][i], b[k][j], acc(i, j)) for k in order, which is the
// plain sequence of every main-column element. With kPack, B comes straight
// from the source rows (b[k * ldb + j]) and is stored into the packed panel
// on the way, so that the memory-bound first read of B overlaps with
// arithmetic instead of running as a separate pass.
template <class V, int MR, int NV, bool kPack>
inline void tile_body(int kc, const float* a, const float* b, int64_t ldb, float* packed, float* c, int64_t ldc,
                      int start, int end) {
    typedef typename V::R R;
    constexpr int W = V::W;
    R acc[MR][NV];
#pragma GCC unroll 16
    for (int i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (int j = 0; j < NV; ++j) acc[i][j] = start == vo::kStartLoad ? V::loadu(c + i * ldc + j * W) : V::zero();
    for (int k = 0; k < kc; ++k) {
        R bv[NV];
#pragma GCC unroll 4
        for (int j = 0; j < NV; ++j) {
            if (kPack) {
                bv[j] = V::loadu(b + j * W);
                V::store(packed + j * W, bv[j]);
            } else {
                bv[j] = V::load(b + j * W);
            }
        }
#pragma GCC unroll 16
        for (int i = 0; i < MR; ++i) {
            const R av = V::bcast(a + i);
#pragma GCC unroll 4
            for (int j = 0; j < NV; ++j) acc[i][j] = V::fma(av, bv[j], acc[i][j]);
        }
        a += MR;
        b += ldb;
        if (kPack) packed += NV * W;
    }
    if (end == vo::kEndAdd) {
#pragma GCC unroll 16
        for (int i = 0; i < MR; ++i)
#pragma GCC unroll 4
            for (int j = 0; j < NV; ++j) acc[i][j] = V::add(V::loadu(c + i * ldc + j * W), acc[i][j]);
    } else if (end == vo::kEndAddZero) {
#pragma GCC unroll 16
        for (int i = 0; i < MR; ++i)
#pragma GCC unroll 4
            for (int j = 0; j < NV; ++j) acc[i][j] = V::add(acc[i][j], V::zero());
    }
#pragma GCC unroll 16
    for (int i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (int j = 0; j < NV; ++j) V::storeu(c + i * ldc + j * W, acc[i][j]);
}

template <class V, int MR, int NV>
void tile_kernel(int kc, const float* a, const float* b, float* c, int64_t ldc, int start, int end) {
    tile_body<V, MR, NV, false>(kc, a, b, NV * V::W, nullptr, c, ldc, start, end);
}

template <class V, int MR, int NV>
void tile_pack_kernel(int kc, const float* a, const float* b, int64_t ldb, float* packed, float* c, int64_t ldc,
                      int start, int end) {
    tile_body<V, MR, NV, true>(kc, a, b, ldb, packed, c, ldc, start, end);
}

// The last N mod 8 columns of block rows: per group of four k,
// p = b1*a1, then fma with k, k+2, k+3, then acc = acc + p; single k after
// the groups fuse straight into acc. The MR rows run side by side so that
// their dependency chains overlap.
template <int MR>
void grouped_kernel(int kc, const float* a, int rows, const float* b, int64_t ldb, float* c, int64_t ldc, int cols,
                    int start, int end) {
    __m256 acc[MR];
    float row[8];
#pragma GCC unroll 16
    for (int i = 0; i < MR; ++i) {
        acc[i] = _mm256_setzero_ps();
        if (start == vo::kStartLoad && i < rows) {
            memset(row, 0, sizeof(row));
            memcpy(row, c + i * ldc, size_t(cols) * sizeof(float));
            acc[i] = _mm256_loadu_ps(row);
        }
    }
    int k = 0;
    for (; k + 4 <= kc; k += 4) {
        const __m256 b0 = _mm256_loadu_ps(b + (k + 0) * ldb), b1 = _mm256_loadu_ps(b + (k + 1) * ldb);
        const __m256 b2 = _mm256_loadu_ps(b + (k + 2) * ldb), b3 = _mm256_loadu_ps(b + (k + 3) * ldb);
        const float* ak = a + k * MR;
#pragma GCC unroll 16
        for (int i = 0; i < MR; ++i) {
            __m256 p = _mm256_mul_ps(b1, _mm256_broadcast_ss(ak + MR + i));
            p = _mm256_fmadd_ps(b0, _mm256_broadcast_ss(ak + i), p);
            p = _mm256_fmadd_ps(b2, _mm256_broadcast_ss(ak + 2 * MR + i), p);
            p = _mm256_fmadd_ps(b3, _mm256_broadcast_ss(ak + 3 * MR + i), p);
            acc[i] = _mm256_add_ps(acc[i], p);
        }
    }
    for (; k < kc; ++k) {
        const __m256 bk = _mm256_loadu_ps(b + k * ldb);
#pragma GCC unroll 16
        for (int i = 0; i < MR; ++i) acc[i] = _mm256_fmadd_ps(bk, _mm256_broadcast_ss(a + k * MR + i), acc[i]);
    }
    for (int i = 0; i < rows; ++i) {
        __m256 r = acc[i];
        if (end == vo::kEndAdd) {
            memset(row, 0, sizeof(row));
            memcpy(row, c + i * ldc, size_t(cols) * sizeof(float));
            r = _mm256_add_ps(_mm256_loadu_ps(row), r);
        } else if (end == vo::kEndAddZero) {
            r = _mm256_add_ps(r, _mm256_setzero_ps());
        }
        _mm256_storeu_ps(row, r);
        memcpy(c + i * ldc, row, size_t(cols) * sizeof(float));
    }
}

// The blocked product on MR x (NV * V::W) tiles of V: k blocks of KC,
// MC_PANELS A panels per packed A block, NC columns per packed B block.
template <class V, int MR, int NV, int KC, int MC_PANELS, int NC>
int gemm_with_tiles(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B,
                    float beta, float* C) {
    static const vo::GemmPlan plan = {MR, NV * V::W, KC, MC_PANELS, NC, tile_kernel<V, MR, NV>,
                                      tile_pack_kernel<V, MR, NV>, grouped_kernel<MR>};
    return vo::gemm_blocked(plan, transA, transB, M, N, K, alpha, A, B, beta, C);
}

}  // namespace

#endif
