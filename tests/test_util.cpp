#include "test_util.h"

#include <unistd.h>

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
