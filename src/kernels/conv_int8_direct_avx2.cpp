// Row kernels of the direct int8 3x3 convolution on AVX2, 16 output values
// per step. The nine taps are widened to 16 bits and taken in pairs (the
// ninth with a zero partner), so one vpmaddwd adds two products per 32-bit
// lane (at most 2 * 128 * 128 = 32768: nothing saturates); sums are
// wrapping vector adds, the same integers as the portable form.
//
// Interleaving 16-bit vectors works within 128-bit halves: the sums of a
// step are held as "lo" (values 0-3 | 8-11) and "hi" (4-7 | 12-15) and put
// back in order before they are added to the output.
#include <immintrin.h>
#include <string.h>

#include "kernels/conv_int8_direct.h"

namespace vo {
namespace avx2 {

namespace {

constexpr int kStep = 16;

inline __m256i widen(const int8_t* p) {
    return _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

// The three tap vectors of one input row: t[kx][i] = row[S * i + kx].
// Stride 1 reads 18 bytes, stride 2 reads 34.
template <int S>
inline void taps_of_row(const int8_t* row, __m256i t[3]) {
    if (S == 1) {
        t[0] = widen(row);
        t[1] = widen(row + 1);
        t[2] = widen(row + 2);
        return;
    }
    // Even bytes to the low half of each 128-bit lane, odd bytes to the
    // high half, then the halves in order: evens | odds.
    const __m256i split = _mm256_setr_epi8(0, 2, 4, 6, 8, 10, 12, 14, 1, 3, 5, 7, 9, 11, 13, 15, 0, 2, 4, 6, 8, 10,
                                           12, 14, 1, 3, 5, 7, 9, 11, 13, 15);
    const auto deinterleave = [&](const int8_t* p) {
        const __m256i x = _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)), split);
        return _mm256_permute4x64_epi64(x, 0xD8);
    };
    const __m256i a = deinterleave(row);
    const __m256i b = deinterleave(row + 2);
    t[0] = _mm256_cvtepi8_epi16(_mm256_castsi256_si128(a));
    t[1] = _mm256_cvtepi8_epi16(_mm256_extracti128_si256(a, 1));
    t[2] = _mm256_cvtepi8_epi16(_mm256_castsi256_si128(b));
}

// One step of 16 output values at rows[r] (already at the step's first
// window) and outs[j] (already at the step's first value). With MASKED only
// the lanes set in mask0 (values 0-7) and mask1 (8-15) are read and written.
template <int S, int CHN, int DH, bool MASKED>
inline void step(const int8_t* const* rows, const __m256i (*weights)[5], int32_t* const* outs, __m256i mask0,
                 __m256i mask1) {
    constexpr int kRows = S * (DH - 1) + 3;
    __m256i t[kRows][3];
#pragma GCC unroll 8
    for (int r = 0; r < kRows; ++r) taps_of_row<S>(rows[r], t[r]);
    const __m256i zero = _mm256_setzero_si256();
#pragma GCC unroll 2
    for (int dy = 0; dy < DH; ++dy) {
        // Tap i of the window is t[S * dy + i / 3][i % 3].
        __m256i lo[5], hi[5];
#pragma GCC unroll 5
        for (int p = 0; p < 5; ++p) {
            const int i = 2 * p, j = p < 4 ? 2 * p + 1 : 0;
            const __m256i first = t[S * dy + i / 3][i % 3];
            const __m256i second = p < 4 ? t[S * dy + j / 3][j % 3] : zero;
            lo[p] = _mm256_unpacklo_epi16(first, second);
            hi[p] = _mm256_unpackhi_epi16(first, second);
        }
#pragma GCC unroll 2
        for (int ch = 0; ch < CHN; ++ch) {
            __m256i accLo = _mm256_madd_epi16(lo[0], weights[ch][0]);
            __m256i accHi = _mm256_madd_epi16(hi[0], weights[ch][0]);
#pragma GCC unroll 4
            for (int p = 1; p < 5; ++p) {
                accLo = _mm256_add_epi32(accLo, _mm256_madd_epi16(lo[p], weights[ch][p]));
                accHi = _mm256_add_epi32(accHi, _mm256_madd_epi16(hi[p], weights[ch][p]));
            }
            const __m256i first8 = _mm256_permute2x128_si256(accLo, accHi, 0x20);
            const __m256i last8 = _mm256_permute2x128_si256(accLo, accHi, 0x31);
            int32_t* out = outs[dy * CHN + ch];
            if (MASKED) {
                _mm256_maskstore_epi32(out, mask0, _mm256_add_epi32(_mm256_maskload_epi32(out, mask0), first8));
                _mm256_maskstore_epi32(out + 8, mask1,
                                       _mm256_add_epi32(_mm256_maskload_epi32(out + 8, mask1), last8));
            } else {
                __m256i* o0 = reinterpret_cast<__m256i*>(out);
                __m256i* o1 = reinterpret_cast<__m256i*>(out + 8);
                _mm256_storeu_si256(o0, _mm256_add_epi32(_mm256_loadu_si256(o0), first8));
                _mm256_storeu_si256(o1, _mm256_add_epi32(_mm256_loadu_si256(o1), last8));
            }
        }
    }
}

template <int S, int CHN, int DH>
void rows_3x3(const int8_t* const* rows, int outW, const int16_t* kernel, int32_t* const* outs) {
    constexpr int kRows = S * (DH - 1) + 3;
    constexpr int kOuts = CHN * DH;
    // Tap pairs (0, 1), (2, 3), (4, 5), (6, 7), (8, -) as 32-bit words.
    __m256i weights[CHN][5];
    for (int ch = 0; ch < CHN; ++ch) {
        const int16_t* k = kernel + ch * 9;
        for (int p = 0; p < 5; ++p) {
            const uint32_t second = p < 4 ? uint16_t(k[2 * p + 1]) : 0u;
            weights[ch][p] = _mm256_set1_epi32(int32_t(uint32_t(uint16_t(k[2 * p])) | second << 16));
        }
    }
    const int8_t* r[kRows];
    int32_t* o[kOuts];
    const __m256i all = _mm256_set1_epi32(-1);
    // A full step reads S * 16 + 2 bytes (34 for stride 2, one past the
    // last window): it runs only where those bytes are part of the rows.
    int x = 0;
    for (; x + kStep + (S - 1) <= outW; x += kStep) {
        for (int i = 0; i < kRows; ++i) r[i] = rows[i] + S * x;
        for (int i = 0; i < kOuts; ++i) o[i] = outs[i] + x;
        step<S, CHN, DH, false>(r, weights, o, all, all);
    }
    if (x == outW) return;
    // The rest: the bytes its windows cover, copied into zeroed rows long
    // enough for a full step, and masked output lanes.
    const int rest = outW - x;
    alignas(32) int8_t copy[kRows][64];
    const size_t bytes = size_t(S * (rest - 1) + 3);
    for (int i = 0; i < kRows; ++i) {
        memset(copy[i], 0, sizeof copy[i]);
        memcpy(copy[i], rows[i] + S * x, bytes);
        r[i] = copy[i];
    }
    for (int i = 0; i < kOuts; ++i) o[i] = outs[i] + x;
    const __m256i count = _mm256_set1_epi32(rest);
    const __m256i mask0 = _mm256_cmpgt_epi32(count, _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    const __m256i mask1 = _mm256_cmpgt_epi32(count, _mm256_setr_epi32(8, 9, 10, 11, 12, 13, 14, 15));
    step<S, CHN, DH, true>(r, weights, o, mask0, mask1);
}

}  // namespace

#define VO_CONV3X3_S8_DEFINE(name, S, CHN, DH)                                                         \
    void name(const int8_t* const* rows, int outW, const int16_t* kernel, int32_t* const* outs) {       \
        rows_3x3<S, CHN, DH>(rows, outW, kernel, outs);                                                 \
    }
VO_CONV3X3_S8_DEFINE(conv_mul_3x3s1_chn2_dh2_dw4_asm_s8, 1, 2, 2)
VO_CONV3X3_S8_DEFINE(conv_mul_3x3s1_chn2_dh1_dw4_asm_s8, 1, 2, 1)
VO_CONV3X3_S8_DEFINE(conv_mul_3x3s1_chn1_dh2_dw4_asm_s8, 1, 1, 2)
VO_CONV3X3_S8_DEFINE(conv_mul_3x3s1_chn1_dh1_dw8_asm_s8, 1, 1, 1)
VO_CONV3X3_S8_DEFINE(conv_mul_3x3s2_chn2_dh2_dw4_asm_s8, 2, 2, 2)
VO_CONV3X3_S8_DEFINE(conv_mul_3x3s2_chn2_dh1_dw4_asm_s8, 2, 2, 1)
VO_CONV3X3_S8_DEFINE(conv_mul_3x3s2_chn1_dh2_dw4_asm_s8, 2, 1, 2)
VO_CONV3X3_S8_DEFINE(conv_mul_3x3s2_chn1_dh1_dw4_asm_s8, 2, 1, 1)
#undef VO_CONV3X3_S8_DEFINE

const Conv3x3S8Kernels kConv3x3S8 = {
    {{conv_mul_3x3s1_chn1_dh1_dw8_asm_s8, conv_mul_3x3s1_chn1_dh2_dw4_asm_s8},
     {conv_mul_3x3s1_chn2_dh1_dw4_asm_s8, conv_mul_3x3s1_chn2_dh2_dw4_asm_s8}},
    {{conv_mul_3x3s2_chn1_dh1_dw4_asm_s8, conv_mul_3x3s2_chn1_dh2_dw4_asm_s8},
     {conv_mul_3x3s2_chn2_dh1_dw4_asm_s8, conv_mul_3x3s2_chn2_dh2_dw4_asm_s8}},
};

}  // namespace avx2
}  // namespace vo
