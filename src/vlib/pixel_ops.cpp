// Small operations on 8-bit images for host-side preprocessing and data
// augmentation: lookup-table curves, mosaic, integral image, flips, crops.
#include <vonet/image.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

void map_bytes(uint8_t* src, int64_t rowBytes, int height, int stride, const uint8_t* table) {
    for (int y = 0; y < height; ++y) {
        uint8_t* row = src + ptrdiff_t(y) * stride;
        for (int64_t x = 0; x < rowBytes; ++x) row[x] = table[row[x]];
    }
}

bool valid_image(const uint8_t* src, int width, int height) { return src && width > 0 && height > 0; }

}  // namespace

void equalize_image(uint8_t* src, int width, int height, int stride) {
    if (!valid_image(src, width, height)) return;
    int64_t histogram[256] = {};
    for (int y = 0; y < height; ++y) {
        const uint8_t* row = src + ptrdiff_t(y) * stride;
        for (int x = 0; x < width; ++x) ++histogram[row[x]];
    }
    const float total = float(int64_t(width) * height);
    uint8_t table[256];
    int64_t running = 0;
    for (int v = 0; v < 256; ++v) {
        running += histogram[v];
        table[v] = uint8_t(int(double(float(running) / total) * 255.0));
    }
    map_bytes(src, width, height, stride, table);
}

void brightness_adjust(uint8_t* src, int width, int height, int channels, int stride, float strength) {
    if (!valid_image(src, width, height) || (channels != 1 && channels != 3)) return;
    // Strength beyond the int range saturates instead of overflowing.
    const float scaled = strength * 100.0f;
    const double k = scaled > -2147483648.0f && scaled < 2147483648.0f ? double(int32_t(scaled))
                     : scaled > 0.0f                                      ? 2147483647.0
                                                                          : -2147483648.0;
    uint8_t table[256];
    for (int i = 0; i < 256; ++i) {
        const double v = std::trunc(double(i) + k * std::sin(double(i) * 3.1415926535 / 255.0));
        table[i] = uint8_t(std::min(255.0, std::max(0.0, v)));
    }
    map_bytes(src, int64_t(width) * channels, height, stride, table);
}

void mosaic(uint8_t* src, int width, int height, int channels, int stride, int blockSize) {
    if (!valid_image(src, width, height) || (channels != 1 && channels != 3) || blockSize < 1) return;
    const int64_t area = int64_t(blockSize) * blockSize;
    for (int by = 0; by <= height - blockSize; by += blockSize) {
        for (int bx = 0; bx <= width - blockSize; bx += blockSize) {
            uint8_t* block = src + ptrdiff_t(by) * stride + ptrdiff_t(bx) * channels;
            int64_t sum[3] = {};
            for (int y = 0; y < blockSize; ++y) {
                const uint8_t* p = block + ptrdiff_t(y) * stride;
                for (int x = 0; x < blockSize; ++x)
                    for (int c = 0; c < channels; ++c) sum[c] += p[x * channels + c];
            }
            uint8_t mean[3];
            for (int c = 0; c < channels; ++c) mean[c] = uint8_t(sum[c] / area);
            for (int y = 0; y < blockSize; ++y) {
                uint8_t* p = block + ptrdiff_t(y) * stride;
                if (channels == 1) {
                    memset(p, mean[0], size_t(blockSize));
                } else {
                    for (int x = 0; x < blockSize; ++x) memcpy(p + x * 3, mean, 3);
                }
            }
        }
    }
}

void table_map(uint8_t* src, int width, int height, int channels, int stride, uint8_t* table) {
    if (!table || !valid_image(src, width, height) || (channels != 1 && channels != 3)) return;
    map_bytes(src, int64_t(width) * channels, height, stride, table);
}

void integral_image(uint8_t* src, int width, int height, int stride, unsigned int* dst, int dstStride) {
    if (!valid_image(src, width, height) || !dst) return;
    for (int y = 0; y < height; ++y) {
        const uint8_t* s = src + ptrdiff_t(y) * stride;
        unsigned int* d = dst + ptrdiff_t(y) * dstStride;
        const unsigned int* above = y > 0 ? d - dstStride : nullptr;
        unsigned int rowSum = 0;
        for (int x = 0; x < width; ++x) {
            rowSum += s[x];
            d[x] = above ? above[x] + rowSum : rowSum;
        }
    }
}

void vertical_mirror(uint8_t* src, int width, int height, int stride) {
    if (!valid_image(src, width, height)) return;
    for (int y = 0; y < height / 2; ++y) {
        uint8_t* a = src + ptrdiff_t(y) * stride;
        uint8_t* b = src + ptrdiff_t(height - 1 - y) * stride;
        std::swap_ranges(a, a + width, b);
    }
}

void horizontal_mirror(uint8_t* src, int width, int height, int stride) {
    if (!valid_image(src, width, height)) return;
    for (int y = 0; y < height; ++y) {
        uint8_t* row = src + ptrdiff_t(y) * stride;
        std::reverse(row, row + width);
    }
}

void extract_area_from_image(uint8_t* src, int width, int height, int channels, int stride, uint8_t* dst,
                             VRect& rect) {
    if (!src || !dst || channels < 1 || rect.width < 1 || rect.height < 1) return;
    const int64_t rowBytes = int64_t(rect.width) * channels;
    memset(dst, 0, size_t(rowBytes * rect.height));
    if (width < 1 || height < 1) return;
    const int64_t x0 = std::max<int64_t>(rect.x, 0);
    const int64_t y0 = std::max<int64_t>(rect.y, 0);
    const int64_t x1 = std::min<int64_t>(int64_t(rect.x) + rect.width - 1, width - 1);
    const int64_t y1 = std::min<int64_t>(int64_t(rect.y) + rect.height - 1, height - 1);
    if (x0 > x1 || y0 > y1) return;
    for (int64_t sy = y0; sy <= y1; ++sy) {
        memcpy(dst + (sy - rect.y) * rowBytes + (x0 - rect.x) * channels, src + sy * stride + x0 * channels,
               size_t((x1 - x0 + 1) * channels));
    }
}
