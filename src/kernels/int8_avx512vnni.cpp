// The int8 matrix product on AVX-512 VNNI. Only this file is compiled for
// those instructions, and only reached after the CPU check.
//
// vpdpbusd multiplies unsigned by signed bytes, four at a time, and adds
// the four products (each within +-32640) to a 32-bit lane with a wrapping
// add. B is stored offset by 128 (b ^ 0x80 == b + 128 as an unsigned
// byte), so each lane gains 128 * (sum of the row's A values), which is
// subtracted again: the sums are exactly those of signed * signed, modulo
// 2^32.
#include <immintrin.h>
#include <stdint.h>
#include <string.h>

#include "kernels/int8.h"

#pragma GCC push_options
#pragma GCC target("avx512f,avx512bw,avx512vl,avx512vnni")

namespace vo {
namespace avx512vnni {

namespace {

// Register tile 8 rows x 32 columns (16 accumulators); k in blocks of 256
// (64 groups of 4); A in blocks of 64 rows. Stack: 16 KB of A, 8 KB of B.
constexpr int kMr = 8;
constexpr int kNr = 32;
constexpr int kKc = 256;
constexpr int kMc = 64;
static_assert(kMc % kMr == 0 && kKc % 4 == 0, "blocking");

// A rows [m0, m0 + mc) and k [k0, k0 + kc) as micro-panels of kMr rows: per
// group of 4 k, kMr words of 4 signed bytes; rows past M and k past the
// block are zero. corr[r] receives 128 * (sum of the row's values), with
// wrap-around.
void pack_a(const int8_t* A, int M, int K, int m0, int mc, int k0, int kc, int8_t* out, uint32_t* corr) {
    const int quads = (kc + 3) / 4;
    const int span = (kc + 31) / 32 * 32;
    const __m256i ones = _mm256_set1_epi8(1);
    alignas(32) int8_t row[kKc];  // the block's k, zero from kc to span
    for (int mp = 0; mp < mc; mp += kMr) {
        for (int r = 0; r < kMr; ++r) {
            const int m = m0 + mp + r;
            if (m < M) {
                memcpy(row, A + int64_t(m) * K + k0, size_t(kc));
                memset(row + kc, 0, size_t(span - kc));
            } else {
                memset(row, 0, size_t(span));
            }
            // The row sum with vpdpbusd by ones (|sum| <= 128 * 256).
            __m256i sums = _mm256_setzero_si256();
            for (int k = 0; k < span; k += 32)
                sums = _mm256_dpbusd_epi32(sums, ones, _mm256_load_si256(reinterpret_cast<const __m256i*>(row + k)));
            int8_t* dst = out + int64_t(mp) * quads * 4 + r * 4;
            for (int q = 0; q < quads; ++q) memcpy(dst + q * kMr * 4, row + 4 * q, 4);
            __m128i quarter = _mm_add_epi32(_mm256_castsi256_si128(sums), _mm256_extracti128_si256(sums, 1));
            quarter = _mm_add_epi32(quarter, _mm_shuffle_epi32(quarter, 0x4E));
            quarter = _mm_add_epi32(quarter, _mm_shuffle_epi32(quarter, 0xB1));
            corr[mp + r] = uint32_t(_mm_cvtsi128_si32(quarter)) * 128u;
        }
    }
}

// B columns [n0, n0 + 32) and k [k0, k0 + kc): per group of 4 k, 32 words
// of 4 bytes b[k..k+3][n] ^ 0x80 in column order. Padding (past N or past
// the block) meets a zero of A or is never stored, so its value is free.
void pack_b(const int8_t* B, int N, int n0, int k0, int kc, uint8_t* out) {
    const int quads = (kc + 3) / 4;
    const int cols = N - n0 < kNr ? N - n0 : kNr;
    const __m128i flip = _mm_set1_epi8(char(0x80));
    int8_t edge[4][kNr];  // the rows of a partial group, zero-padded
    for (int q = 0; q < quads; ++q, out += kNr * 4) {
        const int k = 4 * q;
        const int8_t* rows[4];
        if (cols == kNr && k + 4 <= kc) {
            for (int j = 0; j < 4; ++j) rows[j] = B + int64_t(k0 + k + j) * N + n0;
        } else {
            memset(edge, 0, sizeof edge);
            for (int j = 0; j < 4 && k + j < kc; ++j) memcpy(edge[j], B + int64_t(k0 + k + j) * N + n0, size_t(cols));
            for (int j = 0; j < 4; ++j) rows[j] = edge[j];
        }
        for (int half = 0; half < kNr; half += 16) {
            const auto load = [&](int j) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[j] + half)); };
            const __m128i x0 = load(0), x1 = load(1), x2 = load(2), x3 = load(3);
            const __m128i t01lo = _mm_unpacklo_epi8(x0, x1), t01hi = _mm_unpackhi_epi8(x0, x1);
            const __m128i t23lo = _mm_unpacklo_epi8(x2, x3), t23hi = _mm_unpackhi_epi8(x2, x3);
            __m128i* dst = reinterpret_cast<__m128i*>(out + half * 4);
            _mm_storeu_si128(dst + 0, _mm_xor_si128(_mm_unpacklo_epi16(t01lo, t23lo), flip));
            _mm_storeu_si128(dst + 1, _mm_xor_si128(_mm_unpackhi_epi16(t01lo, t23lo), flip));
            _mm_storeu_si128(dst + 2, _mm_xor_si128(_mm_unpacklo_epi16(t01hi, t23hi), flip));
            _mm_storeu_si128(dst + 3, _mm_xor_si128(_mm_unpackhi_epi16(t01hi, t23hi), flip));
        }
    }
}

// One kMr x kNr tile of C over `quads` groups of 4 k: stored when `first`,
// added otherwise; only rows < rows and columns < cols are touched.
void tile(const int8_t* a, const uint8_t* b, const uint32_t* corr, int quads, int32_t* C, int N, int rows,
          int cols, bool first) {
    __m512i acc[kMr][2];
#pragma GCC unroll 16
    for (int r = 0; r < kMr; ++r) acc[r][0] = acc[r][1] = _mm512_setzero_si512();
    for (int q = 0; q < quads; ++q, a += kMr * 4, b += kNr * 4) {
        const __m512i b0 = _mm512_loadu_si512(b);
        const __m512i b1 = _mm512_loadu_si512(b + 64);
#pragma GCC unroll 16
        for (int r = 0; r < kMr; ++r) {
            int32_t word;
            memcpy(&word, a + r * 4, 4);
            const __m512i av = _mm512_set1_epi32(word);
            acc[r][0] = _mm512_dpbusd_epi32(acc[r][0], b0, av);
            acc[r][1] = _mm512_dpbusd_epi32(acc[r][1], b1, av);
        }
    }
    const __mmask16 m0 = cols >= 16 ? __mmask16(0xFFFF) : __mmask16((1u << cols) - 1u);
    const __mmask16 m1 = cols >= 32 ? __mmask16(0xFFFF) : cols <= 16 ? __mmask16(0) : __mmask16((1u << (cols - 16)) - 1u);
    // Unrolled with constant r, so that the accumulators stay in registers.
#pragma GCC unroll 16
    for (int r = 0; r < kMr; ++r) {
        if (r == rows) break;
        const __m512i c = _mm512_set1_epi32(int32_t(corr[r]));
        __m512i s0 = _mm512_sub_epi32(acc[r][0], c);
        __m512i s1 = _mm512_sub_epi32(acc[r][1], c);
        int32_t* row = C + int64_t(r) * N;
        if (!first) {
            s0 = _mm512_add_epi32(s0, _mm512_maskz_loadu_epi32(m0, row));
            s1 = _mm512_add_epi32(s1, _mm512_maskz_loadu_epi32(m1, row + 16));
        }
        _mm512_mask_storeu_epi32(row, m0, s0);
        _mm512_mask_storeu_epi32(row + 16, m1, s1);
    }
}

}  // namespace

void gemm_s8(int M, int N, int K, const int8_t* A, const int8_t* B, int32_t* C) {
    if (M < 1 || N < 1) return;
    if (K < 1) {
        for (int m = 0; m < M; ++m) memset(C + int64_t(m) * N, 0, size_t(N) * sizeof(int32_t));
        return;
    }
    alignas(64) int8_t packedA[kMc * kKc];
    alignas(64) uint8_t packedB[kKc * kNr];
    uint32_t corr[kMc];
    for (int m0 = 0; m0 < M; m0 += kMc) {
        const int mc = M - m0 < kMc ? M - m0 : kMc;
        for (int k0 = 0; k0 < K; k0 += kKc) {
            const int kc = K - k0 < kKc ? K - k0 : kKc;
            const int quads = (kc + 3) / 4;
            pack_a(A, M, K, m0, mc, k0, kc, packedA, corr);
            for (int n0 = 0; n0 < N; n0 += kNr) {
                const int cols = N - n0 < kNr ? N - n0 : kNr;
                pack_b(B, N, n0, k0, kc, packedB);
                for (int mp = 0; mp < mc; mp += kMr) {
                    const int rows = mc - mp < kMr ? mc - mp : kMr;
                    tile(packedA + int64_t(mp) * quads * 4, packedB, corr + mp, quads, C + int64_t(m0 + mp) * N + n0,
                         N, rows, cols, k0 == 0);
                }
            }
        }
    }
}

}  // namespace avx512vnni
}  // namespace vo

#pragma GCC pop_options
