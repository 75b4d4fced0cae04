// Winograd F(6x6, 3x3) block kernels on AVX2 + FMA. Each value goes
// through the same operations as in the reference (winograd.cpp), only
// eight at a time.
// Loops over small fixed counts are unrolled by pragma: only then do their
// arrays of vectors live in registers.
#include <immintrin.h>

#include "kernels/transpose_avx2.h"
#include "kernels/winograd.h"

#include <cmath>

namespace vo {

namespace {

struct Avx2Ops {
    typedef __m256 V;
    static V set1(float v) { return _mm256_set1_ps(v); }
    static V add(V a, V b) { return _mm256_add_ps(a, b); }
    static V sub(V a, V b) { return _mm256_sub_ps(a, b); }
    static V mul(V a, V b) { return _mm256_mul_ps(a, b); }
    static V fma(V a, V b, V c) { return _mm256_fmadd_ps(a, b, c); }
};

// 4 output channels by NR rows of 8 tiles (`inRow` floats apart).
template <int NR>
void dot_chn4_dt8(const float* in, int64_t inRow, const float* kern, int32_t C, float* out, int64_t outStride) {
    __m256 acc[4][NR];
    #pragma GCC unroll 8
    for (int j = 0; j < 4; ++j)
        #pragma GCC unroll 8
        for (int q = 0; q < NR; ++q) acc[j][q] = _mm256_setzero_ps();
    for (int32_t c = 0; c < C; ++c) {
        __m256 v[NR];
        #pragma GCC unroll 8
        for (int q = 0; q < NR; ++q) v[q] = _mm256_loadu_ps(in + q * inRow + int64_t(c) * 8);
        #pragma GCC unroll 8
        for (int j = 0; j < 4; ++j) {
            const __m256 u = _mm256_broadcast_ss(kern + int64_t(c) * 4 + j);
            #pragma GCC unroll 8
            for (int q = 0; q < NR; ++q) acc[j][q] = _mm256_fmadd_ps(u, v[q], acc[j][q]);
        }
    }
    #pragma GCC unroll 8
    for (int j = 0; j < 4; ++j)
        #pragma GCC unroll 8
        for (int q = 0; q < NR; ++q) _mm256_storeu_ps(out + j * outStride + q * 8, acc[j][q]);
}

// The tiles after the blocks of whole rows, for G groups of 4 output
// channels (kernel rows `kernGroup`, products `outGroup` apart) in one pass
// over the input channels, so that their fused multiply-add chains overlap:
// N8 (0 or 1) rows of 8 tiles, N4 (0 or 1) rows of 4 and N1 single tiles.
// In the 4-tile row channels 0 and 1 share one vector, 2 and 3 another; a
// single tile takes the 4 channels' kernel values side by side.
template <int N8, int N4, int N1, int G>
void dot_chn4_tail(const float* in, int64_t inRow, const float* kern, int64_t kernGroup, int32_t C, float* out,
                   int64_t outStride, int64_t outGroup) {
    static_assert(N8 == 0 || G == 1, "a row of 8 tiles keeps enough chains for one group");
    const float* in4 = in + N8 * inRow;
    const float* in1 = in4 + N4 * inRow;
    const __m256i pick01 = _mm256_setr_epi32(0, 0, 0, 0, 1, 1, 1, 1);
    const __m256i pick23 = _mm256_setr_epi32(2, 2, 2, 2, 3, 3, 3, 3);
    __m256 acc8[4], acc4[G][2];
    __m128 acc1[G][N1 > 0 ? N1 : 1];
    #pragma GCC unroll 8
    for (int j = 0; j < 4; ++j) acc8[j] = _mm256_setzero_ps();
    #pragma GCC unroll 8
    for (int g = 0; g < G; ++g) {
        acc4[g][0] = acc4[g][1] = _mm256_setzero_ps();
        #pragma GCC unroll 8
        for (int s = 0; s < N1; ++s) acc1[g][s] = _mm_setzero_ps();
    }
    for (int32_t c = 0; c < C; ++c) {
        if (N8) {
            const __m256 v = _mm256_loadu_ps(in + int64_t(c) * 8);
            #pragma GCC unroll 8
            for (int j = 0; j < 4; ++j)
                acc8[j] = _mm256_fmadd_ps(_mm256_broadcast_ss(kern + int64_t(c) * 4 + j), v, acc8[j]);
        }
        __m256 v4 = _mm256_setzero_ps();
        if (N4) v4 = _mm256_broadcast_ps(reinterpret_cast<const __m128*>(in4 + int64_t(c) * 4));
        #pragma GCC unroll 8
        for (int g = 0; g < G; ++g) {
            const float* k = kern + g * kernGroup + int64_t(c) * 4;
            const __m256 u = _mm256_broadcast_ps(reinterpret_cast<const __m128*>(k));
            if (N4) {
                acc4[g][0] = _mm256_fmadd_ps(_mm256_permutevar_ps(u, pick01), v4, acc4[g][0]);
                acc4[g][1] = _mm256_fmadd_ps(_mm256_permutevar_ps(u, pick23), v4, acc4[g][1]);
            }
            #pragma GCC unroll 8
            for (int s = 0; s < N1; ++s)
                acc1[g][s] = _mm_fmadd_ps(_mm256_castps256_ps128(u), _mm_broadcast_ss(in1 + s * inRow + c), acc1[g][s]);
        }
    }
    if (N8) {
        #pragma GCC unroll 8
        for (int j = 0; j < 4; ++j) _mm256_storeu_ps(out + j * outStride, acc8[j]);
    }
    #pragma GCC unroll 8
    for (int g = 0; g < G; ++g) {
        float* out4 = out + g * outGroup + 8 * N8;
        if (N4) {
            _mm_storeu_ps(out4, _mm256_castps256_ps128(acc4[g][0]));
            _mm_storeu_ps(out4 + outStride, _mm256_extractf128_ps(acc4[g][0], 1));
            _mm_storeu_ps(out4 + 2 * outStride, _mm256_castps256_ps128(acc4[g][1]));
            _mm_storeu_ps(out4 + 3 * outStride, _mm256_extractf128_ps(acc4[g][1], 1));
        }
        float* out1 = out4 + 4 * N4;
        #pragma GCC unroll 8
        for (int s = 0; s < N1; ++s) {
            alignas(16) float lanes[4];
            _mm_store_ps(lanes, acc1[g][s]);
            #pragma GCC unroll 8
            for (int j = 0; j < 4; ++j) out1[j * outStride + s] = lanes[j];
        }
    }
}

typedef void (*TailFn)(const float* in, int64_t inRow, const float* kern, int64_t kernGroup, int32_t C, float* out,
                       int64_t outStride, int64_t outGroup);

template <int N8, int N4, int G>
struct TailRow {
    static constexpr TailFn fns[4] = {dot_chn4_tail<N8, N4, 0, G>, dot_chn4_tail<N8, N4, 1, G>,
                                      dot_chn4_tail<N8, N4, 2, G>, dot_chn4_tail<N8, N4, 3, G>};
};
template <int N8, int N4, int G>
constexpr TailFn TailRow<N8, N4, G>::fns[4];

// One group, indexed by rows of 8, rows of 4 and single tiles; and two
// groups at once when there is no row of 8.
const TailFn* const kTails[2][2] = {{TailRow<0, 0, 1>::fns, TailRow<0, 1, 1>::fns},
                                    {TailRow<1, 0, 1>::fns, TailRow<1, 1, 1>::fns}};
const TailFn* const kTailsPair[2] = {TailRow<0, 0, 2>::fns, TailRow<0, 1, 2>::fns};

template <int NR>
void dot_chn1_dt8(const float* in, int64_t inRow, const float* kern, int32_t C, float* out) {
    __m256 acc[NR];
    #pragma GCC unroll 8
    for (int q = 0; q < NR; ++q) acc[q] = _mm256_setzero_ps();
    for (int32_t c = 0; c < C; ++c) {
        const __m256 u = _mm256_broadcast_ss(kern + c);
        #pragma GCC unroll 8
        for (int q = 0; q < NR; ++q)
            acc[q] = _mm256_fmadd_ps(u, _mm256_loadu_ps(in + q * inRow + int64_t(c) * 8), acc[q]);
    }
    #pragma GCC unroll 8
    for (int q = 0; q < NR; ++q) _mm256_storeu_ps(out + q * 8, acc[q]);
}

void dot_chn1_dt4(const float* in, const float* kern, int32_t C, float* out) {
    __m128 acc = _mm_setzero_ps();
    for (int32_t c = 0; c < C; ++c)
        acc = _mm_fmadd_ps(_mm_broadcast_ss(kern + c), _mm_loadu_ps(in + int64_t(c) * 4), acc);
    _mm_storeu_ps(out, acc);
}

void dot_chn1_dt1(const float* in, const float* kern, int32_t C, float* out) {
    float acc = 0.0f;
    for (int32_t c = 0; c < C; ++c) acc = std::fma(kern[c], in[c], acc);
    *out = acc;
}

}  // namespace

namespace avx2 {

void winograd_dot_chn4(const float* in, const float* kern, int64_t kernGroup, int groups, int32_t C, int32_t T,
                       int32_t k0, float* out, int64_t outStride) {
    const int64_t inRow = int64_t(8) * C, outGroup = 4 * outStride;
    const int32_t rows8 = T / 8;
    int32_t r = k0 / 8;
    for (int g = 0; g < groups; ++g) {
        const float* kg = kern + g * kernGroup;
        float* og = out + g * outGroup;
        int32_t q = r;
        for (; q + 3 <= rows8; q += 3) dot_chn4_dt8<3>(in + q * inRow, inRow, kg, C, og + q * 8, outStride);
        if (rows8 - q == 2) dot_chn4_dt8<2>(in + q * inRow, inRow, kg, C, og + q * 8, outStride);
    }
    r += (rows8 - r) / 3 * 3 + ((rows8 - r) % 3 == 2 ? 2 : 0);
    const int n8 = rows8 - r, n4 = (T % 8) / 4, n1 = T % 4;
    if (n8 + n4 + n1 == 0) return;
    int g = 0;
    if (n8 == 0)
        for (; g + 2 <= groups; g += 2)
            kTailsPair[n4][n1](in + r * inRow, inRow, kern + g * kernGroup, kernGroup, C, out + g * outGroup + r * 8,
                               outStride, outGroup);
    for (; g < groups; ++g)
        kTails[n8][n4][n1](in + r * inRow, inRow, kern + g * kernGroup, kernGroup, C, out + g * outGroup + r * 8,
                           outStride, outGroup);
}

void winograd_dot_chn1(const float* in, const float* kern, int64_t /*kernGroup*/, int /*groups*/, int32_t C,
                       int32_t T, int32_t k0, float* out, int64_t /*outStride*/) {
    const int64_t inRow = int64_t(8) * C;
    const int32_t rows8 = T / 8;
    int32_t r = k0 / 8;
    for (; r + 4 <= rows8; r += 4) dot_chn1_dt8<4>(in + r * inRow, inRow, kern, C, out + r * 8);
    for (; r < rows8; ++r) dot_chn1_dt8<1>(in + r * inRow, inRow, kern, C, out + r * 8);
    int64_t row = rows8;
    int32_t k = rows8 * 8;
    if (T - k >= 4) {
        dot_chn1_dt4(in + row * inRow, kern, C, out + k);
        k += 4;
        ++row;
    }
    for (; k < T; ++k, ++row) dot_chn1_dt1(in + row * inRow, kern, C, out + k);
}

void winograd_products_with(WinogradPlaneFn chn4, WinogradPlaneFn chn1, const float* input, const float* kernel,
                            float* product, int32_t M, int32_t C, int32_t T) {
    const int64_t inPlane = winograd_rows(T) * 8 * C, kernRow = int64_t(4) * C, outPlane = int64_t(64) * T;
    const int32_t groups4 = M / 4;
    // Plane by plane: one plane of the transformed input stays in cache
    // for every output channel.
    for (int t = 0; t < 64; ++t) {
        const float* in = input + t * inPlane;
        // Two groups of 4 channels per call: their short tails overlap.
        for (int32_t g = 0; g < groups4; g += 2)
            chn4(in, kernel + (int64_t(g) * 64 + t) * kernRow, 64 * kernRow, groups4 - g < 2 ? 1 : 2, C, T, 0,
                 product + int64_t(4) * g * outPlane + t * T, outPlane);
        for (int32_t o = groups4 * 4; o < M; ++o)
            chn1(in, kernel + (int64_t(groups4 + o % 4) * 64 + t) * kernRow, 64 * kernRow, 1, C, T, 0,
                 product + int64_t(o) * outPlane + t * T, outPlane);
    }
}

void winograd_products(const float* input, const float* kernel, float* product, int32_t M, int32_t C, int32_t T) {
    winograd_products_with(winograd_dot_chn4, winograd_dot_chn1, input, kernel, product, M, C, T);
}

void winograd_input(const float* padded, int32_t tilesW, int32_t tilesH, int32_t C, float* dst) {
    const int32_t T = tilesW * tilesH, paddedW = 6 * tilesW + 2;
    const int64_t paddedPlane = int64_t(paddedW) * (6 * tilesH + 2);
    const int64_t rowLen = int64_t(8) * C, planeStride = winograd_rows(T) * rowLen;
    // The 64 coefficient planes lie a multiple of many cache lines apart, so
    // one row position in each maps to few cache sets: writing 32 bytes to
    // every plane per channel would evict each line before it is complete.
    // A block of channels is staged here in the row layout and then copied
    // to each plane as one run of whole lines.
    constexpr int kBlock = 8;
    alignas(32) float stage[64][kBlock * 8];
    __m256 X[8][8];  // tile, row of B^T d
    int64_t row = 0;
    for (int32_t k0 = 0; k0 < T; ++row) {
        const int gs = winograd_group(T, k0);
        int64_t offset[8];
        for (int p = 0; p < gs; ++p) {
            const int32_t k = k0 + p;
            offset[p] = int64_t(k / tilesW) * 6 * paddedW + int64_t(k % tilesW) * 6;
        }
        for (int p = gs; p < 8; ++p)
            #pragma GCC unroll 8
            for (int i = 0; i < 8; ++i) X[p][i] = _mm256_setzero_ps();
        for (int32_t c0 = 0; c0 < C; c0 += kBlock) {
            const int block = C - c0 < kBlock ? C - c0 : kBlock;
            for (int b = 0; b < block; ++b) {
                const float* plane = padded + (c0 + b) * paddedPlane;
                for (int p = 0; p < gs; ++p) {
                    const float* tile = plane + offset[p];
                    __m256 d[8];
                    #pragma GCC unroll 8
                    for (int i = 0; i < 8; ++i) d[i] = _mm256_loadu_ps(tile + int64_t(i) * paddedW);
                    winograd_bt8<Avx2Ops>(d, X[p]);
                }
                for (int i = 0; i < 8; ++i) {
                    // Row i of every tile, turned so that the lanes are the tiles.
                    __m256 v[8], y[8];
                    #pragma GCC unroll 8
                    for (int p = 0; p < 8; ++p) v[p] = X[p][i];
                    transpose8(v);
                    winograd_bt8<Avx2Ops>(v, y);
                    // Lanes past the group's tiles are dropped by the copy.
                    #pragma GCC unroll 8
                    for (int m = 0; m < 8; ++m) _mm256_storeu_ps(&stage[i * 8 + m][b * gs], y[m]);
                }
            }
            const int n = block * gs;
            float* to = dst + row * rowLen + int64_t(c0) * gs;
            for (int t = 0; t < 64; ++t, to += planeStride) {
                int j = 0;
                for (; j + 8 <= n; j += 8) _mm256_storeu_ps(to + j, _mm256_load_ps(&stage[t][j]));
                for (; j < n; ++j) to[j] = stage[t][j];
            }
        }
        k0 += gs;
    }
}

void winograd_output(const float* product, int32_t T, int32_t tilesW, float bias, float* out) {
    const int64_t width = int64_t(6) * tilesW;
    const __m256 vbias = _mm256_set1_ps(bias);
    const __m256i laneIndex = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    __m256 Z[6][8];  // A^T m, lanes are tiles
    for (int32_t k0 = 0; k0 < T; k0 += 8) {
        const int n = T - k0 < 8 ? T - k0 : 8;
        // Lanes past the last tile read nothing.
        const __m256i mask = _mm256_cmpgt_epi32(_mm256_set1_epi32(n), laneIndex);
        #pragma GCC unroll 8
        for (int j = 0; j < 8; ++j) {
            __m256 x[8], y[6];
            #pragma GCC unroll 8
            for (int l = 0; l < 8; ++l) {
                const float* from = product + (l * 8 + j) * int64_t(T) + k0;
                x[l] = n == 8 ? _mm256_loadu_ps(from) : _mm256_maskload_ps(from, mask);
            }
            winograd_at8<Avx2Ops>(x, y);
            #pragma GCC unroll 8
            for (int i = 0; i < 6; ++i) Z[i][j] = y[i];
        }
        float* tileAt[8];
        for (int p = 0; p < n; ++p) {
            const int32_t k = k0 + p;
            tileAt[p] = out + int64_t(k / tilesW) * 6 * width + int64_t(k % tilesW) * 6;
        }
        #pragma GCC unroll 8
        for (int i = 0; i < 6; ++i) {
            __m256 r[8];
            winograd_at8<Avx2Ops>(Z[i], r);
            #pragma GCC unroll 8
            for (int j = 0; j < 6; ++j) r[j] = _mm256_add_ps(r[j], vbias);
            r[6] = r[7] = _mm256_setzero_ps();
            transpose8(r);  // now one tile's output row per vector
            for (int p = 0; p < n; ++p) {
                float* to = tileAt[p] + i * width;
                _mm_storeu_ps(to, _mm256_castps256_ps128(r[p]));
                _mm_storel_pi(reinterpret_cast<__m64*>(to + 4), _mm256_extractf128_ps(r[p], 1));
            }
        }
    }
}

}  // namespace avx2
}  // namespace vo
