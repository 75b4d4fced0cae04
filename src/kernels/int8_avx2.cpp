// Int8 kernels on AVX2: the conversions 8 or 32 elements at a time with the
// element rule of the portable form for the tail, and the matrix product on
// 16-bit operands with vpmaddwd. Each vpmaddwd lane adds two products of
// 8-bit values (at most 2 * 128 * 128 = 32768), so no step saturates; sums
// are 32-bit vector adds, which wrap.
#include <immintrin.h>
#include <stdint.h>
#include <string.h>

#include <cmath>

#include "kernels/int8.h"

namespace vo {
namespace avx2 {

namespace {

// Truncation, the low 16 bits read as a signed value, then the clamp to
// -127..127. cvttps2dq gives 0x80000000 for NaN and out-of-range values,
// whose low 16 bits are 0, as the element rule wants.
inline __m256i quantize8(const float* src, __m256 scale) {
    const __m256i v = _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_loadu_ps(src), scale));
    const __m256i low = _mm256_srai_epi32(_mm256_slli_epi32(v, 16), 16);
    return _mm256_max_epi32(_mm256_min_epi32(low, _mm256_set1_epi32(127)), _mm256_set1_epi32(-127));
}

}  // namespace

void quantize_input(const float* src, int count, int8_t* dst, float scale) {
    const __m256 vscale = _mm256_set1_ps(scale);
    // Packing puts the four vectors' 4-value groups in lane order; this
    // permutation restores element order.
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    int i = 0;
    for (; i + 32 <= count; i += 32) {
        // Every value is within -127..127 already: the saturating packs
        // only narrow.
        const __m256i a = _mm256_packs_epi32(quantize8(src + i, vscale), quantize8(src + i + 8, vscale));
        const __m256i b = _mm256_packs_epi32(quantize8(src + i + 16, vscale), quantize8(src + i + 24, vscale));
        const __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_packs_epi16(a, b), order);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i), bytes);
    }
    for (; i + 8 <= count; i += 8) {
        const __m256i v = quantize8(src + i, vscale);
        const __m256i a = _mm256_packs_epi32(v, v);
        const __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_packs_epi16(a, a), order);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(dst + i), _mm256_castsi256_si128(bytes));
    }
    for (; i < count; ++i) dst[i] = ref::quantize_one(src[i], scale);
}

void anti_quantize_output(const int32_t* src, int count, float* dst, float scale, float bias) {
    const __m256 vscale = _mm256_set1_ps(scale);
    const __m256 vbias = _mm256_set1_ps(bias);
    int i = 0;
    for (; i + 8 <= count; i += 8) {
        const __m256 v = _mm256_cvtepi32_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i)));
        _mm256_storeu_ps(dst + i, _mm256_fmadd_ps(v, vscale, vbias));
    }
    for (; i < count; ++i) dst[i] = std::fma(float(src[i]), scale, bias);
}

namespace {

// Register tile 6 rows x 16 columns (12 accumulators); k in blocks of 256
// (128 pairs); A in blocks of 48 rows. The packed operands live on the
// stack: 24 KB of A, 8 KB of B.
constexpr int kMr = 6;
constexpr int kNr = 16;
constexpr int kKc = 256;
constexpr int kMc = 48;
static_assert(kMc % kMr == 0 && kKc % 2 == 0, "blocking");

// A rows [m0, m0 + mc) and k [k0, k0 + kc) as micro-panels of kMr rows:
// per k pair, kMr words (a[m][k], a[m][k + 1]) as 16-bit halves; rows past
// M and k past K are zero.
void pack_a(const int8_t* A, int M, int K, int m0, int mc, int k0, int kc, uint32_t* out) {
    const int pairs = (kc + 1) / 2;
    const int span = (kc + 15) / 16 * 16;
    alignas(32) int8_t row[kKc];
    alignas(32) int16_t wide[kKc];  // as 32-bit words: the k pairs
    for (int mp = 0; mp < mc; mp += kMr) {
        for (int r = 0; r < kMr; ++r, ++out) {
            const int m = m0 + mp + r;
            if (m < M) {
                memcpy(row, A + int64_t(m) * K + k0, size_t(kc));
                memset(row + kc, 0, size_t(span - kc));
            } else {
                memset(row, 0, size_t(span));
            }
            for (int k = 0; k < span; k += 16)
                _mm256_store_si256(reinterpret_cast<__m256i*>(wide + k),
                                   _mm256_cvtepi8_epi16(_mm_load_si128(reinterpret_cast<const __m128i*>(row + k))));
            for (int p = 0; p < pairs; ++p) memcpy(out + p * kMr, wide + 2 * p, 4);
        }
        out += (pairs - 1) * kMr;
    }
}

// B columns [n0, n0 + 16) and k [k0, k0 + kc): per k pair, 16 words
// (b[k][n], b[k + 1][n]) in column order; columns past N and k past the
// block are zero.
void pack_b(const int8_t* B, int N, int n0, int k0, int kc, uint32_t* out) {
    const int pairs = (kc + 1) / 2;
    const int cols = N - n0 < kNr ? N - n0 : kNr;
    int8_t edge[2][kNr];  // the rows of a partial pair, zero-padded
    for (int p = 0; p < pairs; ++p, out += kNr) {
        const int k = 2 * p;
        const int8_t* r0 = B + int64_t(k0 + k) * N + n0;
        const int8_t* r1 = k + 1 < kc ? r0 + N : nullptr;
        if (cols < kNr || !r1) {
            memset(edge, 0, sizeof edge);
            memcpy(edge[0], r0, size_t(cols));
            if (r1) memcpy(edge[1], r1, size_t(cols));
            r0 = edge[0];
            r1 = edge[1];
        }
        const __m256i w0 = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(r0)));
        const __m256i w1 = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(r1)));
        const __m256i lo = _mm256_unpacklo_epi16(w0, w1);  // columns 0-3 | 8-11
        const __m256i hi = _mm256_unpackhi_epi16(w0, w1);  // columns 4-7 | 12-15
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_permute2x128_si256(lo, hi, 0x20));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 8), _mm256_permute2x128_si256(lo, hi, 0x31));
    }
}

// One kMr x kNr tile of C over `pairs` k pairs: stored when `first`, added
// otherwise; only rows < rows and columns < cols are touched.
void tile(const uint32_t* a, const uint32_t* b, int pairs, int32_t* C, int N, int rows, int cols, bool first) {
    __m256i acc[kMr][2];
#pragma GCC unroll 16
    for (int r = 0; r < kMr; ++r) acc[r][0] = acc[r][1] = _mm256_setzero_si256();
    for (int p = 0; p < pairs; ++p, a += kMr, b += kNr) {
        const __m256i b0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b));
        const __m256i b1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 8));
#pragma GCC unroll 16
        for (int r = 0; r < kMr; ++r) {
            const __m256i av = _mm256_set1_epi32(int32_t(a[r]));
            acc[r][0] = _mm256_add_epi32(acc[r][0], _mm256_madd_epi16(av, b0));
            acc[r][1] = _mm256_add_epi32(acc[r][1], _mm256_madd_epi16(av, b1));
        }
    }
    // Unrolled with constant r, so that the accumulators stay in registers.
    if (cols == kNr) {
#pragma GCC unroll 16
        for (int r = 0; r < kMr; ++r) {
            if (r == rows) break;
            int32_t* c = C + int64_t(r) * N;
            __m256i* c0 = reinterpret_cast<__m256i*>(c);
            __m256i* c1 = reinterpret_cast<__m256i*>(c + 8);
            if (!first) {
                acc[r][0] = _mm256_add_epi32(acc[r][0], _mm256_loadu_si256(c0));
                acc[r][1] = _mm256_add_epi32(acc[r][1], _mm256_loadu_si256(c1));
            }
            _mm256_storeu_si256(c0, acc[r][0]);
            _mm256_storeu_si256(c1, acc[r][1]);
        }
        return;
    }
#pragma GCC unroll 16
    for (int r = 0; r < kMr; ++r) {
        if (r == rows) break;
        uint32_t sums[kNr];
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(sums), acc[r][0]);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(sums + 8), acc[r][1]);
        int32_t* c = C + int64_t(r) * N;
        for (int j = 0; j < cols; ++j) c[j] = int32_t(first ? sums[j] : sums[j] + uint32_t(c[j]));
    }
}

}  // namespace

void gemm_s8(int M, int N, int K, const int8_t* A, const int8_t* B, int32_t* C) {
    if (M < 1 || N < 1) return;
    if (K < 1) {
        for (int m = 0; m < M; ++m) memset(C + int64_t(m) * N, 0, size_t(N) * sizeof(int32_t));
        return;
    }
    alignas(32) uint32_t packedA[kMc * kKc / 2];
    alignas(32) uint32_t packedB[kKc / 2 * kNr];
    for (int m0 = 0; m0 < M; m0 += kMc) {
        const int mc = M - m0 < kMc ? M - m0 : kMc;
        for (int k0 = 0; k0 < K; k0 += kKc) {
            const int kc = K - k0 < kKc ? K - k0 : kKc;
            const int pairs = (kc + 1) / 2;
            pack_a(A, M, K, m0, mc, k0, kc, packedA);
            for (int n0 = 0; n0 < N; n0 += kNr) {
                const int cols = N - n0 < kNr ? N - n0 : kNr;
                pack_b(B, N, n0, k0, kc, packedB);
                for (int mp = 0; mp < mc; mp += kMr) {
                    const int rows = mc - mp < kMr ? mc - mp : kMr;
                    tile(packedA + mp * pairs, packedB, pairs, C + int64_t(m0 + mp) * N + n0, N, rows, cols, k0 == 0);
                }
            }
        }
    }
}

}  // namespace avx2
}  // namespace vo
