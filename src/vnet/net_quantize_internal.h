// Net quantisation with a per-layer account of what happened, for tools
// that want to say which layers were converted and why others stayed float.
#ifndef VONET_VNET_NET_QUANTIZE_INTERNAL_H
#define VONET_VNET_NET_QUANTIZE_INTERNAL_H

#include <vonet/net_quantize.h>

#include <stdint.h>

#include <vector>

namespace vo {

enum class QuantizeOutcome {
    Converted,            // int8 from now on
    AlreadyInt8,          // quantised before; left as it was
    Kernel1x1,            // 1x1 convolutions stay float
    NoInputValues,        // the calibration input of the layer is empty
    ZeroPercentile,       // the 99.9th-percentile magnitude is 0 (127 / 0 has no use)
    NonFinitePercentile,  // the percentile magnitude is NaN or infinite
    NonFiniteInputScale,  // 127 / percentile overflows (a tiny percentile)
    BadRecord,            // no weights, or weights that do not match the record
    OutOfMemory,          // the sort buffer or the scale arrays could not be allocated
};

// A short lower-case phrase, e.g. "1x1 kernel".
const char* quantize_outcome_text(QuantizeOutcome outcome);

// What quantising one layer found. The weight scales are the finite ones;
// an all-zero output channel (convolution) or matrix (inner product) has
// the scale 127 / 0 = +inf, its bytes are 0 and its dequantisation scale
// 1 / (inputScale * inf) = 0, so it contributes exactly its bias; such
// channels are counted in zeroChannels.
struct LayerQuantizeReport {
    uint32_t index = 0;  // position of the layer in the net
    int32_t type = 0;    // LAYER_CONVOLUTION or LAYER_INNER_PRODUCT
    char name[32] = {};
    QuantizeOutcome outcome = QuantizeOutcome::BadRecord;
    float percentile = 0.0f;  // the calibration magnitude the input scale comes from
    float inputScale = 0.0f;
    float minWeightScale = 0.0f;
    float maxWeightScale = 0.0f;
    int32_t weightChannels = 0;  // M for a convolution, 1 for an inner product
    int32_t zeroChannels = 0;
};

// quantize_conv / quantize_inner_product with their outcome; `report`
// (optional) receives the scales. A layer that is not converted is left
// exactly as it was.
QuantizeOutcome quantize_conv_layer(Convolution* conv, const Tensor* input, LayerQuantizeReport* report);
QuantizeOutcome quantize_inner_product_layer(InnerProduct* fc, const Tensor* input, LayerQuantizeReport* report);

// net_quantize_conv, appending one report per convolution and inner
// product layer to *reports when it is not null.
int quantize_net(Net* net, Tensor* calibration, std::vector<LayerQuantizeReport>* reports);

}  // namespace vo

#endif
