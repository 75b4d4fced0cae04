// Direct convolution paths: the packings against their layouts, every path
// against the general path and the literal reference bit for bit, the
// automatic choice on whole trained networks.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kernels/conv_direct.h"
#include "test_util.h"
#include "vnet/conv_private.h"
#include "vnet/layer_reference.h"

namespace {

using vo_test::first_bit_difference;
using vo_test::for_each_isa;
using vo_test::random_floats;

struct ConvDeleter {
    void operator()(Convolution* c) const { release_conv(&c); }
};
struct TensorDeleter {
    void operator()(Tensor* t) const { release_tensor(&t); }
};
struct ParamsDeleter {
    void operator()(ForwardParams* p) const { release_forward_params(&p); }
};
using ConvPtr = std::unique_ptr<Convolution, ConvDeleter>;
using TensorPtr = std::unique_ptr<Tensor, TensorDeleter>;

TensorPtr tensor_of(int n, int c, int h, int w, const std::vector<float>& v = {}) {
    TensorPtr t(create_tensor(n, c, h, w));
    if (!v.empty()) memcpy(t->data, v.data(), v.size() * sizeof(float));
    return t;
}

std::vector<float> values(const Tensor* t) { return std::vector<float>(t->data, t->data + t->capacity); }

enum BiasKind { kNoBias, kRandomBias, kZeroBias, kNegativeZeroBias };

// A float layer M x C x k x k; `bias` as listed above.
struct Layer {
    int M, C, k, s, p;
    BiasKind bias;
    std::vector<float> w, b;
};

ConvPtr make_conv(const Layer& l) {
    ConvPtr conv(create_convolution());
    conv->weights = create_tensor(l.M, l.C, l.k, l.k);
    memcpy(conv->weights->data, l.w.data(), l.w.size() * sizeof(float));
    conv->strideW = conv->strideH = l.s;
    conv->padW = conv->padH = l.p;
    conv->is1x1 = l.k == 1 && l.s == 1 && l.p == 0;
    conv->hasBias = l.bias != kNoBias;
    if (conv->hasBias) {
        conv->bias = create_tensor(1, l.M, 1, 1);
        memcpy(conv->bias->data, l.b.data(), l.b.size() * sizeof(float));
    }
    return conv;
}

Layer random_layer(std::mt19937& rng, int M, int C, int k, int s, int p, BiasKind bias, bool specials) {
    Layer l{M, C, k, s, p, bias, random_floats(rng, size_t(M) * C * k * k, specials), {}};
    if (bias == kRandomBias) l.b = random_floats(rng, size_t(M));
    if (bias == kZeroBias) l.b.assign(size_t(M), 0.0f);
    if (bias == kNegativeZeroBias) l.b.assign(size_t(M), -0.0f);
    return l;
}

// Runs `op` on a fresh output of the layer's shape; empty on a failure.
std::vector<float> run(ConvForwardOp op, Convolution* conv, Tensor* in, ForwardParams* params) {
    Tensor* out = create_tensor(1, 1, 1, 1);
    std::vector<float> v;
    if (reshape_conv(conv, &in, 1, &out, 1, params) == 0 && op(conv, &in, 1, &out, 1, params) == 0) v = values(out);
    release_tensor(&out);
    return v;
}

testing::AssertionResult same(const std::vector<float>& got, const std::vector<float>& want) {
    if (got.size() != want.size()) return testing::AssertionFailure() << got.size() << " values, want " << want.size();
    const int64_t i = first_bit_difference(got.data(), want.data(), int64_t(got.size()));
    if (i < 0) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "value " << i << ": " << got[i] << ", want " << want[i];
}

// ---- Packings ------------------------------------------------------------------

TEST(ConvDirect, KernelPackingsInterleaveBlocksOfRows) {
    std::mt19937 rng(1);
    for (int block : {4, 8})
        for (int M : {1, 3, 4, 6, 8, 9, 13, 17})
            for (int C : {1, 3, 5}) {
                SCOPED_TRACE(testing::Message() << block << " " << M << " " << C);
                const int k = block == 4 ? 1 : 3, K = C * k * k;
                TensorPtr w = tensor_of(M, C, k, k, random_floats(rng, size_t(M) * K));
                TensorPtr packed(block == 4 ? conv1x1s1_transform_kernel(w.get())
                                            : conv3x3s2_transform_kernel(w.get()));
                ASSERT_TRUE(packed);
                EXPECT_EQ(vo_test::dims(packed.get()), vo_test::dims(w.get()));
                std::vector<float> want;
                const int full = M / block * block;
                for (int g = 0; g < full; g += block)
                    for (int i = 0; i < K; ++i)
                        for (int j = 0; j < block; ++j) want.push_back(w->data[(g + j) * K + i]);
                for (int o = full; o < M; ++o)
                    for (int i = 0; i < K; ++i) want.push_back(w->data[o * K + i]);
                EXPECT_TRUE(vo_test::same_bits(packed.get(), want));
            }
    // The worked case: six channels of three, the first four interleaved.
    std::vector<float> w6(18);
    for (int i = 0; i < 18; ++i) w6[i] = float(i);
    TensorPtr w = tensor_of(6, 3, 1, 1, w6);
    TensorPtr packed(conv1x1s1_transform_kernel(w.get()));
    EXPECT_TRUE(vo_test::same_bits(packed.get(), {0, 3, 6, 9, 1, 4, 7, 10, 2, 5, 8, 11, 12, 13, 14, 15, 16, 17}));
}

TEST(ConvDirect, DataPackingCutsGroupsOfEightFourAndOne) {
    std::mt19937 rng(2);
    for (int S : {1, 3, 4, 5, 8, 12, 13, 15, 16, 21})
        for (int C : {1, 2, 5}) {
            TensorPtr in = tensor_of(1, C, 1, S, random_floats(rng, size_t(C) * S));
            TensorPtr packed = tensor_of(1, C, 1, S);
            conv_1x1s1_data_packed(in.get(), packed.get());
            std::vector<float> want;
            int p = 0;
            for (int group : {8, 4, 1})
                for (; p + group <= S; p += group)
                    for (int c = 0; c < C; ++c)
                        for (int j = 0; j < group; ++j) want.push_back(in->data[c * S + p + j]);
            EXPECT_TRUE(vo_test::same_bits(packed.get(), want)) << S << " " << C;
        }
}

// ---- Every path against the general path --------------------------------

struct Path {
    int k, s;
    ConvForwardOp op;
};
const Path kPaths[] = {{1, 1, forward_conv_1x1s1}, {3, 1, forward_conv_3x3s1}, {3, 2, forward_conv_3x3s2}};

// Channel counts off every block size, widths across every tile, paddings
// 0 to 2, batches, biases absent, random, +0 and -0, special values.
TEST(ConvDirect, ExactPathsMatchTheGeneralPathBitForBit) {
    std::mt19937 rng(3);
    std::unique_ptr<ForwardParams, ParamsDeleter> params(create_forward_params());
    for (const Path& path : kPaths)
        for (int round = 0; round < 40; ++round) {
            const int M = 1 + int(rng() % 21), C = 1 + int(rng() % 10), p = int(rng() % 3), n = 1 + int(rng() % 2);
            const int H = 1 + int(rng() % 20), W = 1 + int(rng() % 60);
            if (H + 2 * p < path.k || W + 2 * p < path.k) continue;
            const bool specials = round % 5 == 4;
            const Layer l = random_layer(rng, M, C, path.k, path.s, p, BiasKind(round % 4), specials);
            SCOPED_TRACE(testing::Message() << "k" << path.k << "s" << path.s << " M " << M << " C " << C << " p "
                                            << p << " n " << n << " " << H << "x" << W << " bias " << l.bias);
            ConvPtr conv = make_conv(l);
            const vo_ref::Blob in = vo_ref::blob(n, C, H, W, random_floats(rng, size_t(n) * C * H * W, specials));
            TensorPtr src = tensor_of(n, C, H, W, in.v);
            const vo_ref::Blob want = vo_ref::conv(in, l.w, M, path.k, path.k, path.s, path.s, p, p, l.b);
            const std::vector<float> general = run(forward_conv_norm, conv.get(), src.get(), params.get());
            ASSERT_TRUE(same(general, want.v));
            for_each_isa([&] {
                EXPECT_TRUE(same(run(path.op, conv.get(), src.get(), params.get()), want.v)) << "exported op";
                EXPECT_TRUE(same(run(forward_conv, conv.get(), src.get(), params.get()), want.v)) << "automatic";
                EXPECT_TRUE(same(run(vo::forward_conv_direct, conv.get(), src.get(), params.get()), want.v));
            });
        }
}

// Every product underflows to -0: a 4-row block stores +0, a remaining row
// keeps -0, visible without a bias and with a +0 or -0 bias.
TEST(ConvDirect, SignedZerosFromUnderflowKeepTheirClass) {
    std::unique_ptr<ForwardParams, ParamsDeleter> params(create_forward_params());
    for (const Path& path : kPaths)
        for (BiasKind bias : {kNoBias, kZeroBias, kNegativeZeroBias}) {
            Layer l{6, 3, path.k, path.s, 1, bias, std::vector<float>(size_t(6) * 3 * path.k * path.k, -1e-30f), {}};
            if (bias != kNoBias) l.b.assign(6, bias == kZeroBias ? 0.0f : -0.0f);
            ConvPtr conv = make_conv(l);
            const vo_ref::Blob in = vo_ref::blob(1, 3, 5, 11, std::vector<float>(3 * 5 * 11, 1e-30f));
            TensorPtr src = tensor_of(1, 3, 5, 11, in.v);
            const vo_ref::Blob want = vo_ref::conv(in, l.w, 6, path.k, path.k, path.s, path.s, 1, 1, l.b);
            for_each_isa([&] {
                EXPECT_TRUE(same(run(path.op, conv.get(), src.get(), params.get()), want.v));
                EXPECT_TRUE(same(run(forward_conv, conv.get(), src.get(), params.get()), want.v));
            });
            if (bias == kNoBias) {  // pixel (1, 1): a remaining row keeps -0, a block row has +0
                const size_t at = size_t(want.w) + 1;
                EXPECT_TRUE(std::signbit(want.v[4 * size_t(want.h) * want.w + at]));
                EXPECT_FALSE(std::signbit(want.v[at]));
            }
        }
}

// The unpacked stride-2 driver and the one-image drivers on an output one
// float off alignment, with a padded tensor wider than needed.
TEST(ConvDirect, OneImageDriversOnUnalignedOutputs) {
    std::mt19937 rng(4);
    for (int M : {3, 8, 11})
        for (int W : {5, 9, 17, 26}) {
            const int C = 3, H = 7, outH = (H - 3) / 2 + 1, outW = (W - 3) / 2 + 1;
            const Layer l = random_layer(rng, M, C, 3, 2, 0, kRandomBias, false);
            const vo_ref::Blob in = vo_ref::blob(1, C, H, W, random_floats(rng, size_t(C) * H * W));
            const vo_ref::Blob want = vo_ref::conv(in, l.w, M, 3, 3, 2, 2, 0, 0, l.b);
            TensorPtr padded = tensor_of(1, C, H, W, in.v), w = tensor_of(M, C, 3, 3, l.w);
            TensorPtr bias = tensor_of(1, M, 1, 1, l.b);
            TensorPtr packed(conv3x3s2_transform_kernel(w.get()));
            for_each_isa([&] {
                vo_test::Buffer<float> out(want.v.size());
                conv_3x3s2(padded.get(), w.get(), bias.get(), out.data(), M, outH, outW);
                EXPECT_TRUE(same(std::vector<float>(out.data(), out.data() + out.size()), want.v));
                vo_test::Buffer<float> out2(want.v.size());
                conv_3x3s2_packed(padded.get(), packed.get(), bias.get(), out2.data(), M, outH, outW);
                EXPECT_TRUE(same(std::vector<float>(out2.data(), out2.data() + out2.size()), want.v));
            });
        }
}

// The 4x4 stride-4 operation keeps its own rounding: bias first, then per
// input channel a 16-term chain whose first two terms are fused, added on.
TEST(ConvDirect, FourByFourStrideFourKeepsItsOwnRounding) {
    std::mt19937 rng(5);
    std::unique_ptr<ForwardParams, ParamsDeleter> params(create_forward_params());
    for (int round = 0; round < 12; ++round) {
        const int M = 1 + round % 6, C = 1 + round % 4, p = round % 3;
        const int H = 4 + int(rng() % 13), W = 4 + int(rng() % 70);
        const Layer l = random_layer(rng, M, C, 4, 4, p, BiasKind(round % 2), false);
        ConvPtr conv = make_conv(l);
        const vo_ref::Blob in = vo_ref::blob(2, C, H, W, random_floats(rng, size_t(2) * C * H * W));
        TensorPtr src = tensor_of(2, C, H, W, in.v);
        const int outH = (H + 2 * p - 4) / 4 + 1, outW = (W + 2 * p - 4) / 4 + 1;
        vo_ref::Blob want = vo_ref::blob(2, M, outH, outW);
        auto px = [&](int n, int c, int y, int x) {
            y -= p;
            x -= p;
            return y >= 0 && y < H && x >= 0 && x < W ? in.at(n, c, y, x) : 0.0f;
        };
        for (int n = 0; n < 2; ++n)
            for (int o = 0; o < M; ++o)
                for (int y = 0; y < outH; ++y)
                    for (int x = 0; x < outW; ++x) {
                        float v = l.b.empty() ? 0.0f : l.b[o];
                        for (int c = 0; c < C; ++c) {
                            const float* k = &l.w[size_t(o * C + c) * 16];
                            float s = std::fma(px(n, c, 4 * y, 4 * x), k[0], px(n, c, 4 * y, 4 * x + 1) * k[1]);
                            for (int j = 2; j < 16; ++j) s = std::fma(px(n, c, 4 * y + j / 4, 4 * x + j % 4), k[j], s);
                            v = v + s;
                        }
                        want.at(n, o, y, x) = v;
                    }
        EXPECT_TRUE(same(run(forward_conv_4x4s4, conv.get(), src.get(), params.get()), want.v)) << round;
        // Chosen automatically, the same shape rounds as the general path.
        const vo_ref::Blob general = vo_ref::conv(in, l.w, M, 4, 4, 4, 4, p, p, l.b);
        for_each_isa([&] {
            EXPECT_TRUE(same(run(forward_conv, conv.get(), src.get(), params.get()), general.v));
            EXPECT_TRUE(same(run(vo::forward_conv_direct, conv.get(), src.get(), params.get()), general.v));
        });
    }
}

TEST(ConvDirect, SlotsAndRefusals) {
    EXPECT_EQ(convTableNorm[CONV_SLOT_1X1_S1], forward_conv_1x1s1);
    EXPECT_EQ(convTableNorm[CONV_SLOT_3X3_S1], forward_conv_3x3s1);
    EXPECT_EQ(convTableNorm[CONV_SLOT_3X3_S2], forward_conv_3x3s2);
    EXPECT_EQ(convTableNorm[CONV_SLOT_4X4_S4], forward_conv_4x4s4);
    std::mt19937 rng(6);
    ConvPtr conv = make_conv(random_layer(rng, 2, 1, 1, 1, 0, kNoBias, false));
    TensorPtr src = tensor_of(1, 1, 4, 4), dst = tensor_of(1, 1, 1, 1);
    std::unique_ptr<ForwardParams, ParamsDeleter> params(create_forward_params());
    Tensor* in = src.get();
    Tensor* out = dst.get();
    ASSERT_EQ(reshape_conv(conv.get(), &in, 1, &out, 1, params.get()), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(forward_conv_3x3s1(conv.get(), &in, 1, &out, 1, params.get()), 7);  // not its kernel size
    EXPECT_EQ(forward_conv_1x1s1(nullptr, &in, 1, &out, 1, params.get()), 7);
    EXPECT_EQ(forward_conv_1x1s1(conv.get(), &in, 2, &out, 1, params.get()), 7);
    src->channel = 2;  // the input no longer fits the weights
    EXPECT_EQ(forward_conv_1x1s1(conv.get(), &in, 1, &out, 1, params.get()), 5);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("vnet/conv_stable: forward_conv_3x3s1: check failed"),
              std::string::npos);
}

// ---- Across the batch --------------------------------------------------------

TEST(ConvDirect, InterleaveEightRowsSideBySideAndBack) {
    std::mt19937 rng(8);
    for (int stride : {8, 16})
        for (int count = 0; count <= 27; ++count) {
            vo_test::Buffer<float> src(size_t(8) * count + 1);
            for (size_t i = 0; i < src.size(); ++i) src.data()[i] = float(rng() % 1000);
            const float* rows[8];
            for (int l = 0; l < 8; ++l) rows[l] = src.data() + 1 + ((l * 3) % 8) * count;  // any order, unaligned
            std::vector<float> want(size_t(stride) * count, -1.0f);
            for (int x = 0; x < count; ++x)
                for (int l = 0; l < 8; ++l) want[size_t(x) * stride + l] = rows[l][x];
            vo_test::Buffer<float> out(want.size(), -1.0f);
            vo::avx2::interleave8(rows, count, out.data(), stride);
            EXPECT_TRUE(vo_test::same_bits(out.data(), want.data(), want.size())) << count;
            // Back into the first `lanes` of eight rows; the others untouched.
            const int lanes = 1 + count % 8;
            std::vector<vo_test::Buffer<float>> back;
            for (int l = 0; l < 8; ++l) back.emplace_back(size_t(count), 7.0f);
            float* to[8];
            for (int l = 0; l < 8; ++l) to[l] = back[size_t(l)].data();
            vo::avx2::deinterleave8(out.data(), count, to, lanes, stride);
            for (int l = 0; l < 8; ++l)
                for (int x = 0; x < count; ++x) EXPECT_EQ(to[l][x], l < lanes ? rows[l][x] : 7.0f) << count;
        }
}

// Output planes 1x1 to 5x5 (both sides of 8 pixels) and rows up to 12
// wide, kernels 1 to 5, strides 1 and 2, paddings 0 to 2, batches 1 to 40
// (partial groups of 8 and 16 images), channel counts off the blocks of 4,
// every kind of bias, special values now and then.
TEST(ConvDirect, BatchPathMatchesTheGeneralPathBitForBit) {
    std::mt19937 rng(9);
    std::unique_ptr<ForwardParams, ParamsDeleter> params(create_forward_params());
    for (int round = 0; round < 160; ++round) {
        const int k = 1 + int(rng() % 5), s = 1 + int(rng() % 2), p = int(rng() % 3);
        const int outH = 1 + int(rng() % 5), outW = 1 + int(rng() % (round % 2 ? 5 : 12));
        // The smallest input of that output size (plus what the stride drops).
        const int H = (outH - 1) * s + k - 2 * p + int(rng() % s), W = (outW - 1) * s + k - 2 * p + int(rng() % s);
        if (H < 1 || W < 1) continue;
        const int M = 1 + int(rng() % 21), C = 1 + int(rng() % 7), n = 1 + int(rng() % 40);
        const bool specials = round % 7 == 6;
        const Layer l = random_layer(rng, M, C, k, s, p, BiasKind(round % 4), specials);
        SCOPED_TRACE(testing::Message() << "k" << k << "s" << s << "p" << p << " M " << M << " C " << C << " n " << n
                                        << " " << H << "x" << W << " bias " << l.bias);
        ConvPtr conv = make_conv(l);
        const vo_ref::Blob in = vo_ref::blob(n, C, H, W, random_floats(rng, size_t(n) * C * H * W, specials));
        TensorPtr src = tensor_of(n, C, H, W, in.v);
        const vo_ref::Blob want = vo_ref::conv(in, l.w, M, k, k, s, s, p, p, l.b);
        ASSERT_EQ(want.h * want.w, outH * outW);
        ASSERT_TRUE(same(run(forward_conv_norm, conv.get(), src.get(), params.get()), want.v));
        for_each_isa([&] {
            EXPECT_TRUE(same(run(vo::forward_conv_direct_batch, conv.get(), src.get(), params.get()), want.v));
        });
    }
}

// Underflowing products on both classes of pixels (9 pixels: the last one
// grouped) and rows on both sides of the 4-row blocks, over a batch whose
// last group of images is partial.
TEST(ConvDirect, BatchPathKeepsSignedZerosOfEachClass) {
    std::unique_ptr<ForwardParams, ParamsDeleter> params(create_forward_params());
    for (BiasKind bias : {kNoBias, kZeroBias, kNegativeZeroBias})
        for (int H : {3, 5}) {
            Layer l{6, 5, 3, 1, 0, bias, std::vector<float>(size_t(6) * 5 * 9, -1e-30f), {}};
            if (bias != kNoBias) l.b.assign(6, bias == kZeroBias ? 0.0f : -0.0f);
            ConvPtr conv = make_conv(l);
            const vo_ref::Blob in = vo_ref::blob(11, 5, H, H, std::vector<float>(size_t(11) * 5 * H * H, 1e-30f));
            TensorPtr src = tensor_of(11, 5, H, H, in.v);
            const vo_ref::Blob want = vo_ref::conv(in, l.w, 6, 3, 3, 1, 1, 0, 0, l.b);
            for_each_isa([&] {
                EXPECT_TRUE(same(run(vo::forward_conv_direct_batch, conv.get(), src.get(), params.get()), want.v));
            });
        }
}

// The choice by batch and plane size; the first cascade stage of the face
// detector gives the same bits with and without it, the pass repeated
// without new working memory.
TEST(ConvDirect, BatchPathChosenForBatchesOfSmallPlanes) {
    std::mt19937 rng(10);
    std::unique_ptr<ForwardParams, ParamsDeleter> params(create_forward_params());
    ConvPtr conv = make_conv(random_layer(rng, 8, 4, 3, 1, 0, kRandomBias, false));
    struct Choice {
        int n, side;
        const char* path;
    };
    const int few = vo::kDirectBatchMinImages, many = vo::kDirectBatchManyImages;
    const Choice choices[] = {{few, 5, "direct-batch"},          {few - 1, 5, "direct-3x3s1"},
                              {few, 6, "direct-3x3s1"},          {many, 12, "direct-batch"},
                              {many - 1, 12, "direct-3x3s1"},    {many, 13, "direct-3x3s1"}};
    for (const Choice& c : choices) {
        TensorPtr src = tensor_of(c.n, 4, c.side, c.side), dst = tensor_of(1, 1, 1, 1);
        Tensor* in = src.get();
        Tensor* out = dst.get();
        ASSERT_EQ(reshape_conv(conv.get(), &in, 1, &out, 1, params.get()), 0);
        EXPECT_STREQ(vo::conv_path_name(conv.get()), c.path) << c.n << " " << c.side;
    }

    Net* net = nullptr;
    ASSERT_EQ(vo_load_net((std::string(VONET_TEST_DATA_DIR) + "/../../models/object_face_anet.dat").c_str(), &net), 0);
    vo_test::NetPtr owner(net);
    for (int n : {128, 13}) {
        std::vector<float> input = random_floats(rng, size_t(n) * 12 * 12);
        for (float& v : input) v = std::fabs(v);
        auto outputs = [&] {
            EXPECT_EQ(vo_forward_net(net, input.data(), n, 1, 12, 12), 0);
            return values(vo_output_by_name(net, "prob"));
        };
        const bool previous = vo::set_conv_general_for_testing(true);
        const std::vector<float> general = outputs();
        vo::set_conv_general_for_testing(false);
        for_each_isa([&] { EXPECT_TRUE(same(outputs(), general)) << n; });
        int batch = 0;
        for (uint32_t i = 0; i < net->layerSize; ++i)
            if (net->layers[i]->type == LAYER_CONVOLUTION)
                batch += strcmp(vo::conv_path_name(static_cast<const Convolution*>(net->layers[i]->runParams)),
                                "direct-batch") == 0;
        EXPECT_GE(batch, 2) << n;
        const float* scratch = net->forwardParams->padBuffer->data;
        outputs();
        EXPECT_EQ(net->forwardParams->padBuffer->data, scratch);
        vo::set_conv_general_for_testing(previous);
    }
}

// ---- Padding and the debug dump ---------------------------------------------

TEST(ConvDirect, PadRoundPlacesRowsAndRefusesTooSmallTargets) {
    std::vector<float> v(48);
    for (int i = 0; i < 48; ++i) v[i] = float(i + 1);
    TensorPtr src = tensor_of(1, 3, 4, 4, v), res = tensor_of(1, 3, 8, 6);
    conv_pad_round(src.get(), 0, 1, 2, res.get(), 4);
    for (int c = 0; c < 3; ++c)
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 6; ++x) {
                const bool inside = y >= 2 && y < 6 && x >= 1 && x < 5;
                EXPECT_EQ(res->data[(c * 8 + y) * 6 + x], inside ? v[(c * 4 + y - 2) * 4 + x - 1] : 0.0f);
            }
    struct Refusal {
        int c, h, w, padW, padH;
        const char* check;
    };
    const Refusal refusals[] = {{2, 8, 6, 1, 2, "src->channel == res->channel"},
                                {3, 8, 5, 1, 2, "src->width + padw * 2 <= res->width"},
                                {3, 7, 6, 1, 2, "src->height + padh * 2 <= res->height"}};
    for (const Refusal& r : refusals) {
        TensorPtr small = tensor_of(1, r.c, r.h, r.w, std::vector<float>(size_t(r.c) * r.h * r.w, 7.0f));
        testing::internal::CaptureStderr();
        conv_pad_round(src.get(), 0, r.padW, r.padH, small.get(), 4);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string("vnet/conv_stable: conv_pad_round: check failed: ") + r.check + "\n");
        EXPECT_EQ(small->data[0], 7.0f);  // untouched
    }
}

TEST(ConvDirect, DebugDumpWritesEveryPlane) {
    vo_test::TempDir dir;
    TensorPtr t = tensor_of(1, 2, 1, 2, {1.0f, -0.5f, 2.0f, 0.125f});
    FILE* f = fopen(dir.file("dump.txt").c_str(), "w");
    print_tensor_data_to_file(t.get(), f);
    fclose(f);
    EXPECT_EQ(vo_test::read_file(dir.file("dump.txt")), "c0\n1.00000 -0.50000 \n\nc1\n2.00000 0.12500 \n\n\n");
}

// ---- Whole networks ----------------------------------------------------------

// The three face networks give the same bits with and without the choice,
// on sizes that put every 3x3 layer across tile edges; the Winograd switch
// takes the 3x3 layers and closing it makes them exact again.
TEST(ConvDirect, TrainedNetworksGiveIdenticalBitsWithTheChoice) {
    const std::string dir = std::string(VONET_TEST_DATA_DIR) + "/mtcnn/";
    struct Case {
        const char* id;
        int h, w;
        const char* outputs[3];
    };
    const Case cases[] = {{"det1", 12, 12, {"prob1", "conv4-2", nullptr}},
                          {"det1", 41, 67, {"prob1", "conv4-2", nullptr}},
                          {"det2", 24, 24, {"prob1", "conv5-2", nullptr}},
                          {"det3", 48, 48, {"prob1", "conv6-2", "conv6-3"}}};
    std::mt19937 rng(7);
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.id << " " << c.h << "x" << c.w);
        Net* net = nullptr;
        ASSERT_EQ(vo_load_net((dir + c.id + ".vo").c_str(), &net), 0);
        vo_test::NetPtr owner(net);
        const int n = 2;
        std::vector<float> input = random_floats(rng, size_t(n) * 3 * c.h * c.w);
        auto outputs = [&] {
            EXPECT_EQ(vo_forward_net(net, input.data(), n, 3, c.h, c.w), 0);
            std::vector<std::vector<float>> all;
            for (const char* name : c.outputs)
                if (name) all.push_back(values(vo_output_by_name(net, name)));
            return all;
        };
        const bool previous = vo::set_conv_general_for_testing(true);
        const auto general = outputs();
        vo::set_conv_general_for_testing(false);
        for_each_isa([&] {
            const auto chosen = outputs();
            for (size_t i = 0; i < general.size(); ++i) EXPECT_TRUE(same(chosen[i], general[i])) << c.outputs[i];
        });
        int direct = 0;
        for (uint32_t i = 0; i < net->layerSize; ++i)
            if (net->layers[i]->type == LAYER_CONVOLUTION) {
                const auto* conv = static_cast<const Convolution*>(net->layers[i]->runParams);
                const std::string name = vo::conv_path_name(conv, net->forwardParams);
                direct += name.rfind("direct-", 0) == 0;
                vo_open_winograd(net);
                if (conv->weights->height == 3) {
                    EXPECT_STREQ(vo::conv_path_name(conv, net->forwardParams), "winograd");
                }
                vo_close_winograd(net);
            }
        EXPECT_GT(direct, 0);
        vo_open_winograd(net);
        outputs();
        vo_close_winograd(net);
        const auto again = outputs();
        for (size_t i = 0; i < general.size(); ++i) EXPECT_TRUE(same(again[i], general[i])) << c.outputs[i];
        // Repeating the pass allocates nothing new.
        const float* scratch = net->forwardParams->padBuffer->data;
        outputs();
        EXPECT_EQ(net->forwardParams->padBuffer->data, scratch);
        vo::set_conv_general_for_testing(previous);
    }
}

}  // namespace
