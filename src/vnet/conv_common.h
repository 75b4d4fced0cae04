// Record checks shared by the convolution and deconvolution layers, whose
// records have the same geometry fields and the same weights-then-bias tail.
#ifndef VONET_VNET_CONV_COMMON_H
#define VONET_VNET_CONV_COMMON_H

#include <vonet/tensor.h>

#include <stdint.h>
#include <stdio.h>

#include "common/check.h"
#include "common/record_io.h"

namespace vo {

// Kernel sizes, strides and paddings above this are refused: no real
// network comes near it, and it keeps every size computation far from
// int32 overflow.
constexpr int32_t kMaxExtent = 65535;

// The kernel extent, strides and paddings read from a file are within
// bounds. The parameter names are those of the records, so a failed check
// reads as it does in the layer's own terms (`kUnit` is the caller's unit).
template <class R>
bool geometry_ok(const char* kUnit, const char* op, const R* conv, int32_t kernelW, int32_t kernelH) {
    VO_CHECK_IN(op, kernelW >= 1 && kernelW <= kMaxExtent, return false);
    VO_CHECK_IN(op, kernelH >= 1 && kernelH <= kMaxExtent, return false);
    VO_CHECK_IN(op, conv->strideW >= 1 && conv->strideW <= kMaxExtent, return false);
    VO_CHECK_IN(op, conv->strideH >= 1 && conv->strideH <= kMaxExtent, return false);
    VO_CHECK_IN(op, conv->padW >= 0 && conv->padW <= kMaxExtent, return false);
    VO_CHECK_IN(op, conv->padH >= 0 && conv->padH <= kMaxExtent, return false);
    return true;
}

// The file still holds `count` weights and, with a bias, `biasCount` more.
template <class R>
bool bank_in_file(FILE* stream, const R* conv, int64_t count, int64_t biasCount, const char* unit, const char* op) {
    return file_holds(stream, count, sizeof(float), unit, op, "ret == weights->capacity") &&
           (!conv->hasBias ||
            file_holds(stream, count + biasCount, sizeof(float), unit, op, "ret == conv->bias->capacity"));
}

// Reads the values of the weights tensor (already shaped).
template <class R>
bool read_weights(FILE* stream, R* conv, const char* unit, const char* op) {
    return read_values(stream, conv->weights->data, conv->weights->capacity, unit, op, "ret == weights->capacity");
}

// Reads the values of the bias tensor (already shaped).
template <class R>
bool read_bias(FILE* stream, R* conv, const char* unit, const char* op) {
    return read_values(stream, conv->bias->data, conv->bias->capacity, unit, op, "ret == conv->bias->capacity");
}

// Writes the weights and, with a bias, the bias values.
template <class R>
bool write_bank(FILE* stream, const R* conv, const char* unit, const char* op) {
    const Tensor* weights = conv->weights;
    return write_values(stream, weights->data, weights->capacity, unit, op, "ret == weights->capacity") &&
           (!conv->hasBias ||
            write_values(stream, conv->bias->data, conv->bias->capacity, unit, op, "ret == conv->bias->capacity"));
}

}  // namespace vo

#endif
