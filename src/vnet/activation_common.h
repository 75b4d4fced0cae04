// Operations and argument checks shared by the element-wise activation
// layers.
#ifndef VONET_VNET_ACTIVATION_COMMON_H
#define VONET_VNET_ACTIVATION_COMMON_H

#include <vonet/net.h>

#include <stdio.h>

#include "vnet/layer_shapes.h"
#include "vnet/tensor_internal.h"

namespace vo {

// Reshape of ReLU, SReLU, PReLU and Dropout: 7 for a missing record or
// tensor array or a count other than 1, 5 for a missing input tensor;
// otherwise the output takes the input's shape. With `inPlaceDone` an
// output that is the input itself is left alone.
inline int reshape_one_to_one(const void* params, Tensor** inputs, int isize, Tensor** outputs, int osize,
                              bool inPlaceDone) {
    if (!params || !inputs) return 7;
    if (!outputs || isize != 1 || osize != 1) return 7;
    const Tensor* src = inputs[0];
    if (!src) return 5;
    if (inPlaceDone) return reshape_as_input(&outputs[0], src);
    return reshape_tensor_checked(&outputs[0], src->num, src->channel, src->height, src->width);
}

// Forward guard: the input and output exist and the output's buffer can
// take `count` elements, so a net whose tensors were reshaped by another
// layer never writes past a buffer. 0 when usable.
inline int forward_tensors_ok(Tensor** inputs, int isize, Tensor** outputs, int osize, int64_t count) {
    if (!inputs || !outputs || isize < 1 || osize < 1) return 7;
    const Tensor* src = inputs[0];
    const Tensor* res = outputs[0];
    if (!src || !res || count < 0 || count > src->allocCount || count > res->allocCount) return 5;
    if (count > 0 && (!src->data || !res->data)) return 5;
    return 0;
}

// Load of a record without parameters (ReLU, SReLU, Abs): nothing is read.
template <typename R, R* (*Create)()>
int load_empty_record(FILE* stream, void** result) {
    if (!stream) return 4;
    if (!result) return 2;
    *result = Create();
    return *result ? 0 : 4;
}

// The elements a forward pass of ReLU, SReLU and Dropout covers: the
// input's capacity, 0 without an input.
inline int64_t input_capacity(Tensor** inputs, int isize) {
    return inputs && isize > 0 && inputs[0] ? inputs[0]->capacity : 0;
}

// Forward of an element-wise layer over `count` elements: 7 without a
// record, the status of forward_tensors_ok when the tensors cannot take
// them, otherwise `apply(input, output)` runs and 0 is returned.
template <typename Apply>
int forward_elementwise(const void* record, Tensor** inputs, int isize, Tensor** outputs, int osize, int64_t count,
                        Apply apply) {
    if (!record) return 7;
    if (int status = forward_tensors_ok(inputs, isize, outputs, osize, count)) return status;
    apply(inputs[0], outputs[0]);
    return 0;
}

}  // namespace vo

#endif
