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

// Grows the window arrays before a level of `count` windows is placed
// after the first `total`: the new capacity is count * 1.1 + total + 1,
// the first `total` windows are kept and everything else reads as zero.
// Reallocating in place lets large arrays grow without copying; the
// patches of the level itself are left for split_image_into_patches,
// which writes every value of them.
bool grow_windows(ObjectInfof** objs, float** patches, int64_t* capacity, int64_t total, int64_t count,
                  int64_t patchSize) {
    const int64_t newCapacity = int64_t(double(count) * 1.1 + double(total) + 1.0);
    ObjectInfof* newObjs = static_cast<ObjectInfof*>(realloc(*objs, size_t(newCapacity) * sizeof(ObjectInfof)));
    if (!newObjs) return false;
    *objs = newObjs;
    float* newPatches =
        static_cast<float*>(realloc(*patches, size_t(newCapacity) * size_t(patchSize) * sizeof(float)));
    if (!newPatches) return false;
    *patches = newPatches;
    memset(newObjs + total, 0, size_t(newCapacity - total) * sizeof(ObjectInfof));
    const int64_t placed = total + count;
    memset(newPatches + placed * patchSize, 0, size_t(newCapacity - placed) * size_t(patchSize) * sizeof(float));
    *capacity = newCapacity;
    return true;
}

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

int split_image_into_patches(uint8_t* image, int width, int height, int stride, int winWidth, int winHeight,
                             int strideX, int strideY, float scale, float* patches, ObjectInfof* objs) {
    const int64_t count = window_count(width, height, winWidth, winHeight, strideX, strideY);
    const int64_t patchSize = int64_t(winWidth) * winHeight;
    const int64_t lastX = int64_t(width) - (winWidth >> 1);
    const int64_t lastY = int64_t(height) - (winHeight >> 1);
    const float inverse = 1.0f / scale;
    int64_t size = 0;
    for (int64_t y = 0; count > 0 && y <= lastY; y += strideY) {
        for (int64_t x = 0; x <= lastX; x += strideX) {
            float* patch = patches + size * patchSize;
            // A window hangs over the right and bottom edges by less than
            // half its size; those pixels are 0.
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
            ObjectInfof& o = objs[size];
            o.x = float(x);
            o.y = float(y);
            o.width = float(winWidth);
            o.height = float(winHeight);
            o.scale = inverse;
            ++size;
        }
    }
    VO_CHECK(count == size, return -1);
    return int(size);
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
    ObjectInfof* objs = nullptr;
    float* patches = nullptr;
    int64_t capacity = 0;
    int64_t total = 0;
    bool ok = work && level;
    if (ok) {
        if (plan.shrunk) {
            resizer_bilinear_gray(image, width, height, stride, work, w0, h0, w0);
        } else {
            for (int y = 0; y < height; ++y) memcpy(work + int64_t(y) * w0, image + int64_t(y) * stride, size_t(w0));
        }
    }
    for (int k = 0; ok && k < plan.levelCount; ++k) {
        const vo::PyramidLevel& lv = plan.levels[k];
        if (total + lv.count > capacity) ok = grow_windows(&objs, &patches, &capacity, total, lv.count, patchSize);
        if (!ok || lv.count == 0) continue;
        resizer_bilinear_gray(work, w0, h0, w0, level, lv.width, lv.height, lv.width);
        const int placed = vo::split_image_into_patches(level, lv.width, lv.height, lv.width, winW, winH, plan.strideX,
                                                        plan.strideY, lv.scale, patches + total * patchSize,
                                                        objs + total);
        ok = placed == lv.count;
        total += lv.count;
    }
    clock.lap(&vo::DetectStageTimes::pyramid);
    int n = 0;
    if (ok && total > 0) {
        clock.count(&vo::DetectStageTimes::runs, 1);
        clock.count(&vo::DetectStageTimes::windows, total);
        n = predict_patches(cascade, patches, int(total), objs);  // times the first two stages itself
        clock.restart();
    }
    for (int i = 0; i < n; ++i) {
        objs[i].x *= objs[i].scale;
        objs[i].y *= objs[i].scale;
        objs[i].width *= objs[i].scale;
        objs[i].height *= objs[i].scale;
    }
    free(patches);
    free(work);
    free(level);
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
