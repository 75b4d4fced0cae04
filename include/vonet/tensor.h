// Tensor: the one data container of the network runtime.
#ifndef VONET_TENSOR_H
#define VONET_TENSOR_H

#include <stdint.h>
#include <stdio.h>

// A named four-axis array of 4-byte elements. The logical axis order is
// (num, channel, height, width); note the different declaration order.
// The buffer only grows, so reshaping to an equal or smaller size never
// allocates.
struct Tensor {
    char name[32];
    float* data;
    int32_t num;
    int32_t width;
    int32_t height;
    int32_t channel;
    int32_t allocCount;  // elements the buffer can hold
    int32_t capacity;    // elements in use: num * channel * height * width
};

Tensor* create_tensor(int32_t num, int32_t channel, int32_t height, int32_t width);
// Returns the tensor to use from now on (a new one when `tensor` is null).
Tensor* reshape_tensor(Tensor* tensor, int32_t num, int32_t channel, int32_t height, int32_t width);
int32_t shape_tensor(const Tensor* tensor, int32_t axis);
int32_t count_tensor(const Tensor* tensor, int32_t axis);
void release_tensor_data(Tensor* tensor);
void release_tensor(Tensor** slot);

void print_tensor(const Tensor* tensor, FILE* stream);
void print_tensor_to_file(const Tensor* tensor, const char* path);
void print_tensor_to_file_s8(const Tensor* tensor, const char* path);
void print_tensor_to_file_s32(const Tensor* tensor, const char* path);

// Accelerator entry points: this build has no accelerator back end.
float* tensor_cpu_data(Tensor* tensor);
float* tensor_mutable_cpu_data(Tensor* tensor);
float* tensor_gpu_data(Tensor* tensor);
float* tensor_mutable_gpu_data(Tensor* tensor);
void synchronize_tensor(Tensor* tensor);

#endif
