// Output size of a convolution layer for a given input, shared by its
// float, direct, Winograd and int8 paths.
#ifndef VONET_VNET_CONV_SHAPE_H
#define VONET_VNET_CONV_SHAPE_H

#include <vonet/convolution.h>

#include <stdint.h>

namespace vo {

// Sizes of one forward pass, derived from the input and the record.
struct ConvShape {
    int32_t outW, outH;
    int64_t K;  // rows of the column matrix: channel * kernelH * kernelW
    int64_t N;  // output pixels per image
};

// Checks the input against the record and computes the output size: 0, 5
// when they do not fit together, 7 for a record without weights. Failures
// are reported under "vnet/conv" and `op`.
int conv_shape(const Convolution* conv, const Tensor* src, const char* op, ConvShape* shape);

}  // namespace vo

#endif
