// Block kernels of the Winograd F(6x6, 3x3) convolution, per instruction
// set, and the one-dimensional transforms they share.
//
// Data layouts (T tiles, R = T/8 + (T%8)/4 + T%4 tile groups):
// - transformed input: 64 coefficient planes of R rows of 8*C floats; a row
//   belongs to a group of 8, 4 or 1 tiles (8 while 8 remain, then 4, then
//   single tiles) and holds, per input channel c, the group's coefficient
//   values at c * groupSize + tile;
// - transformed kernels: per group of 4 output channels (then one group per
//   remaining channel) 64 rows of 4*C floats, at c * 4 + j (single channels:
//   at c);
// - products: per output channel 64 planes of T floats (coefficient t of
//   tile k at t * T + k).
//
// Every path evaluates each value with the same operations in the same
// order (the transforms below; products as one fused multiply-add chain
// over the input channels in order, from +0), so all paths agree bit for bit.
#ifndef VONET_KERNELS_WINOGRAD_H
#define VONET_KERNELS_WINOGRAD_H

#include <stdint.h>

namespace vo {

// Tile groups of the transformed input for T tiles.
inline int64_t winograd_rows(int64_t T) { return T / 8 + (T % 8) / 4 + T % 4; }
// Size of the tile group that starts at tile k0.
inline int winograd_group(int64_t T, int64_t k0) { return T - k0 >= 8 ? 8 : T - k0 >= 4 ? 4 : 1; }

// Input transform B^T x of 8 values (B^T for the interpolation points
// 0, 1, -1, 2, -2, 1/2, -1/2 and infinity). O supplies add, sub, mul, fma
// and set1 for a scalar or vector type.
template <class O>
inline void winograd_bt8(const typename O::V* x, typename O::V* y) {
    typedef typename O::V V;
    const V c525 = O::set1(5.25f), cm425 = O::set1(-4.25f), cm25 = O::set1(-2.5f), cm125 = O::set1(-1.25f);
    const V c025 = O::set1(0.25f), c05 = O::set1(0.5f), c2 = O::set1(2.0f), c4 = O::set1(4.0f);
    y[0] = O::fma(c525, O::sub(x[4], x[2]), O::sub(x[0], x[6]));
    y[7] = O::fma(c525, O::sub(x[3], x[5]), O::sub(x[7], x[1]));
    V a = O::fma(cm425, x[4], O::add(x[2], x[6]));
    V b = O::fma(cm425, x[3], O::add(x[1], x[5]));
    y[1] = O::add(a, b);
    y[2] = O::sub(a, b);
    a = O::fma(cm125, x[4], O::fma(c025, x[2], x[6]));
    b = O::fma(c2, x[5], O::fma(cm25, x[3], O::mul(c05, x[1])));
    y[3] = O::add(a, b);
    y[4] = O::sub(a, b);
    a = O::fma(c4, O::fma(cm125, x[4], x[2]), x[6]);
    b = O::fma(c05, x[5], O::fma(cm25, x[3], O::mul(c2, x[1])));
    y[5] = O::add(a, b);
    y[6] = O::sub(a, b);
}

// Output transform A^T x of 8 values into 6 (the A^T that pairs with the
// kernel transform G and the B^T above).
template <class O>
inline void winograd_at8(const typename O::V* x, typename O::V* y) {
    typedef typename O::V V;
    const V c2 = O::set1(2.0f), c4 = O::set1(4.0f), c8 = O::set1(8.0f), c16 = O::set1(16.0f),
            c32 = O::set1(32.0f);
    const V s1 = O::add(x[1], x[2]), d1 = O::sub(x[1], x[2]);
    const V s2 = O::add(x[3], x[4]), d2 = O::sub(x[3], x[4]);
    const V s3 = O::add(x[5], x[6]), d3 = O::sub(x[5], x[6]);
    y[0] = O::fma(c32, s3, O::add(O::add(x[0], s1), s2));
    y[1] = O::fma(c16, d3, O::fma(c2, d2, d1));
    y[2] = O::fma(c8, s3, O::fma(c4, s2, s1));
    y[3] = O::fma(c4, d3, O::fma(c8, d2, d1));
    y[4] = O::fma(c2, s3, O::fma(c16, s2, s1));
    y[5] = O::fma(c32, d2, O::add(O::add(d1, d3), x[7]));
}

// The three stages of one image.
struct WinogradKernels {
    // Every 8x8 tile of the C padded planes (tiles start every 6 rows and
    // columns; planes of 6 * tilesH + 2 rows of 6 * tilesW + 2) to its 64
    // coefficients, written into the transformed-input layout at `dst`.
    void (*input)(const float* padded, int32_t tilesW, int32_t tilesH, int32_t C, float* dst);
    // All products of M output channels.
    void (*products)(const float* input, const float* kernel, float* product, int32_t M, int32_t C, int32_t T);
    // One output channel: every tile's 64 products to its 6x6 block plus
    // `bias`, in the uncropped plane `out` of 6 * tilesW columns.
    void (*output)(const float* product, int32_t T, int32_t tilesW, float bias, float* out);
};

// The kernels of the active instruction-set path (see isa.h).
const WinogradKernels& winograd_kernels();

namespace ref {
// One 8x8 tile (rows `stride` floats apart) to its 64 coefficients B^T d B.
void winograd_3x3s1_BT_d_B(const float* tile, int32_t stride, float* coeffs);
// Products of one coefficient plane, 4 or 1 output channels by 8, 4 or 1
// tiles: `in` is the row of the tile group, `kern` the kernel row of the
// channel group, `out` the first tile's product of the first channel
// (channels `outStride` floats apart).
void winograd_3x3s1_dot_chn4_dt8(const float* in, const float* kern, int32_t C, float* out, int64_t outStride);
void winograd_3x3s1_dot_chn4_dt4(const float* in, const float* kern, int32_t C, float* out, int64_t outStride);
void winograd_3x3s1_dot_chn4_dt1(const float* in, const float* kern, int32_t C, float* out, int64_t outStride);
void winograd_3x3s1_dot_chn1_dt8(const float* in, const float* kern, int32_t C, float* out);
void winograd_3x3s1_dot_chn1_dt4(const float* in, const float* kern, int32_t C, float* out);
void winograd_3x3s1_dot_chn1_dt1(const float* in, const float* kern, int32_t C, float* out);
// One tile's 64 products (`stride` floats apart) to A^T m A plus bias, a
// 6x6 block with rows `outStride` floats apart.
void winograd_3x3s1_AT_dot_A(const float* coeffs, int64_t stride, float* out, int32_t outStride, float bias);

void winograd_input(const float* padded, int32_t tilesW, int32_t tilesH, int32_t C, float* dst);
void winograd_products(const float* input, const float* kernel, float* product, int32_t M, int32_t C, int32_t T);
void winograd_output(const float* product, int32_t T, int32_t tilesW, float bias, float* out);
}  // namespace ref

// Products of one coefficient plane for `groups` groups of 4 output
// channels (kernel rows `kernGroup` floats apart), or for one channel, from
// tile k0 (a multiple of 8) on: `in` is the plane of the transformed input,
// `kern` the first group's kernel row, `out` the product of tile 0 of the
// first channel (channels `outStride` apart).
typedef void (*WinogradPlaneFn)(const float* in, const float* kern, int64_t kernGroup, int groups, int32_t C,
                                int32_t T, int32_t k0, float* out, int64_t outStride);

namespace avx2 {
void winograd_dot_chn4(const float* in, const float* kern, int64_t kernGroup, int groups, int32_t C, int32_t T,
                       int32_t k0, float* out, int64_t outStride);
void winograd_dot_chn1(const float* in, const float* kern, int64_t kernGroup, int groups, int32_t C, int32_t T,
                       int32_t k0, float* out, int64_t outStride);
// All products, plane by plane, with the given plane kernels.
void winograd_products_with(WinogradPlaneFn chn4, WinogradPlaneFn chn1, const float* input, const float* kernel,
                            float* product, int32_t M, int32_t C, int32_t T);
void winograd_input(const float* padded, int32_t tilesW, int32_t tilesH, int32_t C, float* dst);
void winograd_products(const float* input, const float* kernel, float* product, int32_t M, int32_t C, int32_t T);
void winograd_output(const float* product, int32_t T, int32_t tilesW, float bias, float* out);
}  // namespace avx2

namespace avx512 {
// The products only: the transforms are bound by shuffles and memory, and
// the AVX2 ones serve there.
void winograd_products(const float* input, const float* kernel, float* product, int32_t M, int32_t C, int32_t T);
}  // namespace avx512

}  // namespace vo

#endif
