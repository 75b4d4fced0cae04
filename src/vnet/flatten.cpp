// Flatten layer: merges a range of axes into one.
#include <vonet/tensor_layers.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "common/record_io.h"
#include "vnet/layer_registry.h"
#include "vnet/layer_shapes.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/flatten";

// A negative axis counts from the end.
int axis_index(int8_t axis) { return axis < 0 ? axis + 4 : axis; }

bool valid_axes(const Flatten* f) {
    const int start = axis_index(f->startAxis), end = axis_index(f->endAxis);
    return start >= 0 && start <= 3 && end >= 0 && end <= 3 && start <= end;
}

int read_flatten(FILE* stream, Flatten* flatten) {
    constexpr const char* kLoad = "load_flatten";
    if (!vo::read_fields(stream, kUnit, kLoad, &flatten->startAxis, &flatten->endAxis)) return 4;
    const int start = axis_index(flatten->startAxis), end = axis_index(flatten->endAxis);
    VO_CHECK_IN(kLoad, start >= 0 && start <= 3, return 4);
    VO_CHECK_IN(kLoad, end >= 0 && end <= 3, return 4);
    VO_CHECK_IN(kLoad, start <= end, return 4);
    return 0;
}

}  // namespace

Flatten* create_flatten() { return static_cast<Flatten*>(calloc(1, sizeof(Flatten))); }

int load_flatten(FILE* stream, void** result) {
    return vo::load_record<Flatten, create_flatten, read_flatten, release_flatten>(stream, result, kUnit, __func__,
                                                                                "flatten != nullptr");
}

int save_flatten(FILE* stream, Flatten* flatten) {
    if (!stream || !flatten) return 7;
    return vo::write_fields(stream, kUnit, __func__, flatten->startAxis, flatten->endAxis) ? 0 : 4;
}

int reshape_flatten(Flatten* flatten, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    if (!flatten || !inputs || !outputs || isize != 1 || osize != 1) return 7;
    const Tensor* src = inputs[0];
    if (!src || !outputs[0]) return 5;
    if (!valid_axes(flatten)) return 7;  // refused at load; only a record built in memory
    VO_CHECK(vo::holds_shape(src), return 5);
    int64_t shape[4];
    if (!vo::nonempty_dims(kUnit, __func__, src, shape)) return 5;
    const int start = axis_index(flatten->startAxis), end = axis_index(flatten->endAxis);
    int64_t merged[4] = {1, 1, 1, 1};
    for (int i = 0; i < start; ++i) merged[i] = shape[i];
    merged[start] = vo::dims_product(shape, start, end + 1);
    for (int i = end + 1; i < 4; ++i) merged[start + 1 + i - (end + 1)] = shape[i];
    // In place is allowed: the output is the input's data under a new shape.
    return vo::reshape_tensor_checked(&outputs[0], merged[0], merged[1], merged[2], merged[3]);
}

int forward_flatten(Flatten* flatten, Tensor** inputs, int, Tensor** outputs, int, ForwardParams*) {
    if (!flatten) return 7;
    if (!inputs || !outputs) return 7;
    const Tensor* src = inputs[0];
    Tensor* res = outputs[0];
    VO_CHECK(vo::holds_shape(src) && vo::holds_shape(res), return 5);
    VO_CHECK(src->capacity == res->capacity, return 5);
    if (src->data != res->data) memcpy(res->data, src->data, size_t(src->capacity) * sizeof(float));
    return 0;
}

void release_flatten(Flatten** flatten) { vo::free_record(flatten); }

void get_info_flatten(Flatten*, char* text) {
    if (text) snprintf(text, 128, "Flatten");
}

int forward_flatten_gpu(Flatten*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kFlattenOps = make_layer_ops<Flatten, forward_flatten, reshape_flatten, save_flatten,
                                            release_flatten, get_info_flatten, load_flatten>();
}  // namespace vo
