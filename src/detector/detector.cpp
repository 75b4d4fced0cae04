// The sliding-window detector: an image pyramid searched with the first
// stage's window, survivors refined by the later stages and merged.
#include <vonet/detector.h>
#include <vonet/image.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "detector/detector_internal.h"
#include "detector/stage_times.h"

namespace {

constexpr const char* kUnit = "detector";

// The pyramid is resampled from a copy whose shorter side is at most this.
constexpr float kWorkSide = 320.0f;

constexpr int32_t kMaxImageSide = 65535;  // the resizer's 16-bit positions
constexpr int32_t kMaxWindowSide = 4096;
// Largest pyramid level, in bytes: a tiny minSizeRatio would otherwise ask
// for gigabytes.
constexpr int64_t kMaxLevelBytes = int64_t(1) << 28;

constexpr float kMergeThreshold = 0.6f;

thread_local vo::DetectStageTimes* tStageTimes = nullptr;

bool finite_positive(float v) { return std::isfinite(v) && v > 0.0f; }

// trunc(ratio * window), at least 1; a huge ratio saturates rather than
// wrapping to a tiny step.
int32_t window_step(float ratio, int32_t window) {
    const float step = ratio * float(window);
    if (!(step < 2147483520.0f)) return INT32_MAX;
    return std::max(vo::trunc_i32(step), 1);
}

// Windows of one level as the placement loops produce them; a level below
// half a window (or empty) in either direction has none.
int64_t window_count(int64_t width, int64_t height, int32_t winWidth, int32_t winHeight, int32_t strideX,
                     int32_t strideY) {
    const int64_t spanX = width - (winWidth >> 1);
    const int64_t spanY = height - (winHeight >> 1);
    if (width < 1 || height < 1 || spanX < 0 || spanY < 0) return 0;
    return (spanX / strideX + 1) * (spanY / strideY + 1);
}

// Windows a chunk at a time: 4096 patches of a 12 x 12 window are 2.4 MB.
constexpr int64_t kChunkWindows = 4096;

// The first stage's survivors, with their patches, in the order found.
struct Survivors {
    ObjectInfof* objs = nullptr;
    float* patches = nullptr;
    int64_t count = 0;
    int64_t capacity = 0;

    bool append(const ObjectInfof* o, const float* p, int n, int64_t patchSize) {
        if (n <= 0) return true;
        if (count + n > capacity) {
            const int64_t grown = std::max<int64_t>(2 * capacity, count + n);
            if (grown > INT32_MAX) return false;
            auto* newObjs = static_cast<ObjectInfof*>(realloc(objs, size_t(grown) * sizeof(ObjectInfof)));
            if (!newObjs) return false;
            objs = newObjs;
            auto* newPatches = static_cast<float*>(realloc(patches, size_t(grown) * size_t(patchSize) * sizeof(float)));
            if (!newPatches) return false;
            patches = newPatches;
            capacity = grown;
        }
        memcpy(objs + count, o, size_t(n) * sizeof(ObjectInfof));
        memcpy(patches + count * patchSize, p, size_t(n) * size_t(patchSize) * sizeof(float));
        count += n;
        return true;
    }
};

}  // namespace

namespace vo {

DetectStageTimes* set_detect_stage_times(DetectStageTimes* times) {
    DetectStageTimes* previous = tStageTimes;
    tStageTimes = times;
    return previous;
}

DetectStageTimes* detect_stage_times() { return tStageTimes; }

bool cascade_matches_window(const VoDetector* detector) {
    const Classifier* anet = detector->cascade ? detector->cascade->anet : nullptr;
    if (!anet || anet->channel != 1) return false;
    if (detector->width < 1 || detector->height < 1) return false;
    if (detector->width > kMaxWindowSide || detector->height > kMaxWindowSide) return false;
    return detector->width == anet->width && detector->height == anet->height;
}

bool plan_search(const VoDetector* detector, int width, int height, int stride, SearchPlan* plan) {
    if (width < 2 || height < 2 || width > kMaxImageSide || height > kMaxImageSide || stride < width) return false;
    if (detector->levels < 1 || detector->levels > kMaxLevels) return false;
    if (!finite_positive(detector->minSizeRatio) || !finite_positive(detector->maxSizeRatio) ||
        !finite_positive(detector->strideRatio))
        return false;
    const int32_t winW = detector->width;
    const int32_t winH = detector->height;
    if (winW < 1 || winH < 1 || winW > kMaxWindowSide || winH > kMaxWindowSide) return false;
    memset(plan, 0, sizeof(*plan));
    const float w = float(width);
    const float h = float(height);

    const float s0 = kWorkSide / float(std::min(width, height));
    plan->shrunk = s0 < 1.0f;
    if (plan->shrunk) {
        plan->workWidth = trunc_i32(std::fma(w, s0, 0.5f));
        plan->workHeight = trunc_i32(std::fma(h, s0, 0.5f));
    } else {
        plan->workWidth = width;
        plan->workHeight = height;
    }

    // start makes an object of minSizeRatio of the shorter side fill the
    // window, end does so for maxSizeRatio, raised when needed so that the
    // longer side still holds a whole window.
    float start, end;
    if (width >= height) {
        start = float(winH) / (h * detector->minSizeRatio);
        end = float(winH) / (h * detector->maxSizeRatio);
        if (float(winW) > end * w) end = float(winW) / w;
    } else {
        start = float(winW) / (w * detector->minSizeRatio);
        end = float(winW) / (w * detector->maxSizeRatio);
        if (float(winH) > end * h) end = float(winH) / h;
    }
    if (end >= start) start = float(double(end) * 1.1);
    plan->start = start;
    plan->end = end;

    // The first level is the largest; refuse it before anything is sized.
    const float largestW = std::fma(start, w, 0.5f);
    const float largestH = std::fma(start, h, 0.5f);
    const float limit = float(kMaxLevelBytes);
    if (!(largestW <= limit && largestH <= limit)) return false;
    if (int64_t(trunc_i32(largestW)) * trunc_i32(largestH) > kMaxLevelBytes) return false;

    const float exponent = 1.0f / float(detector->levels - 1);  // infinite for one level: factor 0
    plan->factor = float(1.0 / std::pow(double(start / end), double(exponent)));
    plan->strideX = window_step(detector->strideRatio, winW);
    plan->strideY = window_step(detector->strideRatio, winH);
    plan->levelCount = detector->levels;

    float s = start;
    int64_t total = 0;
    for (int k = 0; k < plan->levelCount; ++k) {
        PyramidLevel& level = plan->levels[k];
        level.scale = s;
        level.width = trunc_i32(std::fma(s, w, 0.5f));
        level.height = trunc_i32(std::fma(s, h, 0.5f));
        const int64_t count = window_count(level.width, level.height, winW, winH, plan->strideX, plan->strideY);
        if (count > INT32_MAX - total) return false;  // counts are int
        level.count = int32_t(count);
        total += count;
        s = s * plan->factor;
    }
    plan->totalWindows = total;
    return true;
}

int64_t cut_windows(const uint8_t* image, int width, int height, int stride, int winWidth, int winHeight,
                    int strideX, int strideY, float scale, int64_t first, int64_t count, float* patches,
                    ObjectInfof* objs) {
    const int64_t all = window_count(width, height, winWidth, winHeight, strideX, strideY);
    if (first < 0 || count < 1 || first >= all) return 0;
    count = std::min(count, all - first);
    const int64_t patchSize = int64_t(winWidth) * winHeight;
    const int64_t perRow = (int64_t(width) - (winWidth >> 1)) / strideX + 1;
    const float inverse = 1.0f / scale;
    for (int64_t k = 0; k < count; ++k) {
        const int64_t x = (first + k) % perRow * strideX;
        const int64_t y = (first + k) / perRow * strideY;
        float* patch = patches + k * patchSize;
        // A window hangs over the right and bottom edges by less than half
        // its size; those pixels are 0.
        const int64_t inside = std::min<int64_t>(winWidth, width - x);
        for (int64_t j = 0; j < winHeight; ++j) {
            float* row = patch + j * winWidth;
            int64_t i = 0;
            if (y + j < height) {
                const uint8_t* src = image + (y + j) * stride + x;
                for (; i + 8 <= inside; i += 8) {
                    const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + i));
                    _mm256_storeu_ps(row + i, _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(bytes)));
                }
                for (; i < inside; ++i) row[i] = float(src[i]);
            }
            for (; i < winWidth; ++i) row[i] = 0.0f;
        }
        ObjectInfof& o = objs[k];
        o.x = float(x);
        o.y = float(y);
        o.width = float(winWidth);
        o.height = float(winHeight);
        o.scale = inverse;
    }
    return count;
}

int split_image_into_patches(uint8_t* image, int width, int height, int stride, int winWidth, int winHeight,
                             int strideX, int strideY, float scale, float* patches, ObjectInfof* objs) {
    const int64_t count = window_count(width, height, winWidth, winHeight, strideX, strideY);
    VO_CHECK(count <= INT32_MAX, return -1);
    return int(cut_windows(image, width, height, stride, winWidth, winHeight, strideX, strideY, scale, 0, count,
                           patches, objs));
}

}  // namespace vo

VoDetector* create_detector() {
    VoDetector* detector = static_cast<VoDetector*>(calloc(1, sizeof(VoDetector)));
    if (!detector) return nullptr;
    detector->minSizeRatio = vo::float_from_bits(0x3CF5C28Fu);  // 0.03
    detector->maxSizeRatio = 0.3f;
    detector->strideRatio = 0.3f;
    detector->levels = 4;
    return detector;
}

int load_detector(const char* dir, const char* name, VoDetector** out) {
    if (!out) return 7;
    *out = nullptr;
    VoDetector* detector = create_detector();
    if (!detector) return 4;
    const int status = load_cascade(dir, name, &detector->cascade);
    auto fail = [&](int code) {
        release_detector(&detector);
        return code;
    };
    if (status != 0) return fail(status);
    // The search cuts grey windows of anet's size and hands them to bnet
    // as they are; cnet gets grey crops of its own size.
    const Cascade* cascade = detector->cascade;
    const Classifier* anet = cascade->anet;
    const Classifier* bnet = cascade->bnet;
    const Classifier* cnet = cascade->cnet;
    VO_CHECK(anet != nullptr, return fail(4));
    VO_CHECK(anet->channel == 1, return fail(4));
    if (bnet) {
        VO_CHECK(bnet->width == anet->width && bnet->height == anet->height && bnet->channel == anet->channel,
                 return fail(4));
    }
    if (cnet) VO_CHECK(cnet->channel == 1, return fail(4));
    detector->width = anet->width;
    detector->height = anet->height;
    *out = detector;
    return 0;
}

void set_detect_params(VoDetector* detector, float minSizeRatio, float maxSizeRatio, float strideRatio,
                       int levels) {
    if (!detector) return;
    if (minSizeRatio > maxSizeRatio) std::swap(minSizeRatio, maxSizeRatio);
    detector->minSizeRatio = minSizeRatio;
    detector->maxSizeRatio = maxSizeRatio;
    detector->strideRatio = strideRatio;
    detector->levels = levels;
}

int detect_objects(VoDetector* detector, unsigned char* image, int width, int height, int stride,
                   ObjectInfo** out) {
    if (!detector || !detector->cascade || !image || !out) return 0;
    if (!vo::cascade_matches_window(detector)) return 0;
    vo::SearchPlan plan;
    if (!vo::plan_search(detector, width, height, stride, &plan)) return 0;
    Cascade* cascade = detector->cascade;
    const int32_t winW = detector->width;
    const int32_t winH = detector->height;
    const int64_t patchSize = int64_t(winW) * winH;
    const int32_t w0 = plan.workWidth;
    const int32_t h0 = plan.workHeight;
    const int64_t largest = int64_t(plan.levels[0].width) * plan.levels[0].height;
    vo::StageClock clock;

    uint8_t* work = static_cast<uint8_t*>(malloc(size_t(w0) * size_t(h0)));
    uint8_t* level = static_cast<uint8_t*>(malloc(size_t(std::max<int64_t>(largest, 1))));
    // Windows are cut and scored by the first stage a chunk at a time; only
    // its survivors are kept. Each window's score depends on its own patch
    // alone, so this finds what scoring all windows at once would, in the
    // same order, with memory bounded by the chunk.
    const int64_t chunk = std::min<int64_t>(kChunkWindows, std::max<int64_t>(plan.totalWindows, 1));
    float* chunkPatches = static_cast<float*>(malloc(size_t(chunk) * size_t(patchSize) * sizeof(float)));
    ObjectInfof* chunkObjs = static_cast<ObjectInfof*>(calloc(size_t(chunk), sizeof(ObjectInfof)));
    Survivors kept;
    bool ok = work && level && chunkPatches && chunkObjs;
    if (ok) {
        if (plan.shrunk) {
            resizer_bilinear_gray(image, width, height, stride, work, w0, h0, w0);
        } else {
            for (int y = 0; y < height; ++y) memcpy(work + int64_t(y) * w0, image + int64_t(y) * stride, size_t(w0));
        }
    }
    clock.lap(&vo::DetectStageTimes::pyramid);
    for (int k = 0; ok && k < plan.levelCount; ++k) {
        const vo::PyramidLevel& lv = plan.levels[k];
        if (lv.count == 0) continue;
        resizer_bilinear_gray(work, w0, h0, w0, level, lv.width, lv.height, lv.width);
        for (int64_t first = 0; ok && first < lv.count; first += chunk) {
            const int64_t count = std::min(chunk, lv.count - first);
            ok = vo::cut_windows(level, lv.width, lv.height, lv.width, winW, winH, plan.strideX, plan.strideY,
                                 lv.scale, first, count, chunkPatches, chunkObjs) == count;
            clock.lap(&vo::DetectStageTimes::pyramid);
            if (!ok) break;
            predict_patches(cascade->anet, chunkPatches, chunkObjs, int(count));
            const int survivors = vo::compact_by_label(chunkObjs, chunkPatches, int(count), patchSize);
            ok = kept.append(chunkObjs, chunkPatches, survivors, patchSize);
            clock.lap(&vo::DetectStageTimes::anet);
        }
    }
    free(chunkPatches);
    free(chunkObjs);
    free(work);
    free(level);
    ObjectInfof* objs = kept.objs;
    int n = 0;
    if (ok && plan.totalWindows > 0) {
        clock.count(&vo::DetectStageTimes::runs, 1);
        clock.count(&vo::DetectStageTimes::windows, plan.totalWindows);
        clock.count(&vo::DetectStageTimes::afterAnet, kept.count);
        n = vo::second_stage(cascade, kept.patches, objs, int(kept.count));  // timed there
        clock.restart();
    }
    free(kept.patches);
    for (int i = 0; i < n; ++i) {
        objs[i].x *= objs[i].scale;
        objs[i].y *= objs[i].scale;
        objs[i].width *= objs[i].scale;
        objs[i].height *= objs[i].scale;
    }
    clock.lap(&vo::DetectStageTimes::pyramid);
    if (n <= 0) {
        free(objs);
        return 0;
    }

    int m = classify(cascade, image, width, height, stride, objs, n);
    clock.lap(&vo::DetectStageTimes::cnet);
    clock.count(&vo::DetectStageTimes::afterCnet, m);
    m = merge_rects(objs, m, kMergeThreshold);
    ObjectInfo* result = static_cast<ObjectInfo*>(calloc(size_t(std::max(m, 1)), sizeof(ObjectInfo)));
    if (!result) {
        free(objs);
        return 0;
    }
    for (int i = 0; i < m; ++i) {
        result[i].x = vo::trunc_i32(objs[i].x + 0.5f);
        result[i].y = vo::trunc_i32(objs[i].y + 0.5f);
        result[i].width = vo::trunc_i32(objs[i].width + 0.5f);
        result[i].height = vo::trunc_i32(objs[i].height + 0.5f);
        result[i].conf = objs[i].conf;
        result[i].label = objs[i].label;
    }
    free(objs);
    *out = result;
    clock.lap(&vo::DetectStageTimes::merge);
    clock.count(&vo::DetectStageTimes::objects, m);
    return m;
}

void release_detector_data(VoDetector* detector) {
    if (!detector) return;
    release_cascade(&detector->cascade);
}

void release_detector(VoDetector** detector) {
    if (!detector || !*detector) return;
    release_detector_data(*detector);
    free(*detector);
    *detector = nullptr;
}
