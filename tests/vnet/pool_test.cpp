// Pooling: window walk and sums against a literal reference, the stride-2
// row kernels against pool_max, the model record and its refusals.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

#include "model_run.h"

namespace {

using vo_model::Model;
using vo_model::same_bits;

// One output value, straight from the window definition.
float reference_window(const float* plane, int H, int W, const Pooling& p, int oy, int ox) {
    int hs = oy * p.strideH - p.padH, ws = ox * p.strideW - p.padW;
    int he = std::min(hs + p.kernelH, H), we = std::min(ws + p.kernelW, W);
    hs = std::max(hs, 0);
    ws = std::max(ws, 0);
    if (he <= hs || we <= ws) return 0.0f;
    if (p.type == 2) {
        float sum = 0.0f;
        for (int y = hs; y < he; ++y)
            for (int x = ws; x < we; ++x) sum += plane[y * W + x];
        return sum * (1.0f / float(p.kernelW * p.kernelH));
    }
    float m = plane[hs * W + ws];
    for (int y = hs; y < he; ++y) {
        for (int x = ws; x < we; ++x) {
            float v = plane[y * W + x];
            if (p.type == 0 ? v > m : v < m) m = v;
        }
    }
    return m;
}

std::vector<float> reference_pool(const std::vector<float>& in, int N, int C, int H, int W, const Pooling& p,
                                  int outH, int outW) {
    std::vector<float> out;
    for (int i = 0; i < N * C; ++i)
        for (int oy = 0; oy < outH; ++oy)
            for (int ox = 0; ox < outW; ++ox) out.push_back(reference_window(&in[i * H * W], H, W, p, oy, ox));
    return out;
}

std::string pool_record(int type, int kw, int kh, int pw, int ph, int sw, int sh, int global = 0) {
    return vo_test::ModelBytes().i32(type).i32(kw).i32(kh).i32(pw).i32(ph).i32(sw).i32(sh).u8(uint8_t(global)).bytes();
}

std::string pool_model(int n, int c, int h, int w, const std::string& record) {
    return vo_model::head(n, c, h, w).layer("pool", LAYER_POOLING, record, {"data"}, {"out"}).bytes();
}

TEST(Pool, OutputSizeRoundsUpAndDropsWindowsStartingInThePadding) {
    int32_t w = 0, h = 0;
    calculate_pool_result_size(5, 5, 2, 2, 2, 2, 0, 0, &w, &h);  // ceil(3/2) + 1
    EXPECT_EQ(w, 3);
    EXPECT_EQ(h, 3);
    calculate_pool_result_size(4, 4, 3, 3, 2, 2, 1, 1, &w, &h);  // (3-1)*2 = 4 < 4+1 keeps 3
    EXPECT_EQ(w, 3);
    calculate_pool_result_size(3, 5, 2, 1, 2, 3, 0, 0, &w, &h);  // unpadded: no correction
    EXPECT_EQ(w, 2);
    EXPECT_EQ(h, 3);
    calculate_pool_result_size(3, 5, 2, 1, 2, 3, 1, 0, &w, &h);  // (3-1)*2 = 4 >= 3+1 drops one
    EXPECT_EQ(w, 2);
    EXPECT_EQ(h, 2);  // and the height is tested too, once either direction is padded
    calculate_pool_result_size(2, 1, 3, 3, 1, 1, 0, 0, &w, &h);  // ceilf(-1) + 1 = 0, ceilf(-2)+1
    EXPECT_EQ(w, 0);
    EXPECT_EQ(h, -1);
}

// Every type over random shapes, kernels, strides and paddings (empty
// clipped windows included), through a model file at batch 1 and 3.
TEST(Pool, ModelMatchesReferenceBitForBitAndSavesBack) {
    std::mt19937 rng(7);
    for (int iter = 0; iter < 150; ++iter) {
        Pooling p{int(rng() % 3), 1 + int(rng() % 4), 1 + int(rng() % 4), int(rng() % 4), int(rng() % 4),
                  1 + int(rng() % 4), 1 + int(rng() % 4), 0};
        const int C = 1 + rng() % 3, H = 1 + rng() % 12, W = 1 + rng() % 12;
        int32_t outW = 0, outH = 0;
        calculate_pool_result_size(W, H, p.kernelW, p.kernelH, p.strideW, p.strideH, p.padW, p.padH, &outW, &outH);
        const std::string bytes =
            pool_model(1, C, H, W, pool_record(p.type, p.kernelW, p.kernelH, p.padW, p.padH, p.strideW, p.strideH));
        Model m(bytes);
        if (outW < 1 || outH < 1) {
            EXPECT_EQ(m.status, 1) << "output below 1 must fail the first reshape";
            continue;
        }
        ASSERT_EQ(m.status, 0) << m.err;
        for (int N : {1, 3}) {
            auto in = vo_model::random_floats(rng, size_t(N) * C * H * W, p.type != 2);
            ASSERT_EQ(m.forward(in, N, C, H, W), 0);
            EXPECT_EQ(vo_model::dims(m.out()), (std::vector<int>{N, C, outH, outW}));
            EXPECT_TRUE(same_bits(m.out(), reference_pool(in, N, C, H, W, p, outH, outW)))
                << "type " << p.type << " k " << p.kernelW << "x" << p.kernelH << " s " << p.strideW << "x"
                << p.strideH << " pad " << p.padW << "," << p.padH << " in " << H << "x" << W;
        }
        EXPECT_EQ(m.saved(), bytes);
    }
}

TEST(Pool, EmptyClippedWindowGivesZeroAndGlobalAveragesTheImage) {
    // Height 5, kernel 1, pad 2, stride 1: the first two and the last rows
    // of windows lie in the padding.
    for (int type : {0, 1, 2}) {
        Model m(pool_model(1, 1, 5, 1, pool_record(type, 1, 1, 0, 2, 1, 1)));
        ASSERT_EQ(m.status, 0);
        std::vector<float> in = {-1, -2, -3, -4, -5};
        ASSERT_EQ(m.forward(in, 1, 1, 5, 1), 0);
        EXPECT_TRUE(same_bits(m.out(), {0, 0, -1, -2, -3, -4, -5, 0}));  // 9 windows, less the last one
    }
    Model g(pool_model(1, 2, 6, 8, pool_record(2, 3, 3, 1, 1, 2, 2, 1)));
    ASSERT_EQ(g.status, 0);
    std::vector<float> in(96, 1.0f);
    for (int i = 48; i < 96; ++i) in[i] = 2.0f;
    ASSERT_EQ(g.forward(in, 1, 2, 6, 8), 0);
    EXPECT_TRUE(same_bits(g.out(), {48.0f * (1.0f / 48.0f), 96.0f * (1.0f / 48.0f)}));
    char text[128];
    get_info_pool(static_cast<Pooling*>(g.net->layers[0]->runParams), text);
    EXPECT_STREQ(text, "Pooling type: 2 kern: 8 6 pad: 0 0 stride: 1 1 global: 1");
    get_info_pool(nullptr, text);
    EXPECT_STREQ(text, "Pooling");
    // The record was rewritten by reshape, and is saved that way.
    EXPECT_EQ(g.saved(), pool_model(1, 2, 6, 8, pool_record(2, 8, 6, 0, 0, 1, 1, 1)));
}

TEST(Pool, RefusesBadRecordsAtLoadAndBadShapesAtReshape) {
    const struct {
        std::string record;
        const char* check;
    } bad[] = {
        {pool_record(3, 2, 2, 0, 0, 2, 2), "pool->type >= 0 && pool->type <= 2"},
        {pool_record(-1, 2, 2, 0, 0, 2, 2), "pool->type >= 0 && pool->type <= 2"},
        {pool_record(0, 0, 2, 0, 0, 2, 2), "pool->kernelW >= 1 && pool->kernelW <= 65535"},
        {pool_record(0, 2, 65536, 0, 0, 2, 2), "pool->kernelH >= 1 && pool->kernelH <= 65535"},
        {pool_record(0, 2, 2, 0, 0, 0, 2), "pool->strideW >= 1 && pool->strideW <= 65535"},
        {pool_record(0, 2, 2, 0, 0, 2, 65536), "pool->strideH >= 1 && pool->strideH <= 65535"},
        {pool_record(0, 2, 2, -1, 0, 2, 2), "pool->padW >= 0 && pool->padW <= 65535"},
        {pool_record(0, 2, 2, 0, 65536, 2, 2), "pool->padH >= 0 && pool->padH <= 65535"},
        {"", "ret == 1"},
    };
    for (const auto& b : bad) {
        // An empty record stands for a file ending inside the record.
        Model m(b.record.empty() ? vo_model::head(1, 1, 4, 4).name("pool").i32(LAYER_POOLING).raw(
                                       pool_record(0, 2, 2, 0, 0, 2, 2).substr(0, 28)).bytes()
                                 : pool_model(1, 1, 4, 4, b.record));
        EXPECT_EQ(m.status, 4);
        EXPECT_EQ(m.net, nullptr);
        EXPECT_EQ(m.err, std::string("vnet/pool: load_pooling: check failed: ") + b.check + "\n");
    }
    // The largest values a file may hold are accepted.
    EXPECT_EQ(Model(pool_model(1, 1, 4, 4, pool_record(0, 1, 1, 65535, 0, 65535, 1))).status, 0);

    // Kernel 3 on a width of 1 leaves no output column: the first reshape fails.
    Model narrow(pool_model(1, 1, 4, 1, pool_record(0, 3, 3, 0, 0, 1, 1)));
    EXPECT_EQ(narrow.status, 1);
    EXPECT_EQ(narrow.err, "vnet/pool: reshape_pooling: check failed: outW >= 1 && outH >= 1\n");

    // A reduction refuses an output of the wrong shape and leaves it alone.
    Pooling p{0, 2, 2, 0, 0, 2, 2, 0};
    Tensor* in = create_tensor(1, 1, 4, 4);
    Tensor* out = create_tensor(1, 1, 3, 2);
    out->data[0] = 9.0f;
    testing::internal::CaptureStderr();
    EXPECT_EQ(pool_max(&p, in, out), 5);
    EXPECT_EQ(pool_max_stable(&p, in, out, nullptr), 7);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(out->data[0], 9.0f);
    release_tensor(&in);
    release_tensor(&out);
}

// The row kernels of pool_max_stable give pool_max's bits, NaN, infinities
// and signed zeros included, on any alignment, with padding wide enough to
// empty whole windows.
TEST(Pool, StableRowKernelsMatchPoolMax) {
    std::mt19937 rng(11);
    ForwardParams* params = create_forward_params();
    int checked = 0;
    for (int iter = 0; iter < 400; ++iter) {
        const int k = 2 + iter % 2;
        const bool otherStride = iter % 10 == 9;  // handed to pool_max as is
        Pooling p{0, k, k, int(rng() % 4), int(rng() % 4), otherStride ? 1 : 2, 2, 0};
        const int N = 1 + rng() % 2, C = 1 + rng() % 2, H = 1 + rng() % 20, W = 1 + rng() % 70;
        int32_t outW = 0, outH = 0;
        calculate_pool_result_size(W, H, k, k, p.strideW, 2, p.padW, p.padH, &outW, &outH);
        if (outW < 1 || outH < 1) continue;
        const size_t inCount = size_t(N) * C * H * W, outCount = size_t(N) * C * outH * outW;
        const auto values = vo_model::random_floats(rng, inCount, true);
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
        EXPECT_TRUE(same_bits(out.data, reference_pool(values, N, C, H, W, p, outH, outW).data(), outCount))
            << "k " << k << " pad " << p.padW << "," << p.padH << " in " << H << "x" << W;
        ++checked;
    }
    EXPECT_GT(checked, 300);
    release_forward_params(&params);
}

}  // namespace
