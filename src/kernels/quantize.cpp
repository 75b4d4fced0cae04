// Int8 conversions and the 8-bit unfolding of an image.
#include <vonet/kernels.h>

#include <cstdint>
#include <cmath>
#include <cstring>

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

}  // namespace ref
}  // namespace vo

void quantize_input(const float* src, int count, int8_t* dst, float scale) {
    for (int i = 0; i < count; ++i) dst[i] = vo::ref::quantize_one(src[i], scale);
}

void anti_quantize_output(const int32_t* src, int count, float* dst, float scale, float bias) {
    for (int i = 0; i < count; ++i) dst[i] = std::fma(float(src[i]), scale, bias);
}

namespace {

// ceil(num / den) for den > 0 as the truncating quotient plus one when the
// remainder is positive: a non-positive numerator keeps its truncated
// quotient, which makes the range empty.
int64_t ceil_div(int64_t num, int64_t den) { return num / den + (num % den > 0 ? 1 : 0); }

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
    const size_t plane = size_t(width) * size_t(height);
    const size_t rowBytes = size_t(outW) * size_t(outH);
    for (int c = 0; c < channels; ++c)
        for (int ky = 0; ky < kernelH; ++ky)
            for (int kx = 0; kx < kernelW; ++kx, col += rowBytes)
                img2col_conv_extract_line_s8(data + size_t(c) * plane, width, height, col, outW, outH, kx - padW,
                                             ky - padH, strideW, strideH);
}
