// Deconvolution (transposed convolution) layer (type 16): every input pixel
// scatters a kernel-sized patch into each output channel and overlapping
// patches add up; padding crops the result. No groups, no dilation.
#ifndef VONET_DECONVOLUTION_H
#define VONET_DECONVOLUTION_H

#include <stdint.h>
#include <stdio.h>

#include <vonet/net.h>
#include <vonet/tensor.h>

struct Deconv {
    Tensor* weights;  // (Ci input channels, Co output channels, kernelH, kernelW)
    Tensor* bias;     // (1, Co, 1, 1), only when hasBias
    int32_t strideW;
    int32_t strideH;
    int32_t padW;  // columns cropped on the left and on the right
    int32_t padH;  // rows cropped on the top and on the bottom
    int32_t is1x1;  // 1x1 kernel, stride 1, no padding: no fold needed
    uint8_t hasBias;
};

Deconv* create_deconv();
// Reads one record; *result receives the new record, or null on failure.
int load_deconv(FILE* stream, void** result);
int save_deconv(FILE* stream, Deconv* deconv);
int reshape_deconv(Deconv* deconv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                   ForwardParams* params);
int forward_deconv(Deconv* deconv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                   ForwardParams* params);
void release_deconv_data(Deconv* deconv);
void release_deconv(Deconv** deconv);
// Writes a one-line description into `text` (128 bytes).
void get_info_deconv(Deconv* deconv, char* text);

// Accelerator entry points: this build has no accelerator back end.
void initial_deconv_cudnn(Deconv* deconv);
void reshape_deconv_cudnn(Deconv* deconv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                          ForwardParams* params);
void release_deconv_cudnn(Deconv* deconv);
int forward_deconv_gpu(Deconv* deconv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                       ForwardParams* params);

#endif
