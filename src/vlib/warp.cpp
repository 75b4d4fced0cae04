// Affine patches (rotation, scale, centres) sampled bilinearly in 14-bit
// fixed point, and interleaved-to-planar splitting.
#include <vonet/image.h>

#include <immintrin.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "vlib/bilinear_avx2.h"
#include "vlib/image_internal.h"

namespace vo {
namespace {

// Truncation toward zero into int32; values beyond the range (a scale near
// 0) saturate instead of being undefined, and such samples end up outside.
inline int32_t trunc_fix(float v) {
    if (v > -2147483648.0f && v < 2147483648.0f) return int32_t(v);
    return v > 0.0f ? INT32_MAX : INT32_MIN;
}

// Two's-complement sums, as the 32-bit fixed-point positions wrap.
inline int32_t wrap_add(int32_t a, int32_t b) { return int32_t(uint32_t(a) + uint32_t(b)); }
inline int32_t wrap_sub(int32_t a, int32_t b) { return int32_t(uint32_t(a) - uint32_t(b)); }

inline int32_t blend(int32_t a, int32_t b, int32_t f) {
    return ((a << kFixShift) + (b - a) * f + kFixHalf) >> kFixShift;
}

// Eight grey destination pixels: positions X = rowX + colB, Y = rowY - colA.
// Outside lanes gather from offset 0 and are zeroed afterwards; inside
// lanes read 4 bytes from x0, or from srcWidth - 4 near the right edge
// with the pair shifted into place, so no read leaves the row.
inline __m256i warp8_gray(const uint8_t* src, int srcStride, __m256i rowX, __m256i rowY, const int32_t* colA,
                          const int32_t* colB, __m256i lastX, __m256i lastY, __m256i lastStart,
                          __m256i pairMask) {
    const __m256i fixMask = _mm256_set1_epi32(kFixOne - 1);
    const __m256i one = _mm256_set1_epi32(kFixOne);
    const __m256i minusOne = _mm256_set1_epi32(-1);
    const __m256i X = _mm256_add_epi32(rowX, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(colB)));
    const __m256i Y = _mm256_sub_epi32(rowY, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(colA)));
    const __m256i x0 = _mm256_srai_epi32(X, kFixShift);
    const __m256i y0 = _mm256_srai_epi32(Y, kFixShift);
    const __m256i inside = _mm256_and_si256(
        _mm256_and_si256(_mm256_cmpgt_epi32(x0, minusOne), _mm256_cmpgt_epi32(lastX, x0)),
        _mm256_and_si256(_mm256_cmpgt_epi32(y0, minusOne), _mm256_cmpgt_epi32(lastY, y0)));
    const __m256i start = _mm256_min_epi32(x0, lastStart);
    const __m256i shift = _mm256_and_si256(_mm256_slli_epi32(_mm256_sub_epi32(x0, start), 3), inside);
    const __m256i offset = _mm256_and_si256(
        _mm256_add_epi32(_mm256_mullo_epi32(y0, _mm256_set1_epi32(srcStride)), start), inside);
    // (TL, TR) times (16384 - fx, fx) is (TL << 14) + (TR - TL) fx.
    const __m256i fx = _mm256_and_si256(X, fixMask);
    const __m256i fy = _mm256_and_si256(Y, fixMask);
    const __m256i wx = _mm256_or_si256(_mm256_sub_epi32(one, fx), _mm256_slli_epi32(fx, 16));
    const __m256i wy = _mm256_or_si256(_mm256_sub_epi32(one, fy), _mm256_slli_epi32(fy, 16));
    const __m256i v =
        blend_rows(gather_row(src, offset, shift), gather_row(src + srcStride, offset, shift), wx, wy, pairMask);
    return _mm256_and_si256(v, inside);
}

// Columns [0, end) of one grey destination row, end a multiple of 8.
void warp_row_gray_avx2(const uint8_t* src, int srcWidth, int srcHeight, int srcStride, int32_t rowX,
                        int32_t rowY, const int32_t* colA, const int32_t* colB, int end, uint8_t* d8, float* df) {
    const __m256i pairMask = pair_mask();
    const __m256i rx = _mm256_set1_epi32(rowX), ry = _mm256_set1_epi32(rowY);
    const __m256i lastX = _mm256_set1_epi32(srcWidth - 1), lastY = _mm256_set1_epi32(srcHeight - 1);
    const __m256i lastStart = _mm256_set1_epi32(srcWidth - 4);
    for (int j = 0; j < end; j += 8)
        store8(warp8_gray(src, srcStride, rx, ry, colA + j, colB + j, lastX, lastY, lastStart, pairMask), d8, df, j);
}

}  // namespace

void affine_warp(const uint8_t* src, int srcWidth, int srcHeight, int srcStride, int channels, float angle,
                 float scale, const VPointf& srcCenter, const VPointf& dstCenter, const WarpOut& out,
                 int dstWidth, int dstHeight, bool vector) {
    if (!src || (!out.dst8 && !out.dstf) || dstWidth < 1 || dstHeight < 1) return;
    const float sn = float(std::sin(-double(angle)) / double(scale));
    const float cs = float(std::cos(-double(angle)) / double(scale));

    int32_t* table = static_cast<int32_t*>(malloc(sizeof(int32_t) * 2 * (size_t(dstWidth) + size_t(dstHeight))));
    if (!table) return;
    int32_t* colA = table;
    int32_t* colB = colA + dstWidth;
    int32_t* rowX = colB + dstWidth;
    int32_t* rowY = rowX + dstHeight;
    for (int j = 0; j < dstWidth; ++j) {
        const float dx = float(j) - dstCenter.x;
        colA[j] = trunc_fix(dx * sn * 16384.0f);
        colB[j] = trunc_fix(dx * cs * 16384.0f);
    }
    for (int i = 0; i < dstHeight; ++i) {
        const float dy = float(i) - dstCenter.y;
        rowX[i] = trunc_fix((srcCenter.x + dy * sn) * 16384.0f);
        rowY[i] = trunc_fix((srcCenter.y + dy * cs) * 16384.0f);
    }

    // The gathers take 32-bit byte offsets and read 4 bytes per row.
    const int64_t span = int64_t(srcHeight) * (srcStride < 0 ? -int64_t(srcStride) : srcStride) + srcWidth;
    const int vectorEnd = vector && channels == 1 && out.pixelStep == 1 && srcWidth >= 4 && srcHeight >= 2 &&
                                  span < INT32_MAX
                              ? dstWidth & ~7
                              : 0;
    for (int i = 0; i < dstHeight; ++i) {
        uint8_t* d8 = out.dst8 ? out.dst8 + i * out.rowStep : nullptr;
        float* df = out.dstf ? out.dstf + i * out.rowStep : nullptr;
        int j = 0;
        if (vectorEnd > 0) {
            warp_row_gray_avx2(src, srcWidth, srcHeight, srcStride, rowX[i], rowY[i], colA, colB, vectorEnd, d8, df);
            j = vectorEnd;
        }
        for (; j < dstWidth; ++j) {
            const int32_t X = wrap_add(rowX[i], colB[j]);
            const int32_t Y = wrap_sub(rowY[i], colA[j]);
            const int32_t x0 = X >> kFixShift;
            const int32_t y0 = Y >> kFixShift;
            const bool inside = x0 >= 0 && x0 < srcWidth - 1 && y0 >= 0 && y0 < srcHeight - 1;
            const int32_t fx = X & (kFixOne - 1);
            const int32_t fy = Y & (kFixOne - 1);
            const uint8_t* p = inside ? src + ptrdiff_t(y0) * srcStride + ptrdiff_t(channels) * x0 : nullptr;
            for (int c = 0; c < channels; ++c) {
                int32_t v = 0;
                if (inside) {
                    const uint8_t* q = p + c;
                    const int32_t top = blend(q[0], q[channels], fx);
                    const int32_t bottom = blend(q[srcStride], q[srcStride + channels], fx);
                    v = blend(top, bottom, fy);
                }
                const int64_t at = c * out.planeStep + j * out.pixelStep;
                if (df)
                    df[at] = float(v);
                else
                    d8[at] = uint8_t(v);
            }
        }
    }
    free(table);
}

}  // namespace vo

namespace {

vo::WarpOut interleaved(uint8_t* d8, float* df, int64_t rowStep, int channels) {
    return {d8, df, rowStep, channels, 1};
}

vo::WarpOut planar(uint8_t* d8, float* df, int dstWidth, int dstHeight) {
    return {d8, df, dstWidth, 1, int64_t(dstWidth) * dstHeight};
}

}  // namespace

void affine_image(uint8_t* src, int srcWidth, int srcHeight, int srcStride, float angle, float scale,
                  VPointf& srcCenter, VPointf& dstCenter, uint8_t* dst, int dstWidth, int dstHeight,
                  int dstStride) {
    vo::affine_warp(src, srcWidth, srcHeight, srcStride, 1, angle, scale, srcCenter, dstCenter,
                    interleaved(dst, nullptr, dstStride, 1), dstWidth, dstHeight, true);
}

void affine_image_uint82float(uint8_t* src, int srcWidth, int srcHeight, int srcStride, float angle,
                              float scale, VPointf& srcCenter, VPointf& dstCenter, float* dst, int dstWidth,
                              int dstHeight) {
    vo::affine_warp(src, srcWidth, srcHeight, srcStride, 1, angle, scale, srcCenter, dstCenter,
                    interleaved(nullptr, dst, dstWidth, 1), dstWidth, dstHeight, true);
}

void affine_image_color(uint8_t* src, int srcWidth, int srcHeight, int srcStride, float angle, float scale,
                        VPointf& srcCenter, VPointf& dstCenter, uint8_t* dst, int dstWidth, int dstHeight,
                        int dstStride) {
    vo::affine_warp(src, srcWidth, srcHeight, srcStride, 3, angle, scale, srcCenter, dstCenter,
                    interleaved(dst, nullptr, dstStride, 3), dstWidth, dstHeight, true);
}

void affine_image_color_uint82float(uint8_t* src, int srcWidth, int srcHeight, int srcStride, float angle,
                                    float scale, VPointf& srcCenter, VPointf& dstCenter, float* dst,
                                    int dstWidth, int dstHeight, int dstStride) {
    vo::affine_warp(src, srcWidth, srcHeight, srcStride, 3, angle, scale, srcCenter, dstCenter,
                    interleaved(nullptr, dst, dstStride, 3), dstWidth, dstHeight, true);
}

void split_affine_image(uint8_t* src, int srcWidth, int srcHeight, int srcStride, float angle, float scale,
                        VPointf& srcCenter, VPointf& dstCenter, uint8_t* dst, int dstWidth, int dstHeight) {
    vo::affine_warp(src, srcWidth, srcHeight, srcStride, 3, angle, scale, srcCenter, dstCenter,
                    planar(dst, nullptr, dstWidth, dstHeight), dstWidth, dstHeight, true);
}

void split_affine_image_uint82float(uint8_t* src, int srcWidth, int srcHeight, int srcStride, float angle,
                                    float scale, VPointf& srcCenter, VPointf& dstCenter, float* dst,
                                    int dstWidth, int dstHeight) {
    vo::affine_warp(src, srcWidth, srcHeight, srcStride, 3, angle, scale, srcCenter, dstCenter,
                    planar(nullptr, dst, dstWidth, dstHeight), dstWidth, dstHeight, true);
}

void split_image(uint8_t* src, int width, int height, int channels, int stride, uint8_t* dst) {
    if (!src || !dst || width < 1 || height < 1 || channels < 1) return;
    const int64_t plane = int64_t(width) * height;
    for (int y = 0; y < height; ++y) {
        const uint8_t* s = src + ptrdiff_t(y) * stride;
        uint8_t* d = dst + int64_t(y) * width;
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < channels; ++c) d[c * plane + x] = s[ptrdiff_t(x) * channels + c];
    }
}

void split_image_uint82float(uint8_t* src, int width, int height, int channels, int stride, float* dst) {
    if (!src || !dst || width < 1 || height < 1 || channels < 1) return;
    const int64_t plane = int64_t(width) * height;
    for (int c = 0; c < channels; ++c) {
        float* d = dst + c * plane;
        for (int y = 0; y < height; ++y) {
            const uint8_t* s = src + ptrdiff_t(y) * stride + c;
            for (int x = 0; x < width; ++x) d[int64_t(y) * width + x] = float(s[ptrdiff_t(x) * channels]);
        }
    }
}
