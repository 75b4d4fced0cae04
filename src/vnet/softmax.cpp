// Softmax layer: shift by the maximum, exponentiate, divide by the sum.
#include <vonet/kernels.h>
#include <vonet/softmax.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "common/record_io.h"
#include "vnet/layer_registry.h"
#include "vnet/layer_shapes.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/softmax";
constexpr const char* kLoad = "load_softmax";

int read_softmax(FILE* stream, Softmax* softmax) {
    if (!vo::read_field(stream, &softmax->axis, kUnit, kLoad)) return 4;
    VO_CHECK_IN(kLoad, softmax->axis >= 0 && softmax->axis <= 3, return 4);
    return 0;
}

}  // namespace

Softmax* create_softmax() { return static_cast<Softmax*>(calloc(1, sizeof(Softmax))); }

int load_softmax(FILE* stream, void** result) {
    return vo::load_record<Softmax, create_softmax, read_softmax, release_softmax>(stream, result, kUnit, __func__,
                                                                                "softmax != nullptr");
}

int save_softmax(FILE* stream, Softmax* softmax) {
    if (!stream || !softmax) return 7;
    return vo::write_field(stream, softmax->axis, kUnit, __func__) ? 0 : 4;
}

int reshape_softmax(Softmax* softmax, Tensor** inputs, int isize, Tensor** outputs, int osize,
                    ForwardParams* params) {
    if (!softmax || !inputs) return 7;
    if (!outputs || isize != 1 || osize != 1) return 7;
    const Tensor* src = inputs[0];
    if (!src || !outputs[0]) return 5;
    if (!params || softmax->axis < 0 || softmax->axis > 3) return 7;
    VO_CHECK(vo::holds_shape(src), return 5);
    int64_t shape[4];
    if (!vo::nonempty_dims(kUnit, __func__, src, shape)) return 5;

    // In place is allowed: each block's maximum is taken before the block
    // is changed.
    if (int status = vo::reshape_tensor_checked(&outputs[0], shape[0], shape[1], shape[2], shape[3])) return status;
    const int axis = softmax->axis;
    softmax->outerNum = int32_t(vo::dims_product(shape, 0, axis));
    softmax->innerNum = int32_t(vo::dims_product(shape, axis + 1, 4));
    softmax->channels = int32_t(shape[axis]);
    softmax->dim = src->capacity / softmax->outerNum;

    shape[axis] = 1;
    if (int status = vo::reshape_tensor_checked(&params->columnBuffer, shape[0], shape[1], shape[2], shape[3]))
        return status;
    if (int status = vo::reshape_tensor_checked(&softmax->sumMultiplier, 1, softmax->channels, 1, 1)) return status;
    vo_set(softmax->sumMultiplier->data, softmax->channels, 1.0f);
    return 0;
}

int forward_softmax(Softmax* softmax, Tensor** inputs, int isize, Tensor** outputs, int osize,
                    ForwardParams* params) {
    if (!softmax || !inputs || !outputs || isize < 1 || osize < 1 || !params) return 7;
    const Tensor* src = inputs[0];
    Tensor* res = outputs[0];
    const int32_t outer = softmax->outerNum, inner = softmax->innerNum, channels = softmax->channels;
    const int64_t dim = softmax->dim;
    VO_CHECK(vo::holds_shape(src) && vo::holds_shape(res), return 5);
    VO_CHECK(res->capacity == src->capacity, return 5);
    VO_CHECK(dim == int64_t(channels) * inner && int64_t(outer) * dim == src->capacity, return 5);
    VO_CHECK(vo::holds_shape(params->columnBuffer) && params->columnBuffer->capacity >= inner, return 5);
    VO_CHECK(vo::holds_shape(softmax->sumMultiplier) && softmax->sumMultiplier->capacity >= channels, return 5);

    float* scale = params->columnBuffer->data;
    if (res->data != src->data) memcpy(res->data, src->data, size_t(src->capacity) * sizeof(float));
    for (int64_t i = 0; i < outer; ++i) {
        const float* s = src->data + i * dim;
        float* r = res->data + i * dim;
        memcpy(scale, s, size_t(inner) * sizeof(float));
        for (int32_t c = 0; c < channels; ++c) vo_max(scale, s + int64_t(c) * inner, inner, scale);
        // r[c][k] -= scale[k] for every channel row, as one rank-1 product.
        vo_gemm(0, 0, channels, inner, 1, -1.0f, softmax->sumMultiplier->data, scale, 1.0f, r);
        vo_set(scale, inner, 0.0f);
        // The sums run in channel order.
        for (int32_t c = 0; c < channels; ++c) {
            float* row = r + int64_t(c) * inner;
            vo_exp(row, row, inner);
            vo_add(scale, row, inner, scale);
        }
        for (int32_t c = 0; c < channels; ++c) {
            float* row = r + int64_t(c) * inner;
            for (int32_t k = 0; k < inner; ++k) row[k] = row[k] / scale[k];
        }
    }
    return 0;
}

void release_softmax(Softmax** softmax) {
    if (!softmax || !*softmax) return;
    release_tensor(&(*softmax)->sumMultiplier);
    free(*softmax);
    *softmax = nullptr;
}

void get_info_softmax(Softmax* softmax, char* text) {
    if (!text) return;
    if (!softmax) {
        snprintf(text, 128, "Softmax");
        return;
    }
    snprintf(text, 128, "Softmax %d", softmax->axis);
}

int forward_softmax_gpu(Softmax*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }
void initial_softmax_cudnn(Softmax*) {}
void reshape_softmax_cudnn(Softmax*, Tensor**, int, Tensor**, int) {}
void release_softmax_cudnn(Softmax*) {}

namespace vo {
const LayerOps kSoftmaxOps = make_layer_ops<Softmax, forward_softmax, reshape_softmax, save_softmax,
                                            release_softmax, get_info_softmax, load_softmax>();
}  // namespace vo
