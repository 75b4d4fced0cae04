// State of the convolution layer that is not part of the public record:
// the path chosen for the current shape and any extra weight packing a fast
// kernel wants beyond the public packedKernel / winogradKernel layouts.
// Owned by the layer through Convolution::internal, freed with its data.
#ifndef VONET_VNET_CONV_PRIVATE_H
#define VONET_VNET_CONV_PRIVATE_H

#include <vonet/convolution.h>

enum VoConvPath {
    kConvPathGeneral = 0,      // unfold + matrix product
    kConvPathDirect = 1,       // vo::forward_conv_direct, same bits as the general path
    kConvPathDirectBatch = 2,  // vo::forward_conv_direct_batch, same bits
};

struct VoConvPrivate {
    int path;       // VoConvPath chosen by reshape_conv for float layers
    char name[24];  // display name of the chosen path, e.g. "direct-3x3s1"
};

namespace vo {

// Direct 1x1 stride-1 kernels pay off below this many output channels; from
// there on the matrix product's tiles reuse each input value better (see
// bench/conv_paths_bench.cpp).
constexpr int32_t kDirectOneByOneMaxChannels = 8;

// When the batch path beats the others (bench/conv_paths_bench.cpp,
// BM_ConvBatch, AVX2 and AVX-512 alike): from 4 images on planes of up to
// 15 output pixels (2x to 40x at 128 images of 1 to 12 pixels; from 16
// pixels on the per-image direct path fills its vectors), and from 16
// images on planes of up to 100 pixels (1.2x to 2x at 16 images of 16 to
// 100 pixels; larger planes not measured).
constexpr int32_t kDirectBatchMinImages = 4;
constexpr int64_t kDirectBatchMaxPixels = 15;
constexpr int32_t kDirectBatchManyImages = 16;
constexpr int64_t kDirectBatchManyMaxPixels = 100;

// The direct kernels can run this layer's kernel size (any stride).
bool conv_direct_serves(const Convolution* conv);
// The direct path with the general path's rounding, for any layer that
// conv_direct_serves; working memory grows ForwardParams::padBuffer.
int forward_conv_direct(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                        ForwardParams* params);

// The direct path vectorised across the images of the batch (8 or 16 at a
// time) instead of across the pixels of one image, for batches of small
// output planes; same bits.
// Working memory grows ForwardParams::padBuffer.
int forward_conv_direct_batch(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                              int outputCount, ForwardParams* params);

// The path the layer runs: "int8" when quantised, "winograd" while the
// switch of `params` (may be null) routes it there, else the path chosen at
// reshape ("general", "direct-3x3s1", ...).
const char* conv_path_name(const Convolution* conv, const ForwardParams* params = nullptr);

// Test hook (not exported): forces the general path for float layers (as
// VONET_CONV=general does) while set; returns the previous setting.
bool set_conv_general_for_testing(bool general);

}  // namespace vo

#endif
