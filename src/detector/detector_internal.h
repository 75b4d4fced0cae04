// Internal pieces of the detector shared by its source files and reachable
// from the tests.
#ifndef VONET_DETECTOR_DETECTOR_INTERNAL_H
#define VONET_DETECTOR_DETECTOR_INTERNAL_H

#include <vonet/detector.h>

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vo {

// Conversion toward zero into int32 as the processor does it: NaN and
// values out of range give INT32_MIN instead of undefined behaviour.
inline int32_t trunc_i32(float v) { return _mm_cvttss_si32(_mm_set_ss(v)); }
inline int32_t trunc_i32(double v) { return _mm_cvttsd_si32(_mm_set_sd(v)); }

inline float float_from_bits(uint32_t bits) {
    float f;
    memcpy(&f, &bits, sizeof(f));
    return f;
}

// Formats into a fixed buffer; false (buffer left empty) when the result
// would not fit, so that no name is ever truncated silently.
bool format_name(char* buffer, size_t size, const char* format, const char* a, const char* b);

// Patch size in floats of a classifier's input; 0 for an unusable record.
int64_t patch_floats(const Classifier* classifier);

// Moves the records whose label is not 0 (and their patches of `patchSize`
// floats) to the front, in order; returns how many were kept.
int compact_by_label(ObjectInfof* objs, float* patches, int num, int64_t patchSize);

// Re-crops boxes from an image into patches of the classifier's input
// size with a margin of `margin` times the box on each side, rewrites each
// box in the patch's frame and stores the factor back to the image frame.
// `grey` forces single-channel extraction. `work` holds one colour patch.
void crop_boxes(const Classifier* classifier, unsigned char* image, int width, int height, int stride,
                ObjectInfof* objs, int num, float margin, bool grey, float* patches, float* back,
                unsigned char* work);

// One pyramid level of a search.
struct PyramidLevel {
    float scale;  // relative to the input image
    int32_t width;
    int32_t height;
    int32_t count;  // windows placed on it (0 when below half a window)
};

constexpr int kMaxLevels = 64;

// Everything a search derives from the image size and the parameters.
struct SearchPlan {
    bool shrunk;        // the working copy is a reduced image, not a copy
    int32_t workWidth;  // working copy, shorter side at most 320
    int32_t workHeight;
    float start;  // scale of the first (largest) level
    float end;
    float factor;  // scale step between levels
    int32_t strideX;
    int32_t strideY;
    int32_t levelCount;
    PyramidLevel levels[kMaxLevels];
    int64_t totalWindows;
};

// Fills the plan; false for sizes or parameters that cannot be searched.
bool plan_search(const VoDetector* detector, int width, int height, int stride, SearchPlan* plan);

// The second stage over the first stage's `kept` survivors and their
// patches (when its window has the first stage's size), then its
// compaction; returns how many remain.
int second_stage(Cascade* cascade, float* patches, ObjectInfof* objs, int kept);

// Places windows [first, first + count) of one level (in the row-by-row
// order below) into `patches` and `objs`; returns how many were placed.
int64_t cut_windows(const uint8_t* image, int width, int height, int stride, int winWidth, int winHeight,
                    int strideX, int strideY, float scale, int64_t first, int64_t count, float* patches,
                    ObjectInfof* objs);

// Places the windows of one level after one another, row by row; each
// patch is winWidth x winHeight floats, 0 where the window hangs over the
// right or bottom edge. Returns the number placed.
int split_image_into_patches(uint8_t* image, int width, int height, int stride, int winWidth, int winHeight,
                             int strideX, int strideY, float scale, float* patches, ObjectInfof* objs);

// The search without its parameter checks: true when the cascade can be
// run with the detector's window.
bool cascade_matches_window(const VoDetector* detector);

}  // namespace vo

#endif
