// Layers that combine values arithmetically: batch norm (a per-channel
// affine map), normalize (L2 normalisation with a learned scale) and
// eltwise (element-wise product, sum or maximum of equal-shaped inputs).
#ifndef VONET_NORMALIZATION_H
#define VONET_NORMALIZATION_H

#include <stdint.h>
#include <stdio.h>

#include <vonet/net.h>
#include <vonet/tensor.h>

// Model-file record: int32 channel; channel float scales; channel float
// biases. res = fma(scale[c], src, bias[c]).
struct BatchNorm {
    Tensor* scale;  // (1, channel, 1, 1), owned
    Tensor* bias;   // (1, channel, 1, 1), owned
    int32_t channel;
};

// Model-file record: uint8 normPerChannel; uint8 scalePerChannel; int32
// scaleSize; scaleSize float scales.
struct Normalize {
    uint8_t normPerChannel;   // 0: one norm per image; else one per channel plane
    uint8_t scalePerChannel;  // 0: every group uses scale 0; else group g uses scale g
    Tensor* scale;            // (1, 1, 1, scaleSize), owned
};

// Model-file record: int32 operation; int32 coeffSize; coeffSize float
// coefficients (none when coeffSize is 0 or less).
struct Eltwise {
    int32_t operation;  // 0 product, 1 sum, 2 max; any other value computes nothing
    float* coeffs;      // sum coefficients, one per input, owned; null when coeffSize is 0
    int32_t coeffSize;  // 0, or at least the number of inputs
};

BatchNorm* create_batchnorm();
int load_batchnorm(FILE* stream, void** result);
int save_batchnorm(FILE* stream, BatchNorm* bn);
int reshape_batchnorm(BatchNorm* bn, Tensor** inputs, int isize, Tensor** outputs, int osize,
                      ForwardParams* params);
int forward_batchnorm(BatchNorm* bn, Tensor** inputs, int isize, Tensor** outputs, int osize,
                      ForwardParams* params);
void release_batchnorm(BatchNorm** bn);
void get_info_batchnorm(BatchNorm* bn, char* text);

Normalize* create_normalize();
int load_normalize(FILE* stream, void** result);
int save_normalize(FILE* stream, Normalize* norm);
int reshape_normalize(Normalize* norm, Tensor** inputs, int isize, Tensor** outputs, int osize,
                      ForwardParams* params);
int forward_normalize(Normalize* norm, Tensor** inputs, int isize, Tensor** outputs, int osize,
                      ForwardParams* params);
void release_normalize(Normalize** norm);
void get_info_normalize(Normalize* norm, char* text);

// Load and save report a missing stream or record with 1.
Eltwise* create_eltwise();
int load_eltwise(FILE* stream, void** result);
int save_eltwise(FILE* stream, Eltwise* eltwise);
int reshape_eltwise(Eltwise* eltwise, Tensor** inputs, int isize, Tensor** outputs, int osize,
                    ForwardParams* params);
int forward_eltwise(Eltwise* eltwise, Tensor** inputs, int isize, Tensor** outputs, int osize,
                    ForwardParams* params);
void release_eltwise(Eltwise** eltwise);
void get_info_eltwise(Eltwise* eltwise, char* text);

// Accelerator entry points: this build has no accelerator back end (all
// return 1).
int forward_batchnorm_gpu(BatchNorm* bn, Tensor** inputs, int isize, Tensor** outputs, int osize,
                          ForwardParams* params);
int forward_normalize_gpu(Normalize* norm, Tensor** inputs, int isize, Tensor** outputs, int osize,
                          ForwardParams* params);
int forward_eltwise_gpu(Eltwise* eltwise, Tensor** inputs, int isize, Tensor** outputs, int osize,
                        ForwardParams* params);

#endif
