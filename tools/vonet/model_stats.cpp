#include "model_stats.h"

#include <vonet/activation.h>
#include <vonet/convolution.h>
#include <vonet/deconvolution.h>
#include <vonet/inner_product.h>
#include <vonet/normalization.h>

#include "vnet/conv_private.h"

namespace vo::cli {
namespace {

int64_t dims_count(const Tensor* t) {
    if (!t || t->num < 0 || t->channel < 0 || t->height < 0 || t->width < 0) return 0;
    return int64_t(t->num) * t->channel * t->height * t->width;
}

const Tensor* first_input(const Layer* layer) {
    return layer->isize > 0 && layer->inputs ? layer->inputs[0] : nullptr;
}

const Tensor* first_output(const Layer* layer) {
    return layer->osize > 0 && layer->outputs ? layer->outputs[0] : nullptr;
}

// Values per image of a tensor: channel * height * width.
int64_t image_size(const Tensor* t) {
    if (!t || t->channel < 0 || t->height < 0 || t->width < 0) return 0;
    return int64_t(t->channel) * t->height * t->width;
}

LayerStats convolution_stats(const Layer* layer) {
    LayerStats s;
    const Convolution* conv = static_cast<const Convolution*>(layer->runParams);
    if (!conv || !conv->weights) return s;
    const Tensor* w = conv->weights;
    int64_t perOutput = image_size(w);  // input channels * kernelH * kernelW
    s.known = true;
    s.params = dims_count(w) + (conv->hasBias ? w->num : 0);
    s.multiplyAdds = dims_count(first_output(layer)) * perOutput;
    return s;
}

LayerStats deconvolution_stats(const Layer* layer) {
    LayerStats s;
    const Deconv* deconv = static_cast<const Deconv*>(layer->runParams);
    if (!deconv || !deconv->weights) return s;
    const Tensor* w = deconv->weights;
    int64_t perInput = image_size(w);  // output channels * kernelH * kernelW
    s.known = true;
    s.params = dims_count(w) + (deconv->hasBias ? w->channel : 0);
    s.multiplyAdds = dims_count(first_input(layer)) * perInput;
    return s;
}

LayerStats inner_product_stats(const Layer* layer) {
    LayerStats s;
    const InnerProduct* fc = static_cast<const InnerProduct*>(layer->runParams);
    if (!fc || fc->inputDim < 0 || fc->outputDim < 0) return s;
    const Tensor* out = first_output(layer);
    int64_t matrix = int64_t(fc->inputDim) * fc->outputDim;
    s.known = true;
    s.params = matrix + (fc->hasBias ? fc->outputDim : 0);
    s.multiplyAdds = (out && out->num > 0 ? out->num : 0) * matrix;
    return s;
}

LayerStats prelu_stats(const Layer* layer) {
    LayerStats s;
    const PReLU* prelu = static_cast<const PReLU*>(layer->runParams);
    if (!prelu) return s;
    s.known = true;
    s.params = dims_count(prelu->slope);
    return s;
}

LayerStats batchnorm_stats(const Layer* layer) {
    LayerStats s;
    const BatchNorm* bn = static_cast<const BatchNorm*>(layer->runParams);
    if (!bn) return s;
    s.known = true;
    s.params = dims_count(bn->scale) + dims_count(bn->bias);
    s.multiplyAdds = dims_count(first_output(layer));
    return s;
}

LayerStats normalize_stats(const Layer* layer) {
    LayerStats s;
    const Normalize* norm = static_cast<const Normalize*>(layer->runParams);
    if (!norm) return s;
    s.known = true;
    s.params = dims_count(norm->scale);
    s.multiplyAdds = dims_count(first_input(layer));
    return s;
}

// Types whose records hold nothing learned and whose arithmetic has no
// multiply-accumulate step.
LayerStats no_stats() {
    LayerStats s;
    s.known = true;
    return s;
}

}  // namespace

const char* layer_type_name(int32_t type) {
    switch (type) {
        case LAYER_CONVOLUTION: return "convolution";
        case LAYER_RELU: return "relu";
        case LAYER_PRELU: return "prelu";
        case LAYER_BATCHNORM: return "batchnorm";
        case LAYER_POOLING: return "pooling";
        case LAYER_CONCAT: return "concat";
        case LAYER_INNER_PRODUCT: return "inner_product";
        case LAYER_SOFTMAX: return "softmax";
        case LAYER_SLICE: return "slice";
        case LAYER_ABS: return "abs";
        case LAYER_ELTWISE: return "eltwise";
        case LAYER_FLATTEN: return "flatten";
        case LAYER_DROPOUT: return "dropout";
        case LAYER_SRELU: return "srelu";
        case LAYER_DECONVOLUTION: return "deconvolution";
        case LAYER_PIECE: return "piece";
        case LAYER_NORMALIZE: return "normalize";
        default: return "unknown";
    }
}

LayerStats layer_stats(const Layer* layer) {
    if (!layer) return LayerStats();
    switch (layer->type) {
        case LAYER_CONVOLUTION: return convolution_stats(layer);
        case LAYER_DECONVOLUTION: return deconvolution_stats(layer);
        case LAYER_INNER_PRODUCT: return inner_product_stats(layer);
        case LAYER_PRELU: return prelu_stats(layer);
        case LAYER_BATCHNORM: return batchnorm_stats(layer);
        case LAYER_NORMALIZE: return normalize_stats(layer);
        case LAYER_RELU:
        case LAYER_SRELU:
        case LAYER_ABS:
        case LAYER_DROPOUT:
        case LAYER_POOLING:
        case LAYER_SOFTMAX:
        case LAYER_ELTWISE:
        case LAYER_CONCAT:
        case LAYER_SLICE:
        case LAYER_FLATTEN:
        case LAYER_PIECE: return no_stats();
        default: return LayerStats();
    }
}

const char* layer_path(const Layer* layer, const ForwardParams* params) {
    if (!layer || !layer->runParams) return "";
    if (layer->type == LAYER_CONVOLUTION)
        return vo::conv_path_name(static_cast<const Convolution*>(layer->runParams), params);
    if (layer->type == LAYER_INNER_PRODUCT && static_cast<const InnerProduct*>(layer->runParams)->quantized)
        return "int8";
    return "";
}

}  // namespace vo::cli
