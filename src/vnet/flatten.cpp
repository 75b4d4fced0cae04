// Flatten layer: merges a range of axes into one.
#include <vonet/tensor_layers.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
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

}  // namespace

Flatten* create_flatten() { return static_cast<Flatten*>(calloc(1, sizeof(Flatten))); }

int load_flatten(FILE* stream, void** result) {
    if (!stream) return 4;
    if (!result) return 2;
    *result = nullptr;
    Flatten* flatten = create_flatten();
    VO_CHECK(flatten != nullptr, return 4);
    size_t ret = fread(&flatten->startAxis, 1, 1, stream);
    VO_CHECK(ret == 1, { release_flatten(&flatten); return 4; });
    ret = fread(&flatten->endAxis, 1, 1, stream);
    VO_CHECK(ret == 1, { release_flatten(&flatten); return 4; });
    const int start = axis_index(flatten->startAxis), end = axis_index(flatten->endAxis);
    VO_CHECK(start >= 0 && start <= 3, { release_flatten(&flatten); return 4; });
    VO_CHECK(end >= 0 && end <= 3, { release_flatten(&flatten); return 4; });
    VO_CHECK(start <= end, { release_flatten(&flatten); return 4; });
    *result = flatten;
    return 0;
}

int save_flatten(FILE* stream, Flatten* flatten) {
    if (!stream || !flatten) return 7;
    size_t ret = fwrite(&flatten->startAxis, 1, 1, stream);
    VO_CHECK(ret == 1, return 4);
    ret = fwrite(&flatten->endAxis, 1, 1, stream);
    VO_CHECK(ret == 1, return 4);
    return 0;
}

int reshape_flatten(Flatten* flatten, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    if (!flatten || !inputs || !outputs || isize != 1 || osize != 1) return 7;
    const Tensor* src = inputs[0];
    if (!src || !outputs[0]) return 5;
    if (!valid_axes(flatten)) return 7;  // refused at load; only a record built in memory
    VO_CHECK(vo::holds_shape(src), return 5);
    int64_t shape[4];
    vo::axis_dims(src, shape);
    for (int i = 0; i < 4; ++i) VO_CHECK(shape[i] >= 1, return 5);
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

void release_flatten(Flatten** flatten) {
    if (!flatten) return;
    free(*flatten);
    *flatten = nullptr;
}

void get_info_flatten(Flatten*, char* text) {
    if (text) snprintf(text, 128, "Flatten");
}

int forward_flatten_gpu(Flatten*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kFlattenOps = make_layer_ops<Flatten, forward_flatten, reshape_flatten, save_flatten,
                                            release_flatten, get_info_flatten, load_flatten>();
}  // namespace vo
