// Pooling layer: maximum, minimum or mean of each channel over rectangular
// windows, or over the whole image in global mode.
#ifndef VONET_POOLING_H
#define VONET_POOLING_H

#include <stdint.h>
#include <stdio.h>

#include <vonet/net.h>
#include <vonet/tensor.h>

// Model-file record: 29 bytes, the fields in this order.
struct Pooling {
    int32_t type;  // 0 max, 1 min, 2 average
    int32_t kernelW;
    int32_t kernelH;
    int32_t padW;  // columns of padding on the left (and allowance on the right)
    int32_t padH;  // rows of padding on the top (and allowance at the bottom)
    int32_t strideW;
    int32_t strideH;
    uint8_t global;  // the window covers the whole input image
};

Pooling* create_pooling();
int load_pooling(FILE* stream, void** result);
int save_pooling(FILE* stream, Pooling* pool);
int reshape_pooling(Pooling* pool, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                    ForwardParams* params);
int forward_pooling(Pooling* pool, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                    ForwardParams* params);
void release_pooling(Pooling** pool);
// `text` holds at least 128 bytes.
void get_info_pool(Pooling* pool, char* text);

// The reductions. `output` must have the shape reshape_pooling gives for
// `input` (else 5, output untouched); a window whose clipped extent is
// empty gives 0. Return 0, or 7 for a missing or unusable record.
int pool_max(Pooling* pool, Tensor* input, Tensor* output);
int pool_min(Pooling* pool, Tensor* input, Tensor* output);
int pool_ave(Pooling* pool, Tensor* input, Tensor* output);

// Output size of a pooling window walk (a last window that runs past the
// padded edge still counts). A size that cannot be represented gives 0.
void calculate_pool_result_size(int32_t inW, int32_t inH, int32_t kernelW, int32_t kernelH, int32_t strideW,
                                int32_t strideH, int32_t padW, int32_t padH, int32_t* outW, int32_t* outH);

// Max pooling through a padded copy of the input in params->columnBuffer,
// with row kernels for 2x2 and 3x3 windows of stride 2; the results are
// bit for bit those of pool_max. Other windows go to pool_max.
int pool_max_stable(Pooling* pool, Tensor* input, Tensor* output, ForwardParams* params);

// Accelerator entry points: this build has no accelerator back end.
void initial_pool_cudnn(Pooling* pool);
void reshape_pool_cudnn(Pooling* pool, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount);
void release_pool_cudnn(Pooling* pool);
int forward_pooling_gpu(Pooling* pool, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                        ForwardParams* params);

#endif
