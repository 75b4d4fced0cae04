// Caffe import: real trained networks against independent reference
// outputs, the bundled face models against their sources, and small Caffe
// files written here for every layer type and every refusal.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "caffe.pb.h"
#include "importer.h"
#include "run_tool.h"
#include "test_util.h"

namespace {

using namespace vo_test;
using Dims = std::vector<int64_t>;

const std::string kData = VONET_TEST_DATA_DIR;
const std::string kModels = VONET_MODELS_DIR;

std::vector<float> read_floats(const std::string& path) {
    const std::string bytes = vo_test::read_file(path);
    std::vector<float> values(bytes.size() / 4);
    memcpy(values.data(), bytes.data(), values.size() * 4);
    return values;
}

std::vector<std::string> output_names(const Net* net) {
    std::vector<std::string> names;
    for (unsigned i = 0; i < net->outputSize; ++i) names.push_back(net->outputs[i]->name);
    return names;
}

// How many files `dir` holds besides the captured stdout and stderr.
size_t files_in(const TempDir& dir) {
    size_t n = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir.path()))
        n += e.path().filename() != "stdout.txt" && e.path().filename() != "stderr.txt";
    return n;
}

// A small Caffe network: the description as text, the weights built
// through the same schema the importer reads.
class CaffeFiles {
public:
    explicit CaffeFiles(std::string prototxt) : prototxt_(std::move(prototxt)) {}

    // Adds trained blob values for `layer`; values default to a fixed ramp.
    CaffeFiles& blob(const std::string& layer, const Dims& dims, std::vector<float> values = {}) {
        caffe::LayerParameter* l = nullptr;
        for (caffe::LayerParameter& existing : *weights_.mutable_layer())
            if (existing.name() == layer) l = &existing;
        if (!l) {
            l = weights_.add_layer();
            l->set_name(layer);
        }
        caffe::BlobProto* b = l->add_blobs();
        int64_t count = 1;
        for (int64_t d : dims) {
            b->mutable_shape()->add_dim(d);
            count *= d;
        }
        if (values.empty())
            for (int64_t i = 0; i < count; ++i) values.push_back(float((i * 7919) % 23 - 11) / 16.0f);
        for (float v : values) b->add_data(v);
        return *this;
    }
    caffe::NetParameter& weights() { return weights_; }

    // Imports in-process; returns the model path, or "" with *error set.
    std::string import(const TempDir& dir, const vo::caffe_import::ImportOptions& options = {},
                       std::string* error = nullptr, std::vector<std::string>* warnings = nullptr) {
        write(dir);
        std::vector<std::string> w;
        std::string e;
        const std::string model = dir.file("model.dat");
        const bool ok = vo::caffe_import::import_caffe(dir.file("net.prototxt"), dir.file("net.caffemodel"), model,
                                                       options, warnings ? warnings : &w, error ? error : &e);
        return ok ? model : std::string();
    }
    void write(const TempDir& dir) {
        vo_test::write_file(dir.file("net.prototxt"), prototxt_);
        vo_test::write_file(dir.file("net.caffemodel"), weights_.SerializeAsString());
    }

private:
    std::string prototxt_;
    caffe::NetParameter weights_;
};

std::string input(int c, int h, int w) {
    return "input: \"data\" input_dim: 1 input_dim: " + std::to_string(c) + " input_dim: " + std::to_string(h) +
           " input_dim: " + std::to_string(w) + "\n";
}

// Loads a model, runs it on a ramp input, returns the named output.
std::vector<float> run_model(const std::string& path, const std::string& output, std::vector<float>* input = nullptr,
                             Net** keep = nullptr) {
    Net* net = nullptr;
    EXPECT_EQ(vo_load_net(path.c_str(), &net), 0);
    if (!net) return {};
    Tensor* in = net->inputs[0];
    std::vector<float> data(size_t(in->capacity));
    for (size_t i = 0; i < data.size(); ++i) data[i] = float(int(i * 37 % 29) - 14) / 8.0f;
    EXPECT_EQ(vo_forward_net(net, data.data(), 1, in->channel, in->height, in->width), 0);
    const Tensor* out = vo_output_by_name(net, output.c_str());
    std::vector<float> result;
    if (out) result.assign(out->data, out->data + out->capacity);
    if (input) *input = data;
    if (keep)
        *keep = net;
    else
        vo_release_net(&net);
    return result;
}

TEST(CaffeImport, MtcnnNetworksMatchTheirReferenceOutputs) {
    struct Case {
        const char* net;
        std::vector<std::string> outputs;  // in the model's output order
    };
    const Case cases[] = {{"det1", {"conv4-2", "prob1"}},
                          {"det2", {"conv5-2", "prob1"}},
                          {"det3", {"conv6-2", "conv6-3", "prob1"}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.net);
        TempDir dir;
        const std::string model = dir.file("m.dat");
        Result r = vonet(dir, {"import", "caffe", kData + "/caffe/" + c.net + ".prototxt",
                               kData + "/caffe/" + c.net + ".caffemodel", "-o", model});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        Net* net = nullptr;
        ASSERT_EQ(vo_load_net(model.c_str(), &net), 0);
        EXPECT_EQ(output_names(net), c.outputs);
        const std::string prefix = kData + "/mtcnn/" + c.net + "_b1.";
        const std::vector<float> in = read_floats(prefix + "in.data.f32");
        const Tensor* shape = net->inputs[0];
        ASSERT_EQ(in.size(), size_t(shape->capacity));
        ASSERT_EQ(vo_forward_net(net, in.data(), 1, shape->channel, shape->height, shape->width), 0);
        for (const std::string& name : c.outputs) {
            const std::vector<float> ref = read_floats(prefix + "out." + name + ".f32");
            const Tensor* out = vo_output_by_name(net, name.c_str());
            ASSERT_NE(out, nullptr);
            ASSERT_EQ(size_t(out->capacity), ref.size()) << name;
            for (size_t i = 0; i < ref.size(); ++i) EXPECT_NEAR(out->data[i], ref[i], 1e-5) << name << " " << i;
        }
        vo_release_net(&net);
    }
}

// The cascade built from them is exercised end to end by the detect tests.
TEST(CaffeImport, ShippedFaceModelsReimportByteForByte) {
    for (const char* stage : {"anet", "bnet", "cnet"}) {
        SCOPED_TRACE(stage);
        TempDir dir;
        const std::string base = std::string("object_face_") + stage;
        const std::string outputs = std::string(stage) == "anet" ? "prob" : "prob,fc1b";
        Result r = vonet(dir, {"import", "caffe", kData + "/face-cascade/" + base + ".prototxt",
                               kData + "/face-cascade/" + base + ".caffemodel", "-o", dir.file("m.dat"),
                               "--outputs", outputs});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(vo_test::read_file(dir.file("m.dat")), vo_test::read_file(kModels + "/" + base + ".dat"));
    }
}

TEST(CaffeImport, DefaultOutputsAreTheUnreadTopsWithWarningsForStraySliceParts) {
    TempDir dir;
    const std::string base = kData + "/face-cascade/object_face_cnet";
    Result r = vonet(dir, {"import", "caffe", base + ".prototxt", base + ".caffemodel", "-o", dir.file("m.dat")});
    ASSERT_EQ(r.status, 0) << r.err;
    Net* net = nullptr;
    ASSERT_EQ(vo_load_net(dir.file("m.dat").c_str(), &net), 0);
    EXPECT_EQ(output_names(net), (std::vector<std::string>{"cut_t", "cut_b", "cut_l", "cut_r", "prob", "fc1b"}));
    vo_release_net(&net);
    for (const char* top : {"'cut_t'", "'cut_b'", "'cut_l'", "'cut_r'"})
        EXPECT_NE(r.err.find(top), std::string::npos) << top;
    EXPECT_EQ(r.err.find("'prob'"), std::string::npos);
}

// Every supported type on one small network; the records and the results
// are checked against the Caffe semantics computed here.
TEST(CaffeImport, ConvertsEveryLayerTypeWithCaffeSemantics) {
    TempDir dir;
    CaffeFiles files(input(2, 6, 6) + R"(
layer { name: "conv" type: "Convolution" bottom: "data" top: "conv"
        convolution_param { num_output: 3 kernel_size: 3 kernel_size: 2 stride: 1 pad: 1 } }
layer { name: "bn" type: "BatchNorm" bottom: "conv" top: "conv" batch_norm_param { eps: 0.001 } }
layer { name: "sc" type: "Scale" bottom: "conv" top: "conv" scale_param { bias_term: true } }
layer { name: "leaky" type: "ReLU" bottom: "conv" top: "conv" relu_param { negative_slope: 0.125 } }
layer { name: "pool" type: "Pooling" bottom: "conv" top: "pool" pooling_param { pool: MAX kernel_size: 2 stride: 2 } }
layer { name: "gpool" type: "Pooling" bottom: "pool" top: "gpool" pooling_param { pool: AVE global_pooling: true } }
layer { name: "up" type: "Deconvolution" bottom: "pool" top: "up"
        convolution_param { num_output: 2 kernel_size: 4 stride: 2 pad: 1 bias_term: false } }
layer { name: "abs" type: "AbsVal" bottom: "up" top: "abs" }
layer { name: "relu" type: "ReLU" bottom: "abs" top: "abs" }
layer { name: "prelu" type: "PReLU" bottom: "abs" top: "abs" prelu_param { channel_shared: true } }
layer { name: "cat" type: "Concat" bottom: "abs" bottom: "up" top: "cat" }
layer { name: "cut" type: "Slice" bottom: "cat" top: "a" top: "b" slice_param { axis: -1 slice_point: 5 } }
layer { name: "sum" type: "Eltwise" bottom: "b" bottom: "b" top: "sum" eltwise_param { coeff: 0.5 coeff: -2 } }
layer { name: "norm" type: "Normalize" bottom: "sum" top: "norm" }
layer { name: "flat" type: "Flatten" bottom: "norm" top: "flat" }
layer { name: "fc" type: "InnerProduct" bottom: "flat" top: "fc" inner_product_param { num_output: 4 } }
layer { name: "fct" type: "InnerProduct" bottom: "fc" top: "fct" inner_product_param { num_output: 3 transpose: true } }
layer { name: "drop" type: "Dropout" bottom: "fct" top: "fct" dropout_param { dropout_ratio: 0.25 } }
layer { name: "prob" type: "Softmax" bottom: "fct" top: "prob" softmax_param { axis: -1 } }
)");
    files.blob("conv", {3, 2, 3, 2}).blob("conv", {3}, {0.5f, -1.0f, 2.0f});
    files.blob("bn", {3}, {1.0f, 2.0f, -3.0f}).blob("bn", {3}, {4.0f, 8.0f, 0.5f}).blob("bn", {1}, {2.0f});
    files.blob("sc", {3}, {2.0f, -1.0f, 0.5f}).blob("sc", {3}, {0.25f, 0.0f, -1.0f});
    files.blob("up", {3, 2, 4, 4});
    files.blob("prelu", {1}, {0.75f});
    files.blob("norm", {1}, {3.0f});
    files.blob("fc", {4, 72}).blob("fc", {4});
    files.blob("fct", {4, 3}).blob("fct", {3});
    std::vector<std::string> warnings;
    std::string error;
    const std::string model = files.import(dir, {}, &error, &warnings);
    ASSERT_NE(model, "") << error;
    ASSERT_EQ(warnings.size(), 1u);  // the unread part of the Slice
    EXPECT_NE(warnings[0].find("top 'a' of layer 'cut' (Slice)"), std::string::npos) << warnings[0];

    Net* net = nullptr;
    std::vector<float> x;
    const std::vector<float> prob = run_model(model, "prob", &x, &net);
    ASSERT_NE(net, nullptr);
    EXPECT_EQ(output_names(net), (std::vector<std::string>{"gpool", "a", "prob"}));
    std::vector<std::string> types;
    for (uint32_t i = 0; i < net->layerSize; ++i) types.push_back(get_info_layer(net->layers[i]));
    const std::vector<std::string> expectedTypes = {
        "Convolution, kern: 3 2 3 2, stride: 1 1, pad: 1 1, bias: 1",  // (M, C, kh, kw), pads (w, h)
        "BatchNorm 3\n",  // the Scale is folded in
        "PReLU",          // a leaky ReLU
        "Pooling type: 0 kern: 2 2 pad: 0 0 stride: 2 2 global: 0",
        "Pooling type: 2 kern: 4 3 pad: 0 0 stride: 1 1 global: 1",
        "deconv, kern: 3 2 4 4, stride: 2 2, pad: 1 1, bias: 0",
        "Abs",
        "ReLU",
        "PReLU",
        "Concat 0 1",
        "Slice: 3 1",  // axis -1 of a 4-axis blob
        "Eltwise sum",
        "normalize 0 0 1\n",
        "Flatten",
        "InnerProduct: 72 4 1",
        "InnerProduct: 4 3 1",
        "Dropout",
        "Softmax 1",  // axis -1 of the 2-axis inner product output
    };
    EXPECT_EQ(types, expectedTypes);

    // Conv -> folded BatchNorm/Scale: scale = gamma / sqrt(var / f + eps).
    const Tensor* conv = net_tensor_by_name(net, "conv");
    const BatchNorm* bn = static_cast<BatchNorm*>(net->layers[1]->runParams);
    const float mean[] = {1, 2, -3}, var[] = {4, 8, 0.5f}, gamma[] = {2, -1, 0.5f}, beta[] = {0.25f, 0, -1};
    for (int c = 0; c < 3; ++c) {
        const double s = 1.0 / std::sqrt(var[c] / 2.0 + 0.001);
        EXPECT_NEAR(bn->scale->data[c], s * gamma[c], 1e-6);
        EXPECT_NEAR(bn->bias->data[c], -mean[c] / 2.0 * s * gamma[c] + beta[c], 1e-6);
    }
    // (6 + 2 - 3) / 1 + 1 high with kernel 3 high, (6 + 2 - 2) / 1 + 1 wide with kernel 2 wide.
    EXPECT_EQ(dims(conv), (std::vector<int>{1, 3, 6, 7}));
    const PReLU* leaky = static_cast<PReLU*>(net->layers[2]->runParams);
    ASSERT_EQ(leaky->channel, 3);
    for (int c = 0; c < 3; ++c) EXPECT_EQ(leaky->slope->data[c], 0.125f);
    // Pooling rounds up: 7 wide -> 4 with a last window of one column.
    EXPECT_EQ(dims(net_tensor_by_name(net, "pool")), (std::vector<int>{1, 3, 3, 4}));
    const PReLU* shared = static_cast<PReLU*>(net->layers[8]->runParams);
    ASSERT_EQ(shared->channel, 2);
    EXPECT_EQ(shared->slope->data[1], 0.75f);
    EXPECT_EQ(dims(net_tensor_by_name(net, "up")), (std::vector<int>{1, 2, 6, 8}));  // 4 + (in - 1) * 2 - 2
    const Eltwise* sum = static_cast<Eltwise*>(net->layers[11]->runParams);
    ASSERT_EQ(sum->coeffSize, 2);
    EXPECT_EQ(sum->coeffs[1], -2.0f);
    EXPECT_EQ(static_cast<Dropout*>(net->layers[16]->runParams)->dropoutParam, 0.25f);

    // Inner products: Caffe's (out, in) blob is transposed; a transposed
    // blob is taken as it is. Check the last two layers' results directly.
    const Tensor* flat = net_tensor_by_name(net, "flat");
    const Tensor* fc = net_tensor_by_name(net, "fc");
    const Tensor* fct = net_tensor_by_name(net, "fct");
    ASSERT_EQ(flat->capacity, 72);
    const caffe::BlobProto& w1 = files.weights().layer(6).blobs(0);
    const caffe::BlobProto& w2 = files.weights().layer(7).blobs(0);
    for (int o = 0; o < 4; ++o) {
        double acc = files.weights().layer(6).blobs(1).data(o);
        for (int i = 0; i < 72; ++i) acc += double(w1.data(o * 72 + i)) * flat->data[i];
        EXPECT_NEAR(fc->data[o], acc, 1e-4);
    }
    double logits[3], total = 0;
    for (int o = 0; o < 3; ++o) {
        double acc = files.weights().layer(7).blobs(1).data(o);
        for (int i = 0; i < 4; ++i) acc += double(w2.data(i * 3 + o)) * fc->data[i];
        EXPECT_NEAR(fct->data[o], acc, 1e-4);
        logits[o] = acc;
    }
    for (double& l : logits) total += (l = std::exp(l));
    ASSERT_EQ(prob.size(), 3u);
    for (int o = 0; o < 3; ++o) EXPECT_NEAR(prob[o], logits[o] / total, 1e-5);
    vo_release_net(&net);
}

TEST(CaffeImport, ReadsLegacyLayersInputLayersAndOverridesTheInputShape) {
    TempDir dir;
    CaffeFiles legacy(input(1, 4, 4) + R"(
layers { name: "conv" type: CONVOLUTION bottom: "data" top: "conv" convolution_param { num_output: 2 kernel_size: 3 } }
layers { name: "relu" type: RELU bottom: "conv" top: "conv" }
layers { name: "fc" type: INNER_PRODUCT bottom: "conv" top: "fc" inner_product_param { num_output: 1 bias_term: false } }
)");
    // Legacy 4-D blob fields instead of a shape.
    caffe::LayerParameter* conv = legacy.weights().add_layer();
    conv->set_name("conv");
    for (int b = 0; b < 2; ++b) {
        caffe::BlobProto* blob = conv->add_blobs();
        blob->set_num(b ? 1 : 2);
        blob->set_channels(1);
        blob->set_height(b ? 1 : 3);
        blob->set_width(b ? 2 : 3);
        for (int i = 0; i < (b ? 2 : 18); ++i) blob->add_data(b ? 0.5f : i < 9 ? 1.0f : -0.5f);
    }
    legacy.blob("fc", {1, 1, 1, 8}, {1, 1, 1, 1, -1, -1, -1, -1});
    std::string error;
    std::string model = legacy.import(dir, {}, &error);
    ASSERT_NE(model, "") << error;
    std::vector<float> x;
    std::vector<float> fc = run_model(model, "fc", &x);
    ASSERT_EQ(fc.size(), 1u);
    double expected = 0;
    for (int c = 0; c < 2; ++c)
        for (int oy = 0; oy < 2; ++oy)
            for (int ox = 0; ox < 2; ++ox) {
                double s = 0.0;
                for (int ky = 0; ky < 3; ++ky)
                    for (int kx = 0; kx < 3; ++kx) s += x[size_t((oy + ky) * 4 + ox + kx)];
                s = 0.5 + (c ? -0.5 : 1.0) * s;
                expected += (c ? -1.0 : 1.0) * std::max(s, 0.0);
            }
    EXPECT_NEAR(fc[0], expected, 1e-4);

    TempDir dir2;
    CaffeFiles inputLayer(R"(
layer { name: "in" type: "Input" top: "image" input_param { shape { dim: 5 dim: 3 dim: 8 dim: 8 } } }
layer { name: "pool" type: "Pooling" bottom: "image" top: "pool" pooling_param { pool: MAX global_pooling: true } }
)");
    vo::caffe_import::ImportOptions options;
    options.hasInputShape = true;
    options.channel = 2;
    options.height = 5;
    options.width = 7;
    model = inputLayer.import(dir2, options, &error);
    ASSERT_NE(model, "") << error;
    Net* net = nullptr;
    ASSERT_EQ(vo_load_net(model.c_str(), &net), 0);
    EXPECT_EQ(std::string(net->inputs[0]->name), "image");
    EXPECT_EQ(dims(net->inputs[0]), (std::vector<int>{1, 2, 5, 7}));  // num is always stored as 1
    EXPECT_EQ(std::string(get_info_layer(net->layers[0])), "Pooling type: 0 kern: 7 5 pad: 0 0 stride: 1 1 global: 1");
    vo_release_net(&net);
}

TEST(CaffeImport, ShortensLongNamesUniquelyAndWarns) {
    TempDir dir;
    const std::string a(40, 'a'), b = std::string(40, 'a') + "b";
    CaffeFiles files(input(1, 2, 2) + "layer { name: \"" + a + "\" type: \"ReLU\" bottom: \"data\" top: \"" + a +
                     "\" }\nlayer { name: \"" + b + "\" type: \"AbsVal\" bottom: \"" + a + "\" top: \"" + b + "\" }\n");
    std::vector<std::string> warnings;
    std::string error;
    const std::string model = files.import(dir, {}, &error, &warnings);
    ASSERT_NE(model, "") << error;
    EXPECT_EQ(warnings.size(), 2u);
    Net* net = nullptr;
    ASSERT_EQ(vo_load_net(model.c_str(), &net), 0);
    EXPECT_EQ(std::string(net->layers[0]->name), std::string(31, 'a'));
    EXPECT_EQ(std::string(net->layers[1]->name), std::string(29, 'a') + "~1");
    EXPECT_EQ(output_names(net), std::vector<std::string>{std::string(29, 'a') + "~1"});
    vo_release_net(&net);
}

// Each refusal is one line naming the layer and its type (or the file),
// and leaves no file behind.
TEST(CaffeImport, RefusesWhatHasNoExactEquivalentAndWritesNothing) {
    struct Case {
        const char* layers;
        std::vector<std::pair<std::string, Dims>> blobs;
        const char* message;
    };
    const Case cases[] = {
        {R"(layer { name: "n" type: "LRN" bottom: "data" top: "n" })", {}, "layer 'n' (LRN): layer type not supported"},
        {R"(layer { name: "c" type: "Convolution" bottom: "data" top: "c" convolution_param { num_output: 2 kernel_size: 1 group: 2 } })",
         {{"c", {2, 1, 1, 1}}, {"c", {2}}}, "layer 'c' (Convolution): grouped convolution"},
        {R"(layer { name: "c" type: "Convolution" bottom: "data" top: "c" convolution_param { num_output: 2 kernel_size: 3 dilation: 2 } })",
         {{"c", {2, 2, 3, 3}}, {"c", {2}}}, "layer 'c' (Convolution): dilation 2"},
        {R"(layer { name: "c" type: "Convolution" bottom: "data" top: "c" convolution_param { num_output: 2 kernel_size: 3 } })",
         {{"c", {2, 2, 3, 2}}, {"c", {2}}}, "layer 'c' (Convolution): blob 0 (weights) has shape 2x2x3x2"},
        {R"(layer { name: "c" type: "Convolution" bottom: "data" top: "c" convolution_param { num_output: 2 kernel_size: 3 } })",
         {{"c", {2, 2, 3, 3}}}, "layer 'c' (Convolution): the weights file has 1 blob(s)"},
        {R"(layer { name: "c" type: "Convolution" bottom: "data" top: "c" convolution_param { num_output: 2 kernel_size: 3 } })",
         {}, "layer 'c' (Convolution): the weights file has no trained blobs"},
        {R"(layer { name: "c" type: "Convolution" bottom: "data" top: "data" convolution_param { num_output: 2 kernel_size: 1 } })",
         {{"c", {2, 2, 1, 1}}, {"c", {2}}}, "layer 'c' (Convolution): works in place"},
        {R"(layer { name: "p" type: "Pooling" bottom: "data" top: "p" pooling_param { pool: STOCHASTIC kernel_size: 2 } })",
         {}, "layer 'p' (Pooling): stochastic pooling"},
        {R"(layer { name: "p" type: "Pooling" bottom: "data" top: "p" pooling_param { kernel_size: 2 round_mode: FLOOR } })",
         {}, "layer 'p' (Pooling): round_mode FLOOR"},
        {R"(layer { name: "f" type: "InnerProduct" bottom: "data" top: "f" inner_product_param { num_output: 2 axis: 2 } })",
         {{"f", {2, 16}}, {"f", {2}}}, "layer 'f' (InnerProduct): axis 2"},
        {R"(layer { name: "b" type: "BatchNorm" bottom: "data" top: "b" batch_norm_param { use_global_stats: false } })",
         {}, "layer 'b' (BatchNorm): use_global_stats false"},
        {R"(layer { name: "s" type: "Scale" bottom: "data" bottom: "data" top: "s" })", {},
         "layer 's' (Scale): a scale taken from a second input"},
        {R"(layer { name: "s" type: "Scale" bottom: "data" top: "s" scale_param { axis: 2 } })", {{"s", {4}}},
         "layer 's' (Scale): only a per-channel scale"},
        {R"(layer { name: "d" type: "Dropout" bottom: "data" top: "data" dropout_param { scale_train: false } })", {},
         "layer 'd' (Dropout): scale_train false"},
        {R"(layer { name: "n" type: "Normalize" bottom: "data" top: "n" norm_param { across_spatial: false } })",
         {{"n", {2}}}, "layer 'n' (Normalize): only across_spatial"},
        {R"(layer { name: "e" type: "Eltwise" bottom: "data" bottom: "data" top: "e" eltwise_param { coeff: 1 } })", {},
         "layer 'e' (Eltwise): 1 coefficients for 2 inputs"},
        {R"(layer { name: "e" type: "Eltwise" bottom: "data" bottom: "data" top: "e" eltwise_param { operation: MAX coeff: 1 coeff: 1 } })",
         {}, "layer 'e' (Eltwise): coefficients are used only by the SUM"},
        {R"(layer { name: "s" type: "Slice" bottom: "data" top: "a" top: "b" slice_param { axis: 2 slice_point: 4 } })",
         {}, "layer 's' (Slice): slice points must increase"},
        {R"(layer { name: "s" type: "Slice" bottom: "data" top: "a" top: "b" top: "c" slice_param { axis: 3 } })", {},
         "layer 's' (Slice): axis 3 of size 4 does not split into 3"},
        {R"(layer { name: "f" type: "Flatten" bottom: "data" top: "f" flatten_param { axis: 3 end_axis: 1 } })", {},
         "layer 'f' (Flatten): axis 3 comes after end_axis 1"},
        {R"(layer { name: "x" type: "Softmax" bottom: "data" top: "x" softmax_param { axis: 4 } })", {},
         "layer 'x' (Softmax): axis 4 is out of range"},
        {R"(layer { name: "f" type: "Flatten" bottom: "data" top: "f" }
layer { name: "c" type: "Concat" bottom: "data" bottom: "f" top: "c" })",
         {}, "layer 'c' (Concat): input 'f' (1x32) does not match 'data' (1x2x4x4)"},
        {R"(layer { name: "r" type: "ReLU" bottom: "nothing" top: "r" })", {},
         "layer 'r' (ReLU): input 'nothing' is made by no earlier layer"},
        {R"(layer { name: "c" type: "Convolution" bottom: "data" top: "c" convolution_param { num_output: 1 kernel_size: 5 } })",
         {{"c", {1, 2, 5, 5}}, {"c", {1}}}, "layer 'c' (Convolution): its kernel does not fit"},
        {R"(layer { name: "r" type: "ReLU" bottom: "data" top: "r" )", {}, "cannot parse '"},
        {R"(layer { name: "r" type: "ReLU" bottom: "data" top: "r" relu_param { slope: 1 } })", {}, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.layers);
        TempDir dir;
        CaffeFiles files(input(2, 4, 4) + c.layers);
        for (const auto& b : c.blobs) files.blob(b.first, b.second);
        std::string error;
        std::vector<std::string> warnings;
        const std::string model = files.import(dir, {}, &error, &warnings);
        if (!c.message) {  // undeclared fields are skipped, as in binary files
            EXPECT_NE(model, "") << error;
            continue;
        }
        EXPECT_EQ(model, "");
        EXPECT_EQ(error.rfind(c.message, 0), 0u) << error;
        EXPECT_EQ(error.find('\n'), std::string::npos);
        EXPECT_EQ(files_in(dir), 2u);  // the two Caffe files, nothing else
    }
}

TEST(CaffeImport, CommandLineErrorsAndRefusalsAreOneLineWithNoFileLeft) {
    TempDir dir;
    CaffeFiles files(input(1, 2, 2) + R"(layer { name: "t" type: "TanH" bottom: "data" top: "t" })");
    files.write(dir);
    const std::string proto = dir.file("net.prototxt"), weights = dir.file("net.caffemodel");
    const std::string model = dir.file("out.dat");

    Result r = vonet(dir, {"import", "caffe", proto, weights, "-o", model});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "vonet import: layer 't' (TanH): layer type not supported: no model layer computes it\n");
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(files_in(dir), 2u);

    vo_test::write_file(dir.file("bad.caffemodel"), std::string("\xff\xff\xff", 3));
    r = vonet(dir, {"import", "caffe", proto, dir.file("bad.caffemodel"), "-o", model});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("cannot parse '"), std::string::npos) << r.err;

    const std::vector<std::string> badUsage[] = {{"import", "onnx", proto, weights, "-o", model},
                                                 {"import", "caffe", proto, weights},
                                                 {"import", "caffe", proto, weights, "-o", model, "--input-shape", "1x2"}};
    for (const std::vector<std::string>& args : badUsage) EXPECT_EQ(vonet(dir, args).status, 2) << args.back();
    r = vonet(dir, {"import", "caffe", proto, weights, "-o", model, "--outputs", "nope"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "vonet import: output 'nope' is not a blob of the network\n");
    EXPECT_EQ(files_in(dir), 3u);  // the Caffe files and bad.caffemodel

    r = vonet(dir, {"import", "--help"});
    EXPECT_EQ(r.status, 0);
    for (const char* word : {"--outputs", "--input-shape", "-o MODEL", "Normalize", "31 characters"})
        EXPECT_NE(r.out.find(word), std::string::npos) << word;
}

}  // namespace
