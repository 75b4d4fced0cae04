// Small real networks written as model files: loaded, run at batch sizes 1
// and several, compared bit for bit with plain references, and saved back
// byte for byte.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kernels/scratch.h"
#include "layer_reference.h"
#include "test_util.h"

namespace {

using vo_ref::Blob;
using vo_ref::floats_bytes;
using vo_test::ModelBytes;

// ---- records -------------------------------------------------------------

struct Weights {
    std::vector<float> w, bias;
};

std::string conv_record(int M, int C, int kW, int kH, int sW, int sH, int pW, int pH, const Weights& p) {
    return vo_ref::conv_record(M, C, kW, kH, sW, sH, pW, pH, p.w, p.bias);
}

std::string deconv_record(int Co, int Ci, int kW, int kH, int sW, int sH, int pW, int pH, const Weights& p) {
    return vo_ref::deconv_record(Co, Ci, kW, kH, sW, sH, pW, pH, p.w, p.bias);
}

std::string fc_record(int inputDim, int outputDim, const Weights& p) {
    return vo_ref::fc_record(inputDim, outputDim, p.w, p.bias);
}

std::string prelu_record(const std::vector<float>& slopes) {
    return ModelBytes().i32(int32_t(slopes.size())).raw(floats_bytes(slopes)).bytes();
}

std::string max_pool_record(int kernel, int stride, int pad) {
    return ModelBytes().i32(0).i32(kernel).i32(kernel).i32(pad).i32(pad).i32(stride).i32(stride).u8(0).bytes();
}

std::string softmax_record(int axis) { return ModelBytes().i32(axis).bytes(); }
std::string concat_record(int axis) { return ModelBytes().i32(0).i32(axis).bytes(); }

std::string eltwise_record(int operation, const std::vector<float>& coeffs) {
    ModelBytes m;
    m.i32(operation).i32(int32_t(coeffs.size()));
    return m.raw(floats_bytes(coeffs)).bytes();
}

// ---- references of the other layer types ---------------------------------

Blob prelu(Blob x, const std::vector<float>& slopes) {
    for (int n = 0; n < x.n; ++n)
        for (int c = 0; c < x.c; ++c)
            for (int i = 0; i < x.h * x.w; ++i) {
                float& v = x.v[(size_t(n) * x.c + c) * x.h * x.w + i];
                if (0.0f > v) v = v * slopes[c];
            }
    return x;
}

// Windows step by `stride`; the output size rounds up, so the last window
// may be clipped by the image edge. The maximum starts from the window's
// first pixel.
Blob max_pool(const Blob& x, int kernel, int stride, int pad) {
    auto size = [&](int in) {
        int out = int(std::ceil(float(in - kernel + 2 * pad) / float(stride)) + 1.0);
        if (pad != 0 && (out - 1) * stride >= in + pad) --out;
        return out;
    };
    Blob out = vo_ref::blob(x.n, x.c, size(x.h), size(x.w));
    for (int n = 0; n < x.n; ++n)
        for (int c = 0; c < x.c; ++c)
            for (int oy = 0; oy < out.h; ++oy)
                for (int ox = 0; ox < out.w; ++ox) {
                    int h0 = oy * stride - pad, w0 = ox * stride - pad;
                    int h1 = std::min(h0 + kernel, x.h), w1 = std::min(w0 + kernel, x.w);
                    h0 = std::max(h0, 0);
                    w0 = std::max(w0, 0);
                    float m = x.at(n, c, h0, w0);
                    for (int y = h0; y < h1; ++y)
                        for (int xx = w0; xx < w1; ++xx)
                            if (x.at(n, c, y, xx) > m) m = x.at(n, c, y, xx);
                    out.at(n, c, oy, ox) = m;
                }
    return out;
}

// Over the channels at each position: subtract the maximum, exponentiate,
// sum in channel order, divide.
Blob softmax_channels(Blob x) {
    for (int n = 0; n < x.n; ++n)
        for (int y = 0; y < x.h; ++y)
            for (int xx = 0; xx < x.w; ++xx) {
                float m = x.at(n, 0, y, xx);
                for (int c = 0; c < x.c; ++c) m = x.at(n, c, y, xx) > m ? x.at(n, c, y, xx) : m;
                float sum = 0.0f;
                for (int c = 0; c < x.c; ++c) {
                    float& v = x.at(n, c, y, xx);
                    v = std::exp(v - m);
                    sum += v;
                }
                for (int c = 0; c < x.c; ++c) x.at(n, c, y, xx) /= sum;
            }
    return x;
}

Blob concat_channels(const Blob& a, const Blob& b) {
    Blob out = vo_ref::blob(a.n, a.c + b.c, a.h, a.w);
    for (int n = 0; n < a.n; ++n)
        for (int c = 0; c < out.c; ++c)
            for (int y = 0; y < a.h; ++y)
                for (int x = 0; x < a.w; ++x) out.at(n, c, y, x) = c < a.c ? a.at(n, c, y, x) : b.at(n, c - a.c, y, x);
    return out;
}

// ---- running a model ------------------------------------------------------

std::vector<float> random_weights(std::mt19937& rng, size_t n) {
    std::vector<float> v = vo_ref::random_floats(rng, n);
    for (float& x : v) x *= 0.5f;
    return v;
}

class EndToEnd : public testing::Test {
protected:
    // Loads the bytes as a model file.
    Net* load(const std::string& bytes) {
        vo_test::write_file(dir_.file("model.vo"), bytes_ = bytes);
        Net* net = nullptr;
        EXPECT_EQ(vo_load_net(dir_.file("model.vo").c_str(), &net), 0);
        return net;
    }
    // The net saved again gives the file it was loaded from.
    void expect_saved_unchanged(Net* net) {
        ASSERT_EQ(vo_save_net(dir_.file("saved.vo").c_str(), net), 0);
        EXPECT_TRUE(vo_test::read_file(dir_.file("saved.vo")) == bytes_);
    }
    Blob run(Net* net, const Blob& input) {
        EXPECT_EQ(vo_forward_net(net, input.v.data(), input.n, input.c, input.h, input.w), 0);
        return input;
    }

    std::mt19937 rng_{77};
    vo_test::TempDir dir_;
    std::string bytes_;
};

// A classifier: convolution, PReLU (in place), max pooling, convolution,
// inner product, softmax.
TEST_F(EndToEnd, Classifier) {
    Weights c1{random_weights(rng_, 8 * 3 * 9), random_weights(rng_, 8)};
    std::vector<float> slopes = random_weights(rng_, 8);
    Weights c2{random_weights(rng_, 6 * 8 * 9), random_weights(rng_, 6)};
    Weights fc{random_weights(rng_, 150 * 7), random_weights(rng_, 7)};
    ModelBytes m;
    m.header().u8(1).input("data", 1, 3, 13, 13).u8(1).name("prob");
    m.layer("conv1", LAYER_CONVOLUTION, conv_record(8, 3, 3, 3, 1, 1, 0, 0, c1), {"data"}, {"c1"});
    m.layer("prelu1", LAYER_PRELU, prelu_record(slopes), {"c1"}, {"c1"});
    m.layer("pool1", LAYER_POOLING, max_pool_record(3, 2, 0), {"c1"}, {"p1"});
    m.layer("conv2", LAYER_CONVOLUTION, conv_record(6, 8, 3, 3, 1, 1, 1, 1, c2), {"p1"}, {"c2"});
    m.layer("fc", LAYER_INNER_PRODUCT, fc_record(150, 7, fc), {"c2"}, {"fc"});
    m.layer("prob", LAYER_SOFTMAX, softmax_record(1), {"fc"}, {"prob"});
    Net* net = load(m.bytes());
    ASSERT_NE(net, nullptr);
    for (int batch : {1, 5, 1}) {
        SCOPED_TRACE(batch);
        Blob x = run(net, vo_ref::blob(batch, 3, 13, 13, vo_ref::random_floats(rng_, size_t(batch) * 507)));
        Blob pooled = max_pool(prelu(vo_ref::conv(x, c1.w, 8, 3, 3, 1, 1, 0, 0, &c1.bias), slopes), 3, 2, 0);
        ASSERT_EQ(pooled.h, 5);  // 11 rounds up to 5 windows of 3 at stride 2
        Blob features = vo_ref::conv(pooled, c2.w, 6, 3, 3, 1, 1, 1, 1, &c2.bias);
        Blob scores = vo_ref::inner_product(features, fc.w, 7, &fc.bias);
        EXPECT_TRUE(vo_ref::same_blob(net_tensor_by_name(net, "fc"), scores));
        EXPECT_TRUE(vo_ref::same_blob(vo_output_by_name(net, "prob"), softmax_channels(scores)));
    }
    expect_saved_unchanged(net);
    vo_release_net(&net);
}

// Two branches from one input, joined by concat and by a weighted eltwise
// sum, then a convolution of the concatenation and an eltwise maximum.
TEST_F(EndToEnd, BranchesJoinedByConcatAndEltwise) {
    Weights a{random_weights(rng_, 5 * 4 * 9), random_weights(rng_, 5)};
    Weights b{random_weights(rng_, 5 * 4), {}};
    Weights c{random_weights(rng_, 5 * 10 * 9), random_weights(rng_, 5)};
    const std::vector<float> coeffs = {0.5f, -2.0f};
    ModelBytes m;
    m.header().u8(1).input("data", 1, 4, 7, 9).u8(2).name("out").name("cat");
    m.layer("a", LAYER_CONVOLUTION, conv_record(5, 4, 3, 3, 1, 1, 1, 1, a), {"data"}, {"a"});
    m.layer("b", LAYER_CONVOLUTION, conv_record(5, 4, 1, 1, 1, 1, 0, 0, b), {"data"}, {"b"});
    m.layer("cat", LAYER_CONCAT, concat_record(1), {"a", "b"}, {"cat"});
    m.layer("sum", LAYER_ELTWISE, eltwise_record(1, coeffs), {"a", "b"}, {"sum"});
    m.layer("c", LAYER_CONVOLUTION, conv_record(5, 10, 3, 3, 1, 1, 1, 1, c), {"cat"}, {"c"});
    m.layer("out", LAYER_ELTWISE, eltwise_record(2, {}), {"c", "sum"}, {"out"});
    Net* net = load(m.bytes());
    ASSERT_NE(net, nullptr);
    for (int batch : {1, 3}) {
        SCOPED_TRACE(batch);
        Blob x = run(net, vo_ref::blob(batch, 4, 7, 9, vo_ref::random_floats(rng_, size_t(batch) * 252)));
        Blob ya = vo_ref::conv(x, a.w, 5, 3, 3, 1, 1, 1, 1, &a.bias);
        Blob yb = vo_ref::conv(x, b.w, 5, 1, 1, 1, 1, 0, 0, nullptr);
        Blob cat = concat_channels(ya, yb);
        Blob sum = ya, out = vo_ref::conv(cat, c.w, 5, 3, 3, 1, 1, 1, 1, &c.bias);
        for (size_t i = 0; i < sum.v.size(); ++i) {
            sum.v[i] = std::fma(coeffs[1], yb.v[i], std::fma(coeffs[0], ya.v[i], 0.0f));
            out.v[i] = sum.v[i] > out.v[i] ? sum.v[i] : out.v[i];
        }
        EXPECT_TRUE(vo_ref::same_blob(vo_output_by_name(net, "cat"), cat));
        EXPECT_TRUE(vo_ref::same_blob(vo_output_by_name(net, "out"), out));
    }
    expect_saved_unchanged(net);
    vo_release_net(&net);
}

// A convolution, a 4x4 stride-2 deconvolution that doubles the size, and a
// 1x1 deconvolution that mixes the channels.
TEST_F(EndToEnd, DeconvolutionUpsampler) {
    Weights f{random_weights(rng_, 4 * 3 * 9), random_weights(rng_, 4)};
    Weights up{random_weights(rng_, 4 * 2 * 16), random_weights(rng_, 2)};
    Weights mix{random_weights(rng_, 2 * 3), {}};
    ModelBytes m;
    m.header().u8(1).input("data", 1, 3, 5, 6).u8(2).name("up2").name("up");
    m.layer("f", LAYER_CONVOLUTION, conv_record(4, 3, 3, 3, 1, 1, 1, 1, f), {"data"}, {"f"});
    m.layer("up", LAYER_DECONVOLUTION, deconv_record(2, 4, 4, 4, 2, 2, 1, 1, up), {"f"}, {"up"});
    m.layer("mix", LAYER_DECONVOLUTION, deconv_record(3, 2, 1, 1, 1, 1, 0, 0, mix), {"up"}, {"up2"});
    Net* net = load(m.bytes());
    ASSERT_NE(net, nullptr);
    for (int batch : {1, 4}) {
        SCOPED_TRACE(batch);
        Blob x = run(net, vo_ref::blob(batch, 3, 5, 6, vo_ref::random_floats(rng_, size_t(batch) * 90)));
        Blob features = vo_ref::conv(x, f.w, 4, 3, 3, 1, 1, 1, 1, &f.bias);
        Blob y = vo_ref::deconv(features, up.w, 2, 4, 4, 2, 2, 1, 1, &up.bias);
        ASSERT_EQ(y.h, 10);
        ASSERT_EQ(y.w, 12);
        EXPECT_TRUE(vo_ref::same_blob(vo_output_by_name(net, "up"), y));
        Blob mixed = vo_ref::deconv(y, mix.w, 3, 1, 1, 1, 1, 0, 0, nullptr);
        EXPECT_TRUE(vo_ref::same_blob(vo_output_by_name(net, "up2"), mixed));
    }
    expect_saved_unchanged(net);
    vo_release_net(&net);
}

// Shape checks of these layers turn into load and forward statuses: a
// model whose first reshape fails loads with 1; a later input of a shape
// that does not fit gives 5 from the forward pass.
TEST_F(EndToEnd, ShapeErrorsBecomeStatuses) {
    Weights w{std::vector<float>(2 * 3 * 9, 0.5f), {}};
    Weights fc{std::vector<float>(2 * 9 * 4, 0.5f), {}};
    ModelBytes bad;
    bad.header().u8(1).input("data", 1, 4, 5, 5).u8(1).name("y");
    bad.layer("conv", LAYER_CONVOLUTION, conv_record(2, 3, 3, 3, 1, 1, 0, 0, w), {"data"}, {"y"});
    vo_test::write_file(dir_.file("bad.vo"), bad.bytes());
    Net* net = nullptr;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(vo_load_net(dir_.file("bad.vo").c_str(), &net), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vnet/conv: reshape_conv: check failed: src->channel == weights->channel\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Reshape error\n");
    EXPECT_EQ(net, nullptr);

    ModelBytes good;
    good.header().u8(1).input("data", 1, 3, 5, 5).u8(1).name("y");
    good.layer("conv", LAYER_CONVOLUTION, conv_record(2, 3, 3, 3, 1, 1, 0, 0, w), {"data"}, {"c"});
    good.layer("fc", LAYER_INNER_PRODUCT, fc_record(18, 4, fc), {"c"}, {"y"});
    net = load(good.bytes());
    ASSERT_NE(net, nullptr);
    std::vector<float> input(3 * 6 * 6, 1.0f);
    testing::internal::CaptureStderr();
    EXPECT_EQ(vo_forward_net(net, input.data(), 1, 3, 6, 6), 5);  // the convolution now gives 4x4
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vnet/inner_product: reshape_inner_product: check failed: "
              "src->width * src->height * src->channel == fc->inputDim\n");
    EXPECT_EQ(vo_forward_net(net, input.data(), 1, 3, 5, 5), 0);
    EXPECT_EQ(vo_output_by_name(net, "y")->data[0], 121.5f);  // 27 ones * 0.5, then 18 of those * 0.5
    vo_release_net(&net);
}

// When the matrix product cannot get working memory, each of the three
// layers that use it reports 5 instead of computing garbage. Working
// memory is per thread, so a fresh thread has none yet.
TEST_F(EndToEnd, NoWorkingMemoryGivesStatus5) {
    Weights w{std::vector<float>(2 * 2 * 4, 0.5f), {}};
    const std::string records[] = {
        ModelBytes().header().u8(1).input("data", 1, 2, 3, 3).u8(1).name("y")
            .layer("conv", LAYER_CONVOLUTION, conv_record(2, 2, 2, 2, 1, 1, 0, 0, w), {"data"}, {"y"}).bytes(),
        ModelBytes().header().u8(1).input("data", 1, 2, 3, 3).u8(1).name("y")
            .layer("up", LAYER_DECONVOLUTION, deconv_record(2, 2, 2, 2, 2, 2, 0, 0, w), {"data"}, {"y"}).bytes(),
        ModelBytes().header().u8(1).input("data", 1, 2, 2, 2).u8(1).name("y")
            .layer("fc", LAYER_INNER_PRODUCT, fc_record(8, 2, w), {"data"}, {"y"}).bytes(),
    };
    for (const std::string& bytes : records) {
        Net* net = load(bytes);
        ASSERT_NE(net, nullptr);
        const Tensor* in = net->inputs[0];
        std::vector<float> input(size_t(in->capacity), 1.0f);
        int status = -1;
        std::thread fresh([&] {
            vo::set_scratch_failure_for_testing(true);
            status = vo_forward_net(net, input.data(), 1, in->channel, in->height, in->width);
            vo::set_scratch_failure_for_testing(false);
        });
        fresh.join();
        EXPECT_EQ(status, 5) << net->layers[0]->name;
        EXPECT_EQ(vo_forward_net(net, input.data(), 1, in->channel, in->height, in->width), 0);
        vo_release_net(&net);
    }
}

}  // namespace
