// Inner product (fully connected) layer (type 8): each image of the batch,
// flattened to inputDim values, times an inputDim x outputDim matrix, plus
// an optional bias.
#ifndef VONET_INNER_PRODUCT_H
#define VONET_INNER_PRODUCT_H

#include <stdint.h>
#include <stdio.h>

#include <vonet/net.h>
#include <vonet/tensor.h>

struct InnerProduct {
    Tensor* weights;         // (1, 1, inputDim, outputDim), row-major, input index outermost
    Tensor* bias;            // (1, 1, 1, outputDim), only when hasBias
    Tensor* biasMultiplier;  // (batch, 1, 1, 1) ones, made by reshape
    int32_t inputDim;
    int32_t outputDim;
    uint8_t hasBias;
    uint8_t quantized;
    float inputScale;   // int8 path only
    float weightScale;  // int8 path only
};

InnerProduct* create_inner_product();
// Reads one record; *result receives the new record, or null on failure.
int load_inner_product(FILE* stream, void** result);
int save_inner_product(FILE* stream, InnerProduct* fc);
int reshape_inner_product(InnerProduct* fc, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                          ForwardParams* params);
int forward_inner_product(InnerProduct* fc, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                          ForwardParams* params);
void release_inner_product_data(InnerProduct* fc);
void release_inner_product(InnerProduct** fc);
// Writes a one-line description into `text` (128 bytes).
void get_info_inner_product(InnerProduct* fc, char* text);

// Accelerator entry point: this build has no accelerator back end.
int forward_inner_product_gpu(InnerProduct* fc, Tensor** inputs, int inputCount, Tensor** outputs,
                              int outputCount, ForwardParams* params);

#endif
