// Running one small model file end to end in the layer tests: load it from
// bytes, feed it, read its outputs, save it back.
#ifndef VONET_TESTS_VNET_MODEL_RUN_H
#define VONET_TESTS_VNET_MODEL_RUN_H

#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "test_util.h"

namespace vo_model {

struct NetDeleter {
    void operator()(Net* n) const { vo_release_net(&n); }
};
using NetPtr = std::unique_ptr<Net, NetDeleter>;

// A model file loaded from bytes, with what the load printed to stderr.
struct Model {
    int status = -1;
    NetPtr net;
    std::string err;
    vo_test::TempDir dir;

    explicit Model(const std::string& bytes) {
        vo_test::write_file(dir.file("model.vo"), bytes);
        Net* n = nullptr;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        status = vo_load_net(dir.file("model.vo").c_str(), &n);
        err = testing::internal::GetCapturedStderr();
        testing::internal::GetCapturedStdout();
        net.reset(n);
    }
    // The bytes vo_save_net writes for the loaded net.
    std::string saved() {
        if (vo_save_net(dir.file("saved.vo").c_str(), net.get()) != 0) return "save failed";
        return vo_test::read_file(dir.file("saved.vo"));
    }
    int forward(const std::vector<float>& in, int n, int c, int h, int w) {
        return vo_forward_net(net.get(), in.data(), n, c, h, w);
    }
    Tensor* out(const char* name = "out") { return vo_output_by_name(net.get(), name); }
};

// The file header with one input "data" of (n, c, h, w) and the named
// outputs.
inline vo_test::ModelBytes head(int n, int c, int h, int w, const std::vector<std::string>& outputs = {"out"}) {
    vo_test::ModelBytes m;
    m.header().u8(1).input("data", n, c, h, w).u8(uint8_t(outputs.size()));
    for (const auto& o : outputs) m.name(o);
    return m;
}

// Random values with the awkward ones mixed in when `special` is set:
// signed zeros, infinities, NaN.
inline std::vector<float> random_floats(std::mt19937& rng, size_t n, bool special = false) {
    std::uniform_real_distribution<float> dist(-4.0f, 4.0f);
    const float odd[] = {0.0f, -0.0f, INFINITY, -INFINITY, NAN, -NAN, -FLT_MAX};
    std::vector<float> v(n);
    for (auto& x : v) x = special && rng() % 5 == 0 ? odd[rng() % 7] : dist(rng);
    return v;
}

inline testing::AssertionResult same_bits(const float* got, const float* want, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (memcmp(&got[i], &want[i], sizeof(float)) != 0)
            return testing::AssertionFailure() << "element " << i << ": " << got[i] << ", expected " << want[i];
    }
    return testing::AssertionSuccess();
}

inline testing::AssertionResult same_bits(const Tensor* t, const std::vector<float>& want) {
    if (!t) return testing::AssertionFailure() << "no tensor";
    if (size_t(t->capacity) != want.size())
        return testing::AssertionFailure() << "capacity " << t->capacity << ", expected " << want.size();
    return same_bits(t->data, want.data(), want.size());
}

inline std::vector<int> dims(const Tensor* t) { return {t->num, t->channel, t->height, t->width}; }

}  // namespace vo_model

#endif
