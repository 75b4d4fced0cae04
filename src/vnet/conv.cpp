// Convolution layer: the general float path (unfold, matrix product, bias).
#include <vonet/convolution.h>
#include <vonet/kernels.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/check.h"
#include "common/record_io.h"
#include "kernels/gemm.h"
#include "vnet/conv_common.h"
#include "vnet/conv_private.h"
#include "vnet/conv_shape.h"
#include "vnet/layer_registry.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/conv";
// Checks in the helpers below are reported under the public operation.
constexpr const char* kLoad = "load_conv";

// The int8 part of a quantised record: M weight scales, the input scale and
// one byte per weight (packed at the start of the weights buffer).
int read_int8_bank(FILE* stream, Convolution* conv, int32_t num, int32_t channel, int32_t kernelH, int32_t kernelW,
                   int64_t count) {
    // Everything the record still claims must be in the file before any of
    // it is allocated.
    const int64_t tail = (int64_t(num) + 1) * int64_t(sizeof(float)) + count +
                         (conv->hasBias ? int64_t(num) * int64_t(sizeof(float)) : 0);
    if (!vo::file_holds(stream, tail, 1, kUnit, kLoad, "ret == weights->num")) return 4;
    VO_CHECK_IN(kLoad, vo::reshape_tensor_checked(&conv->weights, num, channel, kernelH, kernelW) == 0, return 4);
    conv->weightScales = static_cast<float*>(malloc(size_t(num) * sizeof(float)));
    conv->dequantScales = static_cast<float*>(malloc(size_t(num) * sizeof(float)));
    VO_CHECK_IN(kLoad, conv->weightScales != nullptr && conv->dequantScales != nullptr, return 4);
    if (!vo::read_values(stream, conv->weightScales, num, kUnit, kLoad, "ret == weights->num") ||
        !vo::read_field(stream, &conv->inputScale, kUnit, kLoad) ||
        !vo::read_values(stream, reinterpret_cast<int8_t*>(conv->weights->data), count, kUnit, kLoad,
                         "ret == weights->capacity"))
        return 4;
    for (int32_t o = 0; o < num; ++o) conv->dequantScales[o] = 1.0f / (conv->inputScale * conv->weightScales[o]);
    return 0;
}

// Reads the record into `conv`; on failure the caller releases it.
int read_conv(FILE* stream, Convolution* conv) {
    int32_t num = 0, channel = 0, kernelW = 0, kernelH = 0;
    if (!vo::read_fields(stream, kUnit, kLoad, &num, &channel, &kernelW, &kernelH, &conv->strideW, &conv->strideH,
                         &conv->padW, &conv->padH, &conv->hasBias, &conv->quantized))
        return 4;
    VO_CHECK_IN(kLoad, conv->quantized <= 1, return 4);
    VO_CHECK_IN(kLoad, conv->hasBias <= 1, return 4);
    VO_CHECK_IN(kLoad, num > 0 && channel > 0, return 4);
    if (!vo::geometry_ok(kUnit, kLoad, conv, kernelW, kernelH)) return 4;

    int64_t count = vo::checked_count(num, channel, kernelH, kernelW);
    VO_CHECK_IN(kLoad, count >= 0, return 4);
    if (conv->quantized) {
        if (int status = read_int8_bank(stream, conv, num, channel, kernelH, kernelW, count)) return status;
    } else {
        if (!vo::bank_in_file(stream, conv, count, num, kUnit, kLoad)) return 4;
        VO_CHECK_IN(kLoad, vo::reshape_tensor_checked(&conv->weights, num, channel, kernelH, kernelW) == 0,
                    return 4);
        if (!vo::read_weights(stream, conv, kUnit, kLoad)) return 4;
    }
    if (conv->hasBias) {
        VO_CHECK_IN(kLoad, vo::reshape_tensor_checked(&conv->bias, 1, num, 1, 1) == 0, return 4);
        if (!vo::read_bias(stream, conv, kUnit, kLoad)) return 4;
    }
    conv->is1x1 = kernelW == 1 && kernelH == 1 && conv->strideW == 1 && conv->strideH == 1 && conv->padW == 0 &&
                  conv->padH == 0;
    return 0;
}

}  // namespace

namespace vo {

// Checks the input against the record and computes the output size; 5 when
// they do not fit together.
int conv_shape(const Convolution* conv, const Tensor* src, const char* op, ConvShape* shape) {
    const Tensor* weights = conv->weights;
    VO_CHECK_IN(op, weights != nullptr, return 7);
    VO_CHECK_IN(op, src->channel == weights->channel, return 5);
    // The size rule in 64 bits first: the kernel's int32 arithmetic must not
    // overflow on a huge input.
    int64_t spanW = int64_t(src->width) - weights->width + 2 * int64_t(conv->padW);
    int64_t spanH = int64_t(src->height) - weights->height + 2 * int64_t(conv->padH);
    VO_CHECK_IN(op, spanW <= INT32_MAX && spanH <= INT32_MAX, return 5);
    int64_t outW = spanW / conv->strideW + 1;
    int64_t outH = spanH / conv->strideH + 1;
    VO_CHECK_IN(op, outW > 0 && outH > 0, return 5);
    calculate_conv_result_size(src->width, src->height, weights->width, weights->height, conv->strideW,
                               conv->strideH, conv->padW, conv->padH, &shape->outW, &shape->outH);
    shape->K = int64_t(weights->channel) * weights->height * weights->width;
    shape->N = int64_t(shape->outW) * shape->outH;
    return 0;
}

}  // namespace vo

namespace {

// VONET_CONV=general turns the automatic choice off for the whole process
// (read once); the test hook overrides it: -1 none, 0 automatic, 1 general.
std::atomic<int> gGeneralForTesting{-1};

bool general_path_forced() {
    const int forced = gGeneralForTesting.load(std::memory_order_relaxed);
    if (forced >= 0) return forced != 0;
    static const bool fromEnv = [] {
        const char* env = getenv("VONET_CONV");
        return env && strcmp(env, "general") == 0;
    }();
    return fromEnv;
}

bool is_3x3s1(const Convolution* conv) {
    const Tensor* w = conv->weights;
    return w && w->width == 3 && w->height == 3 && conv->strideW == 1 && conv->strideH == 1;
}

// The fastest path with the general path's bits for this layer, by the
// figures of bench/conv_paths_bench.cpp (AVX2 and AVX-512 alike): the
// direct kernels win on 3x3 stride 1 and 2, 2x2 stride 1 and 4x4 stride 4
// at every measured size; on 1x1 only with few output channels (about
// even at 8, the product reuses a deep input better from 16 on). Batches of
// small output planes go across the images instead (any kernel size).
int choose_path(const Convolution* conv, int32_t images, int64_t pixels) {
    const Tensor* w = conv->weights;
    if (w && ((images >= vo::kDirectBatchMinImages && pixels <= vo::kDirectBatchMaxPixels) ||
              (images >= vo::kDirectBatchManyImages && pixels <= vo::kDirectBatchManyMaxPixels)))
        return kConvPathDirectBatch;
    if (!vo::conv_direct_serves(conv) || w->width != w->height || conv->strideW != conv->strideH)
        return kConvPathGeneral;
    const int k = w->width, s = conv->strideW;
    if (k == 1 && s == 1) return w->num < vo::kDirectOneByOneMaxChannels ? kConvPathDirect : kConvPathGeneral;
    if ((k == 3 && (s == 1 || s == 2)) || (k == 2 && s == 1) || (k == 4 && s == 4)) return kConvPathDirect;
    return kConvPathGeneral;
}

void record_path(Convolution* conv, int32_t images, int64_t pixels) {
    if (!conv->internal) conv->internal = new (std::nothrow) VoConvPrivate{};
    VoConvPrivate* p = conv->internal;
    if (!p) return;  // no memory for the choice: the general path stays
    p->path = choose_path(conv, images, pixels);
    if (p->path == kConvPathDirectBatch)
        snprintf(p->name, sizeof(p->name), "direct-batch");
    else if (p->path == kConvPathDirect)
        snprintf(p->name, sizeof(p->name), "direct-%dx%ds%d", conv->weights->height, conv->weights->width,
                 conv->strideH);
    else
        snprintf(p->name, sizeof(p->name), "general");
}

}  // namespace

Convolution* create_convolution() { return static_cast<Convolution*>(calloc(1, sizeof(Convolution))); }

int load_conv(FILE* stream, void** result) {
    return vo::load_record<Convolution, create_convolution, read_conv, release_conv>(stream, result, kUnit, __func__,
                                                                                      "conv != nullptr");
}

int save_conv(FILE* stream, Convolution* conv) {
    if (!stream || !conv) return 7;
    Tensor* weights = conv->weights;
    VO_CHECK(weights != nullptr, return 7);
    VO_CHECK(!conv->hasBias || conv->bias != nullptr, return 7);
    VO_CHECK(!conv->quantized || conv->weightScales != nullptr, return 7);
    if (!vo::write_fields(stream, kUnit, __func__, weights->num, weights->channel, weights->width, weights->height,
                          conv->strideW, conv->strideH, conv->padW, conv->padH, conv->hasBias, conv->quantized))
        return 4;
    if (!conv->quantized) return vo::write_bank(stream, conv, kUnit, __func__) ? 0 : 4;
    if (!vo::write_values(stream, conv->weightScales, weights->num, kUnit, __func__, "ret == weights->num") ||
        !vo::write_field(stream, conv->inputScale, kUnit, __func__) ||
        !vo::write_values(stream, reinterpret_cast<const int8_t*>(weights->data), weights->capacity, kUnit,
                          __func__, "ret == weights->capacity") ||
        (conv->hasBias && !vo::write_values(stream, conv->bias->data, conv->bias->capacity, kUnit, __func__,
                                            "ret == conv->bias->capacity")))
        return 4;
    return 0;
}

int reshape_conv(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                 ForwardParams* params) {
    if (!conv || !inputs || inputCount != 1 || !outputs || outputCount != 1 || !params) return 7;
    Tensor* src = inputs[0];
    if (!src) return 5;
    vo::ConvShape shape;
    if (int status = vo::conv_shape(conv, src, __func__, &shape)) return status;
    const int32_t M = conv->weights->num;
    // Every size is checked before anything is resized, so a refused shape
    // leaves the output as it was.
    VO_CHECK(vo::checked_count(1, 1, shape.K, shape.N) >= 0, return 5);
    VO_CHECK(vo::checked_count(src->num, M, shape.outH, shape.outW) >= 0, return 5);
    if (vo::reshape_tensor_checked(&params->columnBuffer, 1, 1, shape.K, shape.N) ||
        vo::reshape_tensor_checked(&params->inputBuffer, src->num, src->channel, src->height, src->width) ||
        vo::reshape_tensor_checked(&params->outputBuffer, 1, M, shape.outH, shape.outW) ||
        vo::reshape_tensor_checked(&outputs[0], src->num, M, shape.outH, shape.outW))
        return 5;
    record_path(conv, src->num, shape.N);
    return 0;
}

int forward_conv_norm(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                      ForwardParams* params) {
    if (!conv || !inputs || inputCount != 1 || !outputs || outputCount != 1 || !params) return 7;
    Tensor* src = inputs[0];
    Tensor* dst = outputs[0];
    if (!src || !dst) return 5;
    vo::ConvShape shape;
    if (int status = vo::conv_shape(conv, src, __func__, &shape)) return status;
    const Tensor* weights = conv->weights;
    const int32_t M = weights->num;
    // Another layer may have reshaped a shared tensor since this layer's
    // reshape: never write or read past what the buffers hold.
    VO_CHECK(dst->num == src->num && dst->channel == M && dst->height == shape.outH && dst->width == shape.outW,
             return 5);
    Tensor* column = params->columnBuffer;
    VO_CHECK(conv->is1x1 || (column && shape.K * shape.N <= column->allocCount), return 5);
    VO_CHECK(!conv->hasBias || (conv->bias && conv->bias->capacity >= M), return 7);

    const int32_t N = int32_t(shape.N);
    const int32_t K = int32_t(shape.K);
    const int64_t inStep = int64_t(src->channel) * src->height * src->width;
    const int64_t outStep = int64_t(M) * N;
    for (int32_t n = 0; n < src->num; ++n) {
        const float* image = src->data + n * inStep;
        float* out = dst->data + n * outStep;
        const float* right = image;
        if (!conv->is1x1) {
            img2col_conv(image, src->width, src->height, src->channel, weights->width, weights->height,
                         conv->strideW, conv->strideH, conv->padW, conv->padH, column->data);
            right = column->data;
        }
        if (int status = vo::gemm_checked(0, 0, M, N, K, 1.0f, weights->data, right, 0.0f, out)) return status;
        if (conv->hasBias) {
            for (int32_t o = 0; o < M; ++o) {
                float* plane = out + int64_t(o) * N;
                vo_add_scalar(plane, plane, N, conv->bias->data[o]);
            }
        }
    }
    return 0;
}

int forward_conv(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                 ForwardParams* params) {
    if (!conv) return 7;
    // Checked on every call: quantisation may convert a layer between passes.
    if (conv->quantized) return forward_conv_norm_quantized(conv, inputs, inputCount, outputs, outputCount, params);
    // The Winograd switch is read on every pass: closing it makes the
    // layer exact again at once.
    if (params && params->winograd && is_3x3s1(conv))
        return forward_conv_3x3s1_winograd(conv, inputs, inputCount, outputs, outputCount, params);
    if (conv->internal && conv->internal->path == kConvPathDirect && !general_path_forced())
        return vo::forward_conv_direct(conv, inputs, inputCount, outputs, outputCount, params);
    if (conv->internal && conv->internal->path == kConvPathDirectBatch && !general_path_forced())
        return vo::forward_conv_direct_batch(conv, inputs, inputCount, outputs, outputCount, params);
    return forward_conv_norm(conv, inputs, inputCount, outputs, outputCount, params);
}

void release_conv_data(Convolution* conv) {
    if (!conv) return;
    release_tensor(&conv->weights);
    release_tensor(&conv->winogradKernel);
    release_tensor(&conv->packedKernel);
    release_tensor(&conv->bias);
    free(conv->weightScales);
    free(conv->dequantScales);
    conv->weightScales = nullptr;
    conv->dequantScales = nullptr;
    delete conv->internal;
    conv->internal = nullptr;
}

void release_conv(Convolution** conv) {
    if (!conv || !*conv) return;
    release_conv_data(*conv);
    free(*conv);
    *conv = nullptr;
}

void get_info_conv(Convolution* conv, char* text) {
    if (!text) return;
    if (!conv || !conv->weights) {
        snprintf(text, 128, "Convolution");
        return;
    }
    const Tensor* w = conv->weights;
    snprintf(text, 128, "Convolution, kern: %d %d %d %d, stride: %d %d, pad: %d %d, bias: %d", w->num, w->channel,
             w->height, w->width, conv->strideW, conv->strideH, conv->padW, conv->padH, int(conv->hasBias));
}

void initial_conv_cudnn(Convolution*) {}
void reshape_conv_cudnn(Convolution*, Tensor**, int, Tensor**, int, ForwardParams*) {}
void release_conv_cudnn(Convolution*) {}
int forward_conv_gpu(Convolution*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

// The fast paths by kernel size and stride (slots listed in ConvTableSlot).
ConvForwardOp const convTableNorm[CONV_TABLE_SIZE] = {
    nullptr, nullptr, nullptr, nullptr, forward_conv_1x1s1, nullptr, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr, forward_conv_3x3s1, forward_conv_3x3s2, nullptr, nullptr, nullptr, nullptr, nullptr,
    forward_conv_4x4s4};
ConvForwardOp const convTableNormWinograd[CONV_TABLE_SIZE] = {
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    forward_conv_3x3s1_winograd};
ConvForwardOp const convTableQuantize[CONV_TABLE_SIZE] = {
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    forward_conv_3x3s1_s8, forward_conv_3x3s2_s8};

namespace vo {

const char* conv_path_name(const Convolution* conv, const ForwardParams* params) {
    if (!conv) return "";
    if (conv->quantized) return "int8";
    if (params && params->winograd && is_3x3s1(conv)) return "winograd";
    if (!conv->internal || conv->internal->path == kConvPathGeneral || general_path_forced()) return "general";
    return conv->internal->name;
}

bool set_conv_general_for_testing(bool general) {
    const bool previous = general_path_forced();
    gGeneralForTesting.store(general ? 1 : 0, std::memory_order_relaxed);
    return previous;
}

const LayerOps kConvOps = make_layer_ops<Convolution, forward_conv, reshape_conv, save_conv, release_conv,
                                         get_info_conv, load_conv>();
}  // namespace vo
