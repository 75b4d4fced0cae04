// SReLU: the negative part, y = x < 0 ? x : 0 (NaN and -0.0 give +0.0).
#include <vonet/activation.h>
#include <vonet/kernels.h>

#include <cstdlib>
#include <cstring>

#include "vnet/activation_common.h"
#include "vnet/layer_registry.h"

SReLU* create_srelu() { return static_cast<SReLU*>(calloc(1, sizeof(SReLU))); }

int load_srelu(FILE* stream, void** result) {
    if (!stream) return 4;
    if (!result) return 2;
    *result = create_srelu();
    return *result ? 0 : 4;
}

int save_srelu(FILE* stream, SReLU* relu) { return relu && stream ? 0 : 7; }

int reshape_srelu(SReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    return vo::reshape_one_to_one(relu, inputs, isize, outputs, osize, true);
}

int forward_srelu(SReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    if (!relu) return 7;
    const int64_t count = inputs && isize > 0 && inputs[0] ? inputs[0]->capacity : 0;
    if (int status = vo::forward_tensors_ok(inputs, isize, outputs, osize, count)) return status;
    vo_min_scalar(inputs[0]->data, outputs[0]->data, inputs[0]->capacity, 0.0f);
    return 0;
}

void release_srelu(SReLU** slot) {
    if (!slot || !*slot) return;
    free(*slot);
    *slot = nullptr;
}

// The same text as ReLU: model listings do not tell the two apart.
void get_info_srelu(SReLU*, char* text) {
    if (text) strcpy(text, "ReLU");
}

int forward_srelu_gpu(SReLU*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kSreluOps =
    make_layer_ops<SReLU, forward_srelu, reshape_srelu, save_srelu, release_srelu, get_info_srelu, load_srelu>();
}  // namespace vo
