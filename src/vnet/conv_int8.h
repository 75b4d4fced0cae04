// Steps shared by the int8 forward operations of the convolution layer.
#ifndef VONET_VNET_CONV_INT8_H
#define VONET_VNET_CONV_INT8_H

#include <vonet/convolution.h>

#include "vnet/conv_shape.h"

namespace vo {

// The arguments, the quantised record and the output shape fit together:
// 0, or the status to return (reported under "vnet/conv" and `op`).
int check_int8_forward(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                       ForwardParams* params, const char* op, ConvShape* shape);

// The unfolding path: quantise the batch, then per image the 8-bit column
// matrix, matrix_multiply_s8 and the dequantisation. Any quantised layer.
int forward_conv_unfolded_s8(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                             ForwardParams* params);

// out = sum * dequantScales[o] + bias[o] (one rounding) for the M planes of
// N values of one image.
void dequantize_image(const Convolution* conv, const int32_t* sums, int64_t N, float* out);

}  // namespace vo

#endif
