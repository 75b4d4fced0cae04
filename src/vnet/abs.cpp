// Abs: y = x with the sign bit cleared.
#include <vonet/activation.h>
#include <vonet/kernels.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "vnet/activation_common.h"
#include "vnet/layer_registry.h"

Abs* create_abs() { return static_cast<Abs*>(calloc(1, sizeof(Abs))); }

int load_abs(FILE* stream, void** result) {
    if (!stream) return 4;
    if (!result) return 2;
    *result = create_abs();
    return *result ? 0 : 4;
}

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
    if (!abs) return 7;
    int64_t count = 0;
    if (inputs && isize > 0 && inputs[0]) {
        const Tensor* src = inputs[0];
        count = vo::checked_count(src->num, src->channel, src->width, src->height);
    }
    if (int status = vo::forward_tensors_ok(inputs, isize, outputs, osize, count)) return status;
    vo_abs(inputs[0]->data, outputs[0]->data, int32_t(count));
    return 0;
}

void release_abs(Abs** slot) {
    if (!slot || !*slot) return;
    free(*slot);
    *slot = nullptr;
}

void get_info_abs(Abs*, char* text) {
    if (text) strcpy(text, "Abs");
}

int forward_abs_gpu(Abs*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kAbsOps = make_layer_ops<Abs, forward_abs, reshape_abs, save_abs, release_abs, get_info_abs, load_abs>();
}  // namespace vo
