// vonet example-model: writes a small classifier to try the other commands on.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <vonet/net.h>

#include "args.h"
#include "commands.h"
#include "model_io.h"

namespace vo::cli {
namespace {

constexpr const char* kName = "example-model";

constexpr const char* kHelp =
    "Usage: vonet example-model OUT\n"
    "\n"
    "Writes a small example model to OUT: a two-class classifier of 3x24x24 images\n"
    "with fixed pseudo-random weights (the same file on every machine):\n"
    "\n"
    "  data 1x3x24x24 -> conv1 (3x3, 8 channels, pad 1) -> relu1 -> pool1 (max 2x2,\n"
    "  stride 2) -> conv2 (3x3, 16 channels) -> prelu2 -> pool2 (max 2x2, stride 2)\n"
    "  -> fc (400 to 2) -> prob (softmax over channels), output \"prob\"\n"
    "\n"
    "Its weights are not trained: it is there to show what info, run and bench do.\n"
    "\n"
    "Options:\n"
    "  -h, --help  show this help\n";

// Model file bytes, little-endian, field by field.
class ModelWriter {
public:
    void u8(uint8_t v) { bytes_.push_back(char(v)); }
    void i32(int32_t v) {
        const uint32_t u = uint32_t(v);
        for (int i = 0; i < 4; ++i) u8(uint8_t(u >> (8 * i)));
    }
    void f32(float v) {
        uint32_t u;
        memcpy(&u, &v, 4);
        i32(int32_t(u));
    }
    void name(const char* s) {
        char field[32] = {};
        strncpy(field, s, sizeof(field) - 1);
        bytes_.append(field, sizeof(field));
    }
    // `count` weights uniform in [-scale, scale) from a fixed sequence.
    void weights(int count, float scale) {
        for (int i = 0; i < count; ++i) {
            state_ = state_ * 1664525u + 1013904223u;  // a linear congruential step
            f32((float(state_ >> 8) * (1.0f / 8388608.0f) - 1.0f) * scale);
        }
    }
    // Layer header: name and type id; the record follows.
    void begin_layer(const char* layerName, LayerType type) {
        name(layerName);
        i32(type);
    }
    // Layer footer: one input and one output tensor name.
    void end_layer(const char* input, const char* output) {
        u8(1);
        name(input);
        u8(1);
        name(output);
    }
    const std::string& bytes() const { return bytes_; }

private:
    std::string bytes_;
    uint32_t state_ = 12345u;
};

void convolution(ModelWriter* m, const char* name, int in, int out, int kernel, int pad, const char* from,
                 const char* to) {
    m->begin_layer(name, LAYER_CONVOLUTION);
    m->i32(out);
    m->i32(in);
    m->i32(kernel);  // width
    m->i32(kernel);  // height
    m->i32(1);       // strideW
    m->i32(1);       // strideH
    m->i32(pad);     // padW
    m->i32(pad);     // padH
    m->u8(1);        // hasBias
    m->u8(0);        // quantized
    m->weights(out * in * kernel * kernel, 1.0f / std::sqrt(float(in * kernel * kernel)));
    m->weights(out, 0.1f);
    m->end_layer(from, to);
}

void max_pool_2x2(ModelWriter* m, const char* name, const char* from, const char* to) {
    m->begin_layer(name, LAYER_POOLING);
    m->i32(0);  // max
    m->i32(2);  // kernelW
    m->i32(2);  // kernelH
    m->i32(0);  // padW
    m->i32(0);  // padH
    m->i32(2);  // strideW
    m->i32(2);  // strideH
    m->u8(0);   // not global
    m->end_layer(from, to);
}

std::string example_model_bytes() {
    ModelWriter m;
    for (int i = 0; i < 256; ++i) m.u8(0);  // reserved block
    m.u8(1);                                // inputs
    m.name("data");
    m.i32(1);
    m.i32(3);
    m.i32(24);
    m.i32(24);
    m.u8(1);  // outputs
    m.name("prob");

    convolution(&m, "conv1", 3, 8, 3, 1, "data", "conv1");  // 8x24x24
    m.begin_layer("relu1", LAYER_RELU);                       // no record
    m.end_layer("conv1", "conv1");
    max_pool_2x2(&m, "pool1", "conv1", "pool1");            // 8x12x12
    convolution(&m, "conv2", 8, 16, 3, 0, "pool1", "conv2");  // 16x10x10
    m.begin_layer("prelu2", LAYER_PRELU);
    m.i32(16);
    for (int c = 0; c < 16; ++c) m.f32(0.25f);
    m.end_layer("conv2", "conv2");
    max_pool_2x2(&m, "pool2", "conv2", "pool2");  // 16x5x5

    m.begin_layer("fc", LAYER_INNER_PRODUCT);
    m.u8(1);  // hasBias
    m.u8(0);  // quantized
    m.i32(400);
    m.i32(2);
    m.weights(400 * 2, 1.0f / 20.0f);
    m.weights(2, 0.1f);
    m.end_layer("pool2", "fc");

    m.begin_layer("prob", LAYER_SOFTMAX);
    m.i32(1);  // axis: channels
    m.end_layer("fc", "prob");
    return m.bytes();
}

int run_example_model(const std::vector<std::string>& argv) {
    ParsedArgs args;
    std::string error;
    if (!parse_args(argv, {}, &args, &error)) return usage_error(kName, error);
    if (args.help) {
        fputs(kHelp, stdout);
        return kExitOk;
    }
    if (args.positional.size() != 1) return usage_error(kName, "expected exactly one OUT argument");
    const std::string& path = args.positional[0];
    const std::string bytes = example_model_bytes();
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) {
        report_error(kName, "cannot create '" + path + "': " + strerror(errno));
        return kExitFailure;
    }
    const bool written = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    if (fclose(f) != 0 || !written) {
        report_error(kName, "cannot write '" + path + "'");
        return kExitFailure;
    }
    printf("wrote %s (%zu bytes)\n", path.c_str(), bytes.size());
    return kExitOk;
}

}  // namespace

const Command kExampleModelCommand = {kName, "write a small example model to try the other commands on", kHelp,
                                      run_example_model};

}  // namespace vo::cli
