// ReLU: the positive part, y = x > 0 ? x : 0 (NaN and -0.0 give +0.0).
#include <vonet/activation.h>
#include <vonet/kernels.h>

#include <cstdlib>
#include <cstring>

#include "vnet/activation_common.h"
#include "vnet/layer_registry.h"

ReLU* create_relu() { return static_cast<ReLU*>(calloc(1, sizeof(ReLU))); }

int load_relu(FILE* stream, void** result) { return vo::load_empty_record<ReLU, create_relu>(stream, result); }

int save_relu(FILE* stream, ReLU* relu) { return relu && stream ? 0 : 7; }

int reshape_relu(ReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    return vo::reshape_one_to_one(relu, inputs, isize, outputs, osize, true);
}

int forward_relu(ReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    return vo::forward_elementwise(relu, inputs, isize, outputs, osize, vo::input_capacity(inputs, isize),
                                   [](const Tensor* x, Tensor* y) {
                                       vo_max_scalar(x->data, y->data, x->capacity, 0.0f);
                                   });
}

void release_relu(ReLU** slot) { vo::free_record(slot); }

void get_info_relu(ReLU*, char* text) {
    if (text) strcpy(text, "ReLU");
}

int forward_relu_gpu(ReLU*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }
void initial_relu_cudnn(ReLU*) {}
void reshape_relu_cudnn(ReLU*, Tensor**, int, Tensor**, int) {}
void release_relu_cudnn(ReLU*) {}

namespace vo {
const LayerOps kReluOps =
    make_layer_ops<ReLU, forward_relu, reshape_relu, save_relu, release_relu, get_info_relu, load_relu>();
}  // namespace vo
