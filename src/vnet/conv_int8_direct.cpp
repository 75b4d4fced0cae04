// Convolution layer, direct int8 3x3 paths (stride 1 and 2): no column
// matrix and no separate product; the kernels keep blocks of output
// channels x pixels in registers over all input channels and taps and
// dequantise as they store. The 32-bit sums are exact, so the outputs are
// those of the unfolding path bit for bit.
#include <vonet/convolution.h>
#include <vonet/kernels.h>

#include "common/check.h"
#include "kernels/conv_int8_direct.h"
#include "kernels/isa.h"
#include "vnet/conv_int8.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/conv_stable";

// One already padded image: the complete sums of every output value.
template <int S>
void conv_3x3_s8(const char* op, Tensor* padded, Tensor* weights, int32_t* output, int outC, int outH, int outW) {
    VO_CHECK_IN(op, padded && weights && output && padded->data && weights->data, return);
    if (outC < 1 || outH < 1 || outW < 1) return;
    const int32_t C = padded->channel;
    const int64_t Wp = padded->width, Hp = padded->height;
    VO_CHECK_IN(op, weights->width == 3 && weights->height == 3 && weights->channel == C && outC <= weights->num,
                return);
    // The byte after the last weight is read (and multiplied by 0): the
    // float-sized buffer always has it.
    VO_CHECK_IN(op, int64_t(weights->num) * C * 9 <= weights->capacity, return);
    VO_CHECK_IN(op, int64_t(C) * Hp * Wp <= padded->capacity, return);
    // The windows of the last output row and column lie inside the image.
    const int64_t spanW = S * (int64_t(outW) - 1) + 3, spanH = S * (int64_t(outH) - 1) + 3;
    VO_CHECK_IN(op, spanW <= Wp && spanH <= Hp, return);
    if (C < 1) {
        for (int64_t i = 0; i < int64_t(outC) * outH * outW; ++i) output[i] = 0;
        return;
    }
    vo::Conv3x3S8Job job{};
    job.image = reinterpret_cast<const int8_t*>(padded->data);
    job.channels = C;
    job.height = int(Hp);
    job.width = int(Wp);
    job.stride = S;
    job.weights = reinterpret_cast<const int8_t*>(weights->data);
    job.outC = outC;
    job.outH = outH;
    job.outW = outW;
    job.sums = output;
    const int status = vo::kernels().conv3x3_s8->image(job);
    VO_CHECK_IN(op, status == 0, return);
}

// Per image: quantise each channel as the kernel copies it, correlate,
// dequantise as the sums are stored. A layer that is not 3x3 with stride S
// in both directions, or that the active path computes faster by
// unfolding, runs the unfolding path: the same layer, the same bits.
template <int S>
int forward_3x3_s8(const char* op, Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                   int outputCount, ForwardParams* params) {
    vo::ConvShape shape;
    if (int status = vo::check_int8_forward(conv, inputs, inputCount, outputs, outputCount, params, op, &shape))
        return status;
    const Tensor* weights = conv->weights;
    if (weights->width != 3 || weights->height != 3 || conv->strideW != S || conv->strideH != S ||
        !vo::kernels().conv3x3_s8->preferred(weights->channel, shape.outW))
        return vo::forward_conv_unfolded_s8(conv, inputs, inputCount, outputs, outputCount, params);
    Tensor* src = inputs[0];
    Tensor* dst = outputs[0];
    const int64_t count = int64_t(src->num) * src->channel * src->height * src->width;
    VO_CHECK_IN(op, count <= src->capacity, return 5);
    if (count < 1 || shape.N < 1) return 0;
    const int64_t inStep = int64_t(src->channel) * src->height * src->width;
    const int64_t outStep = int64_t(weights->num) * shape.N;
    vo::Conv3x3S8Job job{};
    job.inputScale = conv->inputScale;
    job.channels = src->channel;
    job.height = src->height;
    job.width = src->width;
    job.padW = conv->padW;
    job.padH = conv->padH;
    job.stride = S;
    job.weights = reinterpret_cast<const int8_t*>(weights->data);
    job.outC = weights->num;
    job.outH = shape.outH;
    job.outW = shape.outW;
    job.scales = conv->dequantScales;
    job.bias = conv->hasBias ? conv->bias->data : nullptr;
    for (int32_t n = 0; n < src->num; ++n) {
        job.input = src->data + n * inStep;
        job.out = dst->data + n * outStep;
        const int status = vo::kernels().conv3x3_s8->image(job);
        VO_CHECK_IN(op, status == 0, return 5);
    }
    return 0;
}

}  // namespace

void conv_3x3s1_s8(Tensor* padded, Tensor* weights, int32_t* output, int outC, int outH, int outW) {
    conv_3x3_s8<1>(__func__, padded, weights, output, outC, outH, outW);
}

void conv_3x3s2_s8(Tensor* padded, Tensor* weights, int32_t* output, int outC, int outH, int outW) {
    conv_3x3_s8<2>(__func__, padded, weights, output, outC, outH, outW);
}

int forward_conv_3x3s1_s8(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                          ForwardParams* params) {
    return forward_3x3_s8<1>(__func__, conv, inputs, inputCount, outputs, outputCount, params);
}

int forward_conv_3x3s2_s8(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                          ForwardParams* params) {
    return forward_3x3_s8<2>(__func__, conv, inputs, inputCount, outputs, outputCount, params);
}
