// Assembles the converted network as a Net and writes it as a model file
// through the runtime's own writer, so the file format lives in one place.
#ifndef VONET_TOOLS_IMPORT_MODEL_WRITER_H
#define VONET_TOOLS_IMPORT_MODEL_WRITER_H

#include <vonet/net.h>
#include <vonet/tensor.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vo::caffe_import {

// Model names hold at most 31 characters. Longer Caffe names are cut, and
// made unique with a "~N" suffix when the cut collides; each change is
// reported once as a warning.
class NameMap {
public:
    explicit NameMap(std::vector<std::string>* warnings) : warnings_(warnings) {}
    const std::string& model_name(const std::string& caffeName);

private:
    std::vector<std::string>* warnings_;
    std::map<std::string, std::string> names_;  // Caffe name -> model name
    std::map<std::string, std::string> taken_;  // model name -> Caffe name
};

class ModelBuilder {
public:
    explicit ModelBuilder(std::vector<std::string>* warnings);
    ~ModelBuilder();
    ModelBuilder(const ModelBuilder&) = delete;
    ModelBuilder& operator=(const ModelBuilder&) = delete;

    // `dims` has 1 to 4 axes; missing trailing axes are 1.
    bool add_input(const std::string& name, const std::vector<int64_t>& dims);

    // Appends a layer of `type` owning a fresh record from `create`; the
    // record belongs to the net from here on, also when a later step fails.
    // Returns null when out of memory.
    template <typename Record>
    Record* add_layer(int32_t type, const std::string& name, Record* (*create)()) {
        Layer* layer = append_layer(type, name);
        if (!layer) return nullptr;
        Record* record = create();
        layer->params = layer->runParams = record;
        return record;
    }
    // The tensors of the layer added last, by Caffe blob name.
    bool connect_last(const std::vector<std::string>& inputs, const std::vector<std::string>& outputs);

    bool set_outputs(const std::vector<std::string>& names);

    // Writes the model to a temporary file next to `path`, loads it back to
    // make sure the runtime accepts it, and renames it to `path`. Nothing is
    // left behind on failure.
    bool write(const std::string& path, std::string* error);

    // A tensor of the given shape holding `values` (count = product), or null.
    static Tensor* make_tensor(int32_t num, int32_t channel, int32_t height, int32_t width, const float* values);

private:
    Layer* append_layer(int32_t type, const std::string& name);
    Tensor* tensor(const std::string& caffeName);

    NameMap names_;
    Net* net_;
};

}  // namespace vo::caffe_import

#endif
