// Small real networks written as model files: loaded, run at batch sizes 1
// and several, compared bit for bit with the plain references, and saved
// back byte for byte.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

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
using vo_test::conv_record;
using vo_test::Model;
using vo_test::ModelBytes;
using vo_test::same_bits;
using Floats = std::vector<float>;

class EndToEnd : public testing::Test {
protected:
    Floats weights(size_t n) { return vo_test::random_floats(rng_, n); }
    // Runs the model on a random batch and returns the input.
    Blob run(Model& m, int n, int c, int h, int w) {
        Blob x = vo_ref::blob(n, c, h, w, vo_test::random_floats(rng_, size_t(n) * c * h * w));
        EXPECT_EQ(m.forward(x.v, n, c, h, w), 0);
        return x;
    }
    static testing::AssertionResult same_blob(const Tensor* t, const Blob& want) {
        if (!t || vo_test::dims(t) != std::vector<int>{want.n, want.c, want.h, want.w})
            return testing::AssertionFailure() << "missing tensor or shape differs";
        return same_bits(t, want.v);
    }
    std::mt19937 rng_{77};
};

// A classifier: convolution, PReLU (in place), max pooling, convolution,
// inner product, softmax.
TEST_F(EndToEnd, Classifier) {
    const Floats w1 = weights(8 * 3 * 9), b1 = weights(8), slopes = weights(8), w2 = weights(6 * 8 * 9),
                 b2 = weights(6), wf = weights(150 * 7), bf = weights(7);
    const std::string bytes =
        vo_test::head(1, 3, 13, 13, {"prob"})
            .layer("conv1", LAYER_CONVOLUTION, conv_record(8, 3, 3, 3, 1, 1, 0, 0, w1, b1), {"data"}, {"c1"})
            .layer("prelu1", LAYER_PRELU, ModelBytes().i32(8).floats(slopes).bytes(), {"c1"}, {"c1"})
            .layer("pool1", LAYER_POOLING, vo_test::pool_record(0, 3, 3, 0, 0, 2, 2), {"c1"}, {"p1"})
            .layer("conv2", LAYER_CONVOLUTION, conv_record(6, 8, 3, 3, 1, 1, 1, 1, w2, b2), {"p1"}, {"c2"})
            .layer("fc", LAYER_INNER_PRODUCT, vo_test::fc_record(150, 7, wf, bf), {"c2"}, {"fc"})
            .layer("prob", LAYER_SOFTMAX, ModelBytes().i32(1).bytes(), {"fc"}, {"prob"})
            .bytes();
    Model m(bytes);
    ASSERT_EQ(m.status, 0) << m.err;
    for (int batch : {1, 5, 1}) {
        SCOPED_TRACE(batch);
        const Blob x = run(m, batch, 3, 13, 13);
        const Blob pooled = vo_ref::pool(vo_ref::prelu(vo_ref::conv(x, w1, 8, 3, 3, 1, 1, 0, 0, b1), slopes), 0, 3, 3,
                                         0, 0, 2, 2);
        ASSERT_EQ(pooled.h, 5);  // 11 rounds up to 5 windows of 3 at stride 2
        const Blob scores = vo_ref::inner_product(vo_ref::conv(pooled, w2, 6, 3, 3, 1, 1, 1, 1, b2), wf, 7, bf);
        EXPECT_TRUE(same_blob(net_tensor_by_name(m.net.get(), "fc"), scores));
        EXPECT_TRUE(same_blob(m.out("prob"), vo_ref::softmax(scores, 1)));
    }
    EXPECT_EQ(m.saved(), bytes);
}

// Two branches from one input, joined by concat and by a weighted eltwise
// sum, then a convolution of the concatenation and an eltwise maximum.
TEST_F(EndToEnd, BranchesJoinedByConcatAndEltwise) {
    const Floats wa = weights(5 * 4 * 9), ba = weights(5), wb = weights(5 * 4), wc = weights(5 * 10 * 9),
                 bc = weights(5), coeffs = {0.5f, -2.0f};
    const std::string bytes =
        vo_test::head(1, 4, 7, 9, {"out", "cat"})
            .layer("a", LAYER_CONVOLUTION, conv_record(5, 4, 3, 3, 1, 1, 1, 1, wa, ba), {"data"}, {"a"})
            .layer("b", LAYER_CONVOLUTION, conv_record(5, 4, 1, 1, 1, 1, 0, 0, wb, {}), {"data"}, {"b"})
            .layer("cat", LAYER_CONCAT, ModelBytes().i32s({0, 1}).bytes(), {"a", "b"}, {"cat"})
            .layer("sum", LAYER_ELTWISE, ModelBytes().i32s({1, 2}).floats(coeffs).bytes(), {"a", "b"}, {"sum"})
            .layer("c", LAYER_CONVOLUTION, conv_record(5, 10, 3, 3, 1, 1, 1, 1, wc, bc), {"cat"}, {"c"})
            .layer("out", LAYER_ELTWISE, ModelBytes().i32s({2, 0}).bytes(), {"c", "sum"}, {"out"})
            .bytes();
    Model m(bytes);
    ASSERT_EQ(m.status, 0) << m.err;
    for (int batch : {1, 3}) {
        SCOPED_TRACE(batch);
        const Blob x = run(m, batch, 4, 7, 9);
        const Blob ya = vo_ref::conv(x, wa, 5, 3, 3, 1, 1, 1, 1, ba), yb = vo_ref::conv(x, wb, 5, 1, 1, 1, 1, 0, 0, {});
        const Blob cat = vo_ref::concat({ya, yb}, 1);
        Blob out = vo_ref::conv(cat, wc, 5, 3, 3, 1, 1, 1, 1, bc);
        for (size_t i = 0; i < out.v.size(); ++i) {
            const float sum = std::fma(coeffs[1], yb.v[i], std::fma(coeffs[0], ya.v[i], 0.0f));
            out.v[i] = sum > out.v[i] ? sum : out.v[i];
        }
        EXPECT_TRUE(same_blob(m.out("cat"), cat));
        EXPECT_TRUE(same_blob(m.out("out"), out));
    }
    EXPECT_EQ(m.saved(), bytes);
}

// A convolution, a 4x4 stride-2 deconvolution that doubles the size, and a
// 1x1 deconvolution that mixes the channels.
TEST_F(EndToEnd, DeconvolutionUpsampler) {
    const Floats wf = weights(4 * 3 * 9), bf = weights(4), wu = weights(4 * 2 * 16), bu = weights(2),
                 wm = weights(2 * 3);
    const std::string bytes =
        vo_test::head(1, 3, 5, 6, {"up2", "up"})
            .layer("f", LAYER_CONVOLUTION, conv_record(4, 3, 3, 3, 1, 1, 1, 1, wf, bf), {"data"}, {"f"})
            .layer("up", LAYER_DECONVOLUTION, vo_test::deconv_record(2, 4, 4, 4, 2, 2, 1, 1, wu, bu), {"f"}, {"up"})
            .layer("mix", LAYER_DECONVOLUTION, vo_test::deconv_record(3, 2, 1, 1, 1, 1, 0, 0, wm, {}), {"up"}, {"up2"})
            .bytes();
    Model m(bytes);
    ASSERT_EQ(m.status, 0) << m.err;
    for (int batch : {1, 4}) {
        SCOPED_TRACE(batch);
        const Blob x = run(m, batch, 3, 5, 6);
        const Blob y = vo_ref::deconv(vo_ref::conv(x, wf, 4, 3, 3, 1, 1, 1, 1, bf), wu, 2, 4, 4, 2, 2, 1, 1, bu);
        ASSERT_EQ(y.h, 10);
        ASSERT_EQ(y.w, 12);
        EXPECT_TRUE(same_blob(m.out("up"), y));
        EXPECT_TRUE(same_blob(m.out("up2"), vo_ref::deconv(y, wm, 3, 1, 1, 1, 1, 0, 0, {})));
    }
    EXPECT_EQ(m.saved(), bytes);
}

// When the matrix product cannot get working memory, each of the three
// layers that use it reports 5 instead of computing garbage. Working
// memory is per thread, so a fresh thread has none yet.
TEST_F(EndToEnd, NoWorkingMemoryGivesStatus5) {
    const Floats w(2 * 2 * 4, 0.5f);
    const std::string models[] = {
        // Stride 2: a shape that runs on the matrix product (the direct paths
        // keep their memory in the net's buffers).
        vo_test::head(1, 2, 3, 3).layer("conv", LAYER_CONVOLUTION, conv_record(2, 2, 2, 2, 2, 2, 0, 0, w, {}),
                                        {"data"}, {"out"}).bytes(),
        vo_test::head(1, 2, 3, 3).layer("up", LAYER_DECONVOLUTION,
                                        vo_test::deconv_record(2, 2, 2, 2, 2, 2, 0, 0, w, {}), {"data"}, {"out"})
            .bytes(),
        vo_test::head(1, 2, 2, 2).layer("fc", LAYER_INNER_PRODUCT, vo_test::fc_record(8, 2, w, {}), {"data"}, {"out"})
            .bytes(),
    };
    for (const std::string& bytes : models) {
        Model m(bytes);
        ASSERT_EQ(m.status, 0) << m.err;
        const Tensor* in = m.net->inputs[0];
        const Floats input(size_t(in->capacity), 1.0f);
        int status = -1;
        std::thread fresh([&] {
            vo::set_scratch_failure_for_testing(true);
            status = m.forward(input, 1, in->channel, in->height, in->width);
            vo::set_scratch_failure_for_testing(false);
        });
        fresh.join();
        EXPECT_EQ(status, 5) << m.net->layers[0]->name;
        EXPECT_EQ(m.forward(input, 1, in->channel, in->height, in->width), 0);
    }
}

}  // namespace
