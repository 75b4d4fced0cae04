// Object manager: the plain-function entry that detects objects of one kind
// in an image file, and the size normalisation of its boxes.
#include <vonet/detector.h>
#include <vonet/image.h>
#include <vonet/object_manager.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "common/check.h"
#include "detector/detector_internal.h"

// The decoder stays private to this file (static functions), so the
// library gains no symbols and no runtime dependency from it.
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#include "common/stb_private.h"

namespace {

constexpr const char* kUnit = "detector";

// A region smaller than this in either direction is ignored.
constexpr int32_t kMinRegion = 16;

// Decoded bytes a file may ask for per byte of its own size. Deflate
// expands at most about 1032 times and a palette adds up to 4 bytes per
// index; a header that claims more than that is not backed by its data.
constexpr int64_t kMaxExpansion = 4096;

// Pixel counts are int.
constexpr int64_t kMaxPixels = INT32_MAX;

// Keep-range of filter_by_size around the mean size: the floats 0.6 and
// 5/3 (bits 0x3F19999A and 0x3FD55555). 0.6 also sets the common side.
const float kSizeLow = vo::float_from_bits(0x3F19999Au);
const float kSizeHigh = vo::float_from_bits(0x3FD55555u);

void mean_size(const VRect* rects, int num, float* meanW, float* meanH) {
    float sumW = 0.0f;
    float sumH = 0.0f;
    for (int i = 0; i < num; ++i) {
        sumW += float(rects[i].width);
        sumH += float(rects[i].height);
    }
    *meanW = sumW / float(num);
    *meanH = sumH / float(num);
}

// Decodes a colour image file into packed BGR. 0, or 4 for a file that
// cannot be used (with "Format not support" for grey files).
int read_bgr(const char* path, uint8_t** bgr, int* width, int* height) {
    FILE* f = fopen(path, "rb");
    if (!f) return 4;
    const int64_t fileSize = vo::bytes_left(f);
    int w = 0, h = 0, comp = 0;
    if (!stbi_info_from_file(f, &w, &h, &comp)) {
        fclose(f);
        return 4;
    }
    // Some formats store the height negative for top-down rows.
    const int64_t pixels = std::llabs(int64_t(w)) * std::llabs(int64_t(h));
    VO_CHECK(pixels <= kMaxPixels, fclose(f); return 4);
    const int64_t decodedLimit = fileSize > INT64_MAX / kMaxExpansion ? INT64_MAX : fileSize * kMaxExpansion;
    VO_CHECK(pixels * comp <= decodedLimit, fclose(f); return 4);
    uint8_t* decoded = stbi_load_from_file(f, &w, &h, &comp, 0);
    fclose(f);
    if (!decoded) return 4;
    if (w < 1 || h < 1 || int64_t(w) * h > pixels) {
        stbi_image_free(decoded);
        return 4;
    }
    if (comp != 3 && comp != 4) {
        fputs("Format not support\n", stderr);
        stbi_image_free(decoded);
        return 4;
    }
    uint8_t* out = static_cast<uint8_t*>(malloc(size_t(w) * size_t(h) * 3));
    if (!out) {
        stbi_image_free(decoded);
        return 4;
    }
    // R, G, B[, A] to B, G, R; alpha is dropped.
    const size_t count = size_t(w) * size_t(h);
    for (size_t i = 0; i < count; ++i) {
        const uint8_t* s = decoded + i * size_t(comp);
        out[i * 3 + 0] = s[2];
        out[i * 3 + 1] = s[1];
        out[i * 3 + 2] = s[0];
    }
    stbi_image_free(decoded);
    *bgr = out;
    *width = w;
    *height = h;
    return 0;
}

}  // namespace

int filter_by_size(VRect* rects, int num) {
    if (num <= 0) return num;
    if (!rects) return 0;
    float meanW, meanH;
    mean_size(rects, num, &meanW, &meanH);
    const float minW = kSizeLow * meanW, maxW = kSizeHigh * meanW;
    const float minH = kSizeLow * meanH, maxH = kSizeHigh * meanH;
    // A box that fails is replaced by the last one, which is tested in its
    // turn; the means stay those of the input.
    int count = num;
    for (int i = 0; i < count;) {
        const float w = float(rects[i].width);
        const float h = float(rects[i].height);
        if (minW < w && w < maxW && minH < h && h < maxH) {
            ++i;
        } else {
            rects[i] = rects[count - 1];
            --count;
        }
    }
    if (count == 0) return 0;
    mean_size(rects, count, &meanW, &meanH);
    const float side = meanW > meanH ? kSizeLow * meanH : kSizeLow * meanW;
    const int32_t s = vo::trunc_i32(side);
    for (int i = 0; i < count; ++i) {
        VRect& r = rects[i];
        const float cx = std::fma(0.5f, float(r.width), float(r.x));
        const float cy = std::fma(0.5f, float(r.height), float(r.y));
        r.x = vo::trunc_i32(double(cx) - double(side) * 0.5);
        r.y = vo::trunc_i32(double(cy) - double(side) * 0.5);
        r.width = s;
        r.height = s;
    }
    return count;
}

int load_object_manager(const char* dir, const char* kind, VoDetector** manager) {
    if (!manager) return 7;
    if (!kind) return 4;
    char baseName[128];
    const int length = snprintf(baseName, sizeof(baseName), "object_%s", kind);
    const bool nameFits = length >= 0 && size_t(length) < sizeof(baseName);
    VO_CHECK(nameFits, return 4);
    VoDetector* detector = nullptr;
    const int status = load_detector(dir, baseName, &detector);
    if (status == 0) *manager = detector;
    return status;
}

int detect_objects(VoDetector* manager, const char* path, VRect roi, VRect** rects, int* num) {
    if (!manager || !path || !rects || !num) return 7;
    uint8_t* bgr = nullptr;
    int width = 0, height = 0;
    int status = read_bgr(path, &bgr, &width, &height);
    if (status != 0) return status;

    // The region is used only when it lies inside the image and is at
    // least 16 x 16; otherwise the whole image is searched.
    const bool useRegion = roi.x >= 0 && roi.y >= 0 && roi.width >= kMinRegion && roi.height >= kMinRegion &&
                           int64_t(roi.x) + roi.width <= width && int64_t(roi.y) + roi.height <= height;
    if (!useRegion) roi = VRect{0, 0, width, height};

    // Sizes and parameters the detector cannot search are an unusable
    // request here, not an empty result.
    if (manager->cascade && vo::cascade_matches_window(manager)) {
        vo::SearchPlan plan;
        if (!vo::plan_search(manager, roi.width, roi.height, width, &plan)) {
            free(bgr);
            return 4;
        }
    }

    uint8_t* grey = static_cast<uint8_t*>(malloc(size_t(width) * size_t(height)));
    if (!grey) {
        free(bgr);
        return 4;
    }
    bgr2gray(bgr, width, height, 3 * width, grey);
    ObjectInfo* found = nullptr;
    int n = detect_objects(manager, grey + int64_t(roi.y) * width + roi.x, roi.width, roi.height, width, &found);
    if (n > 0) {
        VRect* result = static_cast<VRect*>(malloc(size_t(n) * sizeof(VRect)));
        if (!result) {
            status = 4;
            n = 0;
        } else {
            // Back to coordinates of the whole image; conf and label are
            // not passed on.
            for (int i = 0; i < n; ++i)
                result[i] = VRect{found[i].x + roi.x, found[i].y + roi.y, found[i].width, found[i].height};
            n = filter_by_size(result, n);
            if (n > 0)
                *rects = result;
            else
                free(result);
        }
    }
    free(found);
    free(grey);
    free(bgr);
    if (status == 0) *num = n;
    return status;
}

void release_object_manager(VoDetector** manager) { release_detector(manager); }
