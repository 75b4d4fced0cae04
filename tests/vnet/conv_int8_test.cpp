// The int8 paths of the convolution and inner product layers, loaded from
// quantised records: outputs bit for bit against direct integer loops on
// every instruction-set path, the records' byte layout, truncated records.
#include <gtest/gtest.h>
#include <vonet/vonet.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "layer_reference.h"
#include "test_util.h"

namespace {

using vo_ref::Blob;
using vo_test::head;
using vo_test::Model;
using vo_test::ModelBytes;

int pick(std::mt19937& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
float pick(std::mt19937& rng, float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(rng); }

// Truncation toward zero, the low 16 bits, then the symmetric clamp (the
// products here stay far inside the int32 range).
int8_t quantize(float x, float scale) {
    const int16_t low = int16_t(int32_t(scale * x));
    return int8_t(std::clamp<int>(low, -127, 127));
}

std::string bytes_of(const std::vector<int8_t>& v) { return std::string(v.begin(), v.end()); }

std::string conv_int8_record(int M, int C, int kW, int kH, int sW, int sH, int pW, int pH,
                             const std::vector<float>& weightScales, float inputScale, const std::vector<int8_t>& w,
                             const std::vector<float>& bias) {
    ModelBytes b;
    b.i32s({M, C, kW, kH, sW, sH, pW, pH}).u8(!bias.empty()).u8(1).floats(weightScales).f32(inputScale);
    return b.raw(bytes_of(w)).floats(bias).bytes();
}

std::string fc_int8_record(int inputDim, int outputDim, float inputScale, float weightScale,
                           const std::vector<int8_t>& w, const std::vector<float>& bias) {
    ModelBytes b;
    b.u8(!bias.empty()).u8(1).i32s({inputDim, outputDim}).f32(inputScale).f32(weightScale);
    return b.raw(bytes_of(w)).floats(bias).bytes();
}

// Quantised input, integer correlation (0 in the padding), then
// sum * (1 / (inputScale * weightScales[o])) + bias in one rounding.
Blob conv_int8(const Blob& in, const std::vector<int8_t>& w, int M, int kW, int kH, int sW, int sH, int pW, int pH,
               const std::vector<float>& weightScales, float inputScale, const std::vector<float>& bias) {
    Blob out = vo_ref::blob(in.n, M, (in.h - kH + 2 * pH) / sH + 1, (in.w - kW + 2 * pW) / sW + 1);
    for (int n = 0; n < in.n; ++n)
        for (int o = 0; o < M; ++o)
            for (int oy = 0; oy < out.h; ++oy)
                for (int ox = 0; ox < out.w; ++ox) {
                    int32_t sum = 0;
                    for (int c = 0; c < in.c; ++c)
                        for (int ky = 0; ky < kH; ++ky)
                            for (int kx = 0; kx < kW; ++kx) {
                                const int iy = oy * sH - pH + ky, ix = ox * sW - pW + kx;
                                if (iy < 0 || iy >= in.h || ix < 0 || ix >= in.w) continue;
                                sum += int32_t(w[((size_t(o) * in.c + c) * kH + ky) * kW + kx]) *
                                       quantize(in.at(n, c, iy, ix), inputScale);
                            }
                    const float dequant = 1.0f / (inputScale * weightScales[o]);
                    out.at(n, o, oy, ox) = std::fma(float(sum), dequant, bias.empty() ? 0.0f : bias[o]);
                }
    return out;
}

// Row b: sum over i of quantised input[b][i] times w[i][o], dequantised
// with 1 / (inputScale * weightScale), then the bias added.
Blob inner_product_int8(const Blob& in, const std::vector<int8_t>& w, int outputDim, float inputScale,
                        float weightScale, const std::vector<float>& bias) {
    const int inputDim = in.c * in.h * in.w;
    Blob out = vo_ref::blob(in.n, outputDim, 1, 1);
    for (int b = 0; b < in.n; ++b)
        for (int o = 0; o < outputDim; ++o) {
            int32_t sum = 0;
            for (int i = 0; i < inputDim; ++i)
                sum += int32_t(w[size_t(i) * outputDim + o]) * quantize(in.v[size_t(b) * inputDim + i], inputScale);
            const float v = std::fma(float(sum), 1.0f / (inputScale * weightScale), 0.0f);
            out.v[size_t(b) * outputDim + o] = bias.empty() ? v : v + bias[o];
        }
    return out;
}

std::vector<int8_t> random_bytes(std::mt19937& rng, size_t n) {
    std::vector<int8_t> v(n);
    for (auto& x : v) x = int8_t(pick(rng, -128, 127));
    return v;
}

// Inputs around the calibrated range: mostly inside, some saturating, and
// now and then one whose truncated product wraps in 16 bits.
std::vector<float> int8_inputs(std::mt19937& rng, size_t n, float inputScale) {
    std::vector<float> v(n);
    const float range = 127.0f / inputScale;
    for (auto& x : v) {
        x = pick(rng, -1.5f * range, 1.5f * range);
        if (rng() % 50 == 0) x = pick(rng, -70000.0f, 70000.0f) / inputScale;
    }
    return v;
}

// One-layer nets from quantised records.
Model int8_net(int c, int h, int w, int32_t type, const std::string& record) {
    return Model(head(1, c, h, w).layer("l", type, record, {"data"}, {"out"}).bytes());
}

// On every instruction-set path: the reference's bits, and a second pass
// of the same shape that moves no buffer.
void expect_output(Model& m, const Blob& in, const Blob& want) {
    ASSERT_EQ(m.status, 0) << m.err;
    EXPECT_EQ(m.saved(), vo_test::read_file(m.dir.file("model.vo")));
    vo_test::for_each_isa([&] {
        ASSERT_EQ(m.forward(in.v, in.n, in.c, in.h, in.w), 0);
        ASSERT_EQ(vo_test::dims(m.out()), (std::vector<int>{want.n, want.c, want.h, want.w}));
        EXPECT_TRUE(vo_test::same_bits(m.out(), want.v));
        ForwardParams* p = m.net->forwardParams;
        const float* before[] = {m.out()->data, p->inputBuffer->data, p->outputBuffer->data, p->columnBuffer->data};
        ASSERT_EQ(vo_flowing_net(m.net.get()), 0);
        const float* after[] = {m.out()->data, p->inputBuffer->data, p->outputBuffer->data, p->columnBuffer->data};
        EXPECT_TRUE(std::equal(before, before + 4, after));
        EXPECT_TRUE(vo_test::same_bits(m.out(), want.v));
    });
}

TEST(Int8Layers, MatchTheIntegerReference) {
    std::mt19937 rng(808);
    for (int iter = 0; iter < 160; ++iter) {
        const int n = pick(rng, 1, 3), C = pick(rng, 1, 5), H = pick(rng, 1, 12), W = pick(rng, 1, 12);
        int M = pick(rng, 1, 10), kW = pick(rng, 1, 5), kH = pick(rng, 1, 5), sW = pick(rng, 1, 3),
            sH = pick(rng, 1, 3), pW = pick(rng, 0, 2), pH = pick(rng, 0, 2);
        if (iter % 8 == 0) kW = kH = sW = sH = 1, pW = pH = 0;  // the input is its own column matrix
        if ((W - kW + 2 * pW) / sW + 1 < 1 || (H - kH + 2 * pH) / sH + 1 < 1) continue;
        SCOPED_TRACE(testing::Message() << n << "x" << C << "x" << H << "x" << W << " M " << M << " k " << kW << "x"
                                        << kH << " s " << sW << "," << sH << " p " << pW << "," << pH);
        const auto w = random_bytes(rng, size_t(M) * C * kH * kW);
        std::vector<float> scales(M);
        for (float& s : scales) s = pick(rng, 10.0f, 600.0f);
        const float inputScale = pick(rng, 0.5f, 60.0f);
        const auto bias = iter % 2 ? vo_test::random_floats(rng, M) : std::vector<float>();
        const Blob in = vo_ref::blob(n, C, H, W, int8_inputs(rng, size_t(n) * C * H * W, inputScale));
        Model m = int8_net(C, H, W, LAYER_CONVOLUTION,
                           conv_int8_record(M, C, kW, kH, sW, sH, pW, pH, scales, inputScale, w, bias));
        expect_output(m, in, conv_int8(in, w, M, kW, kH, sW, sH, pW, pH, scales, inputScale, bias));
    }
    // Batches of 1 to 9 rows cover every remainder of the product's 4-row
    // blocks, outputs up to 19 every remainder of its 8-column groups.
    for (int iter = 0; iter < 60; ++iter) {
        const int n = pick(rng, 1, 9), C = pick(rng, 1, 4), H = pick(rng, 1, 4), W = pick(rng, 1, 5);
        const int inputDim = C * H * W, outputDim = pick(rng, 1, 19);
        SCOPED_TRACE(testing::Message() << n << "x" << C << "x" << H << "x" << W << " -> " << outputDim);
        const auto w = random_bytes(rng, size_t(inputDim) * outputDim);
        const float inputScale = pick(rng, 0.5f, 60.0f), weightScale = pick(rng, 10.0f, 600.0f);
        const auto bias = iter % 2 ? vo_test::random_floats(rng, outputDim) : std::vector<float>();
        const Blob in = vo_ref::blob(n, C, H, W, int8_inputs(rng, size_t(n) * inputDim, inputScale));
        Model m = int8_net(C, H, W, LAYER_INNER_PRODUCT,
                           fc_int8_record(inputDim, outputDim, inputScale, weightScale, w, bias));
        expect_output(m, in, inner_product_int8(in, w, outputDim, inputScale, weightScale, bias));
    }
}

TEST(Int8Layers, WorkedExamples) {
    // 1x1, inputScale 10, weight scale 127, byte 127, input 1.0: 1270 / 1270.
    Model one =
        int8_net(1, 1, 1, LAYER_CONVOLUTION, conv_int8_record(1, 1, 1, 1, 1, 1, 0, 0, {127}, 10, {127}, {}));
    ASSERT_EQ(one.forward({1.0f}, 1, 1, 1, 1), 0);
    EXPECT_EQ(one.out()->data[0], 1.0f);
    // No bias: sum * dequantScale alone; a 3x3 window of 10s times 2 is 180.
    Model nobias = int8_net(1, 3, 3, LAYER_CONVOLUTION,
                            conv_int8_record(1, 1, 3, 3, 1, 1, 0, 0, {4}, 10, std::vector<int8_t>(9, 2), {}));
    ASSERT_EQ(nobias.forward(std::vector<float>(9, 1.0f), 1, 1, 3, 3), 0);
    EXPECT_EQ(vo_test::bits_of(nobias.out()->data[0]), vo_test::bits_of(180.0f * (1.0f / 40.0f)));
    // A batch of 2: +-1000 saturate at +-127, 12.69 truncates to 126, -0.05 to 0.
    Model clamp =
        int8_net(1, 1, 2, LAYER_CONVOLUTION, conv_int8_record(1, 1, 1, 1, 1, 1, 0, 0, {1}, 10, {1}, {0.5f}));
    ASSERT_EQ(clamp.forward({1000.0f, -1000.0f, 12.69f, -0.05f}, 2, 1, 1, 2), 0);
    const float dq = 1.0f / 10.0f;
    EXPECT_TRUE(vo_test::same_bits(
        clamp.out(), {std::fma(127.0f, dq, 0.5f), std::fma(-127.0f, dq, 0.5f), std::fma(126.0f, dq, 0.5f), 0.5f}));
}

// A quantised convolution record with M = 3 carries 12 bytes of weight
// scales, 4 of input scale and Q bytes of weights; an inner product record
// with D = 640 carries 8 bytes of scales and 640 of weights. Another layer
// follows each, so a reader that took 4 bytes per weight would fail; cut
// anywhere inside the layer entry, the file is refused with 4.
TEST(Int8Layers, RecordLayoutAndTruncation) {
    std::mt19937 rng(810);
    const std::string conv =
        conv_int8_record(3, 2, 3, 3, 1, 1, 1, 1, {3, 4, 5}, 6, random_bytes(rng, 54), {1, 2, 3});
    const std::string fc = fc_int8_record(64, 10, 2, 3, random_bytes(rng, 640), std::vector<float>(10, 0.25f));
    EXPECT_EQ(conv.size(), 34u + 12 + 4 + 54 + 12);
    EXPECT_EQ(fc.size(), 10u + 8 + 640 + 40);
    const size_t headSize = head(1, 1, 1, 1).size();
    for (const auto& [record, type, c, h, w] :
         {std::make_tuple(conv, LAYER_CONVOLUTION, 2, 4, 8), std::make_tuple(fc, LAYER_INNER_PRODUCT, 64, 1, 1)}) {
        const std::string model = head(1, c, h, w)
                                      .layer("l", type, record, {"data"}, {"t"})
                                      .layer("relu", LAYER_RELU, "", {"t"}, {"out"})
                                      .bytes();
        Model m(model);
        ASSERT_EQ(m.status, 0) << m.err;
        EXPECT_EQ(m.saved(), model);
        // From the layer's type field to the end of its tensor names.
        for (size_t cut = headSize + 32; cut < headSize + 32 + 4 + record.size() + 2 + 64; ++cut) {
            Model t(model.substr(0, cut));
            EXPECT_EQ(t.status, 4) << "cut at " << cut;
            EXPECT_EQ(t.net, nullptr);
        }
    }
    Model m = int8_net(2, 4, 8, LAYER_CONVOLUTION, conv);
    const auto* c = static_cast<const Convolution*>(m.net->layers[0]->runParams);
    for (int o = 0; o < 3; ++o) EXPECT_EQ(c->dequantScales[o], 1.0f / (6.0f * float(3 + o)));
}

}  // namespace
