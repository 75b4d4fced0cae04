// The import pipeline: parse, plan, convert layer by layer, write.
#include "importer.h"

#include <map>

#include "caffe_files.h"
#include "layer_convert.h"
#include "model_writer.h"

namespace vo::caffe_import {

bool import_caffe(const std::string& prototxt, const std::string& caffemodel, const std::string& output,
                  const ImportOptions& options, std::vector<std::string>* warnings, std::string* error) {
    caffe::NetParameter deploy, trained;
    if (!read_prototxt(prototxt, &deploy, error) || !read_caffemodel(caffemodel, &trained, error)) return false;
    upgrade_legacy_layers(&deploy);
    upgrade_legacy_layers(&trained);

    NetPlan plan;
    if (!make_plan(deploy, options, &plan, warnings, error)) return false;

    // Trained blobs are matched to the description by layer name, as Caffe
    // does; the weights file may hold a whole training net.
    std::map<std::string, const caffe::LayerParameter*> byName;
    for (const caffe::LayerParameter& layer : trained.layer())
        if (layer.blobs_size() > 0) byName[layer.name()] = &layer;
    auto weights_of = [&](const caffe::LayerParameter* layer) -> const caffe::LayerParameter* {
        auto it = byName.find(layer->name());
        return it == byName.end() ? nullptr : it->second;
    };

    ModelBuilder builder(warnings);
    LayerConverter converter(&builder, warnings);
    for (const InputDecl& input : plan.inputs) {
        if (!builder.add_input(input.name, input.dims)) {
            *error = "out of memory";
            return false;
        }
        converter.set_shape(input.name, input.dims);
    }
    for (size_t i = 0; i < plan.layers.size(); ++i) {
        if (plan.foldedInto[i] >= 0) continue;  // converted with its BatchNorm
        LayerSource source;
        source.layer = plan.layers[i];
        source.weights = weights_of(source.layer);
        if (plan.scaleFor[i] >= 0) {
            source.scale = plan.layers[size_t(plan.scaleFor[i])];
            source.scaleWeights = weights_of(source.scale);
        }
        if (!converter.convert(source, error)) return false;
    }
    if (!builder.set_outputs(plan.outputs)) {
        *error = "out of memory";
        return false;
    }
    return builder.write(output, error);
}

}  // namespace vo::caffe_import
