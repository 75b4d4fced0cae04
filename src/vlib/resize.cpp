// Bilinear resizing in 14-bit fixed point. Sampling positions are corner
// aligned (f = j * srcSize / dstSize) and clamped so that the last samples
// fall just before the last source column and row.
#include <vonet/image.h>

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "vlib/bilinear_avx2.h"
#include "vlib/image_internal.h"

namespace vo {
namespace {

struct Sample {
    int32_t index;   // left column or top row
    int32_t weight;  // weight of that column or row, 0..16384
};

// Column and row positions share the clamp; only the weight rounding
// differs (the column weight truncates after subtracting from 16384, the
// row weight before).
inline float clamped_position(int i, float step, int srcSize) {
    float f = float(i) * step;
    if (f < 0.0f) f = 0.0f;
    if (f >= float(srcSize - 1)) f = float(srcSize) - 1.01f;
    return f;
}

inline Sample column_sample(int j, float sx, int srcWidth) {
    const float f = clamped_position(j, sx, srcWidth);
    const int32_t x0 = int32_t(f);
    return {x0, int32_t(16384.0f - 16384.0f * (f - float(x0)))};
}

inline Sample row_sample(int i, float sy, int srcHeight) {
    const float f = clamped_position(i, sy, srcHeight);
    const int32_t y0 = int32_t(f);
    return {y0, kFixOne - int32_t(16384.0f * (f - float(y0)))};
}

inline int32_t lerp(int32_t a, int32_t b, int32_t wa) {
    return ((a - b) * wa + b * kFixOne + kFixHalf) >> kFixShift;
}

// Eight grey samples of one destination row from source rows r0, r1.
// Each gather reads 4 bytes inside the row: from x0, or from srcWidth - 4
// near the right edge with the pair shifted down into place.
inline __m256i resize8_gray(const uint8_t* r0, const uint8_t* r1, const int32_t* x0, const int32_t* wpack,
                            __m256i lastStart, __m256i wy, __m256i pairMask) {
    const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(x0));
    const __m256i start = _mm256_min_epi32(x, lastStart);
    const __m256i shift = _mm256_slli_epi32(_mm256_sub_epi32(x, start), 3);
    // (TL, TR) as 16-bit pairs times (wx, 16384 - wx): TL wx + TR (16384 - wx).
    const __m256i w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(wpack));
    return blend_rows(gather_row(r0, start, shift), gather_row(r1, start, shift), w, wy, pairMask);
}

// Destination columns [0, end) of one grey row, end a multiple of 8, all
// with x0 <= srcWidth - 2.
void resize_row_gray_avx2(const uint8_t* r0, const uint8_t* r1, int srcWidth, const int32_t* x0,
                          const int32_t* wpack, int32_t wyTop, int end, uint8_t* d8, float* df) {
    const __m256i pairMask = pair_mask();
    const __m256i lastStart = _mm256_set1_epi32(srcWidth - 4);
    const __m256i wy = _mm256_set1_epi32(int32_t(uint32_t(wyTop) | (uint32_t(kFixOne - wyTop) << 16)));
    for (int j = 0; j < end; j += 8)
        store8(resize8_gray(r0, r1, x0 + j, wpack + j, lastStart, wy, pairMask), d8, df, j);
}

}  // namespace

void resize_bilinear(const uint8_t* src, int srcWidth, int srcHeight, int srcStride, int channels,
                     uint8_t* dst8, float* dstf, int dstWidth, int dstHeight, int dstStride, bool vector) {
    // Every sample reads column x0 + 1 and row y0 + 1; positions are held
    // in 16 bits (colour byte offsets included).
    const int maxWidth = channels == 3 ? 21845 : 65535;
    if (!src || (!dst8 && !dstf) || (channels != 1 && channels != 3)) return;
    if (srcWidth < 2 || srcHeight < 2 || srcWidth > maxWidth || srcHeight > 65535) return;
    if (dstWidth < 1 || dstHeight < 1) return;

    const float sx = float(srcWidth) / float(dstWidth);
    const float sy = float(srcHeight) / float(dstHeight);
    // Column table: left column, its weight, and the weights packed as
    // 16-bit pairs (wx, 16384 - wx) for the vector path.
    int32_t* table = static_cast<int32_t*>(malloc(sizeof(int32_t) * 3 * size_t(dstWidth)));
    if (!table) return;
    int32_t* x0 = table;
    int32_t* wx = table + dstWidth;
    int32_t* wpack = table + 2 * size_t(dstWidth);
    for (int j = 0; j < dstWidth; ++j) {
        const Sample s = column_sample(j, sx, srcWidth);
        x0[j] = s.index;
        wx[j] = s.weight;
        wpack[j] = int32_t(uint32_t(s.weight) | (uint32_t(kFixOne - s.weight) << 16));
    }
    // The 4-byte gathers need a source row of at least 4 bytes.
    const int vectorEnd = vector && channels == 1 && srcWidth >= 4 ? dstWidth & ~7 : 0;

    for (int i = 0; i < dstHeight; ++i) {
        const Sample row = row_sample(i, sy, srcHeight);
        const uint8_t* r0 = src + ptrdiff_t(row.index) * srcStride;
        const uint8_t* r1 = r0 + srcStride;
        uint8_t* d8 = dst8 ? dst8 + ptrdiff_t(i) * dstStride : nullptr;
        float* df = dstf ? dstf + ptrdiff_t(i) * dstWidth : nullptr;
        int j = 0;
        if (vectorEnd > 0) {
            resize_row_gray_avx2(r0, r1, srcWidth, x0, wpack, row.weight, vectorEnd, d8, df);
            j = vectorEnd;
        }
        for (; j < dstWidth; ++j) {
            const ptrdiff_t o = ptrdiff_t(x0[j]) * channels;
            for (int c = 0; c < channels; ++c) {
                const int32_t top = lerp(r0[o + c], r0[o + channels + c], wx[j]);
                const int32_t bottom = lerp(r1[o + c], r1[o + channels + c], wx[j]);
                const int32_t v = lerp(top, bottom, row.weight);
                if (df)
                    df[j * channels + c] = float(v);
                else
                    d8[j * channels + c] = uint8_t(v);
            }
        }
    }
    free(table);
}

}  // namespace vo

void resizer_bilinear_gray(uint8_t* src, int srcWidth, int srcHeight, int srcStride, uint8_t* dst,
                           int dstWidth, int dstHeight, int dstStride) {
    vo::resize_bilinear(src, srcWidth, srcHeight, srcStride, 1, dst, nullptr, dstWidth, dstHeight, dstStride,
                        true);
}

void resizer_bilinear_color(uint8_t* src, int srcWidth, int srcHeight, int srcStride, uint8_t* dst,
                            int dstWidth, int dstHeight, int dstStride) {
    vo::resize_bilinear(src, srcWidth, srcHeight, srcStride, 3, dst, nullptr, dstWidth, dstHeight, dstStride,
                        true);
}

void resizer_bilinear_gray_uint2float(uint8_t* src, int srcWidth, int srcHeight, int srcStride, float* dst,
                                      int dstWidth, int dstHeight) {
    vo::resize_bilinear(src, srcWidth, srcHeight, srcStride, 1, nullptr, dst, dstWidth, dstHeight, dstWidth,
                        true);
}
