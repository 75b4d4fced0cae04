// Conversion of one Caffe layer into model layer records, with the shape
// inference the conversion needs (PReLU channel counts, global pooling
// kernels, inner product input sizes, blob size checks).
#ifndef VONET_TOOLS_IMPORT_LAYER_CONVERT_H
#define VONET_TOOLS_IMPORT_LAYER_CONVERT_H

#include <map>
#include <string>
#include <vector>

#include "caffe.pb.h"
#include "model_writer.h"
#include "net_plan.h"

namespace vo::caffe_import {

struct LayerSource {
    const caffe::LayerParameter* layer = nullptr;    // from the network description
    const caffe::LayerParameter* weights = nullptr;  // same name in the weights file, or null
    // A Scale folded into this BatchNorm, and its trained blobs.
    const caffe::LayerParameter* scale = nullptr;
    const caffe::LayerParameter* scaleWeights = nullptr;
};

class LayerConverter {
public:
    LayerConverter(ModelBuilder* builder, std::vector<std::string>* warnings)
        : builder_(builder), warnings_(warnings) {}

    void set_shape(const std::string& blob, const Dims& dims) { shapes_[blob] = dims; }

    // Appends the layer's model equivalent to the builder. An unsupported
    // type, a setting without an exact equivalent or a blob that does not fit
    // the layer fails with one line naming the layer, its type and why.
    bool convert(const LayerSource& source, std::string* error);

private:
    ModelBuilder* builder_;
    std::vector<std::string>* warnings_;
    std::map<std::string, Dims> shapes_;  // current shape of every blob name
};

}  // namespace vo::caffe_import

#endif
