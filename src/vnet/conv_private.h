// State of the convolution layer that is not part of the public record:
// the path chosen for the current shape and any extra weight packing a fast
// kernel wants beyond the public packedKernel / winogradKernel layouts.
// Owned by the layer through Convolution::internal, freed with its data.
#ifndef VONET_VNET_CONV_PRIVATE_H
#define VONET_VNET_CONV_PRIVATE_H

#include <vonet/convolution.h>

enum VoConvPath {
    kConvPathGeneral = 0,  // unfold + matrix product
    kConvPathDirect = 1,   // vo::forward_conv_direct, same bits as the general path
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

// The direct kernels can run this layer's kernel size (any stride).
bool conv_direct_serves(const Convolution* conv);
// The direct path with the general path's rounding, for any layer that
// conv_direct_serves; working memory grows ForwardParams::padBuffer.
int forward_conv_direct(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                        ForwardParams* params);

// The path the layer runs: "int8" when quantised, "winograd" while the
// switch of `params` (may be null) routes it there, else the path chosen at
// reshape ("general", "direct-3x3s1", ...).
const char* conv_path_name(const Convolution* conv, const ForwardParams* params = nullptr);

// Test hook (not exported): forces the general path for float layers (as
// VONET_CONV=general does) while set; returns the previous setting.
bool set_conv_general_for_testing(bool general);

}  // namespace vo

#endif
