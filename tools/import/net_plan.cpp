// Inputs, data flow and output selection of a Caffe network.
#include "net_plan.h"

#include <map>
#include <set>

#include "caffe_files.h"

namespace vo::caffe_import {
namespace {

// The model loader refuses larger inputs, so a converted model must too.
constexpr int64_t kMaxInputElements = int64_t(1) << 26;

// One value of a blob name: the net input, or one top of one layer.
// In-place layers make several versions of one name.
struct Version {
    std::string name;
    int producer = -1;  // layer index in NetPlan::layers; -1 for a net input
    std::vector<int> readers;
    int overwrittenBy = -1;  // the layer that next writes the same name
};

class FlowBuilder {
public:
    FlowBuilder(NetPlan* plan, std::string* error) : plan_(plan), error_(error) {}

    bool add_input(const std::string& name, Dims dims) {
        if (current_.count(name)) return fail("input '" + name + "' is declared twice");
        if (dims.empty() || dims.size() > 4)
            return fail("input '" + name + "' has " + std::to_string(dims.size()) +
                        " axes; a model input has 1 to 4");
        dims[0] = 1;
        int64_t count = 1;
        for (int64_t d : dims) {
            if (d < 1) return fail("input '" + name + "' has an empty or negative axis (" + dims_text(dims) + ")");
            if (d > kMaxInputElements) return fail("input '" + name + "' is too large (" + dims_text(dims) + ")");
            count *= d;
            if (count > kMaxInputElements) return fail("input '" + name + "' is too large (" + dims_text(dims) + ")");
        }
        plan_->inputs.push_back({name, dims});
        new_version(name, -1);
        return true;
    }

    bool add_layer(const caffe::LayerParameter* layer) {
        const int index = int(plan_->layers.size());
        if (layer->bottom_size() > 255 || layer->top_size() > 255)
            return fail(layer_label(*layer) + "more than 255 inputs or outputs");
        for (const std::string& bottom : layer->bottom()) {
            auto it = current_.find(bottom);
            if (it == current_.end())
                return fail(layer_label(*layer) + "input '" + bottom + "' is made by no earlier layer or net input");
            versions_[it->second].readers.push_back(index);
        }
        plan_->layers.push_back(layer);
        tops_.emplace_back();
        for (const std::string& top : layer->top()) tops_.back().push_back(new_version(top, index));
        return true;
    }

    // The tops no later layer reads, in the order of their producers.
    void pick_default_outputs(std::vector<std::string>* warnings) {
        for (size_t i = 0; i < tops_.size(); ++i) {
            const caffe::LayerParameter& layer = *plan_->layers[i];
            bool someRead = false;
            for (int v : tops_[i]) someRead = someRead || !versions_[v].readers.empty();
            for (int v : tops_[i]) {
                const Version& version = versions_[v];
                if (!version.readers.empty()) continue;
                if (version.overwrittenBy >= 0) {
                    warnings->push_back("top '" + version.name + "' of layer '" + layer.name() + "' (" + layer.type() +
                                        ") is overwritten by layer '" +
                                        plan_->layers[version.overwrittenBy]->name() +
                                        "' before any layer reads it; it is not an output");
                    continue;
                }
                plan_->outputs.push_back(version.name);
                if (someRead)
                    warnings->push_back("top '" + version.name + "' of layer '" + layer.name() + "' (" + layer.type() +
                                        ") is read by no layer while the layer's other tops are, so it becomes an "
                                        "output; name the outputs with --outputs if it is not meant to be one");
            }
        }
    }

    bool pick_given_outputs(const std::vector<std::string>& names) {
        std::set<std::string> seen;
        for (const std::string& name : names) {
            if (!current_.count(name)) return fail("output '" + name + "' is not a blob of the network");
            if (!seen.insert(name).second) return fail("output '" + name + "' is named twice");
            plan_->outputs.push_back(name);
        }
        return true;
    }

    // A Scale whose only input is the output of a BatchNorm that nothing
    // else reads becomes part of that BatchNorm's affine map.
    void find_folds() {
        const size_t n = plan_->layers.size();
        plan_->foldedInto.assign(n, -1);
        plan_->scaleFor.assign(n, -1);
        std::set<std::string> outputs(plan_->outputs.begin(), plan_->outputs.end());
        for (size_t i = 0; i < n; ++i) {
            if (plan_->layers[i]->type() != "BatchNorm" || tops_[i].size() != 1) continue;
            const Version& v = versions_[tops_[i][0]];
            if (v.readers.size() != 1) continue;
            // An output value must stay visible under its own name.
            if (v.overwrittenBy < 0 && outputs.count(v.name)) continue;
            const int j = v.readers[0];
            const caffe::LayerParameter& scale = *plan_->layers[j];
            if (scale.type() != "Scale" || scale.bottom_size() != 1 || scale.top_size() != 1) continue;
            if (plan_->foldedInto[j] >= 0) continue;
            plan_->foldedInto[j] = int(i);
            plan_->scaleFor[i] = j;
        }
    }

    size_t output_limit_ok() const { return plan_->outputs.size() <= 255; }

private:
    int new_version(const std::string& name, int producer) {
        const int v = int(versions_.size());
        auto it = current_.find(name);
        if (it != current_.end()) versions_[it->second].overwrittenBy = producer;
        Version version;
        version.name = name;
        version.producer = producer;
        versions_.push_back(version);
        current_[name] = v;
        return v;
    }

    bool fail(const std::string& message) {
        *error_ = message;
        return false;
    }

    NetPlan* plan_;
    std::string* error_;
    std::vector<Version> versions_;
    std::map<std::string, int> current_;  // name -> its latest version
    std::vector<std::vector<int>> tops_;  // per layer: its top versions
};

Dims shape_dims(const caffe::BlobShape& shape) { return Dims(shape.dim().begin(), shape.dim().end()); }

// The net-level `input` declarations with input_shape or input_dim.
bool declared_inputs(const caffe::NetParameter& deploy, std::vector<std::pair<std::string, Dims>>* inputs,
                     std::string* error) {
    const int n = deploy.input_size();
    if (n == 0) return true;
    if (deploy.input_shape_size() > 0) {
        if (deploy.input_shape_size() != n) {
            *error = "the network declares " + std::to_string(n) + " inputs but " +
                     std::to_string(deploy.input_shape_size()) + " input shapes";
            return false;
        }
        for (int i = 0; i < n; ++i) inputs->push_back({deploy.input(i), shape_dims(deploy.input_shape(i))});
        return true;
    }
    if (deploy.input_dim_size() != 4 * n) {
        *error = "the network declares " + std::to_string(n) + " inputs but " +
                 std::to_string(deploy.input_dim_size()) + " input_dim values (4 per input)";
        return false;
    }
    for (int i = 0; i < n; ++i) {
        Dims dims;
        for (int k = 0; k < 4; ++k) dims.push_back(deploy.input_dim(4 * i + k));
        inputs->push_back({deploy.input(i), dims});
    }
    return true;
}

}  // namespace

std::string layer_label(const caffe::LayerParameter& layer) {
    return "layer '" + layer.name() + "' (" + layer.type() + "): ";
}

std::string dims_text(const Dims& dims) {
    std::string text;
    for (size_t i = 0; i < dims.size(); ++i) text += (i ? "x" : "") + std::to_string(dims[i]);
    return text;
}

bool make_plan(const caffe::NetParameter& deploy, const ImportOptions& options, NetPlan* plan,
               std::vector<std::string>* warnings, std::string* error) {
    // All inputs, in declaration order: the net-level ones, then Input layers.
    std::vector<std::pair<std::string, Dims>> inputs;
    if (!declared_inputs(deploy, &inputs, error)) return false;
    std::vector<const caffe::LayerParameter*> layers;
    std::vector<size_t> inputsBefore;  // per layer: how many inputs exist when it runs
    for (const caffe::LayerParameter& layer : deploy.layer()) {
        if (!in_test_phase(layer)) continue;
        if (layer.type() != "Input") {
            layers.push_back(&layer);
            inputsBefore.push_back(inputs.size());
            continue;
        }
        const int shapes = layer.input_param().shape_size();
        if (layer.top_size() == 0 || (shapes != 1 && shapes != layer.top_size())) {
            *error = layer_label(layer) + "needs one shape, or one shape per top";
            return false;
        }
        for (int t = 0; t < layer.top_size(); ++t)
            inputs.push_back({layer.top(t), shape_dims(layer.input_param().shape(shapes == 1 ? 0 : t))});
    }
    if (inputs.empty()) {
        *error = "the network declares no input (input/input_dim, input_shape or an Input layer)";
        return false;
    }
    if (inputs.size() > 255) {
        *error = "the network has more than 255 inputs";
        return false;
    }
    if (options.hasInputShape) {
        if (inputs.size() != 1) {
            *error = "--input-shape needs a network with exactly one input; it has " + std::to_string(inputs.size());
            return false;
        }
        inputs[0].second = {1, options.channel, options.height, options.width};
    }

    FlowBuilder flow(plan, error);
    size_t nextInput = 0;
    for (size_t i = 0; i <= layers.size(); ++i) {
        const size_t available = i < layers.size() ? inputsBefore[i] : inputs.size();
        for (; nextInput < available; ++nextInput)
            if (!flow.add_input(inputs[nextInput].first, inputs[nextInput].second)) return false;
        if (i < layers.size() && !flow.add_layer(layers[i])) return false;
    }
    if (plan->layers.empty()) {
        *error = "the network has no layers";
        return false;
    }

    if (options.outputs.empty())
        flow.pick_default_outputs(warnings);
    else if (!flow.pick_given_outputs(options.outputs))
        return false;
    if (plan->outputs.empty()) {
        *error = "the network has no outputs: every top is read by a later layer; name them with --outputs";
        return false;
    }
    if (!flow.output_limit_ok()) {
        *error = "the network has more than 255 outputs; name them with --outputs";
        return false;
    }
    flow.find_folds();
    return true;
}

}  // namespace vo::caffe_import
