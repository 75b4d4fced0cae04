// The shape of a Caffe network as the importer sees it before converting
// any layer: its inputs, which layers run at inference, which blobs become
// the model's outputs, and which Scale layers fold into the BatchNorm before
// them.
#ifndef VONET_TOOLS_IMPORT_NET_PLAN_H
#define VONET_TOOLS_IMPORT_NET_PLAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "caffe.pb.h"

namespace vo::caffe_import {

// A Caffe blob shape: 1 to 4 axes, (num, channel, height, width) prefix.
using Dims = std::vector<int64_t>;

struct ImportOptions {
    std::vector<std::string> outputs;  // empty: the tops no later layer reads
    bool hasInputShape = false;        // replaces the single input's C, H, W
    int64_t channel = 0;
    int64_t height = 0;
    int64_t width = 0;
};

struct InputDecl {
    std::string name;
    Dims dims;  // num is always 1: the model file stores inputs with num 1
};

struct NetPlan {
    std::vector<InputDecl> inputs;
    std::vector<const caffe::LayerParameter*> layers;  // inference layers in order, Input layers excluded
    std::vector<int> foldedInto;  // per layer: a Scale folded into that BatchNorm layer index, else -1
    std::vector<int> scaleFor;    // per layer: for a BatchNorm, the index of the Scale folded into it, else -1
    std::vector<std::string> outputs;  // blob names, in model output order
};

// Reads the inputs and the data flow of `deploy` (legacy layers already
// upgraded) and picks the outputs. Warnings go to *warnings, one line each;
// on failure *error holds one line.
bool make_plan(const caffe::NetParameter& deploy, const ImportOptions& options, NetPlan* plan,
               std::vector<std::string>* warnings, std::string* error);

// "layer 'NAME' (TYPE): " for messages about a layer.
std::string layer_label(const caffe::LayerParameter& layer);

// "1x3x12x12".
std::string dims_text(const Dims& dims);

}  // namespace vo::caffe_import

#endif
