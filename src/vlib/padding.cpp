// Border padding of planar images: constant, replicate, mirror, wrap.
#include <vonet/image.h>

#include <cstdint>
#include <cstring>

#include "common/check.h"

namespace {

constexpr const char* kUnit = "vlib/image_c";

enum Mode { kConstant = 0, kReplicate = 1, kMirror = 2, kWrap = 3 };

// Source index for destination index d of a padded axis with `before`
// border cells in front of `size` image cells (-1 for the constant fill).
inline int64_t source_index(int64_t d, int64_t before, int64_t size, int mode) {
    const int64_t i = d - before;
    if (i >= 0 && i < size) return i;
    switch (mode) {
        case kReplicate: return i < 0 ? 0 : size - 1;
        case kMirror: return i < 0 ? -i - 1 : 2 * size - 1 - i;
        case kWrap: return i < 0 ? i + size : i - size;
        default: return -1;
    }
}

template <typename T>
void pad_planes(const char* op, const T* src, int width, int height, int channels, T* dst, int ptop, int pbot,
                int plef, int prig, int mode, T value) {
    VO_CHECK_IN(op, ptop >= 0, return);
    VO_CHECK_IN(op, pbot >= 0, return);
    VO_CHECK_IN(op, plef >= 0, return);
    VO_CHECK_IN(op, prig >= 0, return);
    if (!src || !dst || width < 1 || height < 1 || channels < 1) return;
    if (mode < kConstant || mode > kWrap) return;
    // Mirror and wrap reflect once: wider borders would read outside.
    if ((mode == kMirror || mode == kWrap) && (ptop > height || pbot > height || plef > width || prig > width))
        return;

    const int64_t outWidth = int64_t(width) + plef + prig;
    const int64_t outHeight = int64_t(height) + ptop + pbot;
    const int64_t srcPlane = int64_t(width) * height;
    for (int c = 0; c < channels; ++c) {
        const T* s = src + c * srcPlane;
        T* d = dst + c * outWidth * outHeight;
        for (int64_t y = 0; y < outHeight; ++y, d += outWidth) {
            const int64_t sy = source_index(y, ptop, height, mode);
            if (sy < 0) {
                for (int64_t x = 0; x < outWidth; ++x) d[x] = value;
                continue;
            }
            const T* row = s + sy * width;
            for (int x = 0; x < plef; ++x) {
                const int64_t sx = source_index(x, plef, width, mode);
                d[x] = sx < 0 ? value : row[sx];
            }
            memcpy(d + plef, row, sizeof(T) * size_t(width));
            for (int x = 0; x < prig; ++x) {
                const int64_t sx = source_index(int64_t(plef) + width + x, plef, width, mode);
                d[int64_t(plef) + width + x] = sx < 0 ? value : row[sx];
            }
        }
    }
}

}  // namespace

void padding(uint8_t* src, int width, int height, int channels, uint8_t* dst, int ptop, int pbot, int plef,
             int prig, int mode, uint8_t value) {
    pad_planes<uint8_t>(__func__, src, width, height, channels, dst, ptop, pbot, plef, prig, mode, value);
}

void padding(float* src, int width, int height, int channels, float* dst, int ptop, int pbot, int plef,
             int prig, int mode, float value) {
    pad_planes<float>(__func__, src, width, height, channels, dst, ptop, pbot, plef, prig, mode, value);
}
