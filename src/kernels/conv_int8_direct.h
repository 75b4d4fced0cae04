// Row kernels of the direct int8 3x3 convolution (drivers conv_3x3s1_s8 and
// conv_3x3s2_s8 in vnet/conv_int8_direct.cpp).
//
// One call handles one input channel for `chn` output channels (1 or 2) and
// `dh` output rows (1 or 2), whole rows of outW values: for each of its
// output rows y and x < outW it adds
//     sum over ky, kx < 3 of kernel[ky * 3 + kx] * row(s * y + ky)[s * x + kx]
// to the 32-bit sum (s = stride; wrap-around, every path the same integers).
// - rows: the padded input rows the block reads, rows[0] the top one
//   (s * (dh - 1) + 3 of them);
// - kernel: chn x 9 values, the 3x3 window of each output channel
//   row-major, widened to 16 bits;
// - outs: chn * dh output rows, output channel fastest (o row y, o + 1 row
//   y, o row y + 1, o + 1 row y + 1).
// The rows must hold the s * (outW - 1) + 3 bytes the window covers; the
// kernels read nothing beyond them.
#ifndef VONET_KERNELS_CONV_INT8_DIRECT_H
#define VONET_KERNELS_CONV_INT8_DIRECT_H

#include <stdint.h>

namespace vo {

typedef void (*Conv3x3S8RowFn)(const int8_t* const* rows, int outW, const int16_t* kernel, int32_t* const* outs);

struct Conv3x3S8Kernels {
    Conv3x3S8RowFn s1[2][2];  // stride 1, [chn - 1][dh - 1]
    Conv3x3S8RowFn s2[2][2];  // stride 2
};

#define VO_CONV3X3_S8_DECLS                                                                                     \
    void conv_mul_3x3s1_chn2_dh2_dw4_asm_s8(const int8_t* const* rows, int outW, const int16_t* kernel,          \
                                            int32_t* const* outs);                                             \
    void conv_mul_3x3s1_chn2_dh1_dw4_asm_s8(const int8_t* const* rows, int outW, const int16_t* kernel,          \
                                            int32_t* const* outs);                                             \
    void conv_mul_3x3s1_chn1_dh2_dw4_asm_s8(const int8_t* const* rows, int outW, const int16_t* kernel,          \
                                            int32_t* const* outs);                                             \
    void conv_mul_3x3s1_chn1_dh1_dw8_asm_s8(const int8_t* const* rows, int outW, const int16_t* kernel,          \
                                            int32_t* const* outs);                                             \
    void conv_mul_3x3s2_chn2_dh2_dw4_asm_s8(const int8_t* const* rows, int outW, const int16_t* kernel,          \
                                            int32_t* const* outs);                                             \
    void conv_mul_3x3s2_chn2_dh1_dw4_asm_s8(const int8_t* const* rows, int outW, const int16_t* kernel,          \
                                            int32_t* const* outs);                                             \
    void conv_mul_3x3s2_chn1_dh2_dw4_asm_s8(const int8_t* const* rows, int outW, const int16_t* kernel,          \
                                            int32_t* const* outs);                                             \
    void conv_mul_3x3s2_chn1_dh1_dw4_asm_s8(const int8_t* const* rows, int outW, const int16_t* kernel,          \
                                            int32_t* const* outs);                                             \
    extern const Conv3x3S8Kernels kConv3x3S8;

namespace ref {
VO_CONV3X3_S8_DECLS
}  // namespace ref

namespace avx2 {
VO_CONV3X3_S8_DECLS
}  // namespace avx2

}  // namespace vo

#endif
