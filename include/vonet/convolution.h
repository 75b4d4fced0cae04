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
    // Library-private state of the fast paths (chosen path, extra packings);
    // null until first used, released with the layer.
    struct VoConvPrivate* internal;
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

// ---- Direct paths: no column matrix ------------------------------------
// Each pads the input image once and hands blocks of output channels and
// rows to small block kernels. Same arguments as forward_conv; they trust
// a successful reshape_conv and return 0.
int forward_conv_1x1s1(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                       ForwardParams* params);
int forward_conv_3x3s1(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                       ForwardParams* params);
int forward_conv_3x3s2(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                       ForwardParams* params);
int forward_conv_4x4s4(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                       ForwardParams* params);

// Copies image n of src into res with padW zero columns left and padH zero
// rows on top; everything else in res becomes zero. elementSize is 4 for
// float images and 1 for 8-bit ones.
void conv_pad_round(Tensor* src, int n, int padW, int padH, Tensor* res, int elementSize);

// Weight and data packings of the direct paths (new tensors are owned by
// the caller).
Tensor* conv1x1s1_transform_kernel(Tensor* weights);
Tensor* conv3x3s2_transform_kernel(Tensor* weights);
void conv_1x1s1_data_packed(Tensor* padded, Tensor* packed);

// One image each: `bias` is the bias tensor or null, `output` the first of
// outC planes of outH x outW floats.
void conv_1x1s1_packed(Tensor* packedData, Tensor* packedKernel, Tensor* bias, float* output, int outC, int outH,
                       int outW);
void conv_3x3s1(Tensor* padded, Tensor* weights, Tensor* bias, float* output, int outC, int outH, int outW);
void conv_3x3s2(Tensor* padded, Tensor* weights, Tensor* bias, float* output, int outC, int outH, int outW);
void conv_3x3s2_packed(Tensor* padded, Tensor* packedKernel, Tensor* bias, float* output, int outC, int outH,
                       int outW);
void conv_4x4s4(Tensor* padded, Tensor* weights, Tensor* bias, float* output, int outC, int outH, int outW);

// Writes every plane of t as text ("c<plane>", then rows of "%.5f ").
void print_tensor_data_to_file(Tensor* t, FILE* stream);

// ---- Winograd F(6x6, 3x3), stride 1 --------------------------------------
int forward_conv_3x3s1_winograd(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                                int outputCount, ForwardParams* params);
// G g G^T of every 3x3 kernel, interleaved per group of 4 output channels.
Tensor* conv_3x3s1_winograd_transform_kernel(Tensor* weights);
// Copies the top-left corner of src (as large as res's planes) into image n
// of res.
void conv_winograd_crop(Tensor* src, Tensor* res, int n, int elementSize);

// ---- Int8 paths -----------------------------------------------------------
// Quantise the input with inputScale, multiply 8-bit operands into 32-bit
// sums, then out = sum * dequantScales[o] + bias[o] in one rounding.
int forward_conv_norm_quantized(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                                int outputCount, ForwardParams* params);
int forward_conv_3x3s1_s8(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                          ForwardParams* params);
int forward_conv_3x3s2_s8(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                          ForwardParams* params);
// One image: `padded` holds the zero-padded 8-bit image, `output` receives
// the outC x outH x outW 32-bit correlation sums with the 8-bit weights.
void conv_3x3s1_s8(Tensor* padded, Tensor* weights, int32_t* output, int outC, int outH, int outW);
void conv_3x3s2_s8(Tensor* padded, Tensor* weights, int32_t* output, int outC, int outH, int outW);

#endif
