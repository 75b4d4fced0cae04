// Softmax layer: normalises its input into probabilities along one axis.
#ifndef VONET_SOFTMAX_H
#define VONET_SOFTMAX_H

#include <stdint.h>
#include <stdio.h>

#include <vonet/net.h>
#include <vonet/tensor.h>

// Model-file record: int32 axis. The other fields are set by reshape.
struct Softmax {
    int32_t axis;      // 0 num, 1 channel, 2 height, 3 width
    int32_t innerNum;  // product of the input's dimensions after axis
    int32_t outerNum;  // product of the input's dimensions before axis
    int32_t channels;  // the input's size along axis
    int32_t dim;       // channels * innerNum: distance between outer blocks
    Tensor* sumMultiplier;  // (1, channels, 1, 1) ones, owned
};

Softmax* create_softmax();
int load_softmax(FILE* stream, void** result);
int save_softmax(FILE* stream, Softmax* softmax);
// Also sizes params->columnBuffer, the forward pass's row of maxima and sums.
int reshape_softmax(Softmax* softmax, Tensor** inputs, int isize, Tensor** outputs, int osize,
                    ForwardParams* params);
int forward_softmax(Softmax* softmax, Tensor** inputs, int isize, Tensor** outputs, int osize,
                    ForwardParams* params);
void release_softmax(Softmax** softmax);
void get_info_softmax(Softmax* softmax, char* text);

// Accelerator entry points: this build has no accelerator back end.
int forward_softmax_gpu(Softmax* softmax, Tensor** inputs, int isize, Tensor** outputs, int osize,
                        ForwardParams* params);
void initial_softmax_cudnn(Softmax* softmax);
void reshape_softmax_cudnn(Softmax* softmax, Tensor** inputs, int isize, Tensor** outputs, int osize);
void release_softmax_cudnn(Softmax* softmax);

#endif
