// Convolution layer, Winograd F(6x6, 3x3) path for 3x3 stride-1 kernels:
// the output is cut into 6x6 tiles, each computed from an 8x8 input tile
// with 64 multiplications per input channel instead of 324.
#include <vonet/convolution.h>

#include <cmath>
#include <cstring>

#include "common/check.h"
#include "kernels/winograd.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/conv_stable";

// The kernel transform G (8 x 3); each value is the nearest float of its
// fraction.
const float kG[8][3] = {
    {1.0f, 0.0f, 0.0f},
    {-2.0f / 9.0f, -2.0f / 9.0f, -2.0f / 9.0f},
    {-2.0f / 9.0f, 2.0f / 9.0f, -2.0f / 9.0f},
    {1.0f / 90.0f, 1.0f / 45.0f, 2.0f / 45.0f},
    {1.0f / 90.0f, -1.0f / 45.0f, 2.0f / 45.0f},
    {1.0f / 45.0f, 1.0f / 90.0f, 1.0f / 180.0f},
    {1.0f / 45.0f, -1.0f / 90.0f, 1.0f / 180.0f},
    {0.0f, 0.0f, 1.0f},
};

// U = G g G^T of one 3x3 kernel, 64 floats row-major: P = G g first, then
// each row of P times G^T. Rows 0 and 7 of G pick a single value, so the
// first and last value of each row are copied rather than summed.
void transform_3x3(const float* g, float* U) {
    float P[8][3];
    for (int r = 0; r < 8; ++r)
        for (int l = 0; l < 3; ++l) {
            float sum = 0.0f;
            for (int k = 0; k < 3; ++k) sum = std::fma(kG[r][k], g[k * 3 + l], sum);
            P[r][l] = sum;
        }
    for (int r = 0; r < 8; ++r) {
        U[r * 8] = P[r][0];
        for (int i = 1; i < 7; ++i) {
            float sum = 0.0f;
            for (int l = 0; l < 3; ++l) sum = std::fma(kG[i][l], P[r][l], sum);
            U[r * 8 + i] = sum;
        }
        U[r * 8 + 7] = P[r][2];
    }
}

// Groups of the transformed kernels: one per 4 output channels, then one
// per remaining channel.
int64_t kernel_groups(int64_t M) { return M / 4 + M % 4; }

}  // namespace

Tensor* conv_3x3s1_winograd_transform_kernel(Tensor* weights) {
    VO_CHECK(weights && weights->data, return nullptr);
    VO_CHECK(weights->width == 3 && weights->height == 3, return nullptr);
    VO_CHECK(weights->num > 0 && weights->channel > 0, return nullptr);
    const int32_t M = weights->num, C = weights->channel;
    VO_CHECK(int64_t(M) * C * 9 <= weights->capacity, return nullptr);
    Tensor* result = nullptr;
    if (vo::reshape_tensor_checked(&result, 1, kernel_groups(M), 64, int64_t(4) * C)) {
        release_tensor(&result);
        return nullptr;
    }
    // Rows of single channels use only their first C floats.
    memset(result->data, 0, size_t(result->capacity) * sizeof(float));
    const int64_t row = int64_t(4) * C;
    const int32_t groups4 = M / 4;
    float U[64];
    for (int32_t o = 0; o < M; ++o) {
        const bool four = o < groups4 * 4;
        const int64_t group = four ? o / 4 : groups4 + o % 4;
        for (int32_t c = 0; c < C; ++c) {
            transform_3x3(weights->data + (int64_t(o) * C + c) * 9, U);
            float* dst = result->data + group * 64 * row + (four ? int64_t(c) * 4 + o % 4 : c);
            for (int t = 0; t < 64; ++t) dst[t * row] = U[t];
        }
    }
    return result;
}

void conv_winograd_crop(Tensor* src, Tensor* res, int n, int elementSize) {
    VO_CHECK(src && res && src->data && res->data, return);
    VO_CHECK(src->channel == res->channel, return);
    VO_CHECK(src->width >= res->width, return);
    VO_CHECK(src->height >= res->height, return);
    // Beyond the fixed checks: nothing may read or write outside either
    // buffer, whatever the caller passes.
    VO_CHECK(elementSize == 1 || elementSize == 4, return);
    VO_CHECK(n >= 0 && n < res->num, return);
    VO_CHECK(src->num >= 1 && int64_t(src->channel) * src->height * src->width <= src->capacity, return);
    const int64_t resPlane = int64_t(res->height) * res->width, srcPlane = int64_t(src->height) * src->width;
    VO_CHECK((int64_t(n) + 1) * res->channel * resPlane <= res->capacity, return);

    const size_t es = size_t(elementSize);
    const auto* in = reinterpret_cast<const unsigned char*>(src->data);
    auto* out = reinterpret_cast<unsigned char*>(res->data) + size_t(n) * size_t(res->channel) * resPlane * es;
    for (int32_t c = 0; c < res->channel; ++c)
        for (int32_t y = 0; y < res->height; ++y)
            memcpy(out + size_t(c * resPlane + int64_t(y) * res->width) * es,
                   in + size_t(c * srcPlane + int64_t(y) * src->width) * es, size_t(res->width) * es);
}

int forward_conv_3x3s1_winograd(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                                int outputCount, ForwardParams* params) {
    if (!conv || !inputs || inputCount != 1 || !outputs || outputCount != 1 || !params) return 7;
    Tensor* src = inputs[0];
    Tensor* dst = outputs[0];
    if (!src || !dst) return 5;
    const Tensor* weights = conv->weights;
    VO_CHECK(weights && weights->data, return 7);
    VO_CHECK(weights->width == 3 && weights->height == 3 && conv->strideW == 1 && conv->strideH == 1, return 7);
    VO_CHECK(!conv->quantized, return 7);
    VO_CHECK(conv->padW >= 0 && conv->padH >= 0, return 7);
    VO_CHECK(src->channel == weights->channel && src->data, return 5);
    const int32_t M = weights->num, C = weights->channel;
    const int64_t outW = int64_t(src->width) + 2 * int64_t(conv->padW) - 2;
    const int64_t outH = int64_t(src->height) + 2 * int64_t(conv->padH) - 2;
    VO_CHECK(outW > 0 && outH > 0, return 5);
    // Another layer may have reshaped a shared tensor since this layer's
    // reshape: never write or read past what the buffers hold.
    VO_CHECK(dst->num == src->num && dst->channel == M && dst->height == outH && dst->width == outW, return 5);
    VO_CHECK(dst->data && int64_t(dst->num) * M * outH * outW <= dst->capacity, return 5);
    VO_CHECK(int64_t(src->num) * C * src->height * src->width <= src->capacity, return 5);
    VO_CHECK(!conv->hasBias || (conv->bias && conv->bias->capacity >= M), return 7);

    if (!conv->winogradKernel) {
        conv->winogradKernel = conv_3x3s1_winograd_transform_kernel(conv->weights);
        if (!conv->winogradKernel) return 5;
    }
    const Tensor* kernel = conv->winogradKernel;
    // Built once from the weights of the first call.
    VO_CHECK(kernel->num == 1 && kernel->channel == kernel_groups(M) && kernel->height == 64 &&
                 kernel->width == int64_t(4) * C,
             return 7);

    const int64_t tilesW = (outW + 5) / 6, tilesH = (outH + 5) / 6, T = tilesW * tilesH;
    const int64_t paddedW = 6 * tilesW + 2, paddedH = 6 * tilesH + 2;
    if (vo::reshape_tensor_checked(&params->columnBuffer, 1, C, paddedH, paddedW) ||
        vo::reshape_tensor_checked(&params->winogradInput, 1, 64, vo::winograd_rows(T), int64_t(8) * C) ||
        vo::reshape_tensor_checked(&params->winogradProduct, 1, M, 64 * T, 1) ||
        vo::reshape_tensor_checked(&params->winogradOutput, 1, M, 6 * tilesH, 6 * tilesW))
        return 5;

    const vo::WinogradKernels& k = vo::winograd_kernels();
    Tensor* padded = params->columnBuffer;
    float* input = params->winogradInput->data;
    float* product = params->winogradProduct->data;
    float* uncropped = params->winogradOutput->data;
    const int64_t outPlane = 36 * T;
    for (int32_t n = 0; n < src->num; ++n) {
        // The right and bottom borders beyond the padding stay zero up to
        // whole tiles.
        conv_pad_round(src, n, conv->padW, conv->padH, padded, 4);
        k.input(padded->data, int32_t(tilesW), int32_t(tilesH), C, input);
        k.products(input, kernel->data, product, M, C, int32_t(T));
        for (int32_t o = 0; o < M; ++o) {
            const float bias = conv->hasBias ? conv->bias->data[o] : 0.0f;
            k.output(product + int64_t(o) * 64 * T, int32_t(T), int32_t(tilesW), bias, uncropped + o * outPlane);
        }
        conv_winograd_crop(params->winogradOutput, dst, n, 4);
    }
    return 0;
}
