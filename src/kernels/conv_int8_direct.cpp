// Row kernels of the direct int8 3x3 convolution, portable form: the window
// sum of each output value, added to its 32-bit sum with wrap-around.
#include "kernels/conv_int8_direct.h"

namespace vo {
namespace ref {

namespace {

template <int S, int CHN, int DH>
void rows_3x3(const int8_t* const* rows, int outW, const int16_t* kernel, int32_t* const* outs) {
    for (int dy = 0; dy < DH; ++dy) {
        for (int ch = 0; ch < CHN; ++ch) {
            const int16_t* k = kernel + ch * 9;
            int32_t* out = outs[dy * CHN + ch];
            for (int x = 0; x < outW; ++x) {
                uint32_t sum = 0;
                for (int ky = 0; ky < 3; ++ky)
                    for (int kx = 0; kx < 3; ++kx)
                        sum += uint32_t(int32_t(k[ky * 3 + kx]) * int32_t(rows[S * dy + ky][S * x + kx]));
                out[x] = int32_t(uint32_t(out[x]) + sum);
            }
        }
    }
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

}  // namespace ref
}  // namespace vo
