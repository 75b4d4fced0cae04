// Batch norm, normalize and eltwise against literal references (the fused
// multiply-adds and sums as the layers define them), through model files.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "model_run.h"

namespace {

using vo_model::Model;
using vo_model::same_bits;
using vo_test::ModelBytes;

std::string floats(const std::vector<float>& v) {
    ModelBytes b;
    for (float x : v) b.f32(x);
    return b.bytes();
}

std::string batchnorm_record(const std::vector<float>& scale, const std::vector<float>& bias) {
    return ModelBytes().i32(int(scale.size())).raw(floats(scale)).raw(floats(bias)).bytes();
}

std::string normalize_record(int perChannel, int scalePerChannel, const std::vector<float>& scale) {
    return ModelBytes().u8(uint8_t(perChannel)).u8(uint8_t(scalePerChannel)).i32(int(scale.size())).raw(floats(scale)).bytes();
}

std::string eltwise_record(int operation, const std::vector<float>& coeffs, int coeffSize = -2) {
    return ModelBytes().i32(operation).i32(coeffSize == -2 ? int(coeffs.size()) : coeffSize).raw(floats(coeffs)).bytes();
}

TEST(BatchNorm, FusedPerChannelAffineInAndOutOfPlace) {
    std::mt19937 rng(1);
    for (int C : {1, 3, 8}) {
        const int H = 1 + rng() % 5, W = 1 + rng() % 9;
        const auto scale = vo_model::random_floats(rng, C), bias = vo_model::random_floats(rng, C);
        // The first layer works out of place, the second in place on its output.
        const std::string bytes = vo_model::head(1, C, H, W, {"mid"})
                                      .layer("bn1", LAYER_BATCHNORM, batchnorm_record(scale, bias), {"data"}, {"mid"})
                                      .layer("bn2", LAYER_BATCHNORM, batchnorm_record(bias, scale), {"mid"}, {"mid"})
                                      .bytes();
        Model m(bytes);
        ASSERT_EQ(m.status, 0) << m.err;
        for (int N : {1, 3}) {
            const auto in = vo_model::random_floats(rng, size_t(N) * C * H * W, true);
            std::vector<float> want(in.size());
            for (size_t i = 0; i < in.size(); ++i) {
                const int c = int(i / (H * W) % C);
                want[i] = std::fma(bias[c], std::fma(scale[c], in[i], bias[c]), scale[c]);
            }
            ASSERT_EQ(m.forward(in, N, C, H, W), 0);
            EXPECT_TRUE(same_bits(m.out("mid"), want));
        }
        EXPECT_EQ(m.saved(), bytes);
        EXPECT_STREQ(get_info_layer(m.net->layers[0]), ("BatchNorm " + std::to_string(C) + "\n").c_str());
    }
}

TEST(BatchNorm, RefusesBadRecordsAndChannelMismatch) {
    const struct {
        std::string record;
        const char* check;
    } bad[] = {
        {ModelBytes().i32(0).bytes(), "bn->channel >= 1"},
        {ModelBytes().i32(1 << 30).f32(1).bytes(), "vo::fits_in_file(stream, 2 * int64_t(bn->channel), sizeof(float))"},
        {ModelBytes().i32(2).f32(1).f32(1).f32(1).bytes(), "vo::fits_in_file(stream, 2 * int64_t(bn->channel), sizeof(float))"},
        {std::string("\x02\x00", 2), "ret == 1"},
    };
    for (const auto& b : bad) {
        Model m(vo_model::head(1, 2, 2, 2).name("bn").i32(LAYER_BATCHNORM).raw(b.record).bytes());
        EXPECT_EQ(m.status, 4);
        EXPECT_EQ(m.err, std::string("vnet/batch_norm: load_batchnorm: check failed: ") + b.check + "\n");
    }
    // Two channels of parameters for three channels of input: the forward
    // refuses and leaves the output alone.
    Model m(vo_model::head(1, 3, 1, 1).layer("bn", LAYER_BATCHNORM, batchnorm_record({2, 2}, {1, 1}), {"data"}, {"out"}).bytes());
    ASSERT_EQ(m.status, 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(m.forward({1, 2, 3}, 1, 3, 1, 1), 5);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "vnet/batch_norm: forward_batchnorm: check failed: src->channel == bn->channel\n");
    EXPECT_TRUE(same_bits(m.out(), {0, 0, 0}));
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
        const auto scale = vo_model::random_floats(rng, C);
        const std::string bytes = vo_model::head(1, C, H, W)
                                      .layer("norm", LAYER_NORMALIZE, normalize_record(perChannel, scalePerChannel, scale),
                                             {"data"}, {"out"})
                                      .bytes();
        Model m(bytes);
        ASSERT_EQ(m.status, 0) << m.err;
        for (int N : {1, 2}) {
            const auto in = vo_model::random_floats(rng, size_t(N) * C * H * W);
            ASSERT_EQ(m.forward(in, N, C, H, W), 0);
            EXPECT_TRUE(same_bits(m.out(), reference_normalize(in, C, H * W, perChannel, scalePerChannel, scale)));
        }
        EXPECT_EQ(m.saved(), bytes);
        EXPECT_STREQ(get_info_layer(m.net->layers[0]),
                     ("normalize " + std::to_string(perChannel) + " " + std::to_string(scalePerChannel) + " " +
                      std::to_string(C) + "\n").c_str());
    }
    // {3, 4}: d = 25, about {0.6, 0.8}; per channel with scales {1, 10}.
    Model m(vo_model::head(1, 2, 1, 2).layer("n", LAYER_NORMALIZE, normalize_record(1, 1, {1, 10}), {"data"}, {"out"}).bytes());
    ASSERT_EQ(m.forward({3, 4, 3, 4}, 1, 2, 1, 2), 0);
    EXPECT_NEAR(m.out()->data[0], 0.6f, 1e-6);
    EXPECT_NEAR(m.out()->data[1], 0.8f, 1e-6);
    EXPECT_NEAR(m.out()->data[3], 8.0f, 1e-5);
}

TEST(Normalize, RefusesFewerScalesThanItReads) {
    Model none(vo_model::head(1, 2, 1, 2).layer("n", LAYER_NORMALIZE, normalize_record(0, 0, {}), {"data"}, {"out"}).bytes());
    EXPECT_EQ(none.status, 4);
    EXPECT_EQ(none.err, "vnet/normalize: load_normalize: check failed: scaleSize >= 1\n");
    // Per-channel scales for per-channel norms need one per input channel.
    Model few(vo_model::head(1, 3, 1, 2).layer("n", LAYER_NORMALIZE, normalize_record(1, 1, {1, 2}), {"data"}, {"out"}).bytes());
    EXPECT_EQ(few.status, 1);
    EXPECT_EQ(few.err,
              "vnet/normalize: reshape_normalize: check failed: norm->scale->capacity >= scales_needed(norm, src->channel)\n");
    // With one norm per image only the first scale is read.
    EXPECT_EQ(Model(vo_model::head(1, 3, 1, 2).layer("n", LAYER_NORMALIZE, normalize_record(0, 1, {2}), {"data"}, {"out"}).bytes()).status, 0);
}

// Eltwise of three different inputs: the thirds of the channels of "data".
std::string eltwise_model(int C, int H, int W, const std::string& record) {
    return vo_model::head(1, 3 * C, H, W)
        .layer("cut", LAYER_SLICE, ModelBytes().i32(1).i32(2).i32(C).i32(2 * C).bytes(), {"data"}, {"a", "b", "c"})
        .layer("elt", LAYER_ELTWISE, record, {"a", "b", "c"}, {"out"})
        .bytes();
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

TEST(Eltwise, SumsMaximaAndProductsMatchReference) {
    const struct {
        int op;
        std::vector<float> coeffs;
        const char* info;
    } cases[] = {
        {1, {}, "Eltwise sum"},         {1, {1, 1, -1}, "Eltwise sum"},     {1, {0.5f, 0.5f, 1}, "Eltwise sum"},
        {1, {1, 1, NAN}, "Eltwise sum"}, {1, {2, 1, 1, 9}, "Eltwise sum"}, {2, {}, "Eltwise max"},
        {0, {}, "Eltwise product"},
    };
    std::mt19937 rng(8);
    for (const auto& t : cases) {
        const int C = 1 + rng() % 3, H = 1 + rng() % 5, W = 1 + rng() % 19;
        const std::string bytes = eltwise_model(C, H, W, eltwise_record(t.op, t.coeffs));
        Model m(bytes);
        ASSERT_EQ(m.status, 0) << m.err;
        for (int N : {1, 2}) {
            const auto in = vo_model::random_floats(rng, size_t(N) * 3 * C * H * W, t.op == 2);
            ASSERT_EQ(m.forward(in, N, 3 * C, H, W), 0);
            std::vector<const float*> ins;
            for (const char* name : {"a", "b", "c"}) ins.push_back(net_tensor_by_name(m.net.get(), name)->data);
            const size_t count = size_t(N) * C * H * W;
            EXPECT_TRUE(same_bits(m.out(), reference_eltwise(t.op, t.coeffs, ins, count))) << t.info;
        }
        EXPECT_EQ(m.saved(), bytes);
        EXPECT_STREQ(get_info_layer(m.net->layers[1]), t.info);
    }
}

TEST(Eltwise, RefusalsAndUnknownOperation) {
    // Fewer coefficients than inputs, negative counts included.
    for (int size : {1, 2, -1}) {
        Model m(eltwise_model(1, 2, 2, eltwise_record(1, std::vector<float>(size > 0 ? size : 0, 1.0f), size)));
        EXPECT_EQ(m.status, 1) << size;
        EXPECT_EQ(m.err, "vnet/eltwise: reshape_eltwise: check failed: coefficients_cover(eltwise, isize)\n");
    }
    Model huge(vo_model::head(1, 1, 1, 1).name("e").i32(LAYER_ELTWISE).raw(ModelBytes().i32(1).i32(1 << 29).bytes()).bytes());
    EXPECT_EQ(huge.status, 4);
    EXPECT_EQ(huge.err, "vnet/eltwise: load_eltwise: check failed: vo::fits_in_file(stream, eltwise->coeffSize, sizeof(float))\n");

    Eltwise unknown{5, nullptr, 0};
    Tensor* ins[2] = {create_tensor(1, 1, 2, 2), create_tensor(1, 1, 2, 3)};
    Tensor* out = create_tensor(1, 1, 1, 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(reshape_eltwise(&unknown, ins, 2, &out, 1, nullptr), 5);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(reshape_eltwise(&unknown, ins, 1, &out, 1, nullptr), 7);
    ins[1] = reshape_tensor(ins[1], 1, 1, 2, 2);
    ASSERT_EQ(reshape_eltwise(&unknown, ins, 2, &out, 1, nullptr), 0);
    out->data[2] = 3.0f;
    ASSERT_EQ(forward_eltwise(&unknown, ins, 2, &out, 1, nullptr), 0);
    EXPECT_TRUE(same_bits(out, {0, 0, 3, 0}));
    char text[128];
    get_info_eltwise(&unknown, text);
    EXPECT_STREQ(text, "Eltwise unknown");
    get_info_eltwise(nullptr, text);
    EXPECT_STREQ(text, "Eltwise");
    EXPECT_EQ(load_eltwise(nullptr, nullptr), 1);
    EXPECT_EQ(save_eltwise(nullptr, &unknown), 1);
    for (Tensor* t : {ins[0], ins[1], out}) release_tensor(&t);
}

}  // namespace
