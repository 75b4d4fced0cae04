// Block kernels of the direct convolution paths. They never build a column
// matrix: output pixels are walked in a "wide" raster whose rows are as long
// as the (stride-split) input rows, so that every tap of the kernel reads a
// contiguous run of input at a fixed offset. Pixels past the valid output
// width are computed and dropped.
//
// Rounding: every output value is a fused multiply-add chain over
// k = (input channel, tap) in that order starting from +0.0; rows below
// `Mblk` then add +0.0 (which only turns -0.0 into +0.0); the bias is added
// last. That is exactly what the float matrix product gives a convolution
// everywhere except the last N mod 8 pixels of rows below Mblk, which
// direct_conv_tail computes with the product's grouped partial sums.
#ifndef VONET_KERNELS_CONV_DIRECT_H
#define VONET_KERNELS_CONV_DIRECT_H

#include <stdint.h>

namespace vo {

struct DirectConv {
    // Input: value of pixel p = 8 v + lane, input channel c, tap t at
    // in[v * vecStride + lane + c * chanStride + taps[t]].
    const float* in;
    int64_t vecStride;
    int64_t chanStride;
    const int64_t* taps;
    int32_t C;
    int32_t T;
    // Wide pixels to compute (the last one is the last valid output pixel)
    // and the wide row length; wideW == outW means the output is dense.
    int64_t Nv;
    int64_t wideW;
    int32_t outW;
    // Weights: with MB > 1 the first M / MB * MB rows come in blocks of MB
    // rows interleaved per k (w(o, k) at block * MB * K + k * MB + o % MB),
    // the other rows follow row by row (K values each). MB 1: plain rows.
    const float* w;
    int32_t M;
    int32_t MB;
    // Output: row o starts at out + o * outStride (dense pixel index
    // y * outW + x); `bias` is null or M values; rows below Mblk add +0.0.
    float* out;
    int64_t outStride;
    const float* bias;
    int32_t Mblk;
};

// The grouped remainder: up to 8 pixels whose K input values are gathered
// in `b` (b[k * 8 + lane]); lanes >= `lanes` are ignored. Rows o in
// [o0, o1) are written to out[o * outStride + pixel[lane]]: rows below Mblk
// with the product's grouped partial sums, the others as a plain chain.
struct DirectTail {
    const float* b;
    int32_t lanes;
    int64_t pixel[8];
    int32_t K;
    const float* w;
    int32_t M;
    int32_t MB;
    int32_t o0, o1;
    float* out;
    int64_t outStride;
    const float* bias;
    int32_t Mblk;
};

// Address of weight (o, k) in the layout described above.
inline const float* direct_weight(const float* w, int32_t M, int32_t MB, int32_t K, int32_t o) {
    const int32_t full = M / MB * MB;
    if (o < full) return w + int64_t(o / MB) * MB * K + o % MB;
    return w + int64_t(full) * K + int64_t(o - full) * K;
}

namespace avx2 {
void direct_conv(const DirectConv& d);
void direct_conv_tail(const DirectTail& t);
// One output row of a 4x4 stride-4 kernel with its own rounding: per
// column x, the 16 products of rows[r][4x + j] and k[4r + j] in row-major
// order, the first two as fma(p00, k0, p01 * k1), then one fma per term;
// the sum is added to out[x].
void conv4x4s4_row(const float* const rows[4], int32_t outW, const float* k, float* out);
}  // namespace avx2

namespace avx512 {
void direct_conv(const DirectConv& d);
}  // namespace avx512

// The widest path the active kernel table allows (identical results).
void direct_conv(const DirectConv& d);

}  // namespace vo

#endif
