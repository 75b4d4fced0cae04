// Batch norm, normalize and eltwise against literal references (the fused
// multiply-adds and sums as the layers define them), through model files.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using vo_test::head;
using vo_test::Model;
using vo_test::ModelBytes;
using vo_test::random_floats;
using vo_test::same_bits;

std::string batchnorm_record(const std::vector<float>& scale, const std::vector<float>& bias) {
    return ModelBytes().i32(int(scale.size())).floats(scale).floats(bias).bytes();
}

std::string normalize_record(int perChannel, int scalePerChannel, const std::vector<float>& scale) {
    return ModelBytes().u8(uint8_t(perChannel)).u8(uint8_t(scalePerChannel)).i32(int(scale.size())).floats(scale).bytes();
}

TEST(BatchNorm, FusedPerChannelAffineInAndOutOfPlace) {
    std::mt19937 rng(1);
    for (int C : {1, 3, 8}) {
        const int H = 1 + rng() % 5, W = 1 + rng() % 9;
        const auto scale = random_floats(rng, C), bias = random_floats(rng, C);
        // The first layer works out of place, the second in place on its output.
        const std::string bytes = head(1, C, H, W, {"mid"})
                                      .layer("bn1", LAYER_BATCHNORM, batchnorm_record(scale, bias), {"data"}, {"mid"})
                                      .layer("bn2", LAYER_BATCHNORM, batchnorm_record(bias, scale), {"mid"}, {"mid"})
                                      .bytes();
        Model m(bytes);
        ASSERT_EQ(m.status, 0) << m.err;
        for (int N : {1, 3}) {
            const auto in = random_floats(rng, size_t(N) * C * H * W, true);
            std::vector<float> want(in.size());
            for (size_t i = 0; i < in.size(); ++i) {
                const int c = int(i / (H * W) % C);
                want[i] = std::fma(bias[c], std::fma(scale[c], in[i], bias[c]), scale[c]);
            }
            ASSERT_EQ(m.forward(in, N, C, H, W), 0);
            EXPECT_TRUE(same_bits(m.out("mid"), want));
        }
        EXPECT_EQ(m.saved(), bytes);
    }
}

// d by one fma chain in index order, inv in double, then one float product.
std::vector<float> reference_normalize(const std::vector<float>& in, int C, int plane, bool perChannel,
                                       bool scalePerChannel, const std::vector<float>& scale) {
    const size_t size = perChannel ? plane : size_t(C) * plane;
    std::vector<float> out(in.size());
    for (size_t start = 0, g = 0; start < in.size(); start += size, ++g) {
        float d = 0.0f;
        for (size_t i = start; i < start + size; ++i) d = std::fma(in[i], in[i], d);
        const float inv = float(1.0 / (std::sqrt(double(d)) + 1e-6));
        const float s = scalePerChannel ? scale[perChannel ? g % C : 0] : scale[0];
        for (size_t i = start; i < start + size; ++i) out[i] = in[i] * (inv * s);
    }
    return out;
}

TEST(Normalize, EveryModeMatchesReference) {
    std::mt19937 rng(4);
    for (int mode = 0; mode < 4; ++mode) {
        const bool perChannel = mode & 1, scalePerChannel = mode & 2;
        const int C = 1 + rng() % 4, H = 1 + rng() % 6, W = 1 + rng() % 11;
        const auto scale = random_floats(rng, C);
        const std::string bytes =
            head(1, C, H, W)
                .layer("norm", LAYER_NORMALIZE, normalize_record(perChannel, scalePerChannel, scale), {"data"}, {"out"})
                .bytes();
        Model m(bytes);
        ASSERT_EQ(m.status, 0) << m.err;
        for (int N : {1, 2}) {
            const auto in = random_floats(rng, size_t(N) * C * H * W);
            ASSERT_EQ(m.forward(in, N, C, H, W), 0);
            EXPECT_TRUE(same_bits(m.out(), reference_normalize(in, C, H * W, perChannel, scalePerChannel, scale)));
        }
        EXPECT_EQ(m.saved(), bytes);
    }
    // {3, 4}: d = 25, about {0.6, 0.8}; per channel with scales {1, 10}.
    Model m(head(1, 2, 1, 2).layer("n", LAYER_NORMALIZE, normalize_record(1, 1, {1, 10}), {"data"}, {"out"}).bytes());
    ASSERT_EQ(m.forward({3, 4, 3, 4}, 1, 2, 1, 2), 0);
    EXPECT_NEAR(m.out()->data[0], 0.6f, 1e-6);
    EXPECT_NEAR(m.out()->data[1], 0.8f, 1e-6);
    EXPECT_NEAR(m.out()->data[3], 8.0f, 1e-5);
    // With one norm per image only the first scale is read.
    EXPECT_EQ(Model(head(1, 3, 1, 2).layer("n", LAYER_NORMALIZE, normalize_record(0, 1, {2}), {"data"}, {"out"}).bytes())
                  .status, 0);
}

std::vector<float> reference_eltwise(int op, const std::vector<float>& coeffs, const std::vector<const float*>& in,
                                     size_t count) {
    std::vector<float> y(count);
    for (size_t i = 0; i < count; ++i) {
        const float a = in[0][i], b = in[1][i];
        float r;
        if (op == 1) {
            r = !coeffs.empty() && !(coeffs[0] == 1.0f && coeffs[1] == 1.0f)
                    ? std::fma(coeffs[1], b, std::fma(coeffs[0], a, 0.0f))
                    : a + b;
            for (size_t k = 2; k < in.size(); ++k)
                r = !coeffs.empty() && !(coeffs[k] == 1.0f) ? std::fma(coeffs[k], in[k][i], r) : r + in[k][i];
        } else if (op == 2) {
            r = b > a ? b : a;
            for (size_t k = 2; k < in.size(); ++k) r = r > in[k][i] ? r : in[k][i];
        } else {
            r = a * b;
            for (size_t k = 2; k < in.size(); ++k) r = in[k][i] * r;
        }
        y[i] = r;
    }
    return y;
}

// Three different inputs: the thirds of the channels of "data".
TEST(Eltwise, SumsMaximaAndProductsMatchReference) {
    const struct {
        int op;
        std::vector<float> coeffs;
    } cases[] = {{1, {}}, {1, {1, 1, -1}}, {1, {0.5f, 0.5f, 1}}, {1, {1, 1, NAN}}, {1, {2, 1, 1, 9}}, {2, {}}, {0, {}}};
    std::mt19937 rng(8);
    for (const auto& t : cases) {
        const int C = 1 + rng() % 3, H = 1 + rng() % 5, W = 1 + rng() % 19;
        const std::string bytes =
            head(1, 3 * C, H, W)
                .layer("cut", LAYER_SLICE, ModelBytes().i32s({1, 2, C, 2 * C}).bytes(), {"data"}, {"a", "b", "c"})
                .layer("elt", LAYER_ELTWISE, ModelBytes().i32s({t.op, int(t.coeffs.size())}).floats(t.coeffs).bytes(),
                       {"a", "b", "c"}, {"out"})
                .bytes();
        Model m(bytes);
        ASSERT_EQ(m.status, 0) << m.err;
        for (int N : {1, 2}) {
            const auto in = random_floats(rng, size_t(N) * 3 * C * H * W, t.op == 2);
            ASSERT_EQ(m.forward(in, N, 3 * C, H, W), 0);
            std::vector<const float*> ins;
            for (const char* name : {"a", "b", "c"}) ins.push_back(net_tensor_by_name(m.net.get(), name)->data);
            EXPECT_TRUE(same_bits(m.out(), reference_eltwise(t.op, t.coeffs, ins, size_t(N) * C * H * W)))
                << "operation " << t.op;
        }
        EXPECT_EQ(m.saved(), bytes);
        EXPECT_STREQ(get_info_layer(m.net->layers[1]),
                     t.op == 1 ? "Eltwise sum" : t.op == 2 ? "Eltwise max" : "Eltwise product");
    }
}

}  // namespace
