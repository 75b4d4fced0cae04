// Element-wise activation layers: ReLU, SReLU (keeps the negative part),
// PReLU (per-channel negative slope), Abs and Dropout (the identity at
// inference). One input, one output of the same shape; all but Abs may work
// in place (the same tensor as input and output).
#ifndef VONET_ACTIVATION_H
#define VONET_ACTIVATION_H

#include <stdint.h>
#include <stdio.h>

#include <vonet/net.h>
#include <vonet/tensor.h>

struct ReLU {
    int32_t unused;  // no parameters; kept zero
};

struct SReLU {
    int32_t unused;  // 0
};

struct Abs {
    int32_t unused;  // 0
};

struct PReLU {
    Tensor* slope;    // (1, channel, 1, 1): one negative-side factor per channel
    int32_t channel;
};

struct Dropout {
    float dropoutParam;  // the drop ratio, carried through load and save unchanged
};

ReLU* create_relu();
int load_relu(FILE* stream, void** result);
int save_relu(FILE* stream, ReLU* relu);
int reshape_relu(ReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams* forwardParams);
int forward_relu(ReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams* forwardParams);
void release_relu(ReLU** slot);
void get_info_relu(ReLU* relu, char* text);

SReLU* create_srelu();
int load_srelu(FILE* stream, void** result);
int save_srelu(FILE* stream, SReLU* relu);
int reshape_srelu(SReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize,
                  ForwardParams* forwardParams);
int forward_srelu(SReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize,
                  ForwardParams* forwardParams);
void release_srelu(SReLU** slot);
void get_info_srelu(SReLU* relu, char* text);

PReLU* create_prelu();
int load_prelu(FILE* stream, void** result);
int save_prelu(FILE* stream, PReLU* relu);
int reshape_prelu(PReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize,
                  ForwardParams* forwardParams);
int forward_prelu(PReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize,
                  ForwardParams* forwardParams);
void release_prelu(PReLU** slot);
void get_info_prelu(PReLU* relu, char* text);

Abs* create_abs();
int load_abs(FILE* stream, void** result);
int save_abs(FILE* stream, Abs* abs);
int reshape_abs(Abs* abs, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams* forwardParams);
int forward_abs(Abs* abs, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams* forwardParams);
void release_abs(Abs** slot);
void get_info_abs(Abs* abs, char* text);

Dropout* create_dropout();
int load_dropout(FILE* stream, void** result);
int save_dropout(FILE* stream, Dropout* dropout);
int reshape_dropout(Dropout* dropout, Tensor** inputs, int isize, Tensor** outputs, int osize,
                    ForwardParams* forwardParams);
int forward_dropout(Dropout* dropout, Tensor** inputs, int isize, Tensor** outputs, int osize,
                    ForwardParams* forwardParams);
void release_dropout(Dropout** slot);
void get_info_dropout(Dropout* dropout, char* text);

// Accelerator entry points: this build has no accelerator back end. The
// forward ones return 1 at once; the others do nothing.
int forward_relu_gpu(ReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize,
                     ForwardParams* forwardParams);
int forward_srelu_gpu(SReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize,
                      ForwardParams* forwardParams);
int forward_prelu_gpu(PReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize,
                      ForwardParams* forwardParams);
int forward_abs_gpu(Abs* abs, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams* forwardParams);
int forward_dropout_gpu(Dropout* dropout, Tensor** inputs, int isize, Tensor** outputs, int osize,
                        ForwardParams* forwardParams);
void initial_relu_cudnn(ReLU* relu);
void reshape_relu_cudnn(ReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize);
void release_relu_cudnn(ReLU* relu);

#endif
