#include "vnet/layer_registry.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vo {
namespace {

constexpr int32_t kFirstType = 2;
constexpr int32_t kLastType = 18;

// Indexed by type id; an id without operations is not built.
struct Registry {
    const LayerOps* ops[kLastType + 1] = {};
    Registry() {
        // Each built layer type is bound here (its LayerOps is declared in
        // layer_registry.h and defined in the type's source file).
        ops[LAYER_POOLING] = &kPoolingOps;
        ops[LAYER_SOFTMAX] = &kSoftmaxOps;
        ops[LAYER_BATCHNORM] = &kBatchNormOps;
        ops[LAYER_NORMALIZE] = &kNormalizeOps;
        ops[LAYER_ELTWISE] = &kEltwiseOps;
        ops[LAYER_CONCAT] = &kConcatOps;
        ops[LAYER_SLICE] = &kSliceOps;
        ops[LAYER_FLATTEN] = &kFlattenOps;
        ops[LAYER_PIECE] = &kPieceOps;
        ops[LAYER_RELU] = &kReluOps;
        ops[LAYER_PRELU] = &kPreluOps;
        ops[LAYER_ABS] = &kAbsOps;
        ops[LAYER_DROPOUT] = &kDropoutOps;
        ops[LAYER_SRELU] = &kSreluOps;
        ops[LAYER_CONVOLUTION] = &kConvOps;
        ops[LAYER_INNER_PRODUCT] = &kInnerProductOps;
        ops[LAYER_DECONVOLUTION] = &kDeconvOps;
    }
};

Registry& registry() {
    static Registry table;
    return table;
}

}  // namespace

const LayerOps* layer_ops(int32_t type) {
    if (type < kFirstType || type > kLastType) return nullptr;
    return registry().ops[type];
}

const LayerOps* set_layer_ops_for_testing(int32_t type, const LayerOps* ops) {
    if (type < kFirstType || type > kLastType) return nullptr;
    const LayerOps* old = registry().ops[type];
    registry().ops[type] = ops;
    return old;
}

}  // namespace vo

Layer* create_layer(int32_t type, const char* name) {
    const vo::LayerOps* ops = vo::layer_ops(type);
    if (!ops) {
        printf("Create net error: layer type %d error\n", type);
        return nullptr;
    }
    Layer* layer = static_cast<Layer*>(calloc(1, sizeof(Layer)));
    if (!layer) return nullptr;
    layer->type = type;
    if (name) strncpy(layer->name, name, sizeof(layer->name) - 1);
    layer->forward = ops->forward;
    layer->reshape = ops->reshape;
    layer->save = ops->save;
    layer->release = ops->release;
    layer->get_info = ops->get_info;
    return layer;
}

int load_layer(FILE* stream, Layer* layer) {
    if (!stream) return 4;
    if (!layer) return 2;
    if (layer->type == 0) return 0;
    if (layer->type == 1) {
        layer->runParams = layer->params;
        return 0;
    }
    const vo::LayerOps* ops = vo::layer_ops(layer->type);
    if (!ops) {
        printf("Load net error: layer type %d error\n", layer->type);
        // An id without operations cannot come from a file (create_layer
        // refuses it first); report it as an unusable layer rather than
        // ending the host's process.
        return 4;
    }
    int status = ops->load(stream, &layer->params);
    layer->runParams = layer->params;
    return status;
}
