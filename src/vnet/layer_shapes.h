// Shape helpers shared by the layer types.
#ifndef VONET_VNET_LAYER_SHAPES_H
#define VONET_VNET_LAYER_SHAPES_H

#include <vonet/tensor.h>

#include <stdint.h>

#include "common/check.h"
#include "vnet/tensor_internal.h"

namespace vo {

// True when the tensor's buffer really holds its shape: a forward pass may
// then touch `capacity` elements. Guards layers run on tensors that were
// not reshaped by them.
inline bool holds_shape(const Tensor* t) {
    return t && t->data && checked_count(t->num, t->channel, t->height, t->width) == t->capacity &&
           t->capacity <= t->allocCount;
}

// The four dimensions in axis order (num, channel, height, width).
inline void axis_dims(const Tensor* t, int64_t dims[4]) {
    dims[0] = t->num;
    dims[1] = t->channel;
    dims[2] = t->height;
    dims[3] = t->width;
}

// Product of dims[first .. last - 1] (1 for an empty range).
inline int64_t dims_product(const int64_t dims[4], int first, int last) {
    int64_t p = 1;
    for (int i = first; i < last; ++i) p *= dims[i];
    return p;
}

// Gives the output the input's shape; an output that is the input itself
// (a layer computed in place) is left alone.
inline int reshape_as_input(Tensor** output, const Tensor* src) {
    if (*output == src) return 0;
    return reshape_tensor_checked(output, src->num, src->channel, src->height, src->width);
}

// The checks below report under the caller's unit, passed as `kUnit`, and
// name their tensors as the layers do (`src` the input, `res` the output),
// so that a failed check reads the same from every layer.

// The input holds its shape and no dimension is empty.
inline bool holds_nonempty(const char* kUnit, const char* op, const Tensor* src) {
    VO_CHECK_IN(op, vo::holds_shape(src), return false);
    VO_CHECK_IN(op, src->num >= 1 && src->channel >= 1 && src->height >= 1 && src->width >= 1, return false);
    return true;
}

// The input's dimensions in axis order, each at least 1.
inline bool nonempty_dims(const char* kUnit, const char* op, const Tensor* src, int64_t shape[4]) {
    axis_dims(src, shape);
    for (int i = 0; i < 4; ++i) VO_CHECK_IN(op, shape[i] >= 1, return false);
    return true;
}

// Output and input have the same shape (a layer that maps value to value).
inline bool same_shape(const char* kUnit, const char* op, const Tensor* src, const Tensor* res) {
    VO_CHECK_IN(op, src->num == res->num, return false);
    VO_CHECK_IN(op, src->width == res->width, return false);
    VO_CHECK_IN(op, src->height == res->height, return false);
    VO_CHECK_IN(op, src->channel == res->channel, return false);
    return true;
}

}  // namespace vo

#endif
