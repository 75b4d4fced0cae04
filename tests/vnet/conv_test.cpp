// Convolution layer: the record, shape checks, and the float output bit for
// bit against a direct loop with the product's rounding.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "layer_reference.h"
#include "test_util.h"

namespace {

using vo_test::ModelBytes;

struct ConvCase {
    int num, channel, height, width;
    int M, kW, kH, sW, sH, pW, pH;
    bool bias;
    int outW() const { return (width - kW + 2 * pW) / sW + 1; }
    int outH() const { return (height - kH + 2 * pH) / sH + 1; }
};

std::string conv_record(const ConvCase& c, const std::vector<float>& w, const std::vector<float>& bias) {
    return vo_ref::conv_record(c.M, c.channel, c.kW, c.kH, c.sW, c.sH, c.pW, c.pH, w,
                               c.bias ? bias : std::vector<float>());
}

std::vector<float> reference_conv(const ConvCase& c, const std::vector<float>& in, const std::vector<float>& w,
                                  const std::vector<float>& bias) {
    vo_ref::Blob out = vo_ref::conv(vo_ref::blob(c.num, c.channel, c.height, c.width, in), w, c.M, c.kW, c.kH, c.sW,
                                    c.sH, c.pW, c.pH, c.bias ? &bias : nullptr);
    return out.v;
}

using LayerRun = vo_ref::LayerRun<Convolution, load_conv, reshape_conv, forward_conv, release_conv>;

// A convolution loaded from its record.
struct ConvRun : LayerRun {
    ConvRun(const ConvCase& c, const std::vector<float>& w, const std::vector<float>& bias)
        : LayerRun(conv_record(c, w, bias)) {}
};

ConvCase random_case(std::mt19937& rng) {
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (;;) {
        ConvCase c{pick(1, 3), pick(1, 5), pick(1, 13), pick(1, 13), pick(1, 10), pick(1, 5), pick(1, 5),
                   pick(1, 3), pick(1, 3), pick(0, 2), pick(0, 2), pick(0, 1) == 1};
        if (pick(0, 5) == 0) c.kW = c.kH = c.sW = c.sH = 1, c.pW = c.pH = 0;  // the direct 1x1 path
        if (c.outW() >= 1 && c.outH() >= 1) return c;
    }
}

TEST(ConvForward, MatchesReferenceBitForBit) {
    std::mt19937 rng(1234);
    int direct = 0;
    for (int iter = 0; iter < 300; ++iter) {
        ConvCase c = random_case(rng);
        SCOPED_TRACE(testing::Message() << "case " << iter << ": in " << c.num << "x" << c.channel << "x" << c.height
                                        << "x" << c.width << ", M " << c.M << ", kernel " << c.kW << "x" << c.kH
                                        << ", stride " << c.sW << "," << c.sH << ", pad " << c.pW << "," << c.pH
                                        << ", bias " << c.bias);
        auto w = vo_ref::random_floats(rng, size_t(c.M) * c.channel * c.kH * c.kW);
        auto bias = vo_ref::random_floats(rng, size_t(c.M));
        auto in = vo_ref::random_floats(rng, size_t(c.num) * c.channel * c.height * c.width);
        ConvRun run(c, w, bias);
        ASSERT_NE(run.layer, nullptr);
        direct += run.layer->is1x1;
        run.set_input(c.num, c.channel, c.height, c.width, in);
        ASSERT_EQ(run.reshape(), 0);
        EXPECT_EQ(run.out->num, c.num);
        EXPECT_EQ(run.out->channel, c.M);
        EXPECT_EQ(run.out->height, c.outH());
        EXPECT_EQ(run.out->width, c.outW());
        ASSERT_EQ(run.forward(), 0);
        ASSERT_TRUE(vo_ref::same_bits(run.out, reference_conv(c, in, w, bias)));
    }
    EXPECT_GT(direct, 20);
}

TEST(ConvForward, RepeatedForwardReusesEveryBufferAndBatchImagesAreIndependent) {
    std::mt19937 rng(7);
    ConvCase c{3, 4, 9, 11, 6, 3, 3, 2, 1, 1, 0, true};
    auto w = vo_ref::random_floats(rng, size_t(c.M) * c.channel * c.kH * c.kW);
    auto bias = vo_ref::random_floats(rng, size_t(c.M));
    auto in = vo_ref::random_floats(rng, size_t(c.num) * c.channel * c.height * c.width);
    ConvRun run(c, w, bias);
    run.set_input(c.num, c.channel, c.height, c.width, in);
    ASSERT_EQ(run.reshape(), 0);
    ASSERT_EQ(run.forward(), 0);
    std::vector<float> first(run.out->data, run.out->data + run.out->capacity);
    const float* outData = run.out->data;
    const float* columnData = run.params->columnBuffer->data;
    ASSERT_EQ(run.reshape(), 0);
    ASSERT_EQ(run.forward(), 0);
    EXPECT_EQ(run.out->data, outData);
    EXPECT_EQ(run.params->columnBuffer->data, columnData);
    EXPECT_TRUE(vo_ref::same_bits(run.out, first));

    // The second image alone gives the second image of the batch.
    const size_t inImage = size_t(c.channel) * c.height * c.width;
    const size_t outImage = size_t(c.M) * c.outH() * c.outW();
    run.set_input(1, c.channel, c.height, c.width,
                  std::vector<float>(in.begin() + inImage, in.begin() + 2 * inImage));
    ASSERT_EQ(run.reshape(), 0);
    ASSERT_EQ(run.forward(), 0);
    EXPECT_TRUE(vo_ref::same_bits(run.out, std::vector<float>(first.begin() + outImage, first.begin() + 2 * outImage)));
}

TEST(ConvRecord, SavesWhatItLoadedByteForByte) {
    std::mt19937 rng(3);
    for (bool bias : {false, true}) {
        ConvCase c{1, 3, 8, 8, 5, 3, 2, 2, 1, 1, 0, bias};
        auto w = vo_ref::random_floats(rng, size_t(c.M) * c.channel * c.kH * c.kW);
        auto b = vo_ref::random_floats(rng, size_t(c.M));
        const std::string record = conv_record(c, w, b);
        vo_ref::Loaded r = vo_ref::load_record(load_conv, record + "next layer");
        ASSERT_EQ(r.status, 0);
        Convolution* conv = static_cast<Convolution*>(r.record);
        // Kernel width comes first in the record, height in the tensor.
        EXPECT_EQ(conv->weights->num, 5);
        EXPECT_EQ(conv->weights->channel, 3);
        EXPECT_EQ(conv->weights->height, 2);
        EXPECT_EQ(conv->weights->width, 3);
        EXPECT_EQ(conv->bias != nullptr, bias);
        EXPECT_EQ(conv->is1x1, 0);
        EXPECT_EQ(vo_ref::saved_bytes(save_conv, conv), record);
        release_conv(&conv);
        EXPECT_EQ(conv, nullptr);
    }
    EXPECT_EQ(save_conv(nullptr, nullptr), 7);
}

// Every truncation, and every value outside what the layer can run, is
// refused with status 4, no record, and one line naming the check.
TEST(ConvRecord, RefusesBadRecords) {
    ConvCase c{1, 2, 5, 5, 3, 3, 3, 1, 1, 1, 1, true};
    const std::string good = conv_record(c, std::vector<float>(3 * 2 * 9, 0.5f), {1, 2, 3});
    for (size_t len = 0; len < good.size(); ++len) {
        vo_ref::Loaded r = vo_ref::load_record(load_conv, good.substr(0, len));
        ASSERT_EQ(r.status, 4) << len;
        EXPECT_EQ(r.record, nullptr);
        std::string want = len < 34 ? "ret == 1" : len < 34 + 4 * 54 ? "ret == weights->capacity"
                                                                     : "ret == conv->bias->capacity";
        EXPECT_EQ(r.err, "vnet/conv: load_conv: check failed: " + want + "\n") << len;
    }

    struct Bad {
        int32_t fields[8];  // M, channel, kW, kH, sW, sH, pW, pH
        uint8_t hasBias, quantized;
        const char* check;
    };
    const Bad bad[] = {
        {{3, 2, 3, 3, 1, 1, 1, 1}, 0, 1, "conv->quantized == 0"},
        {{3, 2, 3, 3, 1, 1, 1, 1}, 2, 0, "conv->hasBias <= 1"},
        {{0, 2, 3, 3, 1, 1, 1, 1}, 0, 0, "num > 0 && channel > 0"},
        {{3, -2, 3, 3, 1, 1, 1, 1}, 0, 0, "num > 0 && channel > 0"},
        {{3, 2, 0, 3, 1, 1, 1, 1}, 0, 0, "kernelW >= 1 && kernelW <= kMaxExtent"},
        {{3, 2, 3, 65536, 1, 1, 1, 1}, 0, 0, "kernelH >= 1 && kernelH <= kMaxExtent"},
        {{3, 2, 3, 3, 0, 1, 1, 1}, 0, 0, "conv->strideW >= 1 && conv->strideW <= kMaxExtent"},
        {{3, 2, 3, 3, 1, 65536, 1, 1}, 0, 0, "conv->strideH >= 1 && conv->strideH <= kMaxExtent"},
        {{3, 2, 3, 3, 1, 1, -1, 1}, 0, 0, "conv->padW >= 0 && conv->padW <= kMaxExtent"},
        {{3, 2, 3, 3, 1, 1, 1, 65536}, 0, 0, "conv->padH >= 0 && conv->padH <= kMaxExtent"},
        {{65535, 65535, 3, 3, 1, 1, 1, 1}, 0, 0, "count >= 0"},
        // Plausible sizes, but far more values than the file holds.
        {{4096, 4096, 3, 3, 1, 1, 1, 1}, 0, 0, "ret == weights->capacity"},
    };
    for (const Bad& b : bad) {
        ModelBytes m;
        for (int32_t v : b.fields) m.i32(v);
        m.u8(b.hasBias).u8(b.quantized).raw(std::string(4 * 64, '\0'));
        vo_ref::Loaded r = vo_ref::load_record(load_conv, m.bytes());
        EXPECT_EQ(r.status, 4) << b.check;
        EXPECT_EQ(r.record, nullptr);
        EXPECT_EQ(r.err, std::string("vnet/conv: load_conv: check failed: ") + b.check + "\n");
    }
    void* record = nullptr;
    EXPECT_EQ(load_conv(nullptr, &record), 4);
}

// A refused shape gives 5 and leaves the output exactly as it was.
TEST(ConvReshape, RefusesShapesThatDoNotFit) {
    ConvCase c{1, 3, 8, 8, 4, 5, 3, 1, 1, 0, 0, false};
    ConvRun run(c, std::vector<float>(4 * 3 * 15, 1.0f), {});
    Tensor* before = run.out;
    reshape_tensor(run.out, 1, 2, 3, 4);
    const struct {
        int channel, height, width;
        const char* check;
    } bad[] = {
        {2, 8, 8, "src->channel == weights->channel"},
        {3, 8, 4, "outW > 0 && outH > 0"},  // (4 - 5) / 1 + 1 = 0
        {3, 2, 8, "outW > 0 && outH > 0"},
    };
    for (const auto& b : bad) {
        run.set_input(1, b.channel, b.height, b.width, std::vector<float>(size_t(b.channel) * b.height * b.width));
        testing::internal::CaptureStderr();
        EXPECT_EQ(run.reshape(), 5);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string("vnet/conv: reshape_conv: check failed: ") + b.check + "\n");
        EXPECT_EQ(run.out, before);
        EXPECT_EQ(run.out->channel, 2);
        EXPECT_EQ(run.out->height, 3);
        EXPECT_EQ(run.out->width, 4);
    }
    Tensor* none = nullptr;
    EXPECT_EQ(reshape_conv(run.layer, &none, 1, &run.out, 1, run.params), 5);
    EXPECT_EQ(reshape_conv(run.layer, &run.in, 2, &run.out, 1, run.params), 7);
    EXPECT_EQ(reshape_conv(nullptr, &run.in, 1, &run.out, 1, run.params), 7);

    // The size rule truncates toward zero, so an input one pixel narrower
    // than the kernel still gives one column at stride 2: (4 - 5) / 2 + 1.
    ConvCase edge{1, 1, 3, 4, 1, 5, 3, 2, 1, 0, 0, false};
    ConvRun wide(edge, std::vector<float>(15, 1.0f), {});
    wide.set_input(1, 1, 3, 4, std::vector<float>(12, 1.0f));
    ASSERT_EQ(wide.reshape(), 0);
    EXPECT_EQ(wide.out->width, 1);
    ASSERT_EQ(wide.forward(), 0);
    EXPECT_EQ(wide.out->data[0], 12.0f);  // the column past the edge reads zeros
}

TEST(ConvRecord, DescribesItselfAndHasNoInt8PathYet) {
    ConvCase c{1, 16, 8, 8, 32, 3, 3, 2, 2, 1, 1, true};
    ConvRun run(c, std::vector<float>(32 * 16 * 9), std::vector<float>(32));
    char text[128];
    get_info_conv(run.layer, text);
    EXPECT_STREQ(text, "Convolution, kern: 32 16 3 3, stride: 2 2, pad: 1 1, bias: 1");
    get_info_conv(nullptr, text);
    EXPECT_STREQ(text, "Convolution");

    // Only the int8 path can run a quantised record; it is not built.
    run.set_input(1, 16, 8, 8, std::vector<float>(16 * 64));
    ASSERT_EQ(run.reshape(), 0);
    run.layer->quantized = 1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(run.forward(), 7);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "vnet/conv: forward_conv: check failed: conv->quantized == 0\n");
    run.layer->quantized = 0;
}

}  // namespace
