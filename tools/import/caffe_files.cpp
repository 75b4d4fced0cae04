// Parsing of both Caffe files and the conversion of legacy layers.
#include "caffe_files.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/text_format.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace vo::caffe_import {
namespace {

// Keeps the first error; unknown-field warnings are expected and dropped.
class FirstError : public google::protobuf::io::ErrorCollector {
public:
    void AddError(int line, google::protobuf::io::ColumnNumber column, const std::string& message) override {
        if (!text_.empty()) return;
        text_ = "line " + std::to_string(line + 1) + " column " + std::to_string(column + 1) + ": " + message;
    }
    const std::string& text() const { return text_; }

private:
    std::string text_;
};

// Closes the descriptor on every path.
class FileDescriptor {
public:
    explicit FileDescriptor(const std::string& path) : fd_(open(path.c_str(), O_RDONLY)) {}
    ~FileDescriptor() {
        if (fd_ >= 0) close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

const char* legacy_type_name(caffe::V1LayerParameter::LayerType type) {
    switch (type) {
        case caffe::V1LayerParameter::ABSVAL: return "AbsVal";
        case caffe::V1LayerParameter::CONCAT: return "Concat";
        case caffe::V1LayerParameter::CONVOLUTION: return "Convolution";
        case caffe::V1LayerParameter::DECONVOLUTION: return "Deconvolution";
        case caffe::V1LayerParameter::DROPOUT: return "Dropout";
        case caffe::V1LayerParameter::ELTWISE: return "Eltwise";
        case caffe::V1LayerParameter::FLATTEN: return "Flatten";
        case caffe::V1LayerParameter::INNER_PRODUCT: return "InnerProduct";
        case caffe::V1LayerParameter::POOLING: return "Pooling";
        case caffe::V1LayerParameter::RELU: return "ReLU";
        case caffe::V1LayerParameter::SOFTMAX: return "Softmax";
        case caffe::V1LayerParameter::SLICE: return "Slice";
        default: return nullptr;
    }
}

void upgrade_layer(const caffe::V1LayerParameter& old, caffe::LayerParameter* layer) {
    layer->set_name(old.name());
    const char* type = legacy_type_name(old.type());
    layer->set_type(type ? type : caffe::V1LayerParameter::LayerType_Name(old.type()));
    for (const std::string& b : old.bottom()) layer->add_bottom(b);
    for (const std::string& t : old.top()) layer->add_top(t);
    *layer->mutable_include() = old.include();
    *layer->mutable_exclude() = old.exclude();
    *layer->mutable_blobs() = old.blobs();
    if (old.has_concat_param()) *layer->mutable_concat_param() = old.concat_param();
    if (old.has_convolution_param()) *layer->mutable_convolution_param() = old.convolution_param();
    if (old.has_dropout_param()) *layer->mutable_dropout_param() = old.dropout_param();
    if (old.has_eltwise_param()) *layer->mutable_eltwise_param() = old.eltwise_param();
    if (old.has_inner_product_param()) *layer->mutable_inner_product_param() = old.inner_product_param();
    if (old.has_pooling_param()) *layer->mutable_pooling_param() = old.pooling_param();
    if (old.has_relu_param()) *layer->mutable_relu_param() = old.relu_param();
    if (old.has_slice_param()) *layer->mutable_slice_param() = old.slice_param();
    if (old.has_softmax_param()) *layer->mutable_softmax_param() = old.softmax_param();
}

// A rule applies to the test phase unless it names another phase.
bool rule_meets_test(const caffe::NetStateRule& rule) { return !rule.has_phase() || rule.phase() == caffe::TEST; }

}  // namespace

bool read_prototxt(const std::string& path, caffe::NetParameter* net, std::string* error) {
    FileDescriptor fd(path);
    if (fd.get() < 0) {
        *error = "cannot open '" + path + "': " + strerror(errno);
        return false;
    }
    google::protobuf::io::FileInputStream input(fd.get());
    FirstError errors;
    google::protobuf::TextFormat::Parser parser;
    parser.AllowUnknownField(true);
    parser.RecordErrorsTo(&errors);
    if (!parser.Parse(&input, net)) {
        *error = "cannot parse '" + path + "'" + (errors.text().empty() ? std::string() : ": " + errors.text());
        return false;
    }
    return true;
}

bool read_caffemodel(const std::string& path, caffe::NetParameter* net, std::string* error) {
    FileDescriptor fd(path);
    if (fd.get() < 0) {
        *error = "cannot open '" + path + "': " + strerror(errno);
        return false;
    }
    google::protobuf::io::FileInputStream raw(fd.get());
    google::protobuf::io::CodedInputStream input(&raw);
    // Trained networks can be far beyond protobuf's default message limit.
    input.SetTotalBytesLimit(INT_MAX);
    if (!net->ParseFromCodedStream(&input) || !input.ConsumedEntireMessage()) {
        *error = "cannot parse '" + path + "': not a binary Caffe network";
        return false;
    }
    return true;
}

void upgrade_legacy_layers(caffe::NetParameter* net) {
    for (const caffe::V1LayerParameter& old : net->layers()) upgrade_layer(old, net->add_layer());
    net->clear_layers();
}

bool in_test_phase(const caffe::LayerParameter& layer) {
    if (layer.include_size() > 0) {
        bool any = false;
        for (const caffe::NetStateRule& rule : layer.include()) any = any || rule_meets_test(rule);
        if (!any) return false;
    }
    for (const caffe::NetStateRule& rule : layer.exclude())
        if (rule_meets_test(rule)) return false;
    return true;
}

}  // namespace vo::caffe_import
