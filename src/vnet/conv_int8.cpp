// Convolution layer, int8 paths: quantise the input batch, multiply 8-bit
// operands into exact 32-bit sums, dequantise with one fused rounding.
#include <vonet/convolution.h>
#include <vonet/kernels.h>

#include "common/check.h"
#include "kernels/conv_int8_direct.h"
#include "kernels/isa.h"
#include "vnet/conv_int8.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/conv";

}  // namespace

namespace vo {

// Checks shared by the int8 forward operations: the record is quantised
// and complete, and the output still has the layer's shape (another layer
// may have reshaped a shared tensor since).
int check_int8_forward(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                       ForwardParams* params, const char* op, ConvShape* shape) {
    if (!conv || !inputs || inputCount != 1 || !outputs || outputCount != 1 || !params) return 7;
    Tensor* src = inputs[0];
    Tensor* dst = outputs[0];
    if (!src || !dst) return 5;
    if (int status = conv_shape(conv, src, op, shape)) return status;
    const int32_t M = conv->weights->num;
    VO_CHECK_IN(op, conv->quantized && conv->dequantScales != nullptr, return 7);
    VO_CHECK_IN(op, !conv->hasBias || (conv->bias && conv->bias->capacity >= M), return 7);
    VO_CHECK_IN(op,
                dst->num == src->num && dst->channel == M && dst->height == shape->outH &&
                    dst->width == shape->outW,
                return 5);
    return 0;
}

// out = sum * dequantScales[o] + bias[o] for the M planes of one image.
void dequantize_image(const Convolution* conv, const int32_t* sums, int64_t N, float* out) {
    for (int32_t o = 0; o < conv->weights->num; ++o) {
        const float bias = conv->hasBias ? conv->bias->data[o] : 0.0f;
        anti_quantize_output(sums + o * N, int(N), out + o * N, conv->dequantScales[o], bias);
    }
}

}  // namespace vo

int forward_conv_norm_quantized(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                                int outputCount, ForwardParams* params) {
    vo::ConvShape shape;
    if (int status = vo::check_int8_forward(conv, inputs, inputCount, outputs, outputCount, params, __func__, &shape))
        return status;
    // 3x3 layers of stride 1 or 2 run the direct kernels where the active
    // path measures them faster than unfolding and multiplying (see
    // bench/int8_bench.cpp); the sums are the same.
    const Tensor* weights = conv->weights;
    if (weights->width == 3 && weights->height == 3 && conv->strideW == conv->strideH &&
        vo::kernels().conv3x3_s8->preferred(weights->channel, shape.outW)) {
        if (conv->strideW == 1) return forward_conv_3x3s1_s8(conv, inputs, inputCount, outputs, outputCount, params);
        if (conv->strideW == 2) return forward_conv_3x3s2_s8(conv, inputs, inputCount, outputs, outputCount, params);
    }
    return vo::forward_conv_unfolded_s8(conv, inputs, inputCount, outputs, outputCount, params);
}

int vo::forward_conv_unfolded_s8(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                                 int outputCount, ForwardParams* params) {
    vo::ConvShape shape;
    if (int status = vo::check_int8_forward(conv, inputs, inputCount, outputs, outputCount, params, __func__, &shape))
        return status;
    Tensor* src = inputs[0];
    Tensor* dst = outputs[0];
    const Tensor* weights = conv->weights;
    const int32_t M = weights->num;
    // Bytes and 32-bit sums live in the float scratch tensors; they only grow.
    if (vo::ensure_scratch_bytes(&params->inputBuffer, src->capacity) ||
        vo::ensure_scratch_bytes(&params->outputBuffer, int64_t(M) * shape.N * int64_t(sizeof(int32_t))) ||
        (!conv->is1x1 && vo::ensure_scratch_bytes(&params->columnBuffer, shape.K * shape.N)))
        return 5;

    auto* quantized = reinterpret_cast<int8_t*>(params->inputBuffer->data);
    auto* column = reinterpret_cast<int8_t*>(params->columnBuffer->data);
    auto* sums = reinterpret_cast<int32_t*>(params->outputBuffer->data);
    quantize_input(src->data, src->capacity, quantized, conv->inputScale);
    const int64_t inStep = int64_t(src->channel) * src->height * src->width;
    const int64_t outStep = int64_t(M) * shape.N;
    const auto* weights8 = reinterpret_cast<const int8_t*>(weights->data);
    for (int32_t n = 0; n < src->num; ++n) {
        const int8_t* right = quantized + n * inStep;
        if (!conv->is1x1) {
            img2col_conv_s8(right, src->width, src->height, src->channel, weights->width, weights->height,
                            conv->strideW, conv->strideH, conv->padW, conv->padH, column);
            right = column;
        }
        matrix_multiply_s8(M, int(shape.N), int(shape.K), weights8, right, sums);
        vo::dequantize_image(conv, sums, shape.N, dst->data + n * outStep);
    }
    return 0;
}
