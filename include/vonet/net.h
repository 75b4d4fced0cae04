// Network runtime: the net, its layers, the forward pass and the model file.
#ifndef VONET_NET_H
#define VONET_NET_H

#include <stdint.h>
#include <stdio.h>

#include <vonet/tensor.h>

// Per-net scratch shared by all layers of one net. Every tensor starts as
// 1 x 1 x 1 x 1 and is grown by the layers that use it.
struct ForwardParams {
    Tensor* inputBuffer;
    Tensor* outputBuffer;
    Tensor* columnBuffer;
    int32_t winograd;  // while set, float 3x3 stride-1 convolutions take the Winograd path
    Tensor* padBuffer;
    Tensor* winogradOutput;
    Tensor* winogradInput;
    Tensor* winogradProduct;
};

// Layer type ids as stored in the model file.
enum LayerType {
    LAYER_CONVOLUTION = 2,
    LAYER_RELU = 3,
    LAYER_PRELU = 4,
    LAYER_BATCHNORM = 5,
    LAYER_POOLING = 6,
    LAYER_CONCAT = 7,
    LAYER_INNER_PRODUCT = 8,
    LAYER_SOFTMAX = 9,
    LAYER_SLICE = 10,
    LAYER_ABS = 11,
    LAYER_ELTWISE = 12,
    LAYER_FLATTEN = 13,
    LAYER_DROPOUT = 14,
    LAYER_SRELU = 15,
    LAYER_DECONVOLUTION = 16,
    LAYER_PIECE = 17,
    LAYER_NORMALIZE = 18,
};

// The layer operation table; `params` is the type's own parameter record.
typedef int (*LayerForwardOp)(void* params, Tensor** inputs, int isize, Tensor** outputs, int osize,
                              ForwardParams* forwardParams);
typedef int (*LayerReshapeOp)(void* params, Tensor** inputs, int isize, Tensor** outputs, int osize,
                              ForwardParams* forwardParams);
typedef int (*LayerSaveOp)(FILE* stream, void* params);
typedef void (*LayerReleaseOp)(void** params);
typedef void (*LayerGetInfoOp)(void* params, char* text);

struct Layer {
    int32_t type;
    char name[32];
    void* params;
    void* runParams;
    LayerForwardOp forward;
    LayerReshapeOp reshape;
    LayerSaveOp save;
    LayerReleaseOp release;
    LayerGetInfoOp get_info;
    Tensor** inputs;
    uint8_t isize;
    Tensor** outputs;
    uint8_t osize;
    Layer** children;
    int32_t childSize;
    int32_t childCapacity;
};

struct Net {
    Layer** layers;
    uint32_t layerSize;
    uint32_t layerCapacity;
    Tensor** tensors;  // registry of every tensor, owned by the net
    uint32_t tensorSize;
    uint32_t tensorCapacity;
    Tensor** inputs;   // entries point into the registry
    uint8_t inputSize;
    Tensor** outputs;  // entries point into the registry
    uint8_t outputSize;
    ForwardParams* forwardParams;
};

// 1 after a net was loaded, 0 after a net was released.
extern int32_t gNetInitial;

Net* vo_create_net();
void net_add_layer(Net* net, Layer* layer);
Tensor* net_tensor_by_name(const Net* net, const char* name);
Tensor* net_add_tensor(Net* net, Tensor* tensor);
Tensor* net_add_tensor_by_name(Net* net, const char* name);
int reshape_net(Net* net);
int vo_flowing_net(Net* net);
int vo_forward_net(Net* net, const float* data, int32_t num, int32_t channel, int32_t height, int32_t width);
Tensor* vo_input_by_name(const Net* net, const char* name);
Tensor* vo_output_by_name(const Net* net, const char* name);
void vo_open_winograd(Net* net);
void vo_close_winograd(Net* net);
void release_net_data(Net* net);
void vo_release_net(Net** slot);
void vo_net_initial();
void vo_net_destroy();

ForwardParams* create_forward_params();
void release_forward_params(ForwardParams** slot);

void release_layer_data(Layer* layer);
void release_layer(Layer** slot);
void add_child_layer(Layer* layer, Layer* child);
// The text stays valid until the next call on the same thread.
const char* get_info_layer(const Layer* layer);

// Model files.
int vo_load_net(const char* path, Net** slot);
int vo_save_net(const char* path, const Net* net);
Layer* create_layer(int32_t type, const char* name);
int load_layer(FILE* stream, Layer* layer);

#endif
