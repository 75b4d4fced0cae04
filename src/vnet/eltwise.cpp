// Eltwise layer: element-wise product, sum (with optional coefficients) or
// maximum of equal-shaped inputs.
#include <vonet/kernels.h>
#include <vonet/normalization.h>

#include <cstdlib>

#include "common/check.h"
#include "common/record_io.h"
#include "vnet/layer_registry.h"
#include "vnet/layer_shapes.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/eltwise";

enum Operation { kProduct = 0, kSum = 1, kMax = 2 };

// The sum reads one coefficient per input.
bool coefficients_cover(const Eltwise* eltwise, int isize) {
    return eltwise->coeffSize == 0 || (eltwise->coeffSize >= isize && eltwise->coeffs);
}

int read_eltwise(FILE* stream, Eltwise* eltwise) {
    constexpr const char* kLoad = "load_eltwise";
    if (!vo::read_fields(stream, kUnit, kLoad, &eltwise->operation, &eltwise->coeffSize)) return 4;
    if (eltwise->coeffSize > 0) {
        VO_CHECK_IN(kLoad, vo::fits_in_file(stream, eltwise->coeffSize, sizeof(float)), return 4);
        eltwise->coeffs = static_cast<float*>(calloc(size_t(eltwise->coeffSize), sizeof(float)));
        VO_CHECK_IN(kLoad, eltwise->coeffs != nullptr, return 4);
        if (!vo::read_values(stream, eltwise->coeffs, eltwise->coeffSize, kUnit, kLoad, "ret == eltwise->coeffSize"))
            return 4;
    }
    return 0;
}

}  // namespace

Eltwise* create_eltwise() { return static_cast<Eltwise*>(calloc(1, sizeof(Eltwise))); }

int load_eltwise(FILE* stream, void** result) {
    if (!stream) return 1;
    return vo::load_record<Eltwise, create_eltwise, read_eltwise, release_eltwise>(stream, result, kUnit, __func__,
                                                                                "eltwise != nullptr");
}

int save_eltwise(FILE* stream, Eltwise* eltwise) {
    if (!stream || !eltwise) return 1;
    if (eltwise->coeffSize > 0 && !eltwise->coeffs) return 7;
    if (!vo::write_fields(stream, kUnit, __func__, eltwise->operation, eltwise->coeffSize)) return 4;
    if (eltwise->coeffSize >= 1 &&
        !vo::write_values(stream, eltwise->coeffs, eltwise->coeffSize, kUnit, __func__, "ret == eltwise->coeffSize"))
        return 4;
    return 0;
}

int reshape_eltwise(Eltwise* eltwise, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    if (!eltwise || !inputs || isize < 2) return 7;
    if (!outputs || osize != 1) return 7;
    for (int i = 0; i < isize; ++i) {
        if (!inputs[i]) return 5;
    }
    if (!outputs[0]) return 5;
    VO_CHECK(coefficients_cover(eltwise, isize), return 5);
    const Tensor* first = inputs[0];
    VO_CHECK(vo::holds_shape(first), return 5);
    VO_CHECK(first->num >= 1 && first->channel >= 1 && first->height >= 1 && first->width >= 1, return 5);
    for (int i = 0; i < isize; ++i) {
        const Tensor* in = inputs[i];
        VO_CHECK(in->num == first->num && in->channel == first->channel, return 5);
        VO_CHECK(in->height == first->height && in->width == first->width, return 5);
        // The passes over the output would overwrite an input before its
        // last use (the weighted sum clears the output first).
        VO_CHECK(in != outputs[0], return 5);
    }
    return vo::reshape_tensor_checked(&outputs[0], first->num, first->channel, first->height, first->width);
}

int forward_eltwise(Eltwise* eltwise, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    if (!eltwise || !inputs || !outputs || isize < 2 || osize < 1) return 7;
    Tensor* res = outputs[0];
    VO_CHECK(vo::holds_shape(res) && vo::holds_shape(inputs[0]), return 5);
    const int32_t count = inputs[0]->capacity;
    VO_CHECK(res->capacity == count, return 5);
    for (int i = 1; i < isize; ++i) VO_CHECK(vo::holds_shape(inputs[i]) && inputs[i]->capacity == count, return 5);
    VO_CHECK(coefficients_cover(eltwise, isize), return 5);

    const float* coeffs = eltwise->coeffs;
    const bool weighted = eltwise->coeffSize != 0;
    float* y = res->data;
    switch (eltwise->operation) {
        case kSum:
            if (weighted && !(coeffs[0] == 1.0f && coeffs[1] == 1.0f)) {
                vo_set(y, count, 0.0f);
                vo_axpy(inputs[0]->data, count, y, coeffs[0]);
                vo_axpy(inputs[1]->data, count, y, coeffs[1]);
            } else {
                vo_add(inputs[0]->data, inputs[1]->data, count, y);
            }
            for (int i = 2; i < isize; ++i) {
                // A NaN coefficient is "not 1" and goes through the fma.
                if (weighted && !(coeffs[i] == 1.0f)) {
                    vo_axpy(inputs[i]->data, count, y, coeffs[i]);
                } else {
                    vo_add(y, inputs[i]->data, count, y);
                }
            }
            break;
        case kMax:
            vo_max(inputs[0]->data, inputs[1]->data, count, y);
            for (int i = 2; i < isize; ++i) vo_max(inputs[i]->data, y, inputs[i]->capacity, y);
            break;
        case kProduct:
            vo_mul(inputs[0]->data, inputs[1]->data, count, y);
            for (int i = 2; i < isize; ++i) vo_mul(inputs[i]->data, y, inputs[i]->capacity, y);
            break;
        default:
            break;
    }
    return 0;
}

void release_eltwise(Eltwise** eltwise) {
    if (!eltwise || !*eltwise) return;
    free((*eltwise)->coeffs);
    free(*eltwise);
    *eltwise = nullptr;
}

void get_info_eltwise(Eltwise* eltwise, char* text) {
    if (!text) return;
    if (!eltwise) {
        snprintf(text, 128, "Eltwise");
        return;
    }
    const char* name = "unknown";
    switch (eltwise->operation) {
        case kSum: name = "sum"; break;
        case kMax: name = "max"; break;
        case kProduct: name = "product"; break;
        default: break;
    }
    snprintf(text, 128, "Eltwise %s", name);
}

int forward_eltwise_gpu(Eltwise*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kEltwiseOps = make_layer_ops<Eltwise, forward_eltwise, reshape_eltwise, save_eltwise,
                                            release_eltwise, get_info_eltwise, load_eltwise>();
}  // namespace vo
