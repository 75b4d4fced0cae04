// State of the convolution layer that is not part of the public record:
// the path chosen for the current shape and any extra weight packing a fast
// kernel wants beyond the public packedKernel / winogradKernel layouts.
// Owned by the layer through Convolution::internal, freed with its data.
#ifndef VONET_VNET_CONV_PRIVATE_H
#define VONET_VNET_CONV_PRIVATE_H

struct VoConvPrivate {
    int path;  // 0: general path
};

#endif
