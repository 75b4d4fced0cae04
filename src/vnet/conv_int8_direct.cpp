// Convolution layer, direct int8 3x3 paths (stride 1 and 2): the quantised
// image is padded once and correlated with the 8-bit kernels row by row, no
// column matrix. The 32-bit sums are exact, so the outputs are those of the
// general int8 path bit for bit.
#include <vonet/convolution.h>
#include <vonet/kernels.h>

#include <cstring>

#include "common/check.h"
#include "kernels/conv_int8_direct.h"
#include "kernels/isa.h"
#include "vnet/conv_int8.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/conv_stable";

// One image: output channels in pairs (then a single one), for each input
// channel the row kernels over pairs of output rows (then a single one).
template <int S>
void conv_3x3_s8(const char* op, Tensor* padded, Tensor* weights, int32_t* output, int outC, int outH, int outW) {
    VO_CHECK_IN(op, padded && weights && output && padded->data && weights->data, return);
    if (outC < 1 || outH < 1 || outW < 1) return;
    const int32_t C = padded->channel;
    const int64_t Wp = padded->width, Hp = padded->height;
    VO_CHECK_IN(op, weights->width == 3 && weights->height == 3 && weights->channel == C && outC <= weights->num,
                return);
    VO_CHECK_IN(op, int64_t(weights->num) * C * 9 <= weights->capacity, return);
    VO_CHECK_IN(op, int64_t(C) * Hp * Wp <= padded->capacity, return);
    // The windows of the last output row and column lie inside the image.
    const int64_t spanW = S * (int64_t(outW) - 1) + 3, spanH = S * (int64_t(outH) - 1) + 3;
    VO_CHECK_IN(op, spanW <= Wp && spanH <= Hp, return);

    const int64_t plane = int64_t(outH) * outW;
    memset(output, 0, size_t(outC) * size_t(plane) * sizeof(int32_t));
    const vo::Conv3x3S8Kernels& table = *vo::kernels().conv3x3_s8;
    const auto& rowKernels = S == 1 ? table.s1 : table.s2;
    const auto* image = reinterpret_cast<const int8_t*>(padded->data);
    const auto* kernels8 = reinterpret_cast<const int8_t*>(weights->data);
    for (int o = 0; o < outC;) {
        const int chn = outC - o >= 2 ? 2 : 1;
        for (int32_t c = 0; c < C; ++c) {
            int16_t kernel[18];
            for (int ch = 0; ch < chn; ++ch)
                for (int t = 0; t < 9; ++t) kernel[ch * 9 + t] = kernels8[(int64_t(o + ch) * C + c) * 9 + t];
            const int8_t* channel = image + int64_t(c) * Hp * Wp;
            for (int y = 0; y < outH;) {
                const int dh = outH - y >= 2 ? 2 : 1;
                const int8_t* rows[S + 3];
                for (int i = 0; i < S * (dh - 1) + 3; ++i) rows[i] = channel + (int64_t(S) * y + i) * Wp;
                int32_t* outs[4];
                for (int dy = 0; dy < dh; ++dy)
                    for (int ch = 0; ch < chn; ++ch)
                        outs[dy * chn + ch] = output + int64_t(o + ch) * plane + int64_t(y + dy) * outW;
                rowKernels[chn - 1][dh - 1](rows, outW, kernel, outs);
                y += dh;
            }
        }
        o += chn;
    }
}

// Quantise the batch once; per image pad, correlate, dequantise. A layer
// that is not 3x3 with stride S in both directions runs the general int8
// path, which computes the same layer.
template <int S>
int forward_3x3_s8(const char* op, Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                   int outputCount, ForwardParams* params) {
    vo::ConvShape shape;
    if (int status = vo::check_int8_forward(conv, inputs, inputCount, outputs, outputCount, params, op, &shape))
        return status;
    const Tensor* weights = conv->weights;
    if (weights->width != 3 || weights->height != 3 || conv->strideW != S || conv->strideH != S)
        return forward_conv_norm_quantized(conv, inputs, inputCount, outputs, outputCount, params);
    Tensor* src = inputs[0];
    Tensor* dst = outputs[0];
    const int64_t count = int64_t(src->num) * src->channel * src->height * src->width;
    VO_CHECK_IN(op, count <= src->capacity, return 5);
    // Bytes and 32-bit sums live in the float scratch tensors; they only grow.
    if (vo::reshape_tensor_checked(&params->inputBuffer, src->num, src->channel, src->height, src->width) ||
        vo::reshape_tensor_checked(&params->outputBuffer, 1, weights->num, shape.outH, shape.outW) ||
        vo::reshape_tensor_checked(&params->columnBuffer, 1, src->channel, src->height + 2 * int64_t(conv->padH),
                                   src->width + 2 * int64_t(conv->padW)))
        return 5;
    if (count < 1) return 0;
    quantize_input(src->data, int(count), reinterpret_cast<int8_t*>(params->inputBuffer->data), conv->inputScale);
    auto* sums = reinterpret_cast<int32_t*>(params->outputBuffer->data);
    const int64_t outStep = int64_t(weights->num) * shape.N;
    for (int32_t n = 0; n < src->num; ++n) {
        conv_pad_round(params->inputBuffer, n, conv->padW, conv->padH, params->columnBuffer, 1);
        conv_3x3_s8<S>(op, params->columnBuffer, conv->weights, sums, weights->num, shape.outH, shape.outW);
        vo::dequantize_image(conv, sums, shape.N, dst->data + n * outStep);
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
