// Slice layer: cuts its input along one axis at fixed points.
#include <vonet/tensor_layers.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "common/record_io.h"
#include "vnet/layer_registry.h"
#include "vnet/layer_shapes.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/slice";
constexpr const char* kLoad = "load_slice";

int read_slice(FILE* stream, Slice* slice) {
    if (!vo::read_fields(stream, kUnit, kLoad, &slice->axis, &slice->size)) return 4;
    VO_CHECK_IN(kLoad, slice->axis >= 0 && slice->axis <= 3, return 4);
    VO_CHECK_IN(kLoad, slice->size >= 0, return 4);
    VO_CHECK_IN(kLoad, vo::fits_in_file(stream, slice->size, sizeof(int32_t)), return 4);
    slice->points = static_cast<int32_t*>(calloc(size_t(slice->size) + 1, sizeof(int32_t)));
    VO_CHECK_IN(kLoad, slice->points != nullptr, return 4);
    if (!vo::read_values(stream, slice->points, slice->size, kUnit, kLoad, "ret == slice->size")) return 4;
    // Every part must be non-empty; the input-independent half of that is
    // checked here, the last part against the input at reshape.
    int32_t previous = 0;
    for (int32_t k = 0; k < slice->size; ++k) {
        VO_CHECK_IN(kLoad, slice->points[k] > previous, return 4);
        previous = slice->points[k];
    }
    return 0;
}

}  // namespace

Slice* create_slice() { return static_cast<Slice*>(calloc(1, sizeof(Slice))); }

int load_slice(FILE* stream, void** result) {
    return vo::load_record<Slice, create_slice, read_slice, release_slice>(stream, result, kUnit, __func__,
                                                                        "slice != nullptr");
}

int save_slice(FILE* stream, Slice* slice) {
    if (!stream || !slice) return 7;
    if (!vo::write_fields(stream, kUnit, __func__, slice->axis, slice->size)) return 4;
    if (slice->size > 0) {
        VO_CHECK(slice->points != nullptr, return 7);
        if (!vo::write_values(stream, slice->points, slice->size, kUnit, __func__, "ret == slice->size")) return 4;
    }
    return 0;
}

int reshape_slice(Slice* slice, Tensor** inputs, int isize, Tensor** ress, int osize, ForwardParams*) {
    if (!slice || !inputs || !ress || isize != 1 || osize < 2) return 7;
    const Tensor* src = inputs[0];
    if (!src) return 5;
    if (slice->axis < 0 || slice->axis > 3 || (slice->size > 0 && !slice->points)) return 7;
    VO_CHECK(osize == slice->size + 1, return 5);
    VO_CHECK(vo::holds_shape(src), return 5);
    for (int j = 0; j < osize; ++j) {
        VO_CHECK(ress[j] != nullptr && ress[j] != src, return 5);
        for (int k = 0; k < j; ++k) VO_CHECK(ress[j] != ress[k], return 5);
    }
    int64_t shape[4];
    if (!vo::nonempty_dims(kUnit, __func__, src, shape)) return 5;
    const int64_t total = shape[slice->axis];

    // Every part is checked before the first output changes.
    int64_t previous = 0;
    for (int32_t k = 0; k <= slice->size; ++k) {
        const int64_t point = k < slice->size ? slice->points[k] : total;
        shape[slice->axis] = point - previous;
        VO_CHECK(shape[slice->axis] > 0, return 5);
        previous = point;
    }
    previous = 0;
    for (int32_t k = 0; k <= slice->size; ++k) {
        const int64_t point = k < slice->size ? slice->points[k] : total;
        shape[slice->axis] = point - previous;
        if (int status = vo::reshape_tensor_checked(&ress[k], shape[0], shape[1], shape[2], shape[3])) return status;
        previous = point;
    }
    vo::axis_dims(src, shape);
    slice->outerNum = int32_t(vo::dims_product(shape, 0, slice->axis));
    slice->innerNum = int32_t(vo::dims_product(shape, slice->axis + 1, 4));
    return 0;
}

int forward_slice(Slice* slice, Tensor** inputs, int isize, Tensor** ress, int osize, ForwardParams*) {
    if (!slice || !inputs || !ress || isize < 1 || slice->axis < 0 || slice->axis > 3) return 7;
    const Tensor* src = inputs[0];
    const int64_t outer = slice->outerNum, inner = slice->innerNum;
    VO_CHECK(vo::holds_shape(src), return 5);
    const int64_t total = shape_tensor(src, slice->axis);
    VO_CHECK(src->capacity == outer * total * inner, return 5);
    // Checked in full first: a failure leaves every output untouched.
    int64_t sum = 0;
    for (int j = 0; j < osize; ++j) {
        VO_CHECK(vo::holds_shape(ress[j]) && ress[j] != src, return 5);
        const int64_t n = shape_tensor(ress[j], slice->axis);
        VO_CHECK(ress[j]->capacity == outer * n * inner, return 5);
        sum += n;
    }
    VO_CHECK(sum <= total, return 5);

    int64_t offset = 0;
    for (int j = 0; j < osize; ++j) {
        const int64_t n = shape_tensor(ress[j], slice->axis);
        for (int64_t o = 0; o < outer; ++o) {
            memcpy(ress[j]->data + o * n * inner, src->data + (o * total + offset) * inner,
                   size_t(n * inner) * sizeof(float));
        }
        offset += n;
    }
    return 0;
}

void release_slice(Slice** slice) {
    if (!slice || !*slice) return;
    free((*slice)->points);
    free(*slice);
    *slice = nullptr;
}

void get_info_slice(Slice* slice, char* text) {
    if (!text) return;
    if (!slice) {
        snprintf(text, 128, "Slice");
        return;
    }
    snprintf(text, 128, "Slice: %d %d", slice->axis, slice->size);
}

int forward_slice_gpu(Slice*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kSliceOps = make_layer_ops<Slice, forward_slice, reshape_slice, save_slice, release_slice,
                                          get_info_slice, load_slice>();
}  // namespace vo
