// Deconvolution layer: per image, one matrix product with the transposed
// kernel bank gives every pixel's patches, which a fold sums into the
// output; then the bias.
#include <vonet/deconvolution.h>
#include <vonet/kernels.h>

#include <climits>
#include <cstdlib>

#include "common/check.h"
#include "common/record_io.h"
#include "kernels/gemm.h"
#include "vnet/conv_common.h"
#include "vnet/layer_registry.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/deconv";
constexpr const char* kLoad = "load_deconv";

// Reads the record into `conv`; on failure the caller releases it.
int read_deconv(FILE* stream, Deconv* conv) {
    int32_t outChannels = 0, inChannels = 0, kernelW = 0, kernelH = 0;
    if (!vo::read_fields(stream, kUnit, kLoad, &outChannels, &inChannels, &kernelW, &kernelH, &conv->strideW,
                         &conv->strideH, &conv->padW, &conv->padH, &conv->hasBias))
        return 4;
    VO_CHECK_IN(kLoad, conv->hasBias <= 1, return 4);
    VO_CHECK_IN(kLoad, outChannels > 0 && inChannels > 0, return 4);
    if (!vo::geometry_ok(kUnit, kLoad, conv, kernelW, kernelH)) return 4;

    int64_t count = vo::checked_count(inChannels, outChannels, kernelH, kernelW);
    VO_CHECK_IN(kLoad, count >= 0, return 4);
    if (!vo::bank_in_file(stream, conv, count, outChannels, kUnit, kLoad)) return 4;

    VO_CHECK_IN(kLoad, vo::reshape_tensor_checked(&conv->weights, inChannels, outChannels, kernelH, kernelW) == 0,
                return 4);
    if (!vo::read_weights(stream, conv, kUnit, kLoad)) return 4;
    if (conv->hasBias) {
        VO_CHECK_IN(kLoad, vo::reshape_tensor_checked(&conv->bias, 1, outChannels, 1, 1) == 0, return 4);
        if (!vo::read_bias(stream, conv, kUnit, kLoad)) return 4;
    }
    conv->is1x1 = kernelW == 1 && kernelH == 1 && conv->strideW == 1 && conv->strideH == 1 && conv->padW == 0 &&
                  conv->padH == 0;
    return 0;
}

// Sizes of one forward pass, derived from the input and the record.
struct DeconvShape {
    int32_t outW, outH;
    int64_t M;  // rows of the product: output channels * kernelH * kernelW
    int64_t N;  // input pixels per image
};

// Checks the input against the record and computes the output size; 5 when
// they do not fit together.
int deconv_shape(const Deconv* deconv, const Tensor* src, const char* op, DeconvShape* shape) {
    const Tensor* weights = deconv->weights;
    VO_CHECK_IN(op, weights != nullptr, return 7);
    VO_CHECK_IN(op, src->channel == weights->num, return 5);
    // The inverse of the convolution size rule, in 64 bits.
    int64_t outW = weights->width + (int64_t(src->width) - 1) * deconv->strideW - 2 * int64_t(deconv->padW);
    int64_t outH = weights->height + (int64_t(src->height) - 1) * deconv->strideH - 2 * int64_t(deconv->padH);
    VO_CHECK_IN(op, outW > 0 && outH > 0, return 5);
    // The fold recomputes the window count as (out + 2 pad - kernel) in int32.
    VO_CHECK_IN(op, outW + 2 * int64_t(deconv->padW) <= INT32_MAX && outH + 2 * int64_t(deconv->padH) <= INT32_MAX,
                return 5);
    shape->outW = int32_t(outW);
    shape->outH = int32_t(outH);
    shape->M = int64_t(weights->channel) * weights->height * weights->width;
    shape->N = int64_t(src->width) * src->height;
    return 0;
}

}  // namespace

Deconv* create_deconv() { return static_cast<Deconv*>(calloc(1, sizeof(Deconv))); }

int load_deconv(FILE* stream, void** result) {
    return vo::load_record<Deconv, create_deconv, read_deconv, release_deconv>(stream, result, kUnit, __func__,
                                                                            "deconv != nullptr");
}

int save_deconv(FILE* stream, Deconv* deconv) {
    if (!stream || !deconv) return 7;
    Deconv* conv = deconv;  // the record's name in the check texts
    Tensor* weights = conv->weights;
    VO_CHECK(weights != nullptr, return 7);
    VO_CHECK(!conv->hasBias || conv->bias != nullptr, return 7);
    if (!vo::write_fields(stream, kUnit, __func__, weights->channel, weights->num, weights->width, weights->height,
                          conv->strideW, conv->strideH, conv->padW, conv->padH, conv->hasBias) ||
        !vo::write_bank(stream, conv, kUnit, __func__))
        return 4;
    return 0;
}

int reshape_deconv(Deconv* deconv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                   ForwardParams* params) {
    if (!deconv || !inputs || inputCount != 1 || !outputs || outputCount != 1 || !params) return 7;
    Tensor* src = inputs[0];
    if (!src) return 5;
    DeconvShape shape;
    if (int status = deconv_shape(deconv, src, __func__, &shape)) return status;
    const int32_t Co = deconv->weights->channel;
    // Every size is checked before anything is resized, so a refused shape
    // leaves the output as it was.
    VO_CHECK(vo::checked_count(1, 1, shape.M, shape.N) >= 0, return 5);
    VO_CHECK(vo::checked_count(src->num, Co, shape.outH, shape.outW) >= 0, return 5);
    if (vo::reshape_tensor_checked(&params->columnBuffer, 1, 1, shape.M, shape.N) ||
        vo::reshape_tensor_checked(&outputs[0], src->num, Co, shape.outH, shape.outW))
        return 5;
    return 0;
}

int forward_deconv(Deconv* deconv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                   ForwardParams* params) {
    if (!deconv || !inputs || inputCount != 1 || !outputs || outputCount != 1 || !params) return 7;
    Tensor* src = inputs[0];
    Tensor* dst = outputs[0];
    if (!src || !dst) return 5;
    DeconvShape shape;
    if (int status = deconv_shape(deconv, src, __func__, &shape)) return status;
    const Tensor* weights = deconv->weights;
    const int32_t Co = weights->channel;
    // Another layer may have reshaped a shared tensor since this layer's
    // reshape: never write or read past what the buffers hold.
    VO_CHECK(dst->num == src->num && dst->channel == Co && dst->height == shape.outH && dst->width == shape.outW,
             return 5);
    Tensor* column = params->columnBuffer;
    VO_CHECK(deconv->is1x1 || (column && shape.M * shape.N <= column->allocCount), return 5);
    VO_CHECK(!deconv->hasBias || (deconv->bias && deconv->bias->capacity >= Co), return 7);

    const int32_t M = int32_t(shape.M);
    const int32_t N = int32_t(shape.N);
    const int32_t K = weights->num;
    const int64_t inStep = int64_t(K) * N;
    const int64_t plane = int64_t(shape.outW) * shape.outH;
    const int64_t outStep = Co * plane;
    for (int32_t n = 0; n < src->num; ++n) {
        const float* image = src->data + n * inStep;
        float* out = dst->data + n * outStep;
        float* product = deconv->is1x1 ? out : column->data;
        if (int status = vo::gemm_checked(1, 0, M, N, K, 1.0f, weights->data, image, 0.0f, product)) return status;
        if (!deconv->is1x1) {
            col2img_conv(product, shape.outW, shape.outH, Co, weights->width, weights->height, deconv->strideW,
                         deconv->strideH, deconv->padW, deconv->padH, out);
        }
        if (deconv->hasBias) {
            for (int32_t o = 0; o < Co; ++o)
                vo_add_scalar(out + o * plane, out + o * plane, int32_t(plane), deconv->bias->data[o]);
        }
    }
    return 0;
}

void release_deconv_data(Deconv* deconv) {
    if (!deconv) return;
    release_tensor(&deconv->weights);
    release_tensor(&deconv->bias);
}

void release_deconv(Deconv** deconv) {
    if (!deconv || !*deconv) return;
    release_deconv_data(*deconv);
    free(*deconv);
    *deconv = nullptr;
}

void get_info_deconv(Deconv* deconv, char* text) {
    if (!text) return;
    if (!deconv || !deconv->weights) {
        snprintf(text, 128, "deconv");
        return;
    }
    const Tensor* w = deconv->weights;
    snprintf(text, 128, "deconv, kern: %d %d %d %d, stride: %d %d, pad: %d %d, bias: %d", w->num, w->channel,
             w->height, w->width, deconv->strideW, deconv->strideH, deconv->padW, deconv->padH,
             int(deconv->hasBias));
}

void initial_deconv_cudnn(Deconv*) {}
void reshape_deconv_cudnn(Deconv*, Tensor**, int, Tensor**, int, ForwardParams*) {}
void release_deconv_cudnn(Deconv*) {}
int forward_deconv_gpu(Deconv*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kDeconvOps = make_layer_ops<Deconv, forward_deconv, reshape_deconv, save_deconv, release_deconv,
                                           get_info_deconv, load_deconv>();
}  // namespace vo
