// The direct int8 3x3 paths (stride 1 and 2), which the quantised layer
// runs for every 3x3 layer of equal strides 1 or 2: the drivers' sums and
// the layer outputs bit for bit against plain loops on every
// instruction-set path (output channels around the 4- and 8-channel
// blocks, outputs around the 8- and 16-pixel vectors and their blocks,
// paddings 0..2, batches, bias on and off); the unfolding path gives the
// same bits; the drivers' checks; no allocation on a rerun; working memory
// that cannot grow.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "kernels/scratch.h"
#include "test_util.h"
#include "vnet/conv_int8.h"

namespace {

int pick(std::mt19937& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }

// The correlation of a C x H x W byte image with M x C x 3 x 3 byte
// kernels at stride s, zero outside the image, summed modulo 2^32.
std::vector<int32_t> literal_sums(const int8_t* image, int C, int H, int W, const int8_t* w, int M, int s, int pad,
                                  int outH, int outW) {
    std::vector<int32_t> out(size_t(M) * outH * outW);
    for (int o = 0; o < M; ++o)
        for (int y = 0; y < outH; ++y)
            for (int x = 0; x < outW; ++x) {
                uint32_t sum = 0;
                for (int c = 0; c < C; ++c)
                    for (int ky = 0; ky < 3; ++ky)
                        for (int kx = 0; kx < 3; ++kx) {
                            const int iy = s * y + ky - pad, ix = s * x + kx - pad;
                            if (iy < 0 || iy >= H || ix < 0 || ix >= W) continue;
                            sum += uint32_t(w[(o * C + c) * 9 + ky * 3 + kx] * image[(c * H + iy) * W + ix]);
                        }
                out[(size_t(o) * outH + y) * outW + x] = int32_t(sum);
            }
    return out;
}

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
    int outSize(int in) const { return (in - 3 + 2 * conv->padW) / conv->strideW + 1; }
    // Runs `op` on `in` into a fresh output of the layer's shape.
    std::vector<float> run(ConvForwardOp op, Tensor* in, int want = 0) {
        Tensor* out = create_tensor(in->num, conv->weights->num, outSize(in->height), outSize(in->width));
        Tensor* ins[] = {in};
        Tensor* outs[] = {out};
        EXPECT_EQ(op(conv, ins, 1, outs, 1, &params), want);
        std::vector<float> v(out->data, out->data + out->capacity);
        release_tensor(&out);
        return v;
    }
    // Quantisation by truncation and clamp, the literal sums per image,
    // then sum * dequantScale + bias in one rounding.
    std::vector<float> reference(const Tensor* in) const {
        const int C = in->channel, H = in->height, W = in->width, M = conv->weights->num;
        const int outH = outSize(H), outW = outSize(W);
        std::vector<float> out;
        std::vector<int8_t> q(size_t(C) * H * W);
        for (int n = 0; n < in->num; ++n) {
            for (size_t i = 0; i < q.size(); ++i)
                q[i] = int8_t(std::clamp<int>(int16_t(int32_t(20.0f * in->data[n * q.size() + i])), -127, 127));
            const auto sums = literal_sums(q.data(), C, H, W, reinterpret_cast<const int8_t*>(conv->weights->data),
                                           M, conv->strideW, conv->padW, outH, outW);
            for (size_t i = 0; i < sums.size(); ++i) {
                const int o = int(i / (size_t(outH) * outW));
                out.push_back(std::fma(float(sums[i]), conv->dequantScales[o], conv->hasBias ? conv->bias->data[o] : 0.0f));
            }
        }
        return out;
    }
    Convolution* conv;
    ForwardParams params{};
};

Tensor* random_input(std::mt19937& rng, int n, int c, int h, int w) {
    Tensor* t = create_tensor(n, c, h, w);
    for (int i = 0; i < t->capacity; ++i) t->data[i] = float(pick(rng, -900, 900)) / 100.0f;  // some saturate
    return t;
}

TEST(Int8DirectConv, DriversGiveTheLiteralSums) {
    std::mt19937 rng(77);
    for (int stride : {1, 2}) {
        for (int round = 0; round < 40; ++round) {
            // Channels 1..19 and 1..13; widths 1..56 (every tail of the 8-
            // and 16-pixel vectors, rows shorter and longer than a vector).
            const int M = round < 19 ? round + 1 : pick(rng, 1, 19), C = pick(rng, 1, 13);
            const int outW = round < 19 ? 40 - round : pick(rng, 1, 56), outH = pick(rng, 1, 6);
            // The padded image may be larger than the windows need.
            const int Wp = (outW - 1) * stride + 3 + pick(rng, 0, 2), Hp = (outH - 1) * stride + 3 + pick(rng, 0, 1);
            SCOPED_TRACE(testing::Message() << "s" << stride << " M" << M << " C" << C << " out " << outW << "x" << outH);
            Tensor* padded = create_tensor(1, C, Hp, Wp);
            Tensor* weights = create_tensor(M, C, 3, 3);
            auto* image = reinterpret_cast<int8_t*>(padded->data);
            auto* w = reinterpret_cast<int8_t*>(weights->data);
            for (int i = 0; i < C * Hp * Wp; ++i) image[i] = int8_t(round % 5 == 0 ? -128 : pick(rng, -128, 127));
            for (int i = 0; i < M * C * 9; ++i) w[i] = int8_t(round % 5 == 0 ? -128 : pick(rng, -128, 127));
            const auto want = literal_sums(image, C, Hp, Wp, w, M, stride, 0, outH, outW);
            vo_test::for_each_isa([&] {
                // One value off alignment, with a guard value after the end.
                vo_test::Buffer<int32_t> got(want.size() + 1, 7);
                (stride == 1 ? conv_3x3s1_s8 : conv_3x3s2_s8)(padded, weights, got.data(), M, outH, outW);
                ASSERT_EQ(memcmp(got.data(), want.data(), want.size() * sizeof(int32_t)), 0);
                EXPECT_EQ(got.data()[want.size()], 7);
            });
            release_tensor(&padded);
            release_tensor(&weights);
        }
    }
}

TEST(Int8DirectConv, LayersMatchTheLiteralReference) {
    std::mt19937 rng(2024);
    for (int stride : {1, 2}) {
        const ConvForwardOp direct = convTableQuantize[conv_table_slot(3, stride)];
        ASSERT_EQ(direct, stride == 1 ? forward_conv_3x3s1_s8 : forward_conv_3x3s2_s8);
        for (int round = 0; round < 30; ++round) {
            // Every fifth layer full vectors of 8 columns and channel pairs,
            // which every vector path runs directly.
            const bool full = round % 5 == 4;
            const int M = round < 10 ? round + 7 : pick(rng, 1, 20), C = full ? 8 : pick(rng, 1, 9), pad = round % 3;
            const int outW = full ? 8 * (1 + round % 3) : round < 8 ? 13 + round : pick(rng, 1, 40);
            const int outH = pick(rng, 1, 7);
            const int W = std::max(1, (outW - 1) * stride + 3 - 2 * pad + (round % 2) * (stride - 1));
            const int H = std::max(1, (outH - 1) * stride + 3 - 2 * pad);
            const int n = 1 + round % 3;
            SCOPED_TRACE(testing::Message() << "s" << stride << " M" << M << " C" << C << " " << W << "x" << H << " p"
                                            << pad << " n" << n);
            Int8Conv layer(rng, M, C, stride, pad, round % 4 != 3);
            Tensor* in = random_input(rng, n, C, H, W);
            const std::vector<float> want = layer.reference(in);
            vo_test::for_each_isa([&] {
                for (ConvForwardOp op : {direct, forward_conv_norm_quantized, vo::forward_conv_unfolded_s8}) {
                    const std::vector<float> got = layer.run(op, in);
                    ASSERT_TRUE(vo_test::same_bits(got.data(), want.data(), want.size()));
                }
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
    const float* buffers[] = {vo::scratch_floats(vo::kScratchPackA, 1), vo::scratch_floats(vo::kScratchPackB, 1)};
    const std::vector<float> first = layer.run(forward_conv_3x3s1_s8, in);
    EXPECT_EQ(buffers[0], vo::scratch_floats(vo::kScratchPackA, 1));
    EXPECT_EQ(buffers[1], vo::scratch_floats(vo::kScratchPackB, 1));
    EXPECT_TRUE(vo_test::same_bits(first.data(), layer.reference(in).data(), first.size()));
    // A stride-1 layer in the stride-2 slot is still computed correctly.
    const std::vector<float> other = layer.run(forward_conv_3x3s2_s8, in);
    EXPECT_TRUE(vo_test::same_bits(other.data(), first.data(), first.size()));
    release_tensor(&in);
}

TEST(Int8DirectConv, WorkingMemoryThatCannotGrow) {
    std::mt19937 rng(6);
    // Larger than any image before it, so that the working memory must grow.
    Int8Conv layer(rng, 9, 96, 1, 0, false);
    Tensor* in = random_input(rng, 1, 96, 90, 90);
    vo::set_scratch_failure_for_testing(true);
    vo_test::for_each_isa([&] {
        if (vo::kernels().isa == vo::kIsaReference) return;  // it needs none
        testing::internal::CaptureStderr();
        layer.run(forward_conv_3x3s1_s8, in, 5);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "vnet/conv_stable: forward_conv_3x3s1_s8: check failed: status == 0\n");
    });
    vo::set_scratch_failure_for_testing(false);
    EXPECT_TRUE(vo_test::same_bits(layer.run(forward_conv_3x3s1_s8, in).data(), layer.reference(in).data(),
                                   size_t(9) * 88 * 88));
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
