// Direct int8 3x3 convolution on AVX2. The image is copied with input
// channels in pairs: one 32-bit word per pair and padded pixel holding the
// two values widened to 16 bits (with stride 2 the even columns of each row
// before the odd ones), and the weights are packed to match, so each tap
// of a channel pair is one vpmaddwd per output channel and 8 pixels. Each
// vpmaddwd lane adds two products of 8-bit values (at most 2 * 128 * 128 =
// 32768), so nothing saturates; sums are wrapping vector adds.
//
// The pixels are taken as vectors of up to 8 values of one output row,
// row after row; a block is 4 output channels x 3 such vectors.
#include <immintrin.h>
#include <stdint.h>
#include <string.h>

#include "kernels/conv_int8_direct.h"
#include "kernels/int8.h"
#include "kernels/scratch.h"

namespace vo {
namespace avx2 {

namespace {

constexpr int kMr = 4;
constexpr int kNv = 3;
constexpr int kLanes = 8;

// Layout of the channel-pair copy.
struct PairImage {
    PairImage(const Conv3x3S8Job& j) : stride(j.stride) {
        const int cols = (j.outW + kLanes - 1) / kLanes * kLanes;
        rows = stride * (j.outH - 1) + 3;
        // Words a vector of the last columns reads, per column phase.
        phase = stride == 1 ? cols + 2 : cols + 1;
        rowWords = (stride * phase + kLanes - 1) / kLanes * kLanes;
        pairWords = int64_t(rows) * rowWords + 16;
        pairs = (j.channels + 1) / 2;
    }
    // Word offset of tap (ky, kx) from the window's corner.
    int64_t tap(int ky, int kx) const {
        return int64_t(ky) * rowWords + (stride == 1 ? kx : (kx % 2) * phase + kx / 2);
    }
    int stride, rows, phase, rowWords, pairs;
    int64_t pairWords;
};

void build_pairs(const Conv3x3S8Job& j, const PairImage& P, int8_t* temp, int len, int8_t* room, uint32_t* X) {
    int8_t* t[2] = {temp, temp + len};
    int8_t* sampled = temp + 2 * len;  // stride 2: even | odd columns of both rows
    const int8_t zeroRow[1] = {0};
    for (int p = 0; p < P.pairs; ++p) {
        const int8_t* bytes[2];
        for (int i = 0; i < 2; ++i)
            bytes[i] = 2 * p + i < j.channels ? conv3x3_s8_plane(j, 2 * p + i, room + i * int64_t(j.height) * j.width,
                                                                 quantize_input)
                                              : zeroRow;
        uint32_t* dst = X + int64_t(p) * P.pairWords;
        for (int r = 0; r < P.rows; ++r) {
            for (int i = 0; i < 2; ++i) {
                if (2 * p + i < j.channels)
                    conv3x3_s8_padded_row(j, bytes[i], r, t[i], len);
                else
                    memset(t[i], 0, size_t(len));
            }
            const int8_t* src[2] = {t[0], t[1]};
            if (P.stride == 2) {
                for (int i = 0; i < 2; ++i) {
                    int8_t* even = sampled + i * 2 * P.phase;
                    int8_t* odd = even + P.phase;
                    for (int x = 0; x < P.phase; ++x) {
                        even[x] = t[i][2 * x];
                        odd[x] = t[i][2 * x + 1];
                    }
                    src[i] = even;
                }
            }
            // Both phases of a row follow each other in the sampled rows
            // and in the copy (phase words apart), so one pass covers them.
            uint32_t* row = dst + int64_t(r) * P.rowWords;
            for (int x = 0; x < P.rowWords; x += kLanes) {
                const __m128i a = _mm_cvtepi8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(src[0] + x)));
                const __m128i b = _mm_cvtepi8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(src[1] + x)));
                _mm_storeu_si128(reinterpret_cast<__m128i*>(row + x), _mm_unpacklo_epi16(a, b));
                _mm_storeu_si128(reinterpret_cast<__m128i*>(row + x + 4), _mm_unpackhi_epi16(a, b));
            }
        }
        memset(dst + int64_t(P.rows) * P.rowWords, 0, 16 * sizeof(uint32_t));
    }
}

// Weights of output channel o per channel pair and tap: (w[o][2p][t],
// w[o][2p + 1][t]) in 16-bit halves; a missing channel and output channels
// past outC up to a multiple of kMr are zero.
void pack_weights(const Conv3x3S8Job& j, int pairs, uint32_t* packed) {
    const int blocks = (j.outC + kMr - 1) / kMr;
    for (int o = 0; o < blocks * kMr; ++o) {
        const int8_t* w = o < j.outC ? j.weights + int64_t(o) * j.channels * 9 : nullptr;
        for (int p = 0; p < pairs; ++p, packed += 9) {
            for (int t = 0; t < 9; ++t) {
                const int c = 2 * p;
                const int16_t lo = w ? w[c * 9 + t] : 0;
                const int16_t hi = w && c + 1 < j.channels ? w[(c + 1) * 9 + t] : 0;
                packed[t] = uint32_t(uint16_t(lo)) | uint32_t(uint16_t(hi)) << 16;
            }
        }
    }
}

// A vector of output pixels: its window corner in the copy, its place in
// an output plane and how many of its lanes are pixels. A short vector is
// still stored whole when its other lanes fall on pixels of the plane that
// are stored later (the next rows); only the plane's last values are
// copied one by one (masked stores are slow on some cores).
struct Vec {
    int64_t in, out;
    int lanes;
};

template <int NV, bool SUMS>
void block(const Conv3x3S8Job& j, const PairImage& P, const uint32_t* X, const Vec* vec, int o0,
           const uint32_t* packed) {
    const uint32_t* w = packed + int64_t(o0) * P.pairs * 9;
    const int64_t wStride = int64_t(P.pairs) * 9;
    int64_t tapOff[9];
    for (int t = 0; t < 9; ++t) tapOff[t] = P.tap(t / 3, t % 3);
    __m256i acc[kMr][NV];
#pragma GCC unroll 16
    for (int r = 0; r < kMr; ++r)
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) acc[r][v] = _mm256_setzero_si256();
    const uint32_t* xp = X;
    for (int p = 0; p < P.pairs; ++p, xp += P.pairWords, w += 9) {
        // Not unrolled: with 16 vector registers the accumulators must not
        // compete with hoisted operands.
#pragma GCC unroll 1
        for (int t = 0; t < 9; ++t) {
            __m256i b[NV];
#pragma GCC unroll 4
            for (int v = 0; v < NV; ++v)
                b[v] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(xp + vec[v].in + tapOff[t]));
#pragma GCC unroll 4
            for (int r = 0; r < kMr; ++r) {
                const __m256i a = _mm256_set1_epi32(int32_t(w[r * wStride + t]));
#pragma GCC unroll 4
                for (int v = 0; v < NV; ++v) acc[r][v] = _mm256_add_epi32(acc[r][v], _mm256_madd_epi16(b[v], a));
            }
        }
    }
    const int rows = j.outC - o0 < kMr ? j.outC - o0 : kMr;
    const int64_t N = int64_t(j.outH) * j.outW;
    // Unrolled with constant r, so that the accumulators stay in registers.
#pragma GCC unroll 4
    for (int r = 0; r < kMr; ++r) {
        if (r == rows) break;
        const int o = o0 + r;
        const __m256 scale = _mm256_set1_ps(SUMS ? 0.0f : j.scales[o]);
        const __m256 bias = _mm256_set1_ps(SUMS || !j.bias ? 0.0f : j.bias[o]);
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) {
            const int64_t at = o * N + vec[v].out;
            const bool whole = vec[v].out + kLanes <= N;
            alignas(32) uint32_t last[kLanes];
            if (SUMS) {
                if (whole)
                    _mm256_storeu_si256(reinterpret_cast<__m256i*>(j.sums + at), acc[r][v]);
                else
                    _mm256_store_si256(reinterpret_cast<__m256i*>(last), acc[r][v]);
            } else {
                const __m256 value = _mm256_fmadd_ps(_mm256_cvtepi32_ps(acc[r][v]), scale, bias);
                if (whole)
                    _mm256_storeu_ps(j.out + at, value);
                else
                    _mm256_store_ps(reinterpret_cast<float*>(last), value);
            }
            if (!whole) memcpy(SUMS ? static_cast<void*>(j.sums + at) : static_cast<void*>(j.out + at), last,
                               size_t(vec[v].lanes) * 4);
        }
    }
}

template <bool SUMS>
void run(const Conv3x3S8Job& j, const PairImage& P, const uint32_t* X, const uint32_t* packed) {
    // Vectors row by row; kNv of them (possibly from several rows) per block.
    Vec vec[kNv];
    int count = 0;
    const auto flush = [&] {
        for (int o0 = 0; o0 < j.outC; o0 += kMr) {
            if (count == 3)
                block<3, SUMS>(j, P, X, vec, o0, packed);
            else if (count == 2)
                block<2, SUMS>(j, P, X, vec, o0, packed);
            else
                block<1, SUMS>(j, P, X, vec, o0, packed);
        }
        count = 0;
    };
    for (int y = 0; y < j.outH; ++y) {
        for (int x = 0; x < j.outW; x += kLanes) {
            vec[count].in = int64_t(P.stride) * y * P.rowWords + x;
            vec[count].out = int64_t(y) * j.outW + x;
            vec[count].lanes = j.outW - x < kLanes ? j.outW - x : kLanes;
            if (++count == kNv) flush();
        }
    }
    if (count) flush();
}

}  // namespace

int conv3x3_s8_image(const Conv3x3S8Job& j) {
    static_assert(kNv == 3, "run() picks the block widths 3, 2, 1");
    const PairImage P(j);
    // Two padded rows as far as a pass reads them, their sampled columns,
    // then the quantised planes of two channels when the input is floats.
    const int len = 2 * P.rowWords + 16;
    const size_t packedWords = size_t((j.outC + kMr - 1) / kMr * kMr) * size_t(P.pairs) * 9;
    const size_t tempBytes = 4 * size_t(len);
    const size_t roomBytes = j.image ? 0 : 2 * size_t(j.height) * size_t(j.width);
    float* words = scratch_floats(kScratchPackB, size_t(P.pairWords) * size_t(P.pairs));
    float* other = scratch_floats(kScratchPackA, packedWords + (tempBytes + roomBytes + 3) / 4);
    if (!words || !other) return 5;
    auto* X = reinterpret_cast<uint32_t*>(words);
    auto* packed = reinterpret_cast<uint32_t*>(other);
    auto* temp = reinterpret_cast<int8_t*>(other + packedWords);
    pack_weights(j, P.pairs, packed);
    build_pairs(j, P, temp, len, temp + tempBytes, X);
    if (j.sums)
        run<true>(j, P, X, packed);
    else
        run<false>(j, P, X, packed);
    return 0;
}

// Measured faster than unfolding when at least 80% of the vector lanes
// (output columns in vectors of 8) and of the channel pairs carry values:
// 56 columns of 64 channels 20% faster, 8 of 64 and 21 of 32 10-15%; the
// 3-channel first layers (a pair a quarter empty) and 9 columns (two
// vectors for 9 values) 5-20% slower.
bool conv3x3_s8_preferred(int channels, int outW) {
    const int64_t lanes = int64_t(outW) * channels;
    const int64_t slots = int64_t((outW + kLanes - 1) / kLanes * kLanes) * ((channels + 1) / 2 * 2);
    return lanes * 5 >= slots * 4;
}

const Conv3x3S8Kernels kConv3x3S8 = {conv3x3_s8_image, conv3x3_s8_preferred};

}  // namespace avx2
}  // namespace vo
