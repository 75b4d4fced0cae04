// Internal entry points of the image functions. Each takes a `vector` flag
// so that benchmarks and tests can run the plain scalar path beside the AVX2
// one; both give identical results.
#ifndef VONET_VLIB_IMAGE_INTERNAL_H
#define VONET_VLIB_IMAGE_INTERNAL_H

#include <stdint.h>

#include <vonet/geometry.h>

namespace vo {

constexpr int32_t kFixShift = 14;
constexpr int32_t kFixOne = 1 << kFixShift;  // FIX_ONE
constexpr int32_t kFixHalf = kFixOne >> 1;

// gray = (b0 k0 + b1 k1 + b2 k2 + 8192) >> 14 over `bytesPerPixel`-byte
// pixels. Exactly one of dst8 / dstf is non-null; dstStride is in elements.
void gray_from_color(const uint8_t* src, int width, int height, int srcStride, int bytesPerPixel,
                     const uint16_t k[3], uint8_t* dst8, float* dstf, int dstStride, bool vector);

// One grey resizer for bytes (dst8, stride dstStride) or floats (dstf,
// packed); `channels` is 1 or 3.
void resize_bilinear(const uint8_t* src, int srcWidth, int srcHeight, int srcStride, int channels,
                     uint8_t* dst8, float* dstf, int dstWidth, int dstHeight, int dstStride, bool vector);

// Output layout of a warp: element (channel c, row i, column j) goes to
// c * planeStep + i * rowStep + j * pixelStep.
struct WarpOut {
    uint8_t* dst8;
    float* dstf;
    int64_t rowStep;
    int64_t pixelStep;
    int64_t planeStep;
};
void affine_warp(const uint8_t* src, int srcWidth, int srcHeight, int srcStride, int channels, float angle,
                 float scale, const VPointf& srcCenter, const VPointf& dstCenter, const WarpOut& out,
                 int dstWidth, int dstHeight, bool vector);

// Separable Gaussian smoothing in place (float or uint8_t elements).
template <typename T>
void gaussian_2d(T* src, int width, int height, int channels, int stride, int ksize, float sigma, bool vector);

}  // namespace vo

#endif
