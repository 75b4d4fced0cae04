// ReLU: the positive part, y = x > 0 ? x : 0 (NaN and -0.0 give +0.0).
#include <vonet/activation.h>
#include <vonet/kernels.h>

#include <cstdlib>
#include <cstring>

#include "vnet/activation_common.h"
#include "vnet/layer_registry.h"

ReLU* create_relu() { return static_cast<ReLU*>(calloc(1, sizeof(ReLU))); }

int load_relu(FILE* stream, void** result) {
    if (!stream) return 4;
    if (!result) return 2;
    *result = create_relu();
    return *result ? 0 : 4;
}

int save_relu(FILE* stream, ReLU* relu) { return relu && stream ? 0 : 7; }

int reshape_relu(ReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    return vo::reshape_one_to_one(relu, inputs, isize, outputs, osize, true);
}

int forward_relu(ReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    if (!relu) return 7;
    const int64_t count = inputs && isize > 0 && inputs[0] ? inputs[0]->capacity : 0;
    if (int status = vo::forward_tensors_ok(inputs, isize, outputs, osize, count)) return status;
    vo_max_scalar(inputs[0]->data, outputs[0]->data, inputs[0]->capacity, 0.0f);
    return 0;
}

void release_relu(ReLU** slot) {
    if (!slot || !*slot) return;
    free(*slot);
    *slot = nullptr;
}

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
