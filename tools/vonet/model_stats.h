// Per-layer statistics of a loaded net: parameter counts and multiply-adds.
#ifndef VONET_TOOLS_MODEL_STATS_H
#define VONET_TOOLS_MODEL_STATS_H

#include <vonet/net.h>

#include <cstdint>

namespace vo::cli {

// Short lower-case name of a layer type id ("convolution", "relu" ...),
// or "type <id>" style text for ids without a name.
const char* layer_type_name(int32_t type);

struct LayerStats {
    bool known = false;        // false: the type's record cannot be read here
    int64_t params = 0;        // learned values: weights, biases, slopes, scales
    int64_t multiplyAdds = 0;  // for the layer's current input shape
};

// Statistics of one layer of a reshaped net. Multiply-adds count the
// multiply-accumulate steps: weight times value for convolution,
// deconvolution and inner product; one per value for batch norm (scale and
// bias) and for normalize (the sum of squares). Layers that only compare,
// copy or apply a function per value count none.
LayerStats layer_stats(const Layer* layer);

// The forward path a layer runs on for the net's current shape:
// convolutions "general", "direct-KxKsS", "winograd" or "int8";
// inner products "int8" when quantised; empty for everything else.
const char* layer_path(const Layer* layer, const ForwardParams* params);

}  // namespace vo::cli

#endif
