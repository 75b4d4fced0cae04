// Colour to grey conversion in 14-bit fixed point.
#include <vonet/image.h>

#include <immintrin.h>

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "vlib/image_internal.h"

namespace vo {
namespace {

constexpr uint16_t kBgrWeights[3] = {1867, 9617, 4897};
constexpr uint16_t kRgbWeights[3] = {4897, 9617, 1867};

inline uint32_t gray_pixel(const uint8_t* p, const uint16_t k[3]) {
    return (uint32_t(p[0]) * k[0] + uint32_t(p[1]) * k[1] + uint32_t(p[2]) * k[2] + kFixHalf) >> kFixShift;
}

bool overlaps(const void* a, size_t aBytes, const void* b, size_t bBytes) {
    uintptr_t pa = uintptr_t(a), pb = uintptr_t(b);
    return pa < pb + bBytes && pb < pa + aBytes;
}

// Byte shuffles that spread 4 pixels of each 128-bit lane into 32-bit
// elements: (byte 0, byte 1) as two 16-bit halves, and byte 2 alone, so
// that two madd's give b0 k0 + b1 k1 and b2 k2.
struct GrayMasks {
    __m256i pair;
    __m256i third;
};

GrayMasks masks_for(int bytesPerPixel) {
    const int8_t z = -1;
    if (bytesPerPixel == 4) {
        return {_mm256_setr_epi8(0, z, 1, z, 4, z, 5, z, 8, z, 9, z, 12, z, 13, z,
                                 0, z, 1, z, 4, z, 5, z, 8, z, 9, z, 12, z, 13, z),
                _mm256_setr_epi8(2, z, z, z, 6, z, z, z, 10, z, z, z, 14, z, z, z,
                                 2, z, z, z, 6, z, z, z, 10, z, z, z, 14, z, z, z)};
    }
    // Three-byte pixels: the low lane holds row bytes 0..15 (pixels 0..3 at
    // 0..11), the high lane bytes 8..23 (pixels 4..7 at lane bytes 4..15).
    return {_mm256_setr_epi8(0, z, 1, z, 3, z, 4, z, 6, z, 7, z, 9, z, 10, z,
                             4, z, 5, z, 7, z, 8, z, 10, z, 11, z, 13, z, 14, z),
            _mm256_setr_epi8(2, z, z, z, 5, z, z, z, 8, z, z, z, 11, z, z, z,
                             6, z, z, z, 9, z, z, z, 12, z, z, z, 15, z, z, z)};
}

// Grey values of 8 pixels starting at p, as int32 in pixel order.
inline __m256i gray8(const uint8_t* p, int bytesPerPixel, const GrayMasks& m, __m256i w01, __m256i w2) {
    __m256i v;
    if (bytesPerPixel == 4) {
        v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    } else {
        v = _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))),
                                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8)), 1);
    }
    __m256i s = _mm256_add_epi32(_mm256_madd_epi16(_mm256_shuffle_epi8(v, m.pair), w01),
                                 _mm256_madd_epi16(_mm256_shuffle_epi8(v, m.third), w2));
    s = _mm256_add_epi32(s, _mm256_set1_epi32(kFixHalf));
    return _mm256_srli_epi32(s, kFixShift);
}

// Converts pixels [0, end) of one row, end a multiple of 16.
void gray_row_avx2(const uint8_t* s, int end, int bytesPerPixel, const uint16_t k[3], uint8_t* d8, float* df) {
    const GrayMasks m = masks_for(bytesPerPixel);
    const __m256i w01 = _mm256_set1_epi32(int32_t(uint32_t(k[0]) | (uint32_t(k[1]) << 16)));
    const __m256i w2 = _mm256_set1_epi32(k[2]);
    const __m256i lowByte = _mm256_set1_epi16(0xFF);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    for (int x = 0; x < end; x += 16) {
        const uint8_t* p = s + ptrdiff_t(x) * bytesPerPixel;
        __m256i a = gray8(p, bytesPerPixel, m, w01, w2);
        __m256i b = gray8(p + 8 * bytesPerPixel, bytesPerPixel, m, w01, w2);
        if (df) {
            _mm256_storeu_ps(df + x, _mm256_cvtepi32_ps(a));
            _mm256_storeu_ps(df + x + 8, _mm256_cvtepi32_ps(b));
            continue;
        }
        // Keep the low byte of each value, as a byte store does (only the
        // caller-weighted form can exceed 255).
        __m256i w = _mm256_and_si256(_mm256_packs_epi32(a, b), lowByte);
        __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_packus_epi16(w, w), order);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d8 + x), _mm256_castsi256_si128(bytes));
    }
}

}  // namespace

void gray_from_color(const uint8_t* src, int width, int height, int srcStride, int bytesPerPixel,
                     const uint16_t k[3], uint8_t* dst8, float* dstf, int dstStride, bool vector) {
    if (!src || (!dst8 && !dstf) || width < 1 || height < 1) return;
    // The vector path holds the weights in signed 16-bit lanes.
    const bool weightsFit = k[0] <= 32767 && k[1] <= 32767 && k[2] <= 32767;
    const size_t elem = dstf ? sizeof(float) : 1;
    for (int y = 0; y < height; ++y) {
        const uint8_t* s = src + ptrdiff_t(y) * srcStride;
        uint8_t* d8 = dst8 ? dst8 + ptrdiff_t(y) * dstStride : nullptr;
        float* df = dstf ? dstf + ptrdiff_t(y) * dstStride : nullptr;
        int x = 0;
        const void* d = d8 ? static_cast<void*>(d8) : static_cast<void*>(df);
        if (vector && weightsFit && width >= 16 &&
            !overlaps(s, size_t(width) * bytesPerPixel, d, size_t(width) * elem)) {
            x = width & ~15;
            gray_row_avx2(s, x, bytesPerPixel, k, d8, df);
        }
        for (; x < width; ++x) {
            uint32_t g = gray_pixel(s + ptrdiff_t(x) * bytesPerPixel, k);
            if (df)
                df[x] = float(g);
            else
                d8[x] = uint8_t(g);
        }
    }
}

}  // namespace vo

void bgr2gray(uint8_t* src, int width, int height, int stride, uint8_t* dst) {
    vo::gray_from_color(src, width, height, stride, 3, vo::kBgrWeights, dst, nullptr, width, true);
}

void bgra2gray(uint8_t* src, int width, int height, int stride, uint8_t* dst) {
    vo::gray_from_color(src, width, height, stride, 4, vo::kBgrWeights, dst, nullptr, width, true);
}

void rgba2gray(uint8_t* src, int width, int height, int stride, uint8_t* dst) {
    vo::gray_from_color(src, width, height, stride, 4, vo::kRgbWeights, dst, nullptr, width, true);
}

void bgr2gray_uint82float(uint8_t* src, int width, int height, int stride, float* dst) {
    vo::gray_from_color(src, width, height, stride, 3, vo::kBgrWeights, nullptr, dst, width, true);
}

void bgr2gray(uint8_t* src, int width, int height, int srcStride, float* weights, uint8_t* dst,
              int dstStride) {
    if (!weights) return;
    const float sum = weights[0] + weights[1] + weights[2];
    uint16_t k[3];
    for (int i = 0; i < 3; ++i) {
        // Truncated and held in 16 bits; a zero sum (not finite) gives 0
        // instead of an undefined conversion.
        const float t = (weights[i] / sum) * 16384.0f;
        k[i] = std::fabs(t) < 9.0e18f ? uint16_t(int64_t(t)) : 0;
    }
    vo::gray_from_color(src, width, height, srcStride, 3, k, dst, nullptr, dstStride, true);
}
