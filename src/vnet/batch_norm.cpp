// Batch norm layer: a per-channel affine map, one fused multiply-add per
// value.
#include <vonet/kernels.h>
#include <vonet/normalization.h>

#include <cstdlib>

#include "common/check.h"
#include "common/record_io.h"
#include "vnet/layer_registry.h"
#include "vnet/layer_shapes.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/batch_norm";

// The record's two arrays hold `channel` values each.
bool record_usable(const BatchNorm* bn) {
    return bn->channel >= 1 && vo::holds_shape(bn->scale) && vo::holds_shape(bn->bias) &&
           bn->scale->capacity >= bn->channel && bn->bias->capacity >= bn->channel;
}

int read_batchnorm(FILE* stream, BatchNorm* bn) {
    constexpr const char* kLoad = "load_batchnorm";
    if (!vo::read_field(stream, &bn->channel, kUnit, kLoad)) return 4;
    VO_CHECK_IN(kLoad, bn->channel >= 1, return 4);
    VO_CHECK_IN(kLoad, vo::fits_in_file(stream, 2 * int64_t(bn->channel), sizeof(float)), return 4);
    bn->scale = create_tensor(1, bn->channel, 1, 1);
    bn->bias = create_tensor(1, bn->channel, 1, 1);
    VO_CHECK_IN(kLoad, record_usable(bn), return 4);
    if (!vo::read_values(stream, bn->scale->data, bn->channel, kUnit, kLoad, "ret == bn->channel") ||
        !vo::read_values(stream, bn->bias->data, bn->channel, kUnit, kLoad, "ret == bn->channel"))
        return 4;
    return 0;
}

}  // namespace

BatchNorm* create_batchnorm() { return static_cast<BatchNorm*>(calloc(1, sizeof(BatchNorm))); }

int load_batchnorm(FILE* stream, void** result) {
    return vo::load_record<BatchNorm, create_batchnorm, read_batchnorm, release_batchnorm>(stream, result, kUnit,
                                                                                        __func__, "bn != nullptr");
}

int save_batchnorm(FILE* stream, BatchNorm* bn) {
    if (!stream || !bn) return 7;
    if (!record_usable(bn)) return 7;
    if (!vo::write_field(stream, bn->channel, kUnit, __func__) ||
        !vo::write_values(stream, bn->scale->data, bn->channel, kUnit, __func__, "ret == bn->channel") ||
        !vo::write_values(stream, bn->bias->data, bn->channel, kUnit, __func__, "ret == bn->channel"))
        return 4;
    return 0;
}

int reshape_batchnorm(BatchNorm* bn, Tensor** inputs, int, Tensor** outputs, int, ForwardParams*) {
    if (!bn || !inputs) return 7;
    if (!outputs) return 7;
    const Tensor* src = inputs[0];
    if (!src || !outputs[0]) return 5;
    if (!vo::holds_nonempty(kUnit, __func__, src)) return 5;
    // In place is allowed: each value is read once, just before it is written.
    return vo::reshape_as_input(&outputs[0], src);
}

int forward_batchnorm(BatchNorm* bn, Tensor** inputs, int, Tensor** outputs, int, ForwardParams*) {
    if (!bn || !inputs || !outputs) return 7;
    if (!record_usable(bn)) return 7;
    const Tensor* src = inputs[0];
    Tensor* res = outputs[0];
    VO_CHECK(vo::holds_shape(src) && vo::holds_shape(res), return 5);
    VO_CHECK(src->channel == bn->channel, return 5);
    if (!vo::same_shape(kUnit, __func__, src, res)) return 5;

    const int32_t plane = src->height * src->width;
    const float* scale = bn->scale->data;
    const float* bias = bn->bias->data;
    for (int64_t n = 0; n < src->num; ++n) {
        for (int32_t c = 0; c < src->channel; ++c) {
            const int64_t offset = (n * src->channel + c) * plane;
            vo_alpha_multiply_vector_add_beta(src->data + offset, plane, res->data + offset, scale[c], bias[c]);
        }
    }
    return 0;
}

void release_batchnorm(BatchNorm** bn) {
    if (!bn || !*bn) return;
    release_tensor(&(*bn)->scale);
    release_tensor(&(*bn)->bias);
    (*bn)->channel = 0;
    free(*bn);
    *bn = nullptr;
}

void get_info_batchnorm(BatchNorm* bn, char* text) {
    if (!text) return;
    if (!bn) {
        snprintf(text, 128, "BatchNorm");
        return;
    }
    snprintf(text, 128, "BatchNorm %d\n", bn->channel);
}

int forward_batchnorm_gpu(BatchNorm*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kBatchNormOps = make_layer_ops<BatchNorm, forward_batchnorm, reshape_batchnorm, save_batchnorm,
                                              release_batchnorm, get_info_batchnorm, load_batchnorm>();
}  // namespace vo
