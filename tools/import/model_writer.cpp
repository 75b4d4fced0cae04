// Net assembly and the all-or-nothing model file write.
#include "model_writer.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace vo::caffe_import {
namespace {

constexpr size_t kMaxName = 31;

void copy_name(char (&field)[32], const std::string& name) {
    memset(field, 0, sizeof(field));
    memcpy(field, name.data(), name.size() < kMaxName ? name.size() : kMaxName);
}

Tensor** tensor_list(size_t count) { return static_cast<Tensor**>(calloc(count ? count : 1, sizeof(Tensor*))); }

}  // namespace

const std::string& NameMap::model_name(const std::string& caffeName) {
    auto known = names_.find(caffeName);
    if (known != names_.end()) return known->second;
    std::string name = caffeName;
    if (name.size() > kMaxName) {
        name = caffeName.substr(0, kMaxName);
        for (int k = 1; taken_.count(name); ++k) {
            const std::string suffix = "~" + std::to_string(k);
            name = caffeName.substr(0, kMaxName - suffix.size()) + suffix;
        }
        warnings_->push_back("name '" + caffeName + "' is longer than " + std::to_string(kMaxName) +
                             " characters; the model calls it '" + name + "'");
    }
    taken_[name] = caffeName;
    return names_[caffeName] = name;
}

ModelBuilder::ModelBuilder(std::vector<std::string>* warnings) : names_(warnings), net_(vo_create_net()) {}

ModelBuilder::~ModelBuilder() { vo_release_net(&net_); }

Tensor* ModelBuilder::make_tensor(int32_t num, int32_t channel, int32_t height, int32_t width, const float* values) {
    Tensor* t = create_tensor(num, channel, height, width);
    if (!t) return nullptr;
    const int64_t count = int64_t(num) * channel * height * width;
    if (t->capacity != count || (count > 0 && !t->data)) {
        release_tensor(&t);
        return nullptr;
    }
    if (values && count > 0) memcpy(t->data, values, size_t(count) * sizeof(float));
    return t;
}

bool ModelBuilder::add_input(const std::string& name, const std::vector<int64_t>& dims) {
    if (!net_) return false;
    int32_t d[4] = {1, 1, 1, 1};
    for (size_t i = 0; i < dims.size() && i < 4; ++i) d[i] = int32_t(dims[i]);
    Tensor* t = make_tensor(d[0], d[1], d[2], d[3], nullptr);
    if (!t) return false;
    copy_name(t->name, names_.model_name(name));
    if (net_add_tensor(net_, t) != t) {
        release_tensor(&t);
        return false;
    }
    Tensor** inputs = tensor_list(size_t(net_->inputSize) + 1);
    if (!inputs) return false;
    for (unsigned i = 0; i < net_->inputSize; ++i) inputs[i] = net_->inputs[i];
    inputs[net_->inputSize] = t;
    free(net_->inputs);
    net_->inputs = inputs;
    ++net_->inputSize;
    return true;
}

Layer* ModelBuilder::append_layer(int32_t type, const std::string& name) {
    if (!net_) return nullptr;
    Layer* layer = create_layer(type, names_.model_name(name).c_str());
    if (!layer) return nullptr;
    const uint32_t before = net_->layerSize;
    net_add_layer(net_, layer);
    if (net_->layerSize != before + 1) {
        release_layer(&layer);
        return nullptr;
    }
    return layer;
}

Tensor* ModelBuilder::tensor(const std::string& caffeName) {
    return net_add_tensor_by_name(net_, names_.model_name(caffeName).c_str());
}

bool ModelBuilder::connect_last(const std::vector<std::string>& inputs, const std::vector<std::string>& outputs) {
    if (!net_ || net_->layerSize == 0 || inputs.size() > 255 || outputs.size() > 255) return false;
    Layer* layer = net_->layers[net_->layerSize - 1];
    layer->inputs = tensor_list(inputs.size());
    layer->outputs = tensor_list(outputs.size());
    if (!layer->inputs || !layer->outputs) return false;
    for (const std::string& name : inputs) {
        if (!(layer->inputs[layer->isize] = tensor(name))) return false;
        ++layer->isize;
    }
    for (const std::string& name : outputs) {
        if (!(layer->outputs[layer->osize] = tensor(name))) return false;
        ++layer->osize;
    }
    return true;
}

bool ModelBuilder::set_outputs(const std::vector<std::string>& names) {
    if (!net_ || names.size() > 255) return false;
    net_->outputs = tensor_list(names.size());
    if (!net_->outputs) return false;
    for (const std::string& name : names) {
        if (!(net_->outputs[net_->outputSize] = tensor(name))) return false;
        ++net_->outputSize;
    }
    return true;
}

bool ModelBuilder::write(const std::string& path, std::string* error) {
    if (!net_) {
        *error = "out of memory";
        return false;
    }
    // The temporary file sits in the target's directory so that the final
    // rename cannot cross file systems.
    std::string temp = path + ".XXXXXX";
    int fd = mkstemp(&temp[0]);
    if (fd < 0) {
        *error = "cannot create a file next to '" + path + "': " + strerror(errno);
        return false;
    }
    // mkstemp makes the file private; a model gets the usual permissions.
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
    close(fd);
    const int saved = vo_save_net(temp.c_str(), net_);
    if (saved != 0) {
        remove(temp.c_str());
        *error = "cannot write '" + path + "' (status " + std::to_string(saved) + ")";
        return false;
    }
    Net* check = nullptr;
    const int loaded = vo_load_net(temp.c_str(), &check);
    vo_release_net(&check);
    if (loaded != 0) {
        remove(temp.c_str());
        *error = "the converted model does not load back (status " + std::to_string(loaded) + ")";
        return false;
    }
    if (rename(temp.c_str(), path.c_str()) != 0) {
        const int saved_errno = errno;
        remove(temp.c_str());
        *error = "cannot write '" + path + "': " + strerror(saved_errno);
        return false;
    }
    return true;
}

}  // namespace vo::caffe_import
