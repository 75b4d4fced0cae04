// Classifier: one network bound to its patch geometry; scores batches of
// patches and refines boxes re-cropped from an image.
#include <vonet/detector.h>
#include <vonet/file_util.h>
#include <vonet/image.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "common/check.h"
#include "common/record_io.h"
#include "detector/detector_internal.h"

namespace {

constexpr const char* kUnit = "detector";

// Patches go through the network this many at a time, so its tensors are
// reshaped at most twice per call (full batches, then the remainder).
constexpr int64_t kBatch = 128;

constexpr int32_t kMaxSide = 4096;
constexpr int32_t kMaxClasses = 256;  // labels are 8-bit

// Margin added on each side of a box before it is re-cropped: the float
// with bits 0x3DCCCCD0, slightly above 0.1, which keeps products such as
// 10 x m from rounding below a whole pixel.
const float kClassifierMargin = vo::float_from_bits(0x3DCCCCD0u);

struct Score {
    float conf;
    uint8_t label;
    float box[4];
};

// Label (first maximum wins) and conf of one patch's scores.
inline void arg_max(const float* scores, int64_t classSize, Score* out) {
    int64_t best = 0;
    float value = scores[0];
    for (int64_t c = 1; c < classSize; ++c) {
        if (scores[c] > value) {
            value = scores[c];
            best = c;
        }
    }
    out->conf = value;
    out->label = uint8_t(best);
}

// One batch of `num` patches starting at patch `first`.
int score_batch(const char* op, Classifier* classifier, float* patches, int64_t first, int64_t num,
                int64_t patchSize, Score* scores, bool regress) {
    Net* net = classifier->net;
    const int64_t classSize = classifier->classSize;
    int status = vo_forward_net(net, patches + first * patchSize, int32_t(num), classifier->channel,
                                classifier->height, classifier->width);
    if (status != 0) return status;
    {
        const Tensor* output = vo_output_by_name(net, "prob");
        VO_CHECK_IN(op, output != nullptr, return 7);
        VO_CHECK_IN(op, output->capacity == num * classSize, return 7);
        for (int64_t k = 0; k < num; ++k) arg_max(output->data + k * classSize, classSize, &scores[first + k]);
    }
    if (regress) {
        const Tensor* output = vo_output_by_name(net, "fc1b");
        VO_CHECK_IN(op, output != nullptr, return 7);
        VO_CHECK_IN(op, output->capacity == num * 4, return 7);
        for (int64_t k = 0; k < num; ++k)
            for (int j = 0; j < 4; ++j) scores[first + k].box[j] = output->data[k * 4 + j];
    }
    return 0;
}

// Both scoring operations; `op` names the public operation in messages.
// Results are collected first and written only when every batch passed its
// checks, so a failure leaves the records untouched.
int score_patches(const char* op, Classifier* classifier, float* patches, ObjectInfof* objs, int total,
                  bool regress) {
    if (!classifier || !classifier->net || !patches) return 7;
    if (total < 1) return 0;
    if (!objs) return 7;
    if (regress) VO_CHECK_IN(op, classifier->net->outputSize == 2, return 7);
    const int64_t patchSize = vo::patch_floats(classifier);
    if (patchSize == 0 || classifier->classSize < 1) return 7;
    Score* scores = static_cast<Score*>(calloc(size_t(total), sizeof(Score)));
    if (!scores) return 7;
    int status = 0;
    for (int64_t first = 0; first < total && status == 0; first += kBatch)
        status = score_batch(op, classifier, patches, first, std::min<int64_t>(kBatch, total - first), patchSize,
                             scores, regress);
    if (status == 0) {
        for (int i = 0; i < total; ++i) {
            ObjectInfof& o = objs[i];
            o.conf = scores[i].conf;
            o.label = scores[i].label;
            if (regress) {
                // Offsets move the corner; the size is replaced.
                o.x += scores[i].box[0];
                o.y += scores[i].box[1];
                o.width = scores[i].box[2];
                o.height = scores[i].box[3];
            }
        }
    }
    free(scores);
    return status;
}

}  // namespace

namespace vo {

bool format_name(char* buffer, size_t size, const char* format, const char* a, const char* b) {
    int n = snprintf(buffer, size, format, a, b);
    if (n < 0 || size_t(n) >= size) {
        if (size > 0) buffer[0] = '\0';
        return false;
    }
    return true;
}

int64_t patch_floats(const Classifier* classifier) {
    if (!classifier) return 0;
    const int64_t count = checked_count(1, classifier->channel, classifier->height, classifier->width);
    return count > 0 ? count : 0;
}

void crop_boxes(const Classifier* classifier, unsigned char* image, int width, int height, int stride,
                ObjectInfof* objs, int num, float margin, bool grey, float* patches, float* back,
                unsigned char* work) {
    const int32_t pw = classifier->width;
    const int32_t ph = classifier->height;
    const float cw = float(pw);
    const float ch = float(ph);
    const float r = cw / ch;
    const int64_t patchSize = patch_floats(classifier);
    for (int i = 0; i < num; ++i) {
        ObjectInfof& o = objs[i];
        const int32_t mx = trunc_i32(o.width * margin);
        const int32_t my = trunc_i32(o.height * margin);
        const float W = o.width + float(int64_t(2) * mx);
        const float H = o.height + float(int64_t(2) * my);
        const float cx = std::fma(0.5f, W, o.x - float(mx));
        const float cy = std::fma(0.5f, H, o.y - float(my));
        // The whole grown box fits in the patch with its aspect ratio kept.
        float s, b;
        if (r > W / H) {
            s = ch / H;
            b = H / ch;
        } else {
            s = cw / W;
            b = W / cw;
        }
        VPointf srcCenter{cx, cy};
        VPointf dstCenter{cw * 0.5f, ch * 0.5f};
        float* patch = patches + i * patchSize;
        if (grey || classifier->channel == 1) {
            affine_image_uint82float(image, width, height, stride, 0.0f, s, srcCenter, dstCenter, patch, pw, ph);
        } else if (classifier->channel == 3) {
            affine_image_color(image, width, height, stride, 0.0f, s, srcCenter, dstCenter, work, pw, ph, 3 * pw);
            split_image_uint82float(work, pw, ph, 3, 3 * pw, patch);
        }
        o.x = std::fma(s, cx, -(cw * 0.5f));
        o.y = std::fma(s, cy, -(ch * 0.5f));
        o.width = cw;
        o.height = ch;
        back[i] = b;
    }
}

}  // namespace vo

Classifier* create_classifier() { return static_cast<Classifier*>(calloc(1, sizeof(Classifier))); }

Net* load_net(const char* dir, const char* name) {
    if (!dir || !name) return nullptr;
    char path[256];
    const bool pathFits = vo::format_name(path, sizeof(path), "%s/%s.dat", dir, name);
    VO_CHECK(pathFits, return nullptr);
    if (!file_exist(path)) return nullptr;
    puts(name);
    Net* net = nullptr;
    if (vo_load_net(path, &net) != 0) return nullptr;
    return net;
}

int load_classifier(const char* dir, const char* name, Classifier** out) {
    if (!dir || !name || !out) return 7;
    *out = nullptr;
    // The parameter path is the longer of the two, so the model path fits
    // whenever this one does.
    char path[256];
    const bool pathFits = vo::format_name(path, sizeof(path), "%s/%s_params.dat", dir, name);
    VO_CHECK(pathFits, return 4);
    FILE* f = fopen(path, "rb");
    if (!f) {
        printf("Can't open file %s\n", path);
        return 4;
    }
    Classifier* classifier = create_classifier();
    auto fail = [&]() {
        fclose(f);
        release_classifier(&classifier);
        return 4;
    };
    if (!classifier) return fail();
    // File order: class count, width, height, channels.
    if (!vo::read_fields(f, kUnit, __func__, &classifier->classSize, &classifier->width, &classifier->height,
                         &classifier->channel))
        return fail();
    VO_CHECK(classifier->channel == 1 || classifier->channel == 3, return fail());
    VO_CHECK(classifier->width >= 1 && classifier->width <= kMaxSide, return fail());
    VO_CHECK(classifier->height >= 1 && classifier->height <= kMaxSide, return fail());
    VO_CHECK(classifier->classSize >= 1 && classifier->classSize <= kMaxClasses, return fail());
    fclose(f);
    // A missing model still hands out the record (with a null net); every
    // scoring operation refuses it.
    *out = classifier;
    classifier->net = load_net(dir, name);
    return classifier->net ? 0 : 4;
}

void release_classifier(Classifier** classifier) {
    if (!classifier || !*classifier) return;
    vo_release_net(&(*classifier)->net);
    free(*classifier);
    *classifier = nullptr;
}

int predict_patches(Classifier* classifier, float* patches, ObjectInfof* objs, int num) {
    return score_patches("predict_patches", classifier, patches, objs, num, false);
}

int predict_regress_patches(Classifier* classifier, float* patches, ObjectInfof* objs, int num) {
    return score_patches("predict_regress_patches", classifier, patches, objs, num, true);
}

int classify(Classifier* classifier, unsigned char* image, int width, int height, int stride, ObjectInfof* objs,
             int num) {
    if (!classifier || !classifier->net || !objs || !image) return 7;
    if (num <= 0) return 0;
    const int64_t patchSize = vo::patch_floats(classifier);
    if (patchSize == 0) return 7;
    float* patches = static_cast<float*>(calloc(size_t(num) * size_t(patchSize), sizeof(float)));
    float* back = static_cast<float*>(calloc(size_t(num), sizeof(float)));
    unsigned char* work = static_cast<unsigned char*>(calloc(size_t(patchSize), 1));
    if (!patches || !back || !work) {
        free(patches);
        free(back);
        free(work);
        return 7;
    }
    vo::crop_boxes(classifier, image, width, height, stride, objs, num, kClassifierMargin, false, patches, back,
                   work);
    predict_regress_patches(classifier, patches, objs, num);
    for (int i = 0; i < num; ++i) {
        objs[i].x *= back[i];
        objs[i].y *= back[i];
        objs[i].width *= back[i];
        objs[i].height *= back[i];
    }
    free(patches);
    free(back);
    free(work);
    return 0;
}
