// Convolution layer (type 2): a 2-D convolution of planar float images with
// a bank of kernels, independent strides and zero padding per direction, and
// an optional per-output-channel bias. No groups, no dilation.
#ifndef VONET_CONVOLUTION_H
#define VONET_CONVOLUTION_H

#include <stdint.h>
#include <stdio.h>

#include <vonet/net.h>
#include <vonet/tensor.h>

struct Convolution {
    Tensor* weights;         // (M output channels, input channels, kernelH, kernelW)
    Tensor* bias;            // (1, M, 1, 1), only when hasBias
    Tensor* winogradKernel;  // built on first use by a fast path; null otherwise
    Tensor* packedKernel;    // built on first use by a fast path; null otherwise
    int32_t strideW;
    int32_t strideH;
    int32_t padW;  // zero columns on the left and on the right
    int32_t padH;  // zero rows on the top and on the bottom
    int32_t is1x1;  // 1x1 kernel, stride 1, no padding: the input is its own column matrix
    uint8_t hasBias;
    uint8_t quantized;
    float* weightScales;   // int8 path only: M per-channel weight scales
    float* dequantScales;  // int8 path only: 1 / (inputScale * weightScales[o])
    float inputScale;      // int8 path only
};

Convolution* create_convolution();
// Reads one record; *result receives the new record, or null on failure.
int load_conv(FILE* stream, void** result);
int save_conv(FILE* stream, Convolution* conv);
int reshape_conv(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                 ForwardParams* params);
int forward_conv(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                 ForwardParams* params);
// The general float path: unfold, one matrix product per image, bias.
int forward_conv_norm(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                      ForwardParams* params);
void release_conv_data(Convolution* conv);
void release_conv(Convolution** conv);
// Writes a one-line description into `text` (128 bytes).
void get_info_conv(Convolution* conv, char* text);

// Accelerator entry points: this build has no accelerator back end.
void initial_conv_cudnn(Convolution* conv);
void reshape_conv_cudnn(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                        ForwardParams* params);
void release_conv_cudnn(Convolution* conv);
int forward_conv_gpu(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                     ForwardParams* params);

// Fast-path slot tables for square kernels of size 0..6 and equal strides
// 1..4, indexed by conv_table_slot(kernel, stride). A null slot has no
// fast path; forward_conv itself never consults the tables.
typedef int (*ConvForwardOp)(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                             int outputCount, ForwardParams* params);
enum { CONV_TABLE_SIZE = 28 };
inline int conv_table_slot(int kernel, int stride) { return kernel * 4 + stride - 1; }
// The slots that have a fast path (null until that path is built).
enum ConvTableSlot {
    CONV_SLOT_1X1_S1 = 4,   // convTableNorm
    CONV_SLOT_3X3_S1 = 12,  // convTableNorm, convTableNormWinograd, convTableQuantize
    CONV_SLOT_3X3_S2 = 13,  // convTableNorm, convTableQuantize
    CONV_SLOT_4X4_S4 = 19,  // convTableNorm
};
extern ConvForwardOp const convTableNorm[CONV_TABLE_SIZE];
extern ConvForwardOp const convTableNormWinograd[CONV_TABLE_SIZE];
extern ConvForwardOp const convTableQuantize[CONV_TABLE_SIZE];

#endif
