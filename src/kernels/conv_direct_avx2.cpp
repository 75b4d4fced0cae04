// Direct convolution block kernels on AVX2 + FMA: tiles of 4 output rows x
// 24 pixels (12 accumulators), the grouped remainder pixels and the batch
// path's 8-lane vectors, and the transposes that put images side by side.
#include <immintrin.h>
#include <stdint.h>
#include <string.h>

#include "kernels/transpose_avx2.h"
#include "kernels/conv_direct.h"
#include "kernels/conv_direct_micro.h"
#include "kernels/isa.h"

#include <cmath>

namespace {

struct V256 {
    typedef __m256 R;
    typedef __m256i Mask;
    static constexpr int W = 8;
    static R zero() { return _mm256_setzero_ps(); }
    static R loadu(const float* p) { return _mm256_loadu_ps(p); }
    static void storeu(float* p, R v) { _mm256_storeu_ps(p, v); }
    static R bcast(const float* p) { return _mm256_broadcast_ss(p); }
    static R fma(R a, R b, R c) { return _mm256_fmadd_ps(a, b, c); }
    static R mul(R a, R b) { return _mm256_mul_ps(a, b); }
    static R add(R a, R b) { return _mm256_add_ps(a, b); }
    static Mask mask(int lanes) {
        return _mm256_cmpgt_epi32(_mm256_set1_epi32(lanes), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    }
    // Masked-off lanes are neither read nor written (no fault past a buffer).
    static R maskload(const float* p, Mask m) { return _mm256_maskload_ps(p, m); }
    static void maskstore(float* p, Mask m, R v) { _mm256_maskstore_ps(p, m, v); }
    // The lanes set in `valid`, packed to p[0], p[1], ...
    static void compress_store(float* p, uint32_t valid, R v) {
        if (valid == 0xff) return _mm256_storeu_ps(p, v);
        if ((valid & (valid + 1)) == 0) return _mm256_maskstore_ps(p, mask(__builtin_popcount(valid)), v);
        float lane[8];
        _mm256_storeu_ps(lane, v);
        for (int l = 0; l < 8; ++l)
            if (valid >> l & 1) *p++ = lane[l];
    }
};

}  // namespace

namespace vo {
namespace avx2 {

void direct_conv(const DirectConv& d) { direct_conv_with_tiles<V256, 4, 3>(d); }

void direct_conv_tail(const DirectTail& t) { direct_conv_tail_with<V256>(t); }

void interleave8(const float* const rows[8], int64_t count, float* out, int64_t stride) {
    int64_t x = 0;
    for (; x + 8 <= count; x += 8, out += 8 * stride) {
        __m256 r[8];
#pragma GCC unroll 8
        for (int l = 0; l < 8; ++l) r[l] = _mm256_loadu_ps(rows[l] + x);
        transpose8(r);
#pragma GCC unroll 8
        for (int j = 0; j < 8; ++j) _mm256_storeu_ps(out + stride * j, r[j]);
    }
    for (; x < count; ++x, out += stride)
        for (int l = 0; l < 8; ++l) out[l] = rows[l][x];
}

void deinterleave8(const float* in, int64_t count, float* const rows[8], int32_t lanes, int64_t stride) {
    int64_t x = 0;
    for (; x + 8 <= count; x += 8, in += 8 * stride) {
        __m256 r[8];
#pragma GCC unroll 8
        for (int j = 0; j < 8; ++j) r[j] = _mm256_loadu_ps(in + stride * j);
        transpose8(r);
        // Constant indices keep r in registers.
#pragma GCC unroll 8
        for (int l = 0; l < 8; ++l)
            if (l < lanes) _mm256_storeu_ps(rows[l] + x, r[l]);
    }
    for (; x < count; ++x, in += stride)
        for (int l = 0; l < lanes; ++l) rows[l][x] = in[l];
}

void conv4x4s4_row(const float* const rows[4], int32_t outW, const float* k, float* out) {
    int32_t x = 0;
    // Eight columns at a time: each input row's 32 values are split into
    // the four tap columns by an 8 x 4 transpose, which leaves the columns
    // in the order 0 2 4 6 1 3 5 7; the sum is put back in order at the end.
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    for (; x + 8 <= outW; x += 8) {
        __m256 s = _mm256_setzero_ps();
        for (int r = 0; r < 4; ++r) {
            const float* in = rows[r] + int64_t(x) * 4;
            const __m256 a0 = _mm256_loadu_ps(in), a1 = _mm256_loadu_ps(in + 8);
            const __m256 a2 = _mm256_loadu_ps(in + 16), a3 = _mm256_loadu_ps(in + 24);
            const __m256 t0 = _mm256_unpacklo_ps(a0, a1), t1 = _mm256_unpackhi_ps(a0, a1);
            const __m256 t2 = _mm256_unpacklo_ps(a2, a3), t3 = _mm256_unpackhi_ps(a2, a3);
            const __m256 j[4] = {_mm256_shuffle_ps(t0, t2, 0x44), _mm256_shuffle_ps(t0, t2, 0xee),
                                 _mm256_shuffle_ps(t1, t3, 0x44), _mm256_shuffle_ps(t1, t3, 0xee)};
            const float* kr = k + 4 * r;
            int first = 0;
            if (r == 0) {
                s = _mm256_fmadd_ps(j[0], _mm256_broadcast_ss(kr), _mm256_mul_ps(j[1], _mm256_broadcast_ss(kr + 1)));
                first = 2;
            }
            for (int c = first; c < 4; ++c) s = _mm256_fmadd_ps(j[c], _mm256_broadcast_ss(kr + c), s);
        }
        s = _mm256_permutevar8x32_ps(s, order);
        _mm256_storeu_ps(out + x, _mm256_add_ps(_mm256_loadu_ps(out + x), s));
    }
    for (; x < outW; ++x) {
        const int64_t x4 = int64_t(x) * 4;
        float s = std::fma(rows[0][x4], k[0], rows[0][x4 + 1] * k[1]);
        for (int j = 2; j < 16; ++j) s = std::fma(rows[j / 4][x4 + j % 4], k[j], s);
        out[x] = out[x] + s;
    }
}

}  // namespace avx2

int32_t direct_batch_lanes() { return kernels().isa >= kIsaAvx512 ? 16 : 8; }

void direct_conv(const DirectConv& d) {
    // The 512-bit tiles read 16 consecutive pixels: planar input only.
    // Every path from kIsaAvx512 on has AVX-512F.
    if (kernels().isa >= kIsaAvx512 && d.vecStride == 8) {
        avx512::direct_conv(d);
        return;
    }
    avx2::direct_conv(d);
}

}  // namespace vo
