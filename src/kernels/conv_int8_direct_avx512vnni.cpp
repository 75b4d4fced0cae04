// Direct int8 3x3 convolution on AVX-512 VNNI (reached only after the CPU
// check). vpdpbusd adds four unsigned x signed byte products to a 32-bit
// lane with a wrapping add. The row words hold the image bytes offset by
// 128 (b ^ 0x80 as an unsigned byte) in their first three bytes and 0 in
// the fourth; the weights are broadcast straight from the record, three
// taps and one byte whose product with that 0 vanishes. Every sum thus
// gains 128 * (sum of the output channel's weights), so the sums start at
// minus that: exactly the signed sums, modulo 2^32.
#include <immintrin.h>
#include <stdint.h>
#include <string.h>

#include "kernels/conv_int8_direct.h"
#include "kernels/int8.h"
#include "kernels/scratch.h"

#pragma GCC push_options
#pragma GCC target("avx512f,avx512bw,avx512vl,avx512vnni")

namespace vo {
namespace avx512vnni {

namespace {

// Register block: 8 output channels x 3 vectors of 16 pixels (24
// accumulators).
constexpr int kMr = 8;
constexpr int kNv = 3;
constexpr int kLanes = 16;

// Row words of 16 output columns from the bytes at s * x, s * x + 1 and
// s * x + 2 (a, b, c).
inline void row_words(__m128i a, __m128i b, __m128i c, uint32_t* dst) {
    const __m128i flip = _mm_set1_epi8(char(0x80));
    a = _mm_xor_si128(a, flip);
    b = _mm_xor_si128(b, flip);
    c = _mm_xor_si128(c, flip);
    const __m128i zero = _mm_setzero_si128();
    const __m128i abLo = _mm_unpacklo_epi8(a, b), abHi = _mm_unpackhi_epi8(a, b);
    const __m128i cLo = _mm_unpacklo_epi8(c, zero), cHi = _mm_unpackhi_epi8(c, zero);
    __m128i* out = reinterpret_cast<__m128i*>(dst);
    _mm_storeu_si128(out + 0, _mm_unpacklo_epi16(abLo, cLo));
    _mm_storeu_si128(out + 1, _mm_unpackhi_epi16(abLo, cLo));
    _mm_storeu_si128(out + 2, _mm_unpacklo_epi16(abHi, cHi));
    _mm_storeu_si128(out + 3, _mm_unpackhi_epi16(abHi, cHi));
}

inline __m128i load16(const int8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// Bytes first .. first + 63 of a row of `width` bytes, zero outside it; a
// masked load reads only the bytes inside.
inline __m512i load_span(const int8_t* row, int64_t first, int64_t width) {
    const int64_t lo = first < 0 ? -first : 0;
    const int64_t hi = width - first < 64 ? width - first : 64;
    if (hi <= lo) return _mm512_setzero_si512();
    const uint64_t below = hi == 64 ? ~0ull : (1ull << hi) - 1u;
    const __mmask64 mask = below & ~((1ull << lo) - 1u);
    return _mm512_maskz_loadu_epi8(mask, reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(row) + first));
}

// Row words of 64 output columns (stride 1). Unpacking works within
// 128-bit lanes, so the four results hold 4-column groups of all four
// lanes; a 4 x 4 transpose of the lanes restores column order.
inline void row_words64(__m512i a, __m512i b, __m512i c, uint32_t* dst) {
    const __m512i flip = _mm512_set1_epi8(char(0x80));
    a = _mm512_xor_si512(a, flip);
    b = _mm512_xor_si512(b, flip);
    c = _mm512_xor_si512(c, flip);
    const __m512i zero = _mm512_setzero_si512();
    const __m512i abLo = _mm512_unpacklo_epi8(a, b), abHi = _mm512_unpackhi_epi8(a, b);
    const __m512i cLo = _mm512_unpacklo_epi8(c, zero), cHi = _mm512_unpackhi_epi8(c, zero);
    const __m512i v0 = _mm512_unpacklo_epi16(abLo, cLo), v1 = _mm512_unpackhi_epi16(abLo, cLo);
    const __m512i v2 = _mm512_unpacklo_epi16(abHi, cHi), v3 = _mm512_unpackhi_epi16(abHi, cHi);
    // (The zero-masked form: the plain one trips a false uninitialised
    // warning in some compilers' headers.)
#define VO_LANES(x, y, imm) _mm512_maskz_shuffle_i32x4(0xFFFF, x, y, imm)
    const __m512i t0 = VO_LANES(v0, v1, 0x44), t1 = VO_LANES(v2, v3, 0x44);
    const __m512i t2 = VO_LANES(v0, v1, 0xEE), t3 = VO_LANES(v2, v3, 0xEE);
    _mm512_storeu_si512(dst, VO_LANES(t0, t1, 0x88));
    _mm512_storeu_si512(dst + 16, VO_LANES(t0, t1, 0xDD));
    _mm512_storeu_si512(dst + 32, VO_LANES(t2, t3, 0x88));
    _mm512_storeu_si512(dst + 48, VO_LANES(t2, t3, 0xDD));
#undef VO_LANES
}

// The row-word copy of every channel. Rows are written in slot order, so
// the spill of a row's last step (64 or 16 columns) lands in rows written
// after it; the last one spills into the channel's spare words, which are
// then cleared. Stride 1 reads the image rows with masked loads;
// stride 2 samples a zero-padded copy of each row.
void build_rows(const Conv3x3S8Job& j, const Conv3x3S8Rows& g, int8_t* temp, int len, int8_t* room,
                uint32_t* X) {
    const int cols = (j.outW + kLanes - 1) / kLanes * kLanes;
    int8_t* t = temp;
    int8_t* sampled = temp + len;  // stride 2: the three byte columns
    const int64_t cw = g.channel_words();
    for (int c = 0; c < j.channels; ++c) {
        const int8_t* bytes = conv3x3_s8_plane(j, c, room, avx2::quantize_input);
        uint32_t* dst = X + int64_t(c) * cw;
        for (int s = 0; s < g.rows(); ++s) {
            uint32_t* row = dst + int64_t(s) * j.outW;
            if (j.stride == 1) {
                const int iy = s - j.padH;
                const int64_t width = iy < 0 || iy >= j.height ? 0 : j.width;
                const int8_t* src = bytes + int64_t(width ? iy : 0) * j.width;
                for (int x = 0; x < j.outW; x += 64) {
                    const int64_t first = int64_t(x) - j.padW;
                    row_words64(load_span(src, first, width), load_span(src, first + 1, width),
                                load_span(src, first + 2, width), row + x);
                }
                continue;
            }
            conv3x3_s8_padded_row(j, bytes, g.row(s), t, len);
            int8_t* se = sampled;
            int8_t* sf = sampled + cols;
            int8_t* sh = sampled + 2 * cols;
            for (int x = 0; x < cols; ++x) {
                se[x] = t[2 * x];
                sf[x] = t[2 * x + 1];
                sh[x] = t[2 * x + 2];
            }
            for (int x = 0; x < cols; x += kLanes) row_words(load16(se + x), load16(sf + x), load16(sh + x), row + x);
        }
        const int64_t used = int64_t(g.rows()) * j.outW;
        memset(dst + used, 0, size_t(cw - used) * sizeof(uint32_t));
    }
}

template <int MR, int NV, bool SUMS>
void block(const Conv3x3S8Job& j, const uint32_t* X, int64_t cw, const int64_t off[3], int64_t p0, int o0,
           const uint32_t* corr) {
    const int64_t K = int64_t(j.channels) * 9;
    const int rows = j.outC - o0 < MR ? j.outC - o0 : MR;
    // Rows past the last output channel repeat it; they are not stored.
    const int8_t* w[MR];
    for (int r = 0; r < MR; ++r) w[r] = j.weights + int64_t(r < rows ? o0 + r : j.outC - 1) * K;
    __m512i acc[MR][NV];
    // The sums start at minus the offset's share (a wrapping add).
#pragma GCC unroll 32
    for (int r = 0; r < MR; ++r)
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) acc[r][v] = _mm512_set1_epi32(int32_t(0u - corr[r < rows ? o0 + r : 0]));
    const uint32_t* xc = X + p0;
    for (int c = 0; c < j.channels; ++c, xc += cw) {
#pragma GCC unroll 3
        for (int ky = 0; ky < 3; ++ky) {
            const uint32_t* xr = xc + off[ky];
            __m512i b[NV];
#pragma GCC unroll 4
            for (int v = 0; v < NV; ++v) b[v] = _mm512_loadu_si512(xr + kLanes * v);
            const int64_t wo = int64_t(c) * 9 + ky * 3;
#pragma GCC unroll 8
            for (int r = 0; r < MR; ++r) {
                int32_t word;
                memcpy(&word, w[r] + wo, 4);
                const __m512i a = _mm512_set1_epi32(word);
#pragma GCC unroll 4
                for (int v = 0; v < NV; ++v) acc[r][v] = _mm512_dpbusd_epi32(acc[r][v], b[v], a);
            }
        }
    }
    const int64_t N = int64_t(j.outH) * j.outW;
    // Unrolled with constant r, so that the accumulators stay in registers.
#pragma GCC unroll 8
    for (int r = 0; r < MR; ++r) {
        if (r == rows) break;
        const int o = o0 + r;
        const __m512 scale = _mm512_set1_ps(SUMS ? 0.0f : j.scales[o]);
        const __m512 bias = _mm512_set1_ps(SUMS || !j.bias ? 0.0f : j.bias[o]);
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) {
            const int64_t at = p0 + kLanes * v;
            if (at >= N) break;
            const __m512i sum = acc[r][v];
            if (SUMS) {
                int32_t* dst = j.sums + o * N + at;
                if (N - at >= kLanes)
                    _mm512_storeu_si512(dst, sum);
                else
                    _mm512_mask_storeu_epi32(dst, __mmask16((1u << (N - at)) - 1u), sum);
            } else {
                float* dst = j.out + o * N + at;
                const __m512 value = _mm512_fmadd_ps(_mm512_maskz_cvtepi32_ps(0xFFFF, sum), scale, bias);
                if (N - at >= kLanes)
                    _mm512_storeu_ps(dst, value);
                else
                    _mm512_mask_storeu_ps(dst, __mmask16((1u << (N - at)) - 1u), value);
            }
        }
    }
}

template <bool SUMS>
void run(const Conv3x3S8Job& j, const uint32_t* X, int64_t cw, const int64_t off[3], const uint32_t* corr) {
    const int64_t N = int64_t(j.outH) * j.outW;
    // Pixel blocks outside, so that their rows stay in cache while every
    // output channel block passes over them.
    for (int64_t p0 = 0; p0 < N; p0 += kNv * kLanes) {
        const int64_t vectors = (N - p0 + kLanes - 1) / kLanes;
        for (int o0 = 0; o0 < j.outC; o0 += kMr) {
            // A last block of at most 4 channels computes only those.
            if (j.outC - o0 <= 4) {
                if (vectors >= 3)
                    block<4, 3, SUMS>(j, X, cw, off, p0, o0, corr);
                else if (vectors == 2)
                    block<4, 2, SUMS>(j, X, cw, off, p0, o0, corr);
                else
                    block<4, 1, SUMS>(j, X, cw, off, p0, o0, corr);
            } else if (vectors >= 3) {
                block<kMr, 3, SUMS>(j, X, cw, off, p0, o0, corr);
            } else if (vectors == 2) {
                block<kMr, 2, SUMS>(j, X, cw, off, p0, o0, corr);
            } else {
                block<kMr, 1, SUMS>(j, X, cw, off, p0, o0, corr);
            }
        }
    }
}

}  // namespace

int conv3x3_s8_image(const Conv3x3S8Job& j) {
    static_assert(kNv == 3, "run() picks the block widths 3, 2, 1");
    const Conv3x3S8Rows g{j.stride, j.outH, j.outW};
    const int cols = (j.outW + kLanes - 1) / kLanes * kLanes;
    // A padded row as far as the last step reads it, and for stride 2 the
    // three byte columns sampled from it.
    const int len = j.stride * cols + 16;
    const int64_t cw = g.channel_words();
    // Then the quantised plane of one channel when the input is floats.
    const size_t tempBytes = size_t(len) + 3 * size_t(cols);
    const size_t roomBytes = j.image ? 0 : size_t(j.height) * size_t(j.width);
    const size_t tempFloats = (tempBytes + roomBytes + 3) / 4;
    float* words = scratch_floats(kScratchPackB, size_t(cw) * size_t(j.channels));
    float* other = scratch_floats(kScratchPackA, tempFloats + size_t(j.outC));
    if (!words || !other) return 5;
    auto* X = reinterpret_cast<uint32_t*>(words);
    auto* corr = reinterpret_cast<uint32_t*>(other);
    auto* temp = reinterpret_cast<int8_t*>(other + j.outC);

    // 128 * (sum of each output channel's weights), wrapping.
    const int64_t K = int64_t(j.channels) * 9;
    const __m512i ones = _mm512_set1_epi8(1);
    for (int o = 0; o < j.outC; ++o) {
        const int8_t* w = j.weights + o * K;
        __m512i lanes = _mm512_setzero_si512();
        int64_t k = 0;
        for (; k + 64 <= K; k += 64) lanes = _mm512_dpbusd_epi32(lanes, ones, _mm512_loadu_si512(w + k));
        if (k < K)
            lanes = _mm512_dpbusd_epi32(lanes, ones, _mm512_maskz_loadu_epi8(~0ull >> (64 - (K - k)), w + k));
        uint32_t part[16];
        _mm512_storeu_si512(part, lanes);
        uint32_t sum = 0;
        for (uint32_t v : part) sum += v;
        corr[o] = sum * 128u;
    }
    build_rows(j, g, temp, len, temp + tempBytes, X);
    const int64_t off[3] = {int64_t(g.slot(0)) * j.outW, int64_t(g.slot(1)) * j.outW, int64_t(g.slot(2)) * j.outW};
    if (j.sums)
        run<true>(j, X, cw, off, corr);
    else
        run<false>(j, X, cw, off, corr);
    return 0;
}

// Faster than unfolding on every layer measured, from 3 to 128 channels
// and 8 to 56 columns.
bool conv3x3_s8_preferred(int, int) { return true; }

const Conv3x3S8Kernels kConv3x3S8 = {conv3x3_s8_image, conv3x3_s8_preferred};

}  // namespace avx512vnni
}  // namespace vo

#pragma GCC pop_options
