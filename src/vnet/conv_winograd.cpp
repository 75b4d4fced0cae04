// Convolution layer, Winograd F(6x6, 3x3) path for 3x3 stride-1 kernels.
#include <vonet/convolution.h>

// Placeholder until the transforms exist: the general path.
int forward_conv_3x3s1_winograd(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                                int outputCount, ForwardParams* params) {
    return forward_conv_norm(conv, inputs, inputCount, outputs, outputCount, params);
}
