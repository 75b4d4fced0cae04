// Pooling: sizes, windows and sums against the literal reference, and the
// stride-2 row kernels (used by pool_max_stable and the layer's forward)
// against pool_max.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "layer_reference.h"
#include "test_util.h"

namespace {

using vo_test::Model;
using vo_test::same_bits;

std::string pool_model(int n, int c, int h, int w, const std::string& record) {
    return vo_test::head(n, c, h, w).layer("pool", LAYER_POOLING, record, {"data"}, {"out"}).bytes();
}

TEST(Pool, OutputSizeRoundsUpAndDropsWindowsStartingInThePadding) {
    const struct {
        int in[8], w, h;
    } cases[] = {
        {{5, 5, 2, 2, 2, 2, 0, 0}, 3, 3},  // ceil(3/2) + 1
        {{4, 4, 3, 3, 2, 2, 1, 1}, 3, 3},  // (3-1)*2 = 4 < 4+1 keeps 3
        {{3, 5, 2, 1, 2, 3, 0, 0}, 2, 3},  // unpadded: no correction
        {{3, 5, 2, 1, 2, 3, 1, 0}, 2, 2},  // (3-1)*2 = 4 >= 3+1 drops one, and the height is tested too
        {{2, 1, 3, 3, 1, 1, 0, 0}, 0, -1},  // ceilf(-1) + 1 = 0, ceilf(-2) + 1
    };
    for (const auto& c : cases) {
        int32_t w = 0, h = 0;
        calculate_pool_result_size(c.in[0], c.in[1], c.in[2], c.in[3], c.in[4], c.in[5], c.in[6], c.in[7], &w, &h);
        EXPECT_EQ(w, c.w);
        EXPECT_EQ(h, c.h);
    }
}

// Every type over random shapes, kernels, strides and paddings (empty
// clipped windows included), through a model file at batch 1 and 3.
TEST(Pool, ModelMatchesReferenceBitForBitAndSavesBack) {
    std::mt19937 rng(7);
    for (int iter = 0; iter < 150; ++iter) {
        const int type = int(rng() % 3), kW = 1 + int(rng() % 4), kH = 1 + int(rng() % 4), pW = int(rng() % 4),
                  pH = int(rng() % 4), sW = 1 + int(rng() % 4), sH = 1 + int(rng() % 4);
        const int C = 1 + rng() % 3, H = 1 + rng() % 12, W = 1 + rng() % 12;
        SCOPED_TRACE(testing::Message() << "type " << type << " k " << kW << "x" << kH << " s " << sW << "x" << sH
                                        << " pad " << pW << "," << pH << " in " << H << "x" << W);
        const std::string bytes = pool_model(1, C, H, W, vo_test::pool_record(type, kW, kH, pW, pH, sW, sH));
        Model m(bytes);
        const bool padded = pW != 0 || pH != 0;
        if (vo_ref::pool_size(W, kW, sW, pW, padded) < 1 || vo_ref::pool_size(H, kH, sH, pH, padded) < 1) {
            EXPECT_EQ(m.status, 1) << "output below 1 must fail the first reshape";
            continue;
        }
        ASSERT_EQ(m.status, 0) << m.err;
        for (int N : {1, 3}) {
            const auto in = vo_test::random_floats(rng, size_t(N) * C * H * W, type != 2);
            ASSERT_EQ(m.forward(in, N, C, H, W), 0);
            const vo_ref::Blob want = vo_ref::pool(vo_ref::blob(N, C, H, W, in), type, kW, kH, pW, pH, sW, sH);
            EXPECT_EQ(vo_test::dims(m.out()), (std::vector<int>{N, C, want.h, want.w}));
            EXPECT_TRUE(same_bits(m.out(), want.v));
        }
        EXPECT_EQ(m.saved(), bytes);
    }
}

TEST(Pool, EmptyClippedWindowGivesZeroAndGlobalAveragesTheImage) {
    // Height 5, kernel 1, pad 2, stride 1: the first two and the last rows
    // of windows lie in the padding.
    for (int type : {0, 1, 2}) {
        Model m(pool_model(1, 1, 5, 1, vo_test::pool_record(type, 1, 1, 0, 2, 1, 1)));
        ASSERT_EQ(m.forward({-1, -2, -3, -4, -5}, 1, 1, 5, 1), 0);
        EXPECT_TRUE(same_bits(m.out(), {0, 0, -1, -2, -3, -4, -5, 0}));  // 9 windows, less the last one
    }
    Model g(pool_model(1, 2, 6, 8, vo_test::pool_record(2, 3, 3, 1, 1, 2, 2, 1)));
    std::vector<float> in(96, 1.0f);
    std::fill(in.begin() + 48, in.end(), 2.0f);
    ASSERT_EQ(g.forward(in, 1, 2, 6, 8), 0);
    EXPECT_TRUE(same_bits(g.out(), {48.0f * (1.0f / 48.0f), 96.0f * (1.0f / 48.0f)}));
    // The record was rewritten by reshape, and is saved that way.
    EXPECT_EQ(g.saved(), pool_model(1, 2, 6, 8, vo_test::pool_record(2, 8, 6, 0, 0, 1, 1, 1)));
    // The largest values a file may hold are accepted.
    EXPECT_EQ(Model(pool_model(1, 1, 4, 4, vo_test::pool_record(0, 1, 1, 65535, 0, 65535, 1))).status, 0);
}

// The row kernels of pool_max_stable give pool_max's bits, NaN, infinities
// and signed zeros included, on any alignment, with padding wide enough to
// empty whole windows; other strides are handed to pool_max as they are.
TEST(Pool, StableRowKernelsMatchPoolMax) {
    std::mt19937 rng(11);
    ForwardParams* params = create_forward_params();
    int checked = 0;
    for (int iter = 0; iter < 400; ++iter) {
        const int k = 2 + iter % 2, sW = iter % 10 == 9 ? 1 : 2;
        Pooling p{0, k, k, int(rng() % 4), int(rng() % 4), sW, 2, 0};
        const int N = 1 + rng() % 2, C = 1 + rng() % 2, H = 1 + rng() % 20, W = 1 + rng() % 70;
        const bool padded = p.padW != 0 || p.padH != 0;
        const int outW = vo_ref::pool_size(W, k, sW, p.padW, padded), outH = vo_ref::pool_size(H, k, 2, p.padH, padded);
        if (outW < 1 || outH < 1) continue;
        const size_t inCount = size_t(N) * C * H * W, outCount = size_t(N) * C * outH * outW;
        const auto values = vo_test::random_floats(rng, inCount, true);
        // Tensors over buffers shifted by one float: nothing may assume alignment.
        std::vector<float> inBuf(inCount + 1), outBuf(outCount + 1);
        Tensor in{}, out{};
        in.data = inBuf.data() + (iter % 2);
        std::copy(values.begin(), values.end(), in.data);
        in.num = N, in.channel = C, in.height = H, in.width = W;
        in.capacity = in.allocCount = int32_t(inCount);
        out = in;
        out.data = outBuf.data() + (iter / 2 % 2);
        out.height = outH, out.width = outW;
        out.capacity = out.allocCount = int32_t(outCount);
        ASSERT_EQ(pool_max_stable(&p, &in, &out, params), 0);
        const vo_ref::Blob want = vo_ref::pool(vo_ref::blob(N, C, H, W, values), 0, k, k, p.padW, p.padH, sW, 2);
        EXPECT_TRUE(same_bits(out.data, want.v.data(), outCount))
            << "k " << k << " pad " << p.padW << "," << p.padH << " in " << H << "x" << W;
        // The layer's forward runs the same row kernels straight on the input.
        std::fill(outBuf.begin(), outBuf.end(), 7.0f);
        Tensor* inPtr = &in;
        Tensor* outPtr = &out;
        ASSERT_EQ(forward_pooling(&p, &inPtr, 1, &outPtr, 1, params), 0);
        EXPECT_TRUE(same_bits(out.data, want.v.data(), outCount)) << "forward_pooling, k " << k;
        ++checked;
    }
    EXPECT_GT(checked, 300);
    release_forward_params(&params);
}

// Many small planes whose windows all lie inside (the detector's first
// stage pools 10 x 10 planes): NaN, infinities and signed zeros as in
// pool_max, both kernels, every width up to 8 windows and past it.
TEST(Pool, NarrowPlanesMatchTheReference) {
    std::mt19937 rng(12);
    ForwardParams* params = create_forward_params();
    for (int k = 2; k <= 3; ++k)
        for (int W = k; W <= 19; ++W) {
            const int H = k + int(rng() % 12), N = 1 + int(rng() % 3), C = 1 + int(rng() % 5);
            Pooling p{0, k, k, 0, 0, 2, 2, 0};
            const int outW = vo_ref::pool_size(W, k, 2, 0, false), outH = vo_ref::pool_size(H, k, 2, 0, false);
            const size_t inCount = size_t(N) * C * H * W, outCount = size_t(N) * C * outH * outW;
            const auto values = vo_test::random_floats(rng, inCount, true);
            vo_test::Buffer<float> inBuf(inCount), outBuf(outCount, 7.0f);
            std::copy(values.begin(), values.end(), inBuf.data());
            Tensor in{}, out{};
            in.data = inBuf.data();
            in.num = N, in.channel = C, in.height = H, in.width = W;
            in.capacity = in.allocCount = int32_t(inCount);
            out = in;
            out.data = outBuf.data();
            out.height = outH, out.width = outW;
            out.capacity = out.allocCount = int32_t(outCount);
            Tensor* inPtr = &in;
            Tensor* outPtr = &out;
            ASSERT_EQ(forward_pooling(&p, &inPtr, 1, &outPtr, 1, params), 0);
            const vo_ref::Blob want = vo_ref::pool(vo_ref::blob(N, C, H, W, values), 0, k, k, 0, 0, 2, 2);
            EXPECT_TRUE(same_bits(out.data, want.v.data(), outCount)) << "k " << k << " in " << H << "x" << W;
        }
    release_forward_params(&params);
}

}  // namespace
