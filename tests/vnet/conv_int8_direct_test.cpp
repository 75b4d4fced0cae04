// The direct int8 3x3 paths (stride 1 and 2) against the general int8 path
// (itself checked against integer loops in conv_int8_test.cpp), bit for
// bit, on every instruction-set path: channel counts off the pair/vector
// multiples, odd output rows, widths around the 16-value steps, paddings
// 0..2, batches, bias on and off; the drivers' own checks; no allocation on
// a rerun.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

int pick(std::mt19937& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }

// A quantised 3x3 layer built in memory, with its scratch record.
struct Int8Conv {
    Int8Conv(std::mt19937& rng, int M, int C, int stride, int pad, bool bias) : conv(create_convolution()) {
        conv->weights = create_tensor(M, C, 3, 3);
        auto* w = reinterpret_cast<int8_t*>(conv->weights->data);
        for (int i = 0; i < M * C * 9; ++i) w[i] = int8_t(pick(rng, -128, 127));
        conv->strideW = conv->strideH = stride;
        conv->padW = conv->padH = pad;
        conv->hasBias = bias;
        conv->quantized = 1;
        conv->inputScale = 20.0f;
        conv->dequantScales = static_cast<float*>(malloc(sizeof(float) * size_t(M)));
        conv->weightScales = static_cast<float*>(malloc(sizeof(float) * size_t(M)));
        for (int o = 0; o < M; ++o) {
            conv->weightScales[o] = 100.0f + float(o);
            conv->dequantScales[o] = 1.0f / (conv->inputScale * conv->weightScales[o]);
        }
        if (bias) {
            conv->bias = create_tensor(1, M, 1, 1);
            for (int o = 0; o < M; ++o) conv->bias->data[o] = float(pick(rng, -300, 300)) / 64.0f;
        }
    }
    ~Int8Conv() {
        release_conv(&conv);
        for (Tensor** t : {&params.inputBuffer, &params.outputBuffer, &params.columnBuffer}) release_tensor(t);
    }
    // Runs `op` on `in` into a fresh output of the layer's shape.
    std::vector<float> run(ConvForwardOp op, Tensor* in) {
        const int s = conv->strideW, p = conv->padW;
        Tensor* out = create_tensor(in->num, conv->weights->num, (in->height - 3 + 2 * p) / s + 1,
                                    (in->width - 3 + 2 * p) / s + 1);
        Tensor* ins[] = {in};
        Tensor* outs[] = {out};
        EXPECT_EQ(op(conv, ins, 1, outs, 1, &params), 0);
        std::vector<float> v(out->data, out->data + out->capacity);
        release_tensor(&out);
        return v;
    }
    Convolution* conv;
    ForwardParams params{};
};

Tensor* random_input(std::mt19937& rng, int n, int c, int h, int w) {
    Tensor* t = create_tensor(n, c, h, w);
    for (int i = 0; i < t->capacity; ++i) t->data[i] = float(pick(rng, -900, 900)) / 100.0f;  // some saturate
    return t;
}

TEST(Int8DirectConv, MatchesTheGeneralPath) {
    std::mt19937 rng(2024);
    for (int stride : {1, 2}) {
        const ConvForwardOp direct = convTableQuantize[conv_table_slot(3, stride)];
        ASSERT_EQ(direct, stride == 1 ? forward_conv_3x3s1_s8 : forward_conv_3x3s2_s8);
        for (int round = 0; round < 36; ++round) {
            const int M = round < 9 ? round + 1 : pick(rng, 1, 11), C = pick(rng, 1, 9), pad = round % 3;
            // Output widths cover 1..40 (every tail of the 16-value steps).
            const int outW = round < 8 ? 15 + round : pick(rng, 1, 40), outH = pick(rng, 1, 7);
            const int W = std::max(1, (outW - 1) * stride + 3 - 2 * pad + (round % 2) * (stride - 1));
            const int H = std::max(1, (outH - 1) * stride + 3 - 2 * pad);
            const int n = 1 + round % 2;
            SCOPED_TRACE(testing::Message() << "s" << stride << " M" << M << " C" << C << " " << W << "x" << H << " p"
                                            << pad << " n" << n);
            Int8Conv layer(rng, M, C, stride, pad, round % 4 != 3);
            Tensor* in = random_input(rng, n, C, H, W);
            const std::vector<float> want = layer.run(forward_conv_norm_quantized, in);
            vo_test::for_each_isa([&] {
                const std::vector<float> got = layer.run(direct, in);
                ASSERT_TRUE(vo_test::same_bits(got.data(), want.data(), want.size()));
            });
            release_tensor(&in);
        }
    }
}

TEST(Int8DirectConv, RerunAllocatesNothingAndOtherShapesFallBack) {
    std::mt19937 rng(5);
    Int8Conv layer(rng, 5, 3, 1, 1, true);
    Tensor* in = random_input(rng, 2, 3, 9, 21);
    layer.run(forward_conv_3x3s1_s8, in);
    const float* buffers[] = {layer.params.inputBuffer->data, layer.params.outputBuffer->data,
                              layer.params.columnBuffer->data};
    const std::vector<float> first = layer.run(forward_conv_3x3s1_s8, in);
    EXPECT_EQ(buffers[0], layer.params.inputBuffer->data);
    EXPECT_EQ(buffers[1], layer.params.outputBuffer->data);
    EXPECT_EQ(buffers[2], layer.params.columnBuffer->data);
    const std::vector<float> general = layer.run(forward_conv_norm_quantized, in);
    EXPECT_TRUE(vo_test::same_bits(first.data(), general.data(), first.size()));
    // A stride-1 layer in the stride-2 slot is still computed correctly.
    const std::vector<float> other = layer.run(forward_conv_3x3s2_s8, in);
    EXPECT_TRUE(vo_test::same_bits(other.data(), first.data(), first.size()));
    release_tensor(&in);
}

TEST(Int8DirectConv, DriversRefuseWhatDoesNotFit) {
    std::mt19937 rng(9);
    Int8Conv layer(rng, 3, 2, 1, 0, false);
    Tensor* padded = create_tensor(1, 2, 6, 6);
    std::vector<int32_t> out(3 * 4 * 5, 42);
    // One output column too many for a 6-wide image: nothing is written.
    testing::internal::CaptureStderr();
    conv_3x3s1_s8(padded, layer.conv->weights, out.data(), 3, 4, 5);
    conv_3x3s2_s8(padded, layer.conv->weights, out.data(), 3, 3, 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vnet/conv_stable: conv_3x3s1_s8: check failed: spanW <= Wp && spanH <= Hp\n"
              "vnet/conv_stable: conv_3x3s2_s8: check failed: spanW <= Wp && spanH <= Hp\n");
    for (int32_t v : out) ASSERT_EQ(v, 42);
    release_tensor(&padded);
}

}  // namespace
