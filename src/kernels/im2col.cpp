// The output-size rule of windowed operators, and the unfolding of an image
// into a column matrix (and back) that turns a convolution into one matrix
// product.
#include <vonet/kernels.h>

#include <cstdint>
#include <cstring>

namespace {

// (in - kernel + 2 * pad) / stride + 1 in 64 bits, truncating toward zero.
// A stride below 1 has no windows: the size is 0 rather than a division
// fault, and results beyond int32 are clamped so callers never overflow.
int32_t out_size(int32_t in, int32_t kernel, int32_t stride, int32_t pad) {
    if (stride < 1) return 0;
    int64_t size = (int64_t(in) - kernel + 2 * int64_t(pad)) / stride + 1;
    if (size > INT32_MAX) return INT32_MAX;
    if (size < INT32_MIN) return INT32_MIN;
    return int32_t(size);
}

}  // namespace

void calculate_conv_result_size(int32_t inW, int32_t inH, int32_t kernelW, int32_t kernelH, int32_t strideW,
                                int32_t strideH, int32_t padW, int32_t padH, int32_t* outW, int32_t* outH) {
    if (outW) *outW = out_size(inW, kernelW, strideW, padW);
    if (outH) *outH = out_size(inH, kernelH, strideH, padH);
}

void img2col_conv(const float* data, int32_t width, int32_t height, int32_t channels, int32_t kernelW,
                  int32_t kernelH, int32_t strideW, int32_t strideH, int32_t padW, int32_t padH, float* col) {
    int32_t outW = 0, outH = 0;
    calculate_conv_result_size(width, height, kernelW, kernelH, strideW, strideH, padW, padH, &outW, &outH);
    if (channels < 1 || width < 0 || height < 0 || kernelW < 1 || kernelH < 1 || outW < 1 || outH < 1) return;
    const size_t plane = size_t(width) * size_t(height);
    for (int32_t c = 0; c < channels; ++c) {
        const float* image = data + size_t(c) * plane;
        for (int32_t ky = 0; ky < kernelH; ++ky) {
            for (int32_t kx = 0; kx < kernelW; ++kx) {
                for (int32_t oy = 0; oy < outH; ++oy) {
                    const int64_t iy = int64_t(oy) * strideH - padH + ky;
                    if (uint64_t(iy) >= uint64_t(height)) {
                        memset(col, 0, size_t(outW) * sizeof(float));
                        col += outW;
                        continue;
                    }
                    const float* row = image + size_t(iy) * size_t(width);
                    int64_t ix = int64_t(kx) - padW;
                    if (strideW == 1) {
                        // Contiguous source: zeros, one copy, zeros.
                        int64_t lead = ix < 0 ? -ix : 0;
                        if (lead > outW) lead = outW;
                        int64_t end = int64_t(width) - ix;  // first ox past the image
                        if (end > outW) end = outW;
                        if (end < lead) end = lead;
                        memset(col, 0, size_t(lead) * sizeof(float));
                        memcpy(col + lead, row + ix + lead, size_t(end - lead) * sizeof(float));
                        memset(col + end, 0, size_t(outW - end) * sizeof(float));
                        col += outW;
                        continue;
                    }
                    for (int32_t ox = 0; ox < outW; ++ox, ix += strideW)
                        *col++ = uint64_t(ix) < uint64_t(width) ? row[ix] : 0.0f;
                }
            }
        }
    }
}

void col2img_conv(const float* col, int32_t width, int32_t height, int32_t channels, int32_t kernelW,
                  int32_t kernelH, int32_t strideW, int32_t strideH, int32_t padW, int32_t padH, float* data) {
    if (channels < 1 || width < 1 || height < 1) return;
    const size_t plane = size_t(width) * size_t(height);
    memset(data, 0, size_t(channels) * plane * sizeof(float));
    int32_t outW = 0, outH = 0;
    calculate_conv_result_size(width, height, kernelW, kernelH, strideW, strideH, padW, padH, &outW, &outH);
    if (kernelW < 1 || kernelH < 1 || outW < 1 || outH < 1) return;
    for (int32_t c = 0; c < channels; ++c) {
        float* image = data + size_t(c) * plane;
        for (int32_t ky = 0; ky < kernelH; ++ky) {
            for (int32_t kx = 0; kx < kernelW; ++kx) {
                for (int32_t oy = 0; oy < outH; ++oy) {
                    const int64_t iy = int64_t(oy) * strideH - padH + ky;
                    if (uint64_t(iy) >= uint64_t(height)) {
                        col += outW;
                        continue;
                    }
                    float* row = image + size_t(iy) * size_t(width);
                    int64_t ix = int64_t(kx) - padW;
                    for (int32_t ox = 0; ox < outW; ++ox, ix += strideW, ++col)
                        if (uint64_t(ix) < uint64_t(width)) row[ix] += *col;
                }
            }
        }
    }
}
