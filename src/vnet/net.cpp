#include <vonet/net.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "vnet/tensor_internal.h"

int32_t gNetInitial = 0;

namespace {

// Replaces *array by one of `newCapacity` slots, keeping `size` entries;
// the new slots are null. Returns false (array unchanged) when out of memory.
template <typename T>
bool grow_array(T*** array, uint64_t size, uint64_t newCapacity) {
    T** fresh = static_cast<T**>(calloc(newCapacity, sizeof(T*)));
    if (!fresh) return false;
    if (size) memcpy(fresh, *array, size * sizeof(T*));
    free(*array);
    *array = fresh;
    return true;
}

}  // namespace

void vo_net_initial() { __atomic_store_n(&gNetInitial, 1, __ATOMIC_SEQ_CST); }

void vo_net_destroy() { __atomic_store_n(&gNetInitial, 0, __ATOMIC_SEQ_CST); }

Net* vo_create_net() {
    Net* net = static_cast<Net*>(calloc(1, sizeof(Net)));
    if (!net) return nullptr;
    net->forwardParams = create_forward_params();
    if (!net->forwardParams) {
        free(net);
        return nullptr;
    }
    return net;
}

void net_add_layer(Net* net, Layer* layer) {
    if (!net) return;
    if (net->layerSize >= net->layerCapacity) {
        uint32_t capacity = 2 * net->layerSize + 1;
        if (!grow_array(&net->layers, net->layerSize, capacity)) return;
        net->layerCapacity = capacity;
    }
    net->layers[net->layerSize++] = layer;
}

Tensor* net_tensor_by_name(const Net* net, const char* name) {
    if (!net || !name) return nullptr;
    for (uint32_t i = 0; i < net->tensorSize; ++i) {
        Tensor* t = net->tensors[i];
        if (t && strncmp(t->name, name, sizeof(t->name)) == 0) return t;
    }
    return nullptr;
}

Tensor* net_add_tensor(Net* net, Tensor* tensor) {
    if (!net || !tensor) return nullptr;
    if (Tensor* existing = net_tensor_by_name(net, tensor->name)) return existing;
    if (net->tensorSize >= net->tensorCapacity) {
        uint32_t capacity = 2 * net->tensorSize + 1;
        if (!grow_array(&net->tensors, net->tensorSize, capacity)) return nullptr;
        net->tensorCapacity = capacity;
    }
    net->tensors[net->tensorSize++] = tensor;
    return tensor;
}

Tensor* net_add_tensor_by_name(Net* net, const char* name) {
    if (!net || !name) return nullptr;
    if (Tensor* existing = net_tensor_by_name(net, name)) return existing;
    Tensor* t = create_tensor(1, 1, 1, 1);
    if (!t) return nullptr;
    vo::set_tensor_name(t, name);
    Tensor* registered = net_add_tensor(net, t);
    if (registered != t) release_tensor(&t);
    return registered;
}

int reshape_net(Net* net) {
    // A net without layers has no layer array yet; it is valid and empty.
    if (!net || (!net->layers && net->layerSize != 0)) return 7;
    for (unsigned i = 0; i < net->inputSize; ++i) {
        if (!net->inputs || !net->inputs[i] || net->inputs[i]->capacity == 0) {
            puts("Net input empty");
            return 5;
        }
    }
    for (uint32_t i = 0; i < net->layerSize; ++i) {
        Layer* l = net->layers[i];
        if (!l || !l->forward || !l->reshape) return 5;
        int status = l->reshape(l->runParams, l->inputs, l->isize, l->outputs, l->osize, net->forwardParams);
        if (status != 0) return status;
    }
    return 0;
}

int vo_flowing_net(Net* net) {
    if (!net || (!net->layers && net->layerSize != 0)) return 7;
    for (uint32_t i = 0; i < net->layerSize; ++i) {
        Layer* l = net->layers[i];
        if (!l || !l->forward) return 7;
        int status = l->forward(l->runParams, l->inputs, l->isize, l->outputs, l->osize, net->forwardParams);
        if (status != 0) return status;
    }
    return 0;
}

int vo_forward_net(Net* net, const float* data, int32_t num, int32_t channel, int32_t height, int32_t width) {
    if (!net || net->inputSize != 1 || !net->inputs || !net->inputs[0]) return 7;
    if (!net->layers && net->layerSize != 0) return 7;
    Tensor* in = net->inputs[0];
    if (in->num != num || in->channel != channel || in->height != height || in->width != width) {
        int status = vo::reshape_tensor_checked(&in, num, channel, height, width);
        if (status == 0) status = reshape_net(net);
        if (status != 0) {
            // Leave the input empty so that the next call, whatever its
            // shape, reshapes again instead of running on stale tensors.
            vo::reshape_tensor_checked(&in, 0, 0, 0, 0);
            return status;
        }
    }
    if (in->capacity > 0) {
        if (!data) return 7;
        memcpy(in->data, data, size_t(in->capacity) * sizeof(float));
    }
    return vo_flowing_net(net);
}

namespace {

Tensor* find_in(Tensor* const* list, unsigned size, const char* name) {
    if (!list || !name) return nullptr;
    for (unsigned i = 0; i < size; ++i)
        if (list[i] && strncmp(list[i]->name, name, sizeof(list[i]->name)) == 0) return list[i];
    return nullptr;
}

}  // namespace

Tensor* vo_input_by_name(const Net* net, const char* name) {
    return net ? find_in(net->inputs, net->inputSize, name) : nullptr;
}

Tensor* vo_output_by_name(const Net* net, const char* name) {
    return net ? find_in(net->outputs, net->outputSize, name) : nullptr;
}

void vo_open_winograd(Net* net) {
    if (net && net->forwardParams) net->forwardParams->winograd = 1;
}

void vo_close_winograd(Net* net) {
    if (net && net->forwardParams) net->forwardParams->winograd = 0;
}

void release_layer_data(Layer* layer) {
    if (!layer) return;
    if (layer->release) layer->release(&layer->runParams);
    free(layer->inputs);
    free(layer->outputs);
    free(layer->children);
    memset(layer, 0, sizeof(*layer));
}

void release_layer(Layer** slot) {
    if (!slot || !*slot) return;
    release_layer_data(*slot);
    free(*slot);
    *slot = nullptr;
}

void add_child_layer(Layer* layer, Layer* child) {
    if (!layer) return;
    if (layer->childCapacity <= layer->childSize) {
        int32_t capacity = int32_t(std::fma(double(layer->childSize), 1.2, 1.0));
        if (!grow_array(&layer->children, uint64_t(layer->childSize), uint64_t(capacity))) return;
        layer->childCapacity = capacity;
    }
    layer->children[layer->childSize++] = child;
}

const char* get_info_layer(const Layer* layer) {
    static thread_local char text[128];
    text[0] = '\0';
    if (layer && layer->get_info) layer->get_info(layer->runParams, text);
    text[sizeof(text) - 1] = '\0';
    return text;
}

void release_net_data(Net* net) {
    if (!net) return;
    for (uint32_t i = 0; i < net->layerSize && net->layers; ++i) release_layer(&net->layers[i]);
    for (uint32_t i = 0; i < net->tensorSize && net->tensors; ++i) release_tensor(&net->tensors[i]);
    release_forward_params(&net->forwardParams);
    free(net->layers);
    free(net->tensors);
    free(net->inputs);
    free(net->outputs);
    memset(net, 0, sizeof(*net));
}

void vo_release_net(Net** slot) {
    if (!slot || !*slot) return;
    release_net_data(*slot);
    free(*slot);
    *slot = nullptr;
    vo_net_destroy();
}
