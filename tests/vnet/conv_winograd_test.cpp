// Winograd F(6x6, 3x3) convolution: the kernel transform and its layout,
// the crop, the scratch shapes, and the forward pass against a literal
// tile-by-tile reference (bit for bit, every instruction-set path) and
// against the general path (within rounding).
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "test_util.h"

namespace {

using Floats = std::vector<float>;

// ---- the literal reference ----

const float kG[8][3] = {{1, 0, 0},
                        {-0.22222222f, -0.22222222f, -0.22222222f}, {-0.22222222f, 0.22222222f, -0.22222222f},
                        {0.011111111f, 0.022222223f, 0.044444446f}, {0.011111111f, -0.022222223f, 0.044444446f},
                        {0.022222223f, 0.011111111f, 0.0055555557f}, {0.022222223f, -0.011111111f, 0.0055555557f},
                        {0, 0, 1}};

// G g G^T: P = G g (fused over kernel rows), then per row of P the 8 values,
// the first and last being P's own.
Floats transform_kernel(const float* g) {
    float P[8][3];
    for (int r = 0; r < 8; ++r)
        for (int l = 0; l < 3; ++l) {
            P[r][l] = 0.0f;
            for (int k = 0; k < 3; ++k) P[r][l] = std::fma(kG[r][k], g[k * 3 + l], P[r][l]);
        }
    Floats U(64);
    for (int r = 0; r < 8; ++r)
        for (int i = 0; i < 8; ++i) {
            float s = 0.0f;
            for (int l = 0; l < 3; ++l) s = std::fma(kG[i][l], P[r][l], s);
            U[r * 8 + i] = i == 0 ? P[r][0] : i == 7 ? P[r][2] : s;
        }
    return U;
}

// B^T x and A^T x, evaluated in the library's order.
void bt(const float* x, float* y) {
    y[0] = std::fma(5.25f, x[4] - x[2], x[0] - x[6]);
    y[7] = std::fma(5.25f, x[3] - x[5], x[7] - x[1]);
    float a = std::fma(-4.25f, x[4], x[2] + x[6]), b = std::fma(-4.25f, x[3], x[1] + x[5]);
    y[1] = a + b, y[2] = a - b;
    a = std::fma(-1.25f, x[4], std::fma(0.25f, x[2], x[6]));
    b = std::fma(2.0f, x[5], std::fma(-2.5f, x[3], 0.5f * x[1]));
    y[3] = a + b, y[4] = a - b;
    a = std::fma(4.0f, std::fma(-1.25f, x[4], x[2]), x[6]);
    b = std::fma(0.5f, x[5], std::fma(-2.5f, x[3], 2.0f * x[1]));
    y[5] = a + b, y[6] = a - b;
}

void at(const float* x, float* y) {
    const float s1 = x[1] + x[2], d1 = x[1] - x[2], s2 = x[3] + x[4], d2 = x[3] - x[4], s3 = x[5] + x[6],
                d3 = x[5] - x[6];
    y[0] = std::fma(32.0f, s3, x[0] + s1 + s2);
    y[1] = std::fma(16.0f, d3, std::fma(2.0f, d2, d1));
    y[2] = std::fma(8.0f, s3, std::fma(4.0f, s2, s1));
    y[3] = std::fma(4.0f, d3, std::fma(8.0f, d2, d1));
    y[4] = std::fma(2.0f, s3, std::fma(16.0f, s2, s1));
    y[5] = std::fma(32.0f, d2, d1 + d3 + x[7]);
}

// A 2-D transform of an 8x8 block (row-major): `f` on every column, then
// on every row of the result (R of 8 values kept each way).
template <int R>
void transform_2d(void (*f)(const float*, float*), const float* in, float* out) {
    float X[R][8], x[8], y[8];
    for (int j = 0; j < 8; ++j) {
        for (int k = 0; k < 8; ++k) x[k] = in[k * 8 + j];
        f(x, y);
        for (int i = 0; i < R; ++i) X[i][j] = y[i];
    }
    for (int i = 0; i < R; ++i) {
        f(X[i], y);
        std::copy(y, y + R, out + i * R);
    }
}

// The whole convolution tile by tile, straight from the definitions.
Floats winograd_reference(const Floats& in, int num, int C, int H, int W, const Floats& w, int M, int pad,
                          const Floats& bias) {
    const int outH = H + 2 * pad - 2, outW = W + 2 * pad - 2;
    std::vector<Floats> U;
    for (int i = 0; i < M * C; ++i) U.push_back(transform_kernel(&w[size_t(i) * 9]));
    Floats out(size_t(num) * M * outH * outW), V(size_t(C) * 64);
    for (int n = 0; n < num; ++n)
        for (int ty = 0; ty < outH; ty += 6)
            for (int tx = 0; tx < outW; tx += 6) {
                for (int c = 0; c < C; ++c) {
                    float d[64];
                    for (int y = 0; y < 8; ++y)
                        for (int x = 0; x < 8; ++x) {
                            int iy = ty + y - pad, ix = tx + x - pad;
                            bool inside = iy >= 0 && iy < H && ix >= 0 && ix < W;
                            d[y * 8 + x] = inside ? in[((size_t(n) * C + c) * H + iy) * W + ix] : 0.0f;
                        }
                    transform_2d<8>(bt, d, &V[size_t(c) * 64]);
                }
                for (int o = 0; o < M; ++o) {
                    float m[64], r[36];
                    for (int t = 0; t < 64; ++t) {
                        m[t] = 0.0f;
                        for (int c = 0; c < C; ++c) m[t] = std::fma(U[size_t(o) * C + c][t], V[c * 64 + t], m[t]);
                    }
                    transform_2d<6>(at, m, r);
                    for (int y = 0; y < 6 && ty + y < outH; ++y)
                        for (int x = 0; x < 6 && tx + x < outW; ++x)
                            out[((size_t(n) * M + o) * outH + ty + y) * outW + tx + x] =
                                r[y * 6 + x] + (bias.empty() ? 0.0f : bias[o]);
                }
            }
    return out;
}

// ---- a convolution layer run by hand ----

struct Layer {
    Layer(int M, int C, int pad, const Floats& w, const Floats& b) : conv(create_convolution()) {
        conv->weights = create_tensor(M, C, 3, 3);
        std::copy(w.begin(), w.end(), conv->weights->data);
        conv->strideW = conv->strideH = 1;
        conv->padW = conv->padH = pad;
        if (!b.empty()) {
            conv->hasBias = 1;
            conv->bias = create_tensor(1, M, 1, 1);
            std::copy(b.begin(), b.end(), conv->bias->data);
        }
    }
    ~Layer() {
        release_conv(&conv);
        release_forward_params(&params);
        release_tensor(&in);
        release_tensor(&out);
    }
    // Runs `op` on the input; the output as it stands afterwards.
    Floats run(ConvForwardOp op, const Floats& data, int num, int C, int H, int W) {
        in = reshape_tensor(in, num, C, H, W);
        std::copy(data.begin(), data.end(), in->data);
        EXPECT_EQ(reshape_conv(conv, &in, 1, &out, 1, params), 0);
        EXPECT_EQ(op(conv, &in, 1, &out, 1, params), 0);
        return Floats(out->data, out->data + out->capacity);
    }
    Convolution* conv;
    ForwardParams* params = create_forward_params();
    Tensor* in = nullptr;
    Tensor* out = nullptr;
};

Floats uniform(std::mt19937& rng, size_t n) {
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    Floats v(n);
    for (auto& x : v) x = dist(rng);
    return v;
}

TEST(ConvWinograd, KernelTransformLayout) {
    std::mt19937 rng(11);
    for (int M : {1, 3, 4, 6, 9, 12})
        for (int C : {1, 2, 5}) {
            SCOPED_TRACE(testing::Message() << "M " << M << " C " << C);
            Tensor* w = create_tensor(M, C, 3, 3);
            const Floats values = vo_test::random_floats(rng, size_t(M) * C * 9, true);
            std::copy(values.begin(), values.end(), w->data);
            Tensor* k = conv_3x3s1_winograd_transform_kernel(w);
            ASSERT_NE(k, nullptr);
            // Groups of 4 channels interleaved per input channel, then one
            // group per remaining channel using the first C floats of a row.
            const int groups4 = M / 4;
            Floats want(size_t(groups4 + M % 4) * 64 * 4 * C, 0.0f);
            for (int o = 0; o < M; ++o)
                for (int c = 0; c < C; ++c) {
                    const Floats U = transform_kernel(&values[(size_t(o) * C + c) * 9]);
                    const int group = o < groups4 * 4 ? o / 4 : groups4 + o % 4;
                    const int at = o < groups4 * 4 ? c * 4 + o % 4 : c;
                    for (int t = 0; t < 64; ++t) want[(size_t(group) * 64 + t) * 4 * C + at] = U[t];
                }
            EXPECT_EQ(vo_test::dims(k), (std::vector<int>{1, groups4 + M % 4, 64, 4 * C}));
            EXPECT_TRUE(vo_test::same_bits(k, want));
            release_tensor(&k);
            release_tensor(&w);
        }
    // A kernel that is 1 at the centre (one channel: coefficient t at 4 t).
    Tensor* w = create_tensor(1, 1, 3, 3);
    w->data[4] = 1.0f;
    Tensor* k = conv_3x3s1_winograd_transform_kernel(w);
    EXPECT_EQ(k->data[0], 0.0f);
    EXPECT_EQ(k->data[(1 * 8 + 1) * 4], 0.049382716f);
    EXPECT_EQ(k->data[(3 * 8 + 5) * 4], 0.022222223f * 0.011111111f);
    release_tensor(&k);
    // Only 3x3 kernels have this transform.
    w = reshape_tensor(w, 1, 1, 5, 5);
    testing::internal::CaptureStderr();
    EXPECT_EQ(conv_3x3s1_winograd_transform_kernel(w), nullptr);
    EXPECT_EQ(conv_3x3s1_winograd_transform_kernel(nullptr), nullptr);
    testing::internal::GetCapturedStderr();
    release_tensor(&w);
}

TEST(ConvWinograd, CropCopiesTheCornerAndRefusesMismatches) {
    std::mt19937 rng(5);
    Tensor* src = create_tensor(1, 2, 5, 6);
    const Floats values = vo_test::random_floats(rng, 60);
    std::copy(values.begin(), values.end(), src->data);
    Tensor* res = create_tensor(2, 2, 3, 4);
    std::fill(res->data, res->data + 48, 7.0f);
    conv_winograd_crop(src, res, 1, 4);
    Floats want(48, 7.0f);
    for (int c = 0; c < 2; ++c)
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x) want[24 + c * 12 + y * 4 + x] = values[c * 30 + y * 6 + x];
    EXPECT_TRUE(vo_test::same_bits(res, want));

    const struct {
        int c, h, w, n;
        const char* check;
    } bad[] = {{3, 5, 6, 0, "src->channel == res->channel"}, {2, 5, 3, 0, "src->width >= res->width"},
               {2, 2, 6, 0, "src->height >= res->height"}, {2, 5, 6, 2, "n >= 0 && n < res->num"}};
    for (const auto& b : bad) {
        src = reshape_tensor(src, 1, b.c, b.h, b.w);
        testing::internal::CaptureStderr();
        conv_winograd_crop(src, res, b.n, 4);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string("vnet/conv_stable: conv_winograd_crop: check failed: ") + b.check + "\n");
        EXPECT_TRUE(vo_test::same_bits(res, want));
    }
    release_tensor(&src);
    release_tensor(&res);
}

// Channel counts off multiples of 4 and 8, outputs on both sides of
// multiples of 6 (every tile-group remainder), paddings 0 to 2, batches,
// with and without bias: the literal reference bit for bit on every path,
// and the general path within rounding.
TEST(ConvWinograd, ForwardMatchesReferenceAndGeneralPath) {
    std::mt19937 rng(7);
    const int outSizes[] = {1, 5, 6, 7, 11, 12, 13, 18, 19, 25, 30, 49};
    for (int trial = 0; trial < 56; ++trial) {
        const int C = trial == 0 ? 64 : int(rng() % 17) + 1, M = trial == 0 ? 64 : int(rng() % 13) + 1;
        const int pad = int(rng() % 3), num = 1 + int(rng() % 2);
        // 81 and 45 tiles, then one row of 1 to 24 tiles (every split into
        // groups and blocks of groups), then any sizes.
        int outH = outSizes[rng() % 12], outW = outSizes[rng() % 12];
        if (trial < 2) outH = 49, outW = trial == 0 ? 49 : 30;
        if (trial >= 2 && trial < 26) outH = 1 + int(rng() % 6), outW = 6 * (trial - 1) - int(rng() % 6);
        const int H = outH + 2 - 2 * pad, W = outW + 2 - 2 * pad;
        if (H < 1 || W < 1) continue;
        // Some trials with values of any magnitude (and NaNs, infinities)
        // for the bit comparison only.
        const bool wild = trial % 6 == 5;
        const Floats w = wild ? vo_test::random_floats(rng, size_t(M) * C * 9, true) : uniform(rng, size_t(M) * C * 9);
        const Floats b = trial % 3 == 1 ? Floats() : uniform(rng, M);
        const Floats in = wild ? vo_test::random_floats(rng, size_t(num) * C * H * W, true)
                               : uniform(rng, size_t(num) * C * H * W);
        SCOPED_TRACE(testing::Message() << "C " << C << " M " << M << " pad " << pad << " num " << num << " in "
                                        << H << "x" << W << (b.empty() ? "" : " bias"));
        const Floats want = winograd_reference(in, num, C, H, W, w, M, pad, b);
        Layer layer(M, C, pad, w, b);
        const Floats general = layer.run(forward_conv_norm, in, num, C, H, W);
        vo_test::for_each_isa([&] {
            Layer fresh(M, C, pad, w, b);
            const Floats got = fresh.run(convTableNormWinograd[CONV_SLOT_3X3_S1], in, num, C, H, W);
            ASSERT_EQ(got.size(), want.size());
            EXPECT_EQ(vo_test::first_bit_difference(got.data(), want.data(), int64_t(got.size())), -1);
        });
        if (wild) continue;
        float largest = 0.0f;
        for (float v : general) largest = std::max(largest, std::fabs(v));
        for (size_t i = 0; i < want.size(); ++i) ASSERT_NEAR(want[i], general[i], 1e-4f * largest) << i;
    }
}

// Scratch shapes: an output of 6x78 is 13 tiles (groups 8 + 4 + 1) from an
// 8x80 padded input; 13x13 is 3x3 tiles from 20x20 into 18x18. Buffers
// and transformed kernels are kept: the smaller shape and a repeat of the
// first allocate nothing, and the repeat gives the same bits.
TEST(ConvWinograd, ScratchShapesAndRepeatedForward) {
    std::mt19937 rng(2);
    Layer layer(5, 2, 1, uniform(rng, 90), uniform(rng, 5));
    const Floats in = uniform(rng, 2 * 6 * 78);
    const Floats first = layer.run(forward_conv_3x3s1_winograd, in, 1, 2, 6, 78);
    const ForwardParams* p = layer.params;
    const Tensor* kernel = layer.conv->winogradKernel;
    auto shapes = [&] {
        return std::vector<std::vector<int>>{vo_test::dims(p->columnBuffer), vo_test::dims(p->winogradInput),
                                             vo_test::dims(p->winogradProduct), vo_test::dims(p->winogradOutput)};
    };
    auto buffers = [&] {
        return std::vector<const float*>{p->columnBuffer->data, p->winogradInput->data, p->winogradProduct->data,
                                         p->winogradOutput->data, layer.out->data, layer.conv->winogradKernel->data};
    };
    typedef std::vector<std::vector<int>> Shapes;
    EXPECT_EQ(shapes(), (Shapes{{1, 2, 8, 80}, {1, 64, 3, 16}, {1, 5, 64 * 13, 1}, {1, 5, 6, 78}}));
    const std::vector<const float*> before = buffers();
    layer.run(forward_conv_3x3s1_winograd, uniform(rng, 2 * 13 * 13), 1, 2, 13, 13);
    EXPECT_EQ(shapes(), (Shapes{{1, 2, 20, 20}, {1, 64, 2, 16}, {1, 5, 64 * 9, 1}, {1, 5, 18, 18}}));
    EXPECT_EQ(vo_test::dims(layer.out), (std::vector<int>{1, 5, 13, 13}));
    const Floats again = layer.run(forward_conv_3x3s1_winograd, in, 1, 2, 6, 78);
    EXPECT_TRUE(vo_test::same_bits(again.data(), first.data(), first.size()));
    EXPECT_EQ(layer.conv->winogradKernel, kernel);
    EXPECT_EQ(buffers(), before);
}

// The table slot; refused calls write nothing.
TEST(ConvWinograd, TableSlotAndRefusals) {
    for (int slot = 0; slot < CONV_TABLE_SIZE; ++slot)
        EXPECT_EQ(convTableNormWinograd[slot], slot == CONV_SLOT_3X3_S1 ? forward_conv_3x3s1_winograd : nullptr);
    std::mt19937 rng(4);
    Layer layer(2, 3, 1, uniform(rng, 54), {});
    layer.run(forward_conv_3x3s1_winograd, uniform(rng, 3 * 7 * 7), 1, 3, 7, 7);
    const Floats before(layer.out->data, layer.out->data + layer.out->capacity);
    Tensor* none = nullptr;
    Tensor* narrow = create_tensor(1, 3, 7, 6);  // not the input the output was shaped for
    auto call = [&](Tensor** in, ForwardParams* params) {
        return forward_conv_3x3s1_winograd(layer.conv, in, 1, &layer.out, 1, params);
    };
    testing::internal::CaptureStderr();
    EXPECT_EQ(forward_conv_3x3s1_winograd(nullptr, &layer.in, 1, &layer.out, 1, layer.params), 7);
    EXPECT_EQ(call(&layer.in, nullptr), 7);
    EXPECT_EQ(call(&none, layer.params), 5);
    EXPECT_EQ(call(&narrow, layer.params), 5);
    layer.conv->strideW = 2;
    EXPECT_EQ(call(&layer.in, layer.params), 7);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vnet/conv_stable: forward_conv_3x3s1_winograd: check failed: dst->num == src->num && "
              "dst->channel == M && dst->height == outH && dst->width == outW\n"
              "vnet/conv_stable: forward_conv_3x3s1_winograd: check failed: weights->width == 3 && "
              "weights->height == 3 && conv->strideW == 1 && conv->strideH == 1\n");
    EXPECT_TRUE(vo_test::same_bits(layer.out, before));
    release_tensor(&narrow);
}

}  // namespace
