// Cascade: up to six classifiers loaded by role; the first two stages score
// window patches, the third re-crops boxes from the full image.
#include <vonet/detector.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "detector/detector_internal.h"
#include "detector/stage_times.h"

namespace {

constexpr const char* kUnit = "detector";

constexpr int kRoles = 6;
const char* const kRoleNames[kRoles] = {"anet", "bnet", "cnet", "dotnet", "mnet", "enet"};

// Margin of the third stage: the float with bits 0x3E199998, slightly
// below 0.15.
const float kCascadeMargin = vo::float_from_bits(0x3E199998u);

}  // namespace

namespace vo {

int compact_by_label(ObjectInfof* objs, float* patches, int num, int64_t patchSize) {
    int kept = 0;
    for (int i = 0; i < num; ++i) {
        if (objs[i].label == 0) continue;  // background
        if (i != kept) {
            objs[kept] = objs[i];
            memcpy(patches + kept * patchSize, patches + i * patchSize, size_t(patchSize) * sizeof(float));
        }
        ++kept;
    }
    return kept;
}

}  // namespace vo

int load_cascade(const char* dir, const char* name, Cascade** out) {
    if (!out) return 7;
    *out = nullptr;
    if (!name) return 4;
    // Every name and path is formed before anything loads, so that a name
    // too long for its buffer refuses the whole cascade instead of quietly
    // dropping the roles with longer names.
    char baseNames[kRoles][128];
    for (int r = 0; r < kRoles; ++r) {
        const bool nameFits = vo::format_name(baseNames[r], sizeof(baseNames[r]), "%s_%s", name, kRoleNames[r]);
        VO_CHECK(nameFits, return 4);
        if (dir) {
            char path[256];
            const bool pathFits = vo::format_name(path, sizeof(path), "%s/%s_params.dat", dir, baseNames[r]);
            VO_CHECK(pathFits, return 4);
        }
    }
    Cascade* cascade = static_cast<Cascade*>(calloc(1, sizeof(Cascade)));
    if (!cascade) return 4;
    Classifier** slots[kRoles] = {&cascade->anet,   &cascade->bnet, &cascade->cnet,
                                  &cascade->dotnet, &cascade->mnet, &cascade->enet};
    for (int r = 0; r < kRoles; ++r) {
        const int status = load_classifier(dir, baseNames[r], slots[r]);
        if (r < 3 && status == 0) cascade->classSize = (*slots[r])->classSize;
    }
    if (!cascade->anet && !cascade->bnet && !cascade->cnet) {
        release_cascade(&cascade);
        return 4;
    }
    *out = cascade;
    return 0;
}

void release_cascade(Cascade** cascade) {
    if (!cascade || !*cascade) return;
    Cascade* c = *cascade;
    release_classifier(&c->anet);
    release_classifier(&c->bnet);
    release_classifier(&c->cnet);
    release_classifier(&c->dotnet);
    release_classifier(&c->mnet);
    release_classifier(&c->enet);
    free(c);
    *cascade = nullptr;
}

int predict_patches(Cascade* cascade, float* patches, int num, ObjectInfof* objs) {
    if (!cascade || !patches || !objs || !cascade->anet) return num;
    const int64_t patchSize = vo::patch_floats(cascade->anet);
    if (patchSize == 0) return num;
    if (num < 1) return 0;
    vo::StageClock clock;
    predict_patches(cascade->anet, patches, objs, num);
    const int kept = vo::compact_by_label(objs, patches, num, patchSize);
    clock.lap(&vo::DetectStageTimes::anet);
    clock.count(&vo::DetectStageTimes::afterAnet, kept);
    return vo::second_stage(cascade, patches, objs, kept);
}

namespace vo {

int second_stage(Cascade* cascade, float* patches, ObjectInfof* objs, int kept) {
    StageClock clock;
    // The second stage reads the first stage's patches as they are, so it
    // runs only when its input has the same size.
    Classifier* bnet = cascade->bnet;
    if (bnet && patch_floats(bnet) == patch_floats(cascade->anet)) {
        predict_regress_patches(bnet, patches, objs, kept);
        if (kept > 0) kept = compact_by_label(objs, patches, kept, patch_floats(bnet));
        clock.lap(&DetectStageTimes::bnet);
    }
    clock.count(&DetectStageTimes::afterBnet, kept);
    return kept;
}

}  // namespace vo

int classify(Cascade* cascade, unsigned char* image, int width, int height, int stride, ObjectInfof* objs,
             int num) {
    if (!cascade || !cascade->cnet || !objs || !image) return num;
    if (num <= 0) return 0;
    Classifier* cnet = cascade->cnet;
    const int64_t patchSize = vo::patch_floats(cnet);
    if (patchSize == 0) return num;
    float* patches = static_cast<float*>(calloc(size_t(num) * size_t(patchSize), sizeof(float)));
    float* back = static_cast<float*>(calloc(size_t(num), sizeof(float)));
    if (!patches || !back) {
        free(patches);
        free(back);
        return 0;
    }
    vo::crop_boxes(cnet, image, width, height, stride, objs, num, kCascadeMargin, true, patches, back, nullptr);
    predict_regress_patches(cnet, patches, objs, num);
    int kept = 0;
    for (int i = 0; i < num; ++i) {
        ObjectInfof o = objs[i];
        if (o.label == 0) continue;  // the third network's background class
        o.x *= back[i];
        o.y *= back[i];
        o.width *= back[i];
        o.height *= back[i];
        o.label = uint8_t(o.label - 1);
        objs[kept++] = o;
    }
    free(patches);
    free(back);
    return kept;
}
