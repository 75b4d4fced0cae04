// Abs: y = x with the sign bit cleared.
#include <vonet/activation.h>
#include <vonet/kernels.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "vnet/activation_common.h"
#include "vnet/layer_registry.h"

Abs* create_abs() { return static_cast<Abs*>(calloc(1, sizeof(Abs))); }

int load_abs(FILE* stream, void** result) { return vo::load_empty_record<Abs, create_abs>(stream, result); }

// Nothing is written, so only the record is required.
int save_abs(FILE*, Abs* abs) { return abs ? 0 : 7; }

int reshape_abs(Abs* abs, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    if (!abs || !inputs || !outputs) return 7;
    const Tensor* src = inputs[0];
    if (!src || isize != 1) return 5;
    if (!outputs[0] || osize != 1) return 5;
    return vo::reshape_tensor_checked(&outputs[0], src->num, src->channel, src->height, src->width);
}

int forward_abs(Abs* abs, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    int64_t count = 0;
    if (inputs && isize > 0 && inputs[0]) {
        const Tensor* src = inputs[0];
        count = vo::checked_count(src->num, src->channel, src->width, src->height);
    }
    return vo::forward_elementwise(abs, inputs, isize, outputs, osize, count,
                                   [count](const Tensor* x, Tensor* y) { vo_abs(x->data, y->data, int32_t(count)); });
}

void release_abs(Abs** slot) { vo::free_record(slot); }

void get_info_abs(Abs*, char* text) {
    if (text) strcpy(text, "Abs");
}

int forward_abs_gpu(Abs*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kAbsOps = make_layer_ops<Abs, forward_abs, reshape_abs, save_abs, release_abs, get_info_abs, load_abs>();
}  // namespace vo
