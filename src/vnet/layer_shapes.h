// Shape helpers shared by the layer types.
#ifndef VONET_VNET_LAYER_SHAPES_H
#define VONET_VNET_LAYER_SHAPES_H

#include <vonet/tensor.h>

#include <stdint.h>

#include "common/check.h"

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

}  // namespace vo

#endif
