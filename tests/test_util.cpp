#include "test_util.h"

#include <unistd.h>

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/check.h"
#include "vnet/layer_registry.h"
#include "vnet/tensor_internal.h"

namespace vo_test {

TempDir::TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "vonet-test-XXXXXX").string();
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) abort();
    path_ = buf.data();
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), std::streamsize(bytes.size()));
}

ModelBytes& ModelBytes::header() { return raw(std::string(256, '\0')); }
ModelBytes& ModelBytes::u8(uint8_t v) { return raw(std::string(1, char(v))); }
ModelBytes& ModelBytes::i32(int32_t v) { return raw(std::string(reinterpret_cast<const char*>(&v), 4)); }
ModelBytes& ModelBytes::f32(float v) { return raw(std::string(reinterpret_cast<const char*>(&v), 4)); }
ModelBytes& ModelBytes::i32s(std::initializer_list<int32_t> vs) {
    for (int32_t v : vs) i32(v);
    return *this;
}
ModelBytes& ModelBytes::floats(const std::vector<float>& vs) {
    return raw(std::string(reinterpret_cast<const char*>(vs.data()), vs.size() * sizeof(float)));
}
ModelBytes& ModelBytes::raw(const std::string& bytes) {
    bytes_ += bytes;
    return *this;
}

ModelBytes& ModelBytes::name(const std::string& s) {
    std::string field = s.substr(0, 32);
    field.resize(32, '\0');
    return raw(field);
}

ModelBytes& ModelBytes::input(const std::string& s, int32_t n, int32_t c, int32_t h, int32_t w) {
    return name(s).i32(n).i32(c).i32(h).i32(w);
}

ModelBytes& ModelBytes::layer(const std::string& s, int32_t type, const std::string& record,
                              const std::vector<std::string>& inputs, const std::vector<std::string>& outputs) {
    name(s).i32(type).raw(record);
    u8(uint8_t(inputs.size()));
    for (const auto& in : inputs) name(in);
    u8(uint8_t(outputs.size()));
    for (const auto& out : outputs) name(out);
    return *this;
}

ModelBytes head(int n, int c, int h, int w, const std::vector<std::string>& outputs) {
    ModelBytes m;
    m.header().u8(1).input("data", n, c, h, w).u8(uint8_t(outputs.size()));
    for (const auto& o : outputs) m.name(o);
    return m;
}

std::string conv_record(int M, int C, int kW, int kH, int sW, int sH, int pW, int pH, const std::vector<float>& w,
                        const std::vector<float>& bias) {
    return ModelBytes().i32s({M, C, kW, kH, sW, sH, pW, pH}).u8(!bias.empty()).u8(0).floats(w).floats(bias).bytes();
}

std::string deconv_record(int Co, int Ci, int kW, int kH, int sW, int sH, int pW, int pH,
                          const std::vector<float>& w, const std::vector<float>& bias) {
    return ModelBytes().i32s({Co, Ci, kW, kH, sW, sH, pW, pH}).u8(!bias.empty()).floats(w).floats(bias).bytes();
}

std::string fc_record(int inputDim, int outputDim, const std::vector<float>& w, const std::vector<float>& bias) {
    return ModelBytes().u8(!bias.empty()).u8(0).i32s({inputDim, outputDim}).floats(w).floats(bias).bytes();
}

std::string pool_record(int type, int kW, int kH, int pW, int pH, int sW, int sH, int global) {
    return ModelBytes().i32s({type, kW, kH, pW, pH, sW, sH}).u8(uint8_t(global)).bytes();
}

Model::Model(const std::string& bytes) {
    write_file(dir.file("model.vo"), bytes);
    Net* n = nullptr;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    status = vo_load_net(dir.file("model.vo").c_str(), &n);
    err = testing::internal::GetCapturedStderr();
    printed = testing::internal::GetCapturedStdout();
    net.reset(n);
}

std::string Model::saved() {
    if (vo_save_net(dir.file("saved.vo").c_str(), net.get()) != 0) return "save failed";
    return read_file(dir.file("saved.vo"));
}

std::vector<float> random_floats(std::mt19937& rng, size_t n, bool specials) {
    std::uniform_real_distribution<float> mant(-1.0f, 1.0f);
    std::uniform_int_distribution<int> expo(-6, 6);
    const float odd[] = {-0.0f, 0.0f, NAN, -NAN, INFINITY, -INFINITY, 1e-30f, -FLT_MAX};
    std::vector<float> v(n);
    for (auto& x : v) {
        x = std::ldexp(mant(rng), expo(rng));
        if (specials && rng() % 8 == 0) x = odd[rng() % 8];
    }
    return v;
}

testing::AssertionResult same_bits(const float* got, const float* want, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (bits_of(got[i]) != bits_of(want[i]))
            return testing::AssertionFailure() << "element " << i << ": " << got[i] << " (0x" << std::hex
                                               << bits_of(got[i]) << "), expected " << want[i] << " (0x"
                                               << bits_of(want[i]) << ")";
    return testing::AssertionSuccess();
}

testing::AssertionResult same_bits(const Tensor* t, const std::vector<float>& want) {
    if (!t) return testing::AssertionFailure() << "no tensor";
    if (size_t(t->capacity) != want.size())
        return testing::AssertionFailure() << "capacity " << t->capacity << ", expected " << want.size();
    return same_bits(t->data, want.data(), want.size());
}

int64_t first_bit_difference(const float* a, const float* b, int64_t n) {
    for (int64_t i = 0; i < n; ++i)
        if (bits_of(a[i]) != bits_of(b[i]) && !(std::isnan(a[i]) && std::isnan(b[i]))) return i;
    return -1;
}

std::string head_net(int width, int height, int channel, const Head& prob, const Head* box) {
    const int inputs = width * height * channel;
    auto record = [&](const Head& h) {
        std::vector<float> weights(size_t(inputs) * h.bias.size(), 0.0f);
        for (size_t o = 0; o < h.picks.size(); ++o)
            if (h.picks[o] >= 0) weights[size_t(h.picks[o]) * h.bias.size() + o] = 1.0f;
        return fc_record(inputs, int(h.bias.size()), weights, h.bias);
    };
    ModelBytes m = head(1, channel, height, width, box ? std::vector<std::string>{"prob", "fc1b"}
                                                       : std::vector<std::string>{"prob"});
    m.layer("score", LAYER_INNER_PRODUCT, record(prob), {"data"}, {"prob"});
    if (box) m.layer("regress", LAYER_INNER_PRODUCT, record(*box), {"data"}, {"fc1b"});
    return m.bytes();
}

void write_classifier(const std::string& dir, const std::string& name, int32_t classSize, int32_t width,
                      int32_t height, int32_t channel, const std::string& model) {
    write_file(dir + "/" + name + "_params.dat", params_bytes(classSize, width, height, channel));
    if (!model.empty()) write_file(dir + "/" + name + ".dat", model);
}

constexpr int kCentre = 12 * kWin + 12;

std::string anet_model() { return head_net(kWin, kWin, 1, Head{{128.0f, 0.0f}, {-1, kCentre}}); }

void write_cascade(const std::string& dir, const std::string& name, const std::vector<std::string>& roles) {
    const Head bbox{{1.0f, 2.0f, 20.0f, 20.0f}, {}}, cbox{{0.0f, 0.0f, 24.0f, 24.0f}, {}};
    for (const std::string& role : roles) {
        const std::string model = role == "anet"   ? anet_model()
                                  : role == "bnet" ? head_net(kWin, kWin, 1, Head{{0.0f, 1.0f}, {}}, &bbox)
                                                   : head_net(kWin, kWin, 1, Head{{180.0f, 0.0f}, {-1, kCentre}}, &cbox);
        write_classifier(dir, name + "_" + role, 2, kWin, kWin, 1, model);
    }
}

std::vector<uint8_t> squares_image() {
    std::vector<uint8_t> image(size_t(kImageW) * kImageH, 0);
    for (int y = 0; y < kImageH; ++y)
        for (int x = 0; x < kImageW; ++x) {
            if (y >= 48 && y < 96 && x >= 96 && x < 144) image[size_t(y) * kImageW + x] = 200;
            if (y >= 120 && y < 168 && x >= 176 && x < 224) image[size_t(y) * kImageW + x] = 160;
        }
    return image;
}

std::string test_scale_record(float factor, int32_t fail_height) {
    return ModelBytes().f32(factor).i32(fail_height).bytes();
}

namespace {

constexpr const char* kUnit = "tests/scale";

int load_scale(FILE* f, void** result) {
    TestScale* p = static_cast<TestScale*>(calloc(1, sizeof(TestScale)));
    size_t ret = fread(&p->factor, 4, 1, f);
    if (ret == 1) ret = fread(&p->fail_height, 4, 1, f);
    if (ret != 1) {
        vo::check_failed(kUnit, "load_scale", "ret == 1");
        free(p);
        *result = nullptr;
        return 4;
    }
    *result = p;
    return 0;
}

int save_scale(FILE* f, TestScale* p) {
    if (fwrite(&p->factor, 4, 1, f) != 1 || fwrite(&p->fail_height, 4, 1, f) != 1) return 4;
    return 0;
}

int reshape_scale(TestScale* p, Tensor** in, int isize, Tensor** out, int osize, ForwardParams*) {
    if (isize != 1 || osize != 1 || !in[0]) return 5;
    ++p->reshapes;
    if (in[0]->height == p->fail_height) return 5;
    return vo::reshape_tensor_checked(&out[0], in[0]->num, in[0]->channel, in[0]->height, in[0]->width);
}

int forward_scale(TestScale* p, Tensor** in, int, Tensor** out, int, ForwardParams*) {
    ++p->forwards;
    for (int i = 0; i < in[0]->capacity; ++i) out[0]->data[i] = in[0]->data[i] * p->factor;
    return 0;
}

void release_scale(TestScale** slot) {
    free(*slot);
    *slot = nullptr;
}

void get_info_scale(TestScale* p, char* text) { snprintf(text, 128, "scale %.2f", double(p->factor)); }

const vo::LayerOps kScaleOps =
    vo::make_layer_ops<TestScale, forward_scale, reshape_scale, save_scale, release_scale, get_info_scale,
                       load_scale>();

}  // namespace

TestLayerType::TestLayerType(int32_t type)
    : type_(type), previous_(vo::set_layer_ops_for_testing(type, &kScaleOps)) {}

TestLayerType::~TestLayerType() {
    vo::set_layer_ops_for_testing(type_, static_cast<const vo::LayerOps*>(previous_));
}

}  // namespace vo_test
