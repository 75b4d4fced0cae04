// Direct int8 3x3 convolution of one image (stride 1 or 2), behind the
// kernel table (drivers conv_3x3s1_s8 / conv_3x3s2_s8 and the forward
// operations in vnet/conv_int8_direct.cpp).
//
// Every path computes the complete 32-bit sums
//     sum over c, ky, kx of w[o][c][ky][kx] * padded(c, s * y + ky, s * x + kx)
// (wrap-around, the same integers on every path) and either stores them or
// turns them into floats with fma(float(sum), scales[o], bias[o]) as
// anti_quantize_output does.
//
// The vector paths keep a block of output channels x output pixels in
// registers over all input channels and taps, on a per-image copy of the
// padded image laid out for their multiply-add (see their files). The VNNI
// path copies it into "row words": per input channel and padded row, one
// 32-bit word per output column x holding the three bytes s * x, s * x + 1,
// s * x + 2 of that row. A window row is then one word, and with stride 2
// the even padded rows come before the odd ones, so that in both cases
// output pixel p = y * outW + x of window row ky reads word
// p + slot(ky) * outW: the pixels of a whole image are one contiguous run.
#ifndef VONET_KERNELS_CONV_INT8_DIRECT_H
#define VONET_KERNELS_CONV_INT8_DIRECT_H

#include <stdint.h>
#include <string.h>

namespace vo {

struct Conv3x3S8Job {
    const int8_t* image;  // channels planes of height x width bytes, unpadded,
    const float* input;   // or when `image` is null, planes of floats
    float inputScale;     // quantised with this scale as quantize_input does
    int channels, height, width;
    int padW, padH;  // zero border around the image
    int stride;      // 1 or 2 in both directions
    // outC x channels x 3 x 3 bytes; one more byte after the last must be
    // readable (its value never matters).
    const int8_t* weights;
    int outC, outH, outW;  // >= 1, every window inside the padded image
    int32_t* sums;         // outC x outH x outW sums; when null, `out` instead:
    float* out;            // outC x outH x outW floats,
    const float* scales;   // sum * scales[o] + bias[o], one rounding
    const float* bias;     // null: 0
};

// 0, or 5 when working memory cannot be obtained (nothing written then).
typedef int (*Conv3x3S8ImageFn)(const Conv3x3S8Job& job);

struct Conv3x3S8Kernels {
    Conv3x3S8ImageFn image;
    // Whether `image` beats unfolding and multiplying for such a layer on
    // this path (a rule fitted to bench/int8_bench.cpp; both give the same
    // bits, so it only decides speed).
    bool (*preferred)(int channels, int outW);
};

// The row-word copy's geometry (VNNI path).
struct Conv3x3S8Rows {
    int stride, outH, outW;
    // Padded rows the windows touch.
    int rows() const { return stride * (outH - 1) + 3; }
    // Position of padded row r in the copy (even rows first for stride 2).
    int slot(int r) const { return stride == 1 ? r : (r % 2 == 0 ? r / 2 : outH + 1 + r / 2); }
    // The padded row at slot s.
    int row(int s) const { return stride == 1 ? s : (s <= outH ? 2 * s : 2 * (s - outH - 1) + 1); }
    // Words per channel: the rows plus room for the spill of the last row's
    // 64-word step and the over-read of the last vector (its lanes past the
    // image are discarded), 64-byte aligned.
    int64_t channel_words() const { return (int64_t(rows()) * outW + 64 + 15) / 16 * 16; }
};

// The bytes of channel c: the image's plane, or the input's plane
// quantised by `quantize` into `room` (height x width bytes).
inline const int8_t* conv3x3_s8_plane(const Conv3x3S8Job& j, int c, int8_t* room,
                                      void (*quantize)(const float*, int, int8_t*, float)) {
    const int64_t at = int64_t(c) * j.height * j.width;
    if (j.image) return j.image + at;
    quantize(j.input + at, j.height * j.width, room, j.inputScale);
    return room;
}

// Padded row r of a channel's bytes into t[0, len), zero outside the image.
inline void conv3x3_s8_padded_row(const Conv3x3S8Job& j, const int8_t* plane, int r, int8_t* t, int len) {
    const int iy = r - j.padH;
    if (iy < 0 || iy >= j.height || j.padW >= len) {
        memset(t, 0, size_t(len));
        return;
    }
    const int n = j.width < len - j.padW ? j.width : len - j.padW;
    for (int x = 0; x < j.padW; ++x) t[x] = 0;
    memcpy(t + j.padW, plane + int64_t(iy) * j.width, size_t(n));
    memset(t + j.padW + n, 0, size_t(len - j.padW - n));
}

#define VO_CONV3X3_S8_DECLS                             \
    int conv3x3_s8_image(const Conv3x3S8Job& job);      \
    bool conv3x3_s8_preferred(int channels, int outW);  \
    extern const Conv3x3S8Kernels kConv3x3S8;

namespace ref {
VO_CONV3X3_S8_DECLS
}  // namespace ref

namespace avx2 {
VO_CONV3X3_S8_DECLS
}  // namespace avx2

namespace avx512vnni {
VO_CONV3X3_S8_DECLS
}  // namespace avx512vnni

#undef VO_CONV3X3_S8_DECLS

}  // namespace vo

#endif
