// Convolution, deconvolution and inner product: the float outputs bit for
// bit against direct loops with the matrix product's rounding, through
// model files that save back byte for byte.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "layer_reference.h"
#include "test_util.h"

namespace {

using vo_test::head;
using vo_test::Model;
using vo_test::random_floats;
using vo_test::same_bits;

int pick(std::mt19937& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }

// Runs the layer's own reshape and forward again on the same shape: no
// buffer moves and the bits stay.
void expect_rerun_reuses_buffers(Model& m) {
    Layer* l = m.net->layers[0];
    const float* out = l->outputs[0]->data;
    const float* column = m.net->forwardParams->columnBuffer->data;
    const std::vector<float> first(out, out + l->outputs[0]->capacity);
    ASSERT_EQ(l->reshape(l->runParams, l->inputs, l->isize, l->outputs, l->osize, m.net->forwardParams), 0);
    ASSERT_EQ(l->forward(l->runParams, l->inputs, l->isize, l->outputs, l->osize, m.net->forwardParams), 0);
    EXPECT_EQ(l->outputs[0]->data, out);
    EXPECT_EQ(m.net->forwardParams->columnBuffer->data, column);
    EXPECT_TRUE(same_bits(l->outputs[0], first));
}

TEST(ProductLayers, ConvolutionMatchesReference) {
    std::mt19937 rng(1234);
    int direct = 0;
    for (int iter = 0; iter < 300; ++iter) {
        const int n = pick(rng, 1, 3), C = pick(rng, 1, 5), H = pick(rng, 1, 13), W = pick(rng, 1, 13);
        int M = pick(rng, 1, 10), kW = pick(rng, 1, 5), kH = pick(rng, 1, 5), sW = pick(rng, 1, 3),
            sH = pick(rng, 1, 3), pW = pick(rng, 0, 2), pH = pick(rng, 0, 2);
        if (iter % 6 == 0) kW = kH = sW = sH = 1, pW = pH = 0;  // the direct 1x1 path
        if ((W - kW + 2 * pW) / sW + 1 < 1 || (H - kH + 2 * pH) / sH + 1 < 1) continue;
        SCOPED_TRACE(testing::Message() << n << "x" << C << "x" << H << "x" << W << " M " << M << " k " << kW << "x"
                                        << kH << " s " << sW << "," << sH << " p " << pW << "," << pH);
        const auto w = random_floats(rng, size_t(M) * C * kH * kW);
        const auto bias = iter % 2 ? random_floats(rng, M) : std::vector<float>();
        const auto in = random_floats(rng, size_t(n) * C * H * W);
        const std::string bytes = head(1, C, H, W)
                                      .layer("conv", LAYER_CONVOLUTION,
                                             vo_test::conv_record(M, C, kW, kH, sW, sH, pW, pH, w, bias), {"data"},
                                             {"out"})
                                      .bytes();
        Model m(bytes);
        ASSERT_EQ(m.status, 0) << m.err;
        direct += static_cast<Convolution*>(m.net->layers[0]->runParams)->is1x1;
        ASSERT_EQ(m.forward(in, n, C, H, W), 0);
        const vo_ref::Blob want = vo_ref::conv(vo_ref::blob(n, C, H, W, in), w, M, kW, kH, sW, sH, pW, pH, bias);
        EXPECT_EQ(vo_test::dims(m.out()), (std::vector<int>{n, M, want.h, want.w}));
        ASSERT_TRUE(same_bits(m.out(), want.v));
        if (iter % 10 == 1) expect_rerun_reuses_buffers(m);
        EXPECT_TRUE(m.saved() == bytes);
    }
    EXPECT_GT(direct, 20);
}

TEST(ProductLayers, DeconvolutionMatchesReference) {
    std::mt19937 rng(2024);
    int direct = 0;
    for (int iter = 0; iter < 150; ++iter) {
        const int n = pick(rng, 1, 3), Ci = pick(rng, 1, 6), H = pick(rng, 1, 7), W = pick(rng, 1, 7);
        int Co = pick(rng, 1, 6), kW = pick(rng, 1, 4), kH = pick(rng, 1, 4), sW = pick(rng, 1, 3),
            sH = pick(rng, 1, 3), pW = pick(rng, 0, 2), pH = pick(rng, 0, 2);
        if (iter % 8 == 0) kW = kH = sW = sH = 1, pW = pH = 0;  // the direct 1x1 product
        if (kW + (W - 1) * sW - 2 * pW < 1 || kH + (H - 1) * sH - 2 * pH < 1) continue;
        SCOPED_TRACE(testing::Message() << n << "x" << Ci << "x" << H << "x" << W << " Co " << Co << " k " << kW << "x"
                                        << kH << " s " << sW << "," << sH << " p " << pW << "," << pH);
        const auto w = random_floats(rng, size_t(Ci) * Co * kH * kW);
        const auto bias = iter % 2 ? random_floats(rng, Co) : std::vector<float>();
        const auto in = random_floats(rng, size_t(n) * Ci * H * W);
        const std::string bytes = head(1, Ci, H, W)
                                      .layer("up", LAYER_DECONVOLUTION,
                                             vo_test::deconv_record(Co, Ci, kW, kH, sW, sH, pW, pH, w, bias),
                                             {"data"}, {"out"})
                                      .bytes();
        Model m(bytes);
        ASSERT_EQ(m.status, 0) << m.err;
        direct += static_cast<Deconv*>(m.net->layers[0]->runParams)->is1x1;
        ASSERT_EQ(m.forward(in, n, Ci, H, W), 0);
        const vo_ref::Blob want = vo_ref::deconv(vo_ref::blob(n, Ci, H, W, in), w, Co, kW, kH, sW, sH, pW, pH, bias);
        EXPECT_EQ(vo_test::dims(m.out()), (std::vector<int>{n, Co, want.h, want.w}));
        ASSERT_TRUE(same_bits(m.out(), want.v));
        if (iter % 10 == 1) expect_rerun_reuses_buffers(m);
        EXPECT_TRUE(m.saved() == bytes);
    }
    EXPECT_GE(direct, 15);
}

// Each net runs two batch sizes: growing the batch rebuilds the column of
// ones, shrinking it keeps the buffers.
TEST(ProductLayers, InnerProductMatchesReference) {
    std::mt19937 rng(99);
    for (int iter = 0; iter < 150; ++iter) {
        const int C = pick(rng, 1, 6), H = pick(rng, 1, 4), W = pick(rng, 1, 4);
        const int inputDim = C * H * W, outputDim = pick(rng, 1, 27);
        SCOPED_TRACE(testing::Message() << inputDim << " -> " << outputDim);
        const auto w = random_floats(rng, size_t(inputDim) * outputDim);
        const auto bias = iter % 2 ? random_floats(rng, outputDim) : std::vector<float>();
        const std::string bytes =
            head(1, C, H, W)
                .layer("fc", LAYER_INNER_PRODUCT, vo_test::fc_record(inputDim, outputDim, w, bias), {"data"}, {"out"})
                .bytes();
        Model m(bytes);
        ASSERT_EQ(m.status, 0) << m.err;
        for (int batch : {pick(rng, 1, 11), pick(rng, 1, 11)}) {
            const auto in = random_floats(rng, size_t(batch) * inputDim);
            ASSERT_EQ(m.forward(in, batch, C, H, W), 0);
            EXPECT_EQ(static_cast<InnerProduct*>(m.net->layers[0]->runParams)->biasMultiplier->capacity, batch);
            const vo_ref::Blob want = vo_ref::inner_product(vo_ref::blob(batch, C, H, W, in), w, outputDim, bias);
            EXPECT_EQ(vo_test::dims(m.out()), (std::vector<int>{batch, outputDim, 1, 1}));
            ASSERT_TRUE(same_bits(m.out(), want.v)) << "batch " << batch;
        }
        if (iter % 10 == 1) expect_rerun_reuses_buffers(m);
        EXPECT_TRUE(m.saved() == bytes);
    }
}

TEST(ProductLayers, EdgesOfTheSizeRules) {
    // The convolution's size rule truncates toward zero, so an input one
    // pixel narrower than the kernel still gives one column at stride 2:
    // (4 - 5) / 2 + 1; that column reads zeros past the edge.
    Model conv(head(1, 1, 3, 4)
                   .layer("c", LAYER_CONVOLUTION, vo_test::conv_record(1, 1, 5, 3, 2, 1, 0, 0, std::vector<float>(15, 1.0f), {}),
                          {"data"}, {"out"})
                   .bytes());
    ASSERT_EQ(conv.forward(std::vector<float>(12, 1.0f), 1, 1, 3, 4), 0);
    EXPECT_EQ(vo_test::dims(conv.out()), (std::vector<int>{1, 1, 1, 1}));
    EXPECT_EQ(conv.out()->data[0], 12.0f);
    // Deconvolution padding crops: a 3x3 input, kernel 1, pad 1 gives 1 pixel.
    Model deconv(head(1, 2, 3, 3)
                     .layer("d", LAYER_DECONVOLUTION,
                            vo_test::deconv_record(3, 2, 1, 1, 1, 1, 1, 1, std::vector<float>(6, 1.0f), {}), {"data"},
                            {"out"})
                     .bytes());
    ASSERT_EQ(deconv.forward(std::vector<float>(18, 1.0f), 1, 2, 3, 3), 0);
    EXPECT_EQ(vo_test::dims(deconv.out()), (std::vector<int>{1, 3, 1, 1}));
    EXPECT_EQ(deconv.out()->data[0], 2.0f);  // the centre pixel: two input channels times weight 1
}

}  // namespace
