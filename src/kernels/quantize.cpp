// Int8 conversions and the 8-bit unfolding of an image.
#include <vonet/kernels.h>

#include <algorithm>
#include <cstdint>
#include <cmath>
#include <cstring>

#include "kernels/int8.h"
#include "kernels/isa.h"

namespace vo {
namespace ref {

// The element rule of quantize_input: truncation toward zero, the low 16
// bits of the 32-bit value, then the symmetric clamp. A product the 32-bit
// conversion cannot represent takes the vector instruction's answer
// (0x80000000), whose low 16 bits are 0.
int8_t quantize_one(float value, float scale) {
    const float p = scale * value;
    int32_t v = INT32_MIN;
    if (p > -2147483904.0f && p < 2147483648.0f) v = int32_t(p);  // NaN fails both comparisons
    const int16_t low = int16_t(uint16_t(uint32_t(v) & 0xFFFFu));
    return int8_t(low < -127 ? -127 : (low > 127 ? 127 : low));
}

void quantize_input(const float* src, int count, int8_t* dst, float scale) {
    for (int i = 0; i < count; ++i) dst[i] = quantize_one(src[i], scale);
}

void anti_quantize_output(const int32_t* src, int count, float* dst, float scale, float bias) {
    for (int i = 0; i < count; ++i) dst[i] = std::fma(float(src[i]), scale, bias);
}

}  // namespace ref
}  // namespace vo

void quantize_input(const float* src, int count, int8_t* dst, float scale) {
    vo::kernels().quantize_input(src, count, dst, scale);
}

void anti_quantize_output(const int32_t* src, int count, float* dst, float scale, float bias) {
    vo::kernels().anti_quantize_output(src, count, dst, scale, bias);
}

namespace {

// ceil(num / den) for den > 0 as the truncating quotient plus one when the
// remainder is positive: a non-positive numerator keeps its truncated
// quotient, which makes the range empty.
int64_t ceil_div(int64_t num, int64_t den) { return num / den + (num % den > 0 ? 1 : 0); }

// Short runs (a few output columns) are common in small layers: copied
// with two overlapping loads and stores of a fixed size instead of a
// library call each.
template <size_t W>
inline void copy_overlapping(int8_t* dst, const int8_t* src, size_t n) {
    unsigned char head[W], tail[W];
    memcpy(head, src, W);
    memcpy(tail, src + n - W, W);
    memcpy(dst, head, W);
    memcpy(dst + n - W, tail, W);
}

inline void copy_run(int8_t* dst, const int8_t* src, int64_t count) {
    const size_t n = size_t(count);
    if (n > 64)
        memcpy(dst, src, n);
    else if (n >= 32)
        copy_overlapping<32>(dst, src, n);
    else if (n >= 16)
        copy_overlapping<16>(dst, src, n);
    else if (n >= 8)
        copy_overlapping<8>(dst, src, n);
    else if (n >= 4)
        copy_overlapping<4>(dst, src, n);
    else
        for (size_t i = 0; i < n; ++i) dst[i] = src[i];
}

}  // namespace

void img2col_conv_extract_line_s8(const int8_t* data, int width, int height, int8_t* dst, int outW, int outH,
                                  int offX, int offY, int strideW, int strideH) {
    if (outW < 1 || outH < 1) return;
    memset(dst, 0, size_t(outW) * size_t(outH));
    if (strideW < 1 || strideH < 1 || width < 1 || height < 1) return;
    const int64_t ox0 = offX < 0 ? ceil_div(-int64_t(offX), strideW) : 0;
    int64_t ox1 = ceil_div(int64_t(width) - offX, strideW);
    if (ox1 > outW) ox1 = outW;
    const int64_t oy0 = offY < 0 ? ceil_div(-int64_t(offY), strideH) : 0;
    int64_t oy1 = ceil_div(int64_t(height) - offY, strideH);
    if (oy1 > outH) oy1 = outH;
    for (int64_t oy = oy0; oy < oy1; ++oy) {
        const int8_t* row = data + (offY + oy * strideH) * int64_t(width) + offX;
        int8_t* out = dst + oy * outW;
        if (strideW == 1) {
            if (ox1 > ox0) memcpy(out + ox0, row + ox0, size_t(ox1 - ox0));
            continue;
        }
        for (int64_t ox = ox0; ox < ox1; ++ox) out[ox] = row[ox * strideW];
    }
}

void img2col_conv_s8(const int8_t* data, int width, int height, int channels, int kernelW, int kernelH,
                     int strideW, int strideH, int padW, int padH, int8_t* col) {
    int32_t outW = 0, outH = 0;
    calculate_conv_result_size(width, height, kernelW, kernelH, strideW, strideH, padW, padH, &outW, &outH);
    if (channels < 1 || kernelW < 1 || kernelH < 1 || outW < 1 || outH < 1) return;
    if (strideW < 1 || strideH < 1 || width < 1 || height < 1) {
        // No window reads the image: every row is zeros.
        memset(col, 0, size_t(channels) * size_t(kernelH) * size_t(kernelW) * size_t(outW) * size_t(outH));
        return;
    }
    // The rows of img2col_conv_extract_line_s8, each output row written
    // once (zeros, then the valid run, then zeros) instead of clearing the
    // whole row of the matrix first: the same bytes.
    const size_t plane = size_t(width) * size_t(height);
    for (int c = 0; c < channels; ++c) {
        const int8_t* image = data + size_t(c) * plane;
        for (int ky = 0; ky < kernelH; ++ky) {
            const int offY = ky - padH;
            const int64_t oy0 = offY < 0 ? ceil_div(-int64_t(offY), strideH) : 0;
            const int64_t oy1 = std::min<int64_t>(outH, ceil_div(int64_t(height) - offY, strideH));
            for (int kx = 0; kx < kernelW; ++kx) {
                const int offX = kx - padW;
                const int64_t ox0 = std::min<int64_t>(outW, offX < 0 ? ceil_div(-int64_t(offX), strideW) : 0);
                const int64_t ox1 = std::max(ox0, std::min<int64_t>(outW, ceil_div(int64_t(width) - offX, strideW)));
                for (int64_t oy = 0; oy < outH; ++oy, col += outW) {
                    if (oy < oy0 || oy >= oy1 || ox0 == ox1) {
                        memset(col, 0, size_t(outW));
                        continue;
                    }
                    const int8_t* src = image + (offY + oy * strideH) * int64_t(width) + offX;
                    for (int64_t ox = 0; ox < ox0; ++ox) col[ox] = 0;
                    if (strideW == 1)
                        copy_run(col + ox0, src + ox0, ox1 - ox0);
                    else
                        for (int64_t ox = ox0; ox < ox1; ++ox) col[ox] = src[ox * strideW];
                    for (int64_t ox = ox1; ox < outW; ++ox) col[ox] = 0;
                }
            }
        }
    }
}
