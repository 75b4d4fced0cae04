// Int8 conversion of a loaded float net, calibrated on one input: every
// convolution with a kernel larger than 1x1 and every inner product layer
// gets symmetric 8-bit weights (per output channel / per matrix) and a
// per-layer input scale from the 99.9th percentile of its input magnitudes.
// One-way: the float weights are overwritten.
#ifndef VONET_NET_QUANTIZE_H
#define VONET_NET_QUANTIZE_H

#include <vonet/convolution.h>
#include <vonet/inner_product.h>
#include <vonet/net.h>
#include <vonet/tensor.h>

// Runs the net on `calibration` layer by layer, quantising each eligible
// layer right after it has seen its input and running it again in int8.
// 0, 7 for a bad net or a layer without operations, or the first failing
// forward status.
int net_quantize_conv(Net* net, Tensor* calibration);
// One layer, given the float input it has just been run on.
void quantize_conv(Convolution* conv, Tensor* input);
void quantize_inner_product(InnerProduct* fc, Tensor* input);

#endif
