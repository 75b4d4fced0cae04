// Helpers shared by the tests: temporary files, model file bytes and layer
// records, models loaded from bytes, bit-exact comparisons, random data and
// images, the test-only layer type, the instruction-set loop and the
// synthetic detection cascade.
#ifndef VONET_TESTS_TEST_UTIL_H
#define VONET_TESTS_TEST_UTIL_H

#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "kernels/isa.h"

namespace vo_test {

// A fresh directory, removed with its contents at scope exit.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);

// Builds the bytes of a model file field by field.
class ModelBytes {
public:
    ModelBytes& header();  // the 256-byte reserved block
    ModelBytes& u8(uint8_t v);
    ModelBytes& i32(int32_t v);
    ModelBytes& i32s(std::initializer_list<int32_t> vs);
    ModelBytes& f32(float v);
    ModelBytes& floats(const std::vector<float>& vs);
    ModelBytes& name(const std::string& s);  // a 32-byte name field
    ModelBytes& raw(const std::string& bytes);
    ModelBytes& input(const std::string& s, int32_t n, int32_t c, int32_t h, int32_t w);
    // A layer entry with one name list each way around `record`.
    ModelBytes& layer(const std::string& s, int32_t type, const std::string& record,
                      const std::vector<std::string>& inputs, const std::vector<std::string>& outputs);
    const std::string& bytes() const { return bytes_; }
    size_t size() const { return bytes_.size(); }

private:
    std::string bytes_;
};

// The file header with one input "data" of (n, c, h, w) and the named outputs.
ModelBytes head(int n, int c, int h, int w, const std::vector<std::string>& outputs = {"out"});

// Layer records; an empty bias means none.
std::string conv_record(int M, int C, int kW, int kH, int sW, int sH, int pW, int pH, const std::vector<float>& w,
                        const std::vector<float>& bias);
// Output channels come before input channels in this record.
std::string deconv_record(int Co, int Ci, int kW, int kH, int sW, int sH, int pW, int pH,
                          const std::vector<float>& w, const std::vector<float>& bias);
std::string fc_record(int inputDim, int outputDim, const std::vector<float>& w, const std::vector<float>& bias);
std::string pool_record(int type, int kW, int kH, int pW, int pH, int sW, int sH, int global = 0);

struct NetDeleter {
    void operator()(Net* n) const { vo_release_net(&n); }
};
using NetPtr = std::unique_ptr<Net, NetDeleter>;

// A model file loaded from bytes, with what the load printed.
struct Model {
    explicit Model(const std::string& bytes);
    std::string saved();  // the bytes vo_save_net writes for the net
    int forward(const std::vector<float>& in, int n, int c, int h, int w) {
        return vo_forward_net(net.get(), in.data(), n, c, h, w);
    }
    Tensor* out(const char* name = "out") { return vo_output_by_name(net.get(), name); }

    TempDir dir;
    int status = -1;
    NetPtr net;
    std::string printed, err;  // stdout and stderr of the load
};

inline uint32_t bits_of(float v) {
    uint32_t b;
    memcpy(&b, &v, 4);
    return b;
}

// Floats of varied magnitude and sign; with `specials`, now and then a
// signed zero, NaN of either sign, an infinity, a tiny or the lowest value.
std::vector<float> random_floats(std::mt19937& rng, size_t n, bool specials = false);

// Every bit equal (0.0 and -0.0 differ, NaNs compare by their bits).
testing::AssertionResult same_bits(const float* got, const float* want, size_t n);
testing::AssertionResult same_bits(const Tensor* t, const std::vector<float>& want);
// Index of the first element whose bits differ, or -1. Any two NaNs count as
// equal: which NaN survives a commutative instruction is the compiler's
// choice of operand order, so only NaN-ness is part of the kernels' contract.
int64_t first_bit_difference(const float* a, const float* b, int64_t n);
inline std::vector<int> dims(const Tensor* t) { return {t->num, t->channel, t->height, t->width}; }

// What a call returned and printed on standard output and standard error.
struct Printed {
    int status;
    std::string out, err;
    bool operator==(const Printed& o) const { return status == o.status && out == o.out && err == o.err; }
};
inline std::ostream& operator<<(std::ostream& os, const Printed& p) {
    return os << "status " << p.status << ", stdout '" << p.out << "', stderr '" << p.err << "'";
}
template <typename F>
Printed printed_by(F call) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = call();
    std::string out = testing::internal::GetCapturedStdout();
    return {status, out, testing::internal::GetCapturedStderr()};
}

// Runs a test body once per instruction-set path this CPU has.
template <typename F>
void for_each_isa(F body) {
    for (int i = 0; i < vo::kIsaCount; ++i) {
        const vo::Isa isa = vo::Isa(i);
        if (!vo::isa_supported(isa)) continue;
        const vo::Isa previous = vo::set_isa_for_testing(isa);
        SCOPED_TRACE(vo::isa_name(isa));
        body();
        vo::set_isa_for_testing(previous);
    }
}

// A buffer of exactly `count` elements one element off alignment, so that a
// read past the end trips the address sanitizer and vector paths see
// unaligned rows.
template <typename T>
struct Buffer {
    explicit Buffer(size_t count, T fill = T()) : storage(count + 1, fill) {}
    T* data() { return storage.data() + 1; }
    size_t size() const { return storage.size() - 1; }
    std::vector<T> storage;
};

// A random image whose rows are `extraStride` bytes wider than its pixels.
struct TestImage {
    TestImage(int w, int h, int bytesPerPixel, int extraStride, std::mt19937& rng)
        : width(w), height(h), stride(w * bytesPerPixel + extraStride),
          buffer(size_t(h - 1) * size_t(stride) + size_t(w) * bytesPerPixel) {
        for (size_t i = 0; i < buffer.size(); ++i) buffer.data()[i] = uint8_t(rng());
    }
    uint8_t* data() { return buffer.data(); }
    const uint8_t* row(int y) { return buffer.data() + size_t(y) * stride; }
    int width, height, stride;
    Buffer<uint8_t> buffer;
};

// The test layer type: output = input * factor, record = factor and
// `fail_height`, which makes reshape fail (status 5) for inputs of that height.
struct TestScale {
    float factor;
    int32_t fail_height;
    int reshapes;
    int forwards;
};
std::string test_scale_record(float factor, int32_t fail_height = -1);

// Binds the test layer type to a type id for the guard's lifetime.
class TestLayerType {
public:
    explicit TestLayerType(int32_t type);
    ~TestLayerType();
    TestLayerType(const TestLayerType&) = delete;
    TestLayerType& operator=(const TestLayerType&) = delete;

private:
    int32_t type_;
    const void* previous_;
};

// ---- detection: classifiers of inner product heads whose scores and
// regressions are exact (weights 0 and 1, integer pixels) ----

// Each output is its bias plus the input value named by `picks` (one input
// index per output, -1 for none).
struct Head {
    std::vector<float> bias;
    std::vector<int> picks;
};

// A network with input "data" (1 x channel x height x width), a "prob" head
// and, when `box` is given, a "fc1b" head.
std::string head_net(int width, int height, int channel, const Head& prob, const Head* box = nullptr);
inline std::string params_bytes(int32_t classSize, int32_t width, int32_t height, int32_t channel) {
    return ModelBytes().i32s({classSize, width, height, channel}).bytes();
}
// dir/name_params.dat and, unless `model` is empty, dir/name.dat.
void write_classifier(const std::string& dir, const std::string& name, int32_t classSize, int32_t width,
                      int32_t height, int32_t channel, const std::string& model);

// The synthetic cascade, 24 x 24 grey windows:
// - anet: label 1 when the window pixel (12, 12) is above 128, conf = that pixel;
// - bnet: always label 1, conf 1, regression (1, 2, 20, 20);
// - cnet: label 1 when its patch pixel (12, 12) is above 180, conf = that
//   pixel, regression (0, 0, 24, 24).
constexpr int kWin = 24;
std::string anet_model();
// Writes the stages of `roles` ("anet", "bnet", "cnet") for cascade `name`.
void write_cascade(const std::string& dir, const std::string& name, const std::vector<std::string>& roles);

// The test image, 256 x 192 grey: square A of 200 at [96, 144) x [48, 96),
// square B of 160 at [176, 224) x [120, 168), 0 elsewhere (edges on 8-pixel
// blocks, so a JPEG keeps them flat).
constexpr int kImageW = 256;
constexpr int kImageH = 192;
std::vector<uint8_t> squares_image();
// Searches the image at scale 1 on one level (24 / (192 * 0.125) = 1) with
// a step of 12 pixels.
inline void set_unit_search(VoDetector* detector) { set_detect_params(detector, 0.125f, 0.5f, 0.5f, 1); }

// Field by field (the padding after `label` is not part of the record).
inline bool same_record(const ObjectInfof& a, const ObjectInfof& b) {
    return bits_of(a.x) == bits_of(b.x) && bits_of(a.y) == bits_of(b.y) && bits_of(a.width) == bits_of(b.width) &&
           bits_of(a.height) == bits_of(b.height) && bits_of(a.conf) == bits_of(b.conf) && a.label == b.label &&
           bits_of(a.scale) == bits_of(b.scale);
}

}  // namespace vo_test

#endif
