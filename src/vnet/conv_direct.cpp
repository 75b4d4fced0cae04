// Convolution layer, direct float paths: the input image is padded once and
// blocks of output channels and rows go to small block kernels, with no
// column matrix.
#include <vonet/convolution.h>

#include <cstring>

#include "common/check.h"

namespace {

constexpr const char* kUnit = "vnet/conv_stable";

}  // namespace

void conv_pad_round(Tensor* src, int n, int padW, int padH, Tensor* res, int elementSize) {
    VO_CHECK(src && res && src->data && res->data, return);
    VO_CHECK(src->channel == res->channel, return);
    const int64_t padw = padW, padh = padH;
    VO_CHECK(src->width + padw * 2 <= res->width, return);
    VO_CHECK(src->height + padh * 2 <= res->height, return);
    // Beyond the fixed checks: nothing may write or read outside either
    // buffer, whatever the caller passes.
    VO_CHECK(elementSize == 1 || elementSize == 4, return);
    VO_CHECK(padW >= 0 && padH >= 0 && n >= 0 && n < src->num, return);
    VO_CHECK(int64_t(res->channel) * res->height * res->width <= res->capacity, return);

    const size_t es = size_t(elementSize);
    auto* out = reinterpret_cast<unsigned char*>(res->data);
    memset(out, 0, size_t(res->capacity) * es);
    const size_t rowBytes = size_t(src->width) * es;
    const size_t srcPlane = size_t(src->width) * size_t(src->height);
    const size_t resPlane = size_t(res->width) * size_t(res->height);
    const auto* in = reinterpret_cast<const unsigned char*>(src->data) + size_t(n) * src->channel * srcPlane * es;
    for (int32_t c = 0; c < src->channel; ++c) {
        for (int32_t y = 0; y < src->height; ++y) {
            const unsigned char* from = in + (size_t(c) * srcPlane + size_t(y) * src->width) * es;
            unsigned char* to = out + (size_t(c) * resPlane + size_t(y + padH) * res->width + padW) * es;
            memcpy(to, from, rowBytes);
        }
    }
}
