// SReLU: the negative part, y = x < 0 ? x : 0 (NaN and -0.0 give +0.0).
#include <vonet/activation.h>
#include <vonet/kernels.h>

#include <cstdlib>
#include <cstring>

#include "vnet/activation_common.h"
#include "vnet/layer_registry.h"

SReLU* create_srelu() { return static_cast<SReLU*>(calloc(1, sizeof(SReLU))); }

int load_srelu(FILE* stream, void** result) { return vo::load_empty_record<SReLU, create_srelu>(stream, result); }

int save_srelu(FILE* stream, SReLU* relu) { return relu && stream ? 0 : 7; }

int reshape_srelu(SReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    return vo::reshape_one_to_one(relu, inputs, isize, outputs, osize, true);
}

int forward_srelu(SReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    return vo::forward_elementwise(relu, inputs, isize, outputs, osize, vo::input_capacity(inputs, isize),
                                   [](const Tensor* x, Tensor* y) {
                                       vo_min_scalar(x->data, y->data, x->capacity, 0.0f);
                                   });
}

void release_srelu(SReLU** slot) { vo::free_record(slot); }

// The same text as ReLU: model listings do not tell the two apart.
void get_info_srelu(SReLU*, char* text) {
    if (text) strcpy(text, "ReLU");
}

int forward_srelu_gpu(SReLU*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kSreluOps =
    make_layer_ops<SReLU, forward_srelu, reshape_srelu, save_srelu, release_srelu, get_info_srelu, load_srelu>();
}  // namespace vo
