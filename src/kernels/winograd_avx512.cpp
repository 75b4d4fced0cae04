// Winograd F(6x6, 3x3) products on AVX-512F: two rows of 8 tiles share one
// 16-lane vector. Only this file is compiled for AVX-512, and only reached
// after the CPU check. Same fused multiply-add chains as every other path.
// Loops over small fixed counts are unrolled by pragma: only then do their
// arrays of vectors live in registers.
#include <immintrin.h>

#include "kernels/winograd.h"

#pragma GCC push_options
#pragma GCC target("avx512f")

namespace vo {

namespace {

// 8 tiles of row r (at `lo`) and 8 of row r + 1 (at `hi`): adjacent tiles.
inline __m512 load_rows(const float* lo, const float* hi) {
    // The masked forms with every lane selected: the plain ones start from
    // an undefined vector, which the compiler warns about.
    const __m512d zero = _mm512_setzero_pd();
    const __m512d low = _mm512_mask_insertf64x4(zero, 0xff, zero, _mm256_castps_pd(_mm256_loadu_ps(lo)), 0);
    return _mm512_castpd_ps(_mm512_mask_insertf64x4(low, 0xff, low, _mm256_castps_pd(_mm256_loadu_ps(hi)), 1));
}

// 4 output channels by NP pairs of 8-tile rows.
template <int NP>
void dot_chn4_dt16(const float* in, int64_t inRow, const float* kern, int32_t C, float* out, int64_t outStride) {
    __m512 acc[4][NP];
    #pragma GCC unroll 8
    for (int j = 0; j < 4; ++j)
        #pragma GCC unroll 8
        for (int q = 0; q < NP; ++q) acc[j][q] = _mm512_setzero_ps();
    for (int32_t c = 0; c < C; ++c) {
        __m512 v[NP];
        #pragma GCC unroll 8
        for (int q = 0; q < NP; ++q) {
            const float* at = in + 2 * q * inRow + int64_t(c) * 8;
            v[q] = load_rows(at, at + inRow);
        }
        #pragma GCC unroll 8
        for (int j = 0; j < 4; ++j) {
            const __m512 u = _mm512_set1_ps(kern[int64_t(c) * 4 + j]);
            #pragma GCC unroll 8
            for (int q = 0; q < NP; ++q) acc[j][q] = _mm512_fmadd_ps(u, v[q], acc[j][q]);
        }
    }
    #pragma GCC unroll 8
    for (int j = 0; j < 4; ++j)
        #pragma GCC unroll 8
        for (int q = 0; q < NP; ++q) _mm512_storeu_ps(out + j * outStride + q * 16, acc[j][q]);
}

template <int NP>
void dot_chn1_dt16(const float* in, int64_t inRow, const float* kern, int32_t C, float* out) {
    __m512 acc[NP];
    #pragma GCC unroll 8
    for (int q = 0; q < NP; ++q) acc[q] = _mm512_setzero_ps();
    for (int32_t c = 0; c < C; ++c) {
        const __m512 u = _mm512_set1_ps(kern[c]);
        #pragma GCC unroll 8
        for (int q = 0; q < NP; ++q) {
            const float* at = in + 2 * q * inRow + int64_t(c) * 8;
            acc[q] = _mm512_fmadd_ps(u, load_rows(at, at + inRow), acc[q]);
        }
    }
    #pragma GCC unroll 8
    for (int q = 0; q < NP; ++q) _mm512_storeu_ps(out + q * 16, acc[q]);
}

// Pairs of full rows here; an odd row, the 4-tile row and single tiles go
// to the AVX2 kernels.
void dot_chn4(const float* in, const float* kern, int64_t kernGroup, int groups, int32_t C, int32_t T, int32_t k0,
              float* out, int64_t outStride) {
    const int64_t inRow = int64_t(8) * C;
    const int32_t rows8 = T / 8;
    const int32_t pairs = (rows8 - k0 / 8) / 2 * 2;
    for (int g = 0; g < groups; ++g) {
        const float* kg = kern + g * kernGroup;
        float* og = out + g * 4 * outStride;
        int32_t r = k0 / 8;
        const int32_t end = r + pairs;
        for (; r + 6 <= end; r += 6) dot_chn4_dt16<3>(in + r * inRow, inRow, kg, C, og + r * 8, outStride);
        if (end - r >= 4) {
            dot_chn4_dt16<2>(in + r * inRow, inRow, kg, C, og + r * 8, outStride);
            r += 4;
        }
        if (end - r >= 2) dot_chn4_dt16<1>(in + r * inRow, inRow, kg, C, og + r * 8, outStride);
    }
    avx2::winograd_dot_chn4(in, kern, kernGroup, groups, C, T, k0 + pairs * 8, out, outStride);
}

void dot_chn1(const float* in, const float* kern, int64_t kernGroup, int groups, int32_t C, int32_t T, int32_t k0,
              float* out, int64_t outStride) {
    const int64_t inRow = int64_t(8) * C;
    const int32_t rows8 = T / 8;
    int32_t r = k0 / 8;
    for (; r + 8 <= rows8; r += 8) dot_chn1_dt16<4>(in + r * inRow, inRow, kern, C, out + r * 8);
    for (; r + 2 <= rows8; r += 2) dot_chn1_dt16<1>(in + r * inRow, inRow, kern, C, out + r * 8);
    avx2::winograd_dot_chn1(in, kern, kernGroup, groups, C, T, r * 8, out, outStride);
}

}  // namespace

namespace avx512 {

void winograd_products(const float* input, const float* kernel, float* product, int32_t M, int32_t C, int32_t T) {
    avx2::winograd_products_with(dot_chn4, dot_chn1, input, kernel, product, M, C, T);
}

}  // namespace avx512
}  // namespace vo

#pragma GCC pop_options
