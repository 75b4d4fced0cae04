// Normalize layer: L2 normalisation per image or per channel plane, times
// a learned scale.
#include <vonet/kernels.h>
#include <vonet/normalization.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "common/record_io.h"
#include "vnet/layer_registry.h"
#include "vnet/layer_shapes.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/normalize";

// Scale values the forward pass reads for an input of `channel` channels:
// one per group with per-channel scales over per-channel norms, else only
// the first.
int64_t scales_needed(const Normalize* norm, int64_t channel) {
    return norm->scalePerChannel && norm->normPerChannel ? channel : 1;
}

int read_normalize(FILE* stream, Normalize* norm) {
    constexpr const char* kLoad = "load_normalize";
    int32_t scaleSize = 0;
    if (!vo::read_fields(stream, kUnit, kLoad, &norm->normPerChannel, &norm->scalePerChannel, &scaleSize)) return 4;
    // Every group reads at least the first scale value; how many more a
    // per-channel record reads depends on the input and is checked at
    // reshape.
    VO_CHECK_IN(kLoad, scaleSize >= 1, return 4);
    VO_CHECK_IN(kLoad, vo::fits_in_file(stream, scaleSize, sizeof(float)), return 4);
    norm->scale = create_tensor(1, 1, 1, scaleSize);
    VO_CHECK_IN(kLoad, vo::holds_shape(norm->scale), return 4);
    return vo::read_values(stream, norm->scale->data, scaleSize, kUnit, kLoad, "ret == scaleSize") ? 0 : 4;
}

}  // namespace

Normalize* create_normalize() { return static_cast<Normalize*>(calloc(1, sizeof(Normalize))); }

int load_normalize(FILE* stream, void** result) {
    return vo::load_record<Normalize, create_normalize, read_normalize, release_normalize>(stream, result, kUnit,
                                                                                        __func__, "norm != nullptr");
}

int save_normalize(FILE* stream, Normalize* norm) {
    if (!stream || !norm) return 7;
    if (!vo::holds_shape(norm->scale)) return 7;
    const int32_t scaleSize = norm->scale->capacity;
    if (!vo::write_fields(stream, kUnit, __func__, norm->normPerChannel, norm->scalePerChannel, scaleSize) ||
        !vo::write_values(stream, norm->scale->data, scaleSize, kUnit, __func__, "ret == scaleSize"))
        return 4;
    return 0;
}

int reshape_normalize(Normalize* norm, Tensor** inputs, int, Tensor** outputs, int, ForwardParams*) {
    if (!norm || !inputs) return 7;
    if (!outputs) return 7;
    const Tensor* src = inputs[0];
    if (!src || !outputs[0]) return 5;
    if (!vo::holds_shape(norm->scale)) return 7;
    if (!vo::holds_nonempty(kUnit, __func__, src)) return 5;
    VO_CHECK(norm->scale->capacity >= scales_needed(norm, src->channel), return 5);
    // In place is allowed: a group is read in full before it is written.
    return vo::reshape_as_input(&outputs[0], src);
}

int forward_normalize(Normalize* norm, Tensor** inputs, int, Tensor** outputs, int, ForwardParams*) {
    if (!norm || !inputs || !outputs) return 7;
    if (!vo::holds_shape(norm->scale)) return 7;
    const Tensor* src = inputs[0];
    Tensor* res = outputs[0];
    VO_CHECK(vo::holds_shape(src) && vo::holds_shape(res), return 5);
    if (!vo::same_shape(kUnit, __func__, src, res)) return 5;
    VO_CHECK(norm->scale->capacity >= scales_needed(norm, src->channel), return 5);

    const int64_t plane = int64_t(src->height) * src->width;
    const int32_t size = int32_t(norm->normPerChannel ? plane : src->channel * plane);
    const int64_t groups = norm->normPerChannel ? src->channel : 1;
    const float* scale = norm->scale->data;
    for (int64_t n = 0; n < src->num; ++n) {
        for (int64_t g = 0; g < groups; ++g) {
            const int64_t offset = (n * groups + g) * size;
            const float* in = src->data + offset;
            float* out = res->data + offset;
            const float d = vo_dot(in, in, uint64_t(size));
            const float inv = float(1.0 / (std::sqrt(double(d)) + 1e-6));
            const float s = norm->scalePerChannel ? scale[g] : scale[0];
            if (out != in) memcpy(out, in, size_t(size) * sizeof(float));
            vo_mul_scalar(out, size, inv * s);
        }
    }
    return 0;
}

void release_normalize(Normalize** norm) {
    if (!norm || !*norm) return;
    release_tensor(&(*norm)->scale);
    (*norm)->normPerChannel = (*norm)->scalePerChannel = 0;
    free(*norm);
    *norm = nullptr;
}

void get_info_normalize(Normalize* norm, char* text) {
    if (!text) return;
    if (!norm) {
        snprintf(text, 128, "normalize");
        return;
    }
    snprintf(text, 128, "normalize %d %d %d\n", norm->normPerChannel, norm->scalePerChannel,
             norm->scale ? norm->scale->capacity : 0);
}

int forward_normalize_gpu(Normalize*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kNormalizeOps = make_layer_ops<Normalize, forward_normalize, reshape_normalize, save_normalize,
                                              release_normalize, get_info_normalize, load_normalize>();
}  // namespace vo
