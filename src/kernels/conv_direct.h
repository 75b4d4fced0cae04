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

// `pixels` groups of one vector of output values per row. A lane is a pixel
// of one image (the grouped remainder, 8 lanes) or one pixel of 8 or 16
// images (the batch path). Input value k of lane l of group j is
// b[j * bStep + koff[k] + l] (koff null: k * lanes of the vector, the K
// values gathered). Row o of group j is written from
// out[o * outStride + j * outStep]: with `dense` as the whole vector, else
// lane l (below `lanes`, 8-lane vectors only) to pixel[l] from there. Rows
// at or above Mblk are a plain chain; rows below Mblk use the product's
// grouped partial sums when `grouped`, else the plain chain, and then add
// +0.0.
struct DirectTail {
    const float* b;
    // The defaults describe one call for one group of gathered pixels with
    // the grouped partial sums (the per-image remainder).
    const int64_t* koff = nullptr;
    int32_t pixels = 1;
    int64_t bStep = 0;
    int64_t outStep = 0;
    bool dense = false;
    int32_t lanes;
    int64_t pixel[8];
    bool grouped = true;
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
// out[x * stride + l] = rows[l][x] for x < count: eight rows side by side.
void interleave8(const float* const rows[8], int64_t count, float* out, int64_t stride);
// The reverse for the first `lanes` rows: rows[l][x] = in[x * stride + l].
void deinterleave8(const float* in, int64_t count, float* const rows[8], int32_t lanes, int64_t stride);
// One output row of a 4x4 stride-4 kernel with its own rounding: per
// column x, the 16 products of rows[r][4x + j] and k[4r + j] in row-major
// order, the first two as fma(p00, k0, p01 * k1), then one fma per term;
// the sum is added to out[x].
void conv4x4s4_row(const float* const rows[4], int32_t outW, const float* k, float* out);
}  // namespace avx2

namespace avx512 {
void direct_conv(const DirectConv& d);
// 16-lane vectors, `dense` only.
void direct_conv_tail(const DirectTail& t);
}  // namespace avx512

// The widest path the active kernel table allows (identical results).
void direct_conv(const DirectConv& d);

// Images side by side on the batch path: 16 (avx512::direct_conv_tail)
// where the active kernel table has AVX-512, else 8.
int32_t direct_batch_lanes();

}  // namespace vo

#endif
