// Layers that move data without arithmetic: concat joins tensors along an
// axis, slice cuts one apart, flatten merges a range of axes, piece moves
// values between the spatial axes and the channel axis.
// Axes: 0 num, 1 channel, 2 height, 3 width.
#ifndef VONET_TENSOR_LAYERS_H
#define VONET_TENSOR_LAYERS_H

#include <stdint.h>
#include <stdio.h>

#include <vonet/net.h>
#include <vonet/tensor.h>

// Model-file record: int32 concatParam, int32 axis.
struct Concat {
    int32_t concatParam;  // kept and shown, not used
    int32_t axis;
    int32_t outerNum;  // set by reshape: product of the dimensions before axis
    int32_t axisSize;  // set by reshape: the output's size along axis
    int32_t innerNum;  // set by reshape: product of the dimensions after axis
};

// Model-file record: int32 axis, int32 size, size int32 points.
struct Slice {
    int32_t axis;
    int32_t* points;  // size strictly increasing cut positions (room for size + 1)
    int32_t size;     // the layer has size + 1 outputs
    int32_t outerNum;  // set by reshape
    int32_t innerNum;  // set by reshape
};

// Model-file record: int8 startAxis, int8 endAxis; a negative axis counts
// from the end.
struct Flatten {
    int8_t startAxis;
    int8_t endAxis;
};

// Model-file record: int32 level, int32 direction. Blocks are
// 2^level x 2^level; direction 0 moves channels into space, any other value
// space into channels.
struct Piece {
    int32_t level;
    int32_t direction;
};

Concat* create_concat();
int load_concat(FILE* stream, void** result);
int save_concat(FILE* stream, Concat* concat);
int reshape_concat(Concat* concat, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams* params);
int forward_concat(Concat* concat, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams* params);
void release_concat(Concat** concat);
void get_info_concat(Concat* concat, char* text);

Slice* create_slice();
int load_slice(FILE* stream, void** result);
int save_slice(FILE* stream, Slice* slice);
int reshape_slice(Slice* slice, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams* params);
int forward_slice(Slice* slice, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams* params);
void release_slice(Slice** slice);
void get_info_slice(Slice* slice, char* text);

Flatten* create_flatten();
int load_flatten(FILE* stream, void** result);
int save_flatten(FILE* stream, Flatten* flatten);
int reshape_flatten(Flatten* flatten, Tensor** inputs, int isize, Tensor** outputs, int osize,
                    ForwardParams* params);
int forward_flatten(Flatten* flatten, Tensor** inputs, int isize, Tensor** outputs, int osize,
                    ForwardParams* params);
void release_flatten(Flatten** flatten);
void get_info_flatten(Flatten* flatten, char* text);

Piece* create_piece();
int load_piece(FILE* stream, void** result);
int save_piece(FILE* stream, Piece* piece);
int reshape_piece(Piece* piece, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams* params);
int forward_piece(Piece* piece, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams* params);
void release_piece(Piece** piece);
void get_info_piece(Piece* piece, char* text);

// Accelerator entry points: this build has no accelerator back end (all
// return 1).
int forward_concat_gpu(Concat* concat, Tensor** inputs, int isize, Tensor** outputs, int osize,
                       ForwardParams* params);
int forward_slice_gpu(Slice* slice, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams* params);
int forward_flatten_gpu(Flatten* flatten, Tensor** inputs, int isize, Tensor** outputs, int osize,
                        ForwardParams* params);
int forward_piece_gpu(Piece* piece, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams* params);

#endif
