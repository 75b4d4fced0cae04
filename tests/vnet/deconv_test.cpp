// Deconvolution layer: the record, shape checks, and the float output bit
// for bit against a plain scatter loop with the product's rounding.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "layer_reference.h"
#include "test_util.h"

namespace {

using vo_test::ModelBytes;

struct DeconvCase {
    int num, Ci, height, width;
    int Co, kW, kH, sW, sH, pW, pH;
    bool bias;
    int outW() const { return kW + (width - 1) * sW - 2 * pW; }
    int outH() const { return kH + (height - 1) * sH - 2 * pH; }
    bool is1x1() const { return kW == 1 && kH == 1 && sW == 1 && sH == 1 && pW == 0 && pH == 0; }
};

std::string deconv_record(const DeconvCase& c, const std::vector<float>& w, const std::vector<float>& bias) {
    return vo_ref::deconv_record(c.Co, c.Ci, c.kW, c.kH, c.sW, c.sH, c.pW, c.pH, w,
                                 c.bias ? bias : std::vector<float>());
}

std::vector<float> reference_deconv(const DeconvCase& c, const std::vector<float>& in, const std::vector<float>& w,
                                    const std::vector<float>& bias) {
    vo_ref::Blob out = vo_ref::deconv(vo_ref::blob(c.num, c.Ci, c.height, c.width, in), w, c.Co, c.kW, c.kH, c.sW,
                                      c.sH, c.pW, c.pH, c.bias ? &bias : nullptr);
    return out.v;
}

using LayerRun = vo_ref::LayerRun<Deconv, load_deconv, reshape_deconv, forward_deconv, release_deconv>;

struct DeconvRun : LayerRun {
    DeconvRun(const DeconvCase& c, const std::vector<float>& w, const std::vector<float>& bias)
        : LayerRun(deconv_record(c, w, bias)) {}
};

void expect_matches_reference(const DeconvCase& c, std::mt19937& rng) {
    SCOPED_TRACE(testing::Message() << "in " << c.num << "x" << c.Ci << "x" << c.height << "x" << c.width << ", Co "
                                    << c.Co << ", kernel " << c.kW << "x" << c.kH << ", stride " << c.sW << ","
                                    << c.sH << ", pad " << c.pW << "," << c.pH << ", bias " << c.bias);
    auto w = vo_ref::random_floats(rng, size_t(c.Ci) * c.Co * c.kH * c.kW);
    auto bias = vo_ref::random_floats(rng, size_t(c.Co));
    auto in = vo_ref::random_floats(rng, size_t(c.num) * c.Ci * c.height * c.width);
    DeconvRun run(c, w, bias);
    ASSERT_NE(run.layer, nullptr);
    EXPECT_EQ(run.layer->is1x1, c.is1x1() ? 1 : 0);
    run.set_input(c.num, c.Ci, c.height, c.width, in);
    ASSERT_EQ(run.reshape(), 0);
    EXPECT_EQ(run.out->num, c.num);
    EXPECT_EQ(run.out->channel, c.Co);
    EXPECT_EQ(run.out->height, c.outH());
    EXPECT_EQ(run.out->width, c.outW());
    ASSERT_EQ(run.forward(), 0);
    EXPECT_TRUE(vo_ref::same_bits(run.out, reference_deconv(c, in, w, bias)));
}

TEST(DeconvForward, MatchesReferenceBitForBit) {
    std::mt19937 rng(2024);
    // Doubling without overlap, doubling with four overlapping patches,
    // and the direct 1x1 product.
    expect_matches_reference({1, 3, 4, 4, 2, 2, 2, 2, 2, 0, 0, true}, rng);
    expect_matches_reference({2, 3, 4, 4, 5, 4, 4, 2, 2, 1, 1, true}, rng);
    expect_matches_reference({2, 4, 3, 5, 6, 1, 1, 1, 1, 0, 0, true}, rng);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (int iter = 0; iter < 150; ++iter) {
        DeconvCase c{pick(1, 3), pick(1, 6), pick(1, 7), pick(1, 7), pick(1, 6), pick(1, 4), pick(1, 4),
                     pick(1, 3), pick(1, 3), pick(0, 2), pick(0, 2), pick(0, 1) == 1};
        if (c.outW() < 1 || c.outH() < 1) continue;
        expect_matches_reference(c, rng);
        if (HasFailure()) break;
    }
}

TEST(DeconvRecord, SavesWhatItLoadedAndDescribesItself) {
    std::mt19937 rng(4);
    DeconvCase c{1, 16, 4, 4, 8, 4, 4, 2, 2, 1, 1, true};
    auto w = vo_ref::random_floats(rng, 16 * 8 * 16);
    const std::string record = deconv_record(c, w, vo_ref::random_floats(rng, 8));
    vo_ref::Loaded r = vo_ref::load_record(load_deconv, record + "next");
    ASSERT_EQ(r.status, 0);
    Deconv* deconv = static_cast<Deconv*>(r.record);
    // Output channels come first in the record, input channels first in the
    // tensor.
    EXPECT_EQ(deconv->weights->num, 16);
    EXPECT_EQ(deconv->weights->channel, 8);
    EXPECT_EQ(vo_ref::saved_bytes(save_deconv, deconv), record);
    char text[128];
    get_info_deconv(deconv, text);
    EXPECT_STREQ(text, "deconv, kern: 16 8 4 4, stride: 2 2, pad: 1 1, bias: 1");
    get_info_deconv(nullptr, text);
    EXPECT_STREQ(text, "deconv");
    release_deconv(&deconv);
    EXPECT_EQ(deconv, nullptr);
    EXPECT_EQ(save_deconv(nullptr, nullptr), 7);
}

TEST(DeconvRecord, RefusesBadRecords) {
    DeconvCase c{1, 2, 3, 3, 3, 2, 2, 2, 2, 0, 0, true};
    const std::string good = deconv_record(c, std::vector<float>(24, 0.5f), {1, 2, 3});
    for (size_t len = 0; len < good.size(); ++len) {
        vo_ref::Loaded r = vo_ref::load_record(load_deconv, good.substr(0, len));
        ASSERT_EQ(r.status, 4) << len;
        EXPECT_EQ(r.record, nullptr);
        std::string want = len < 33 ? "ret == 1" : len < 33 + 96 ? "ret == weights->capacity"
                                                                 : "ret == conv->bias->capacity";
        EXPECT_EQ(r.err, "vnet/deconv: load_deconv: check failed: " + want + "\n") << len;
    }
    const struct {
        int32_t fields[8];  // Co, Ci, kW, kH, sW, sH, pW, pH
        uint8_t hasBias;
        const char* check;
    } bad[] = {
        {{3, 2, 2, 2, 2, 2, 0, 0}, 7, "conv->hasBias <= 1"},
        {{3, 0, 2, 2, 2, 2, 0, 0}, 0, "outChannels > 0 && inChannels > 0"},
        {{3, 2, 65536, 2, 2, 2, 0, 0}, 0, "kernelW >= 1 && kernelW <= kMaxExtent"},
        {{3, 2, 2, 0, 2, 2, 0, 0}, 0, "kernelH >= 1 && kernelH <= kMaxExtent"},
        {{3, 2, 2, 2, -2, 2, 0, 0}, 0, "conv->strideW >= 1 && conv->strideW <= kMaxExtent"},
        {{3, 2, 2, 2, 2, 0, 0, 0}, 0, "conv->strideH >= 1 && conv->strideH <= kMaxExtent"},
        {{3, 2, 2, 2, 2, 2, 65536, 0}, 0, "conv->padW >= 0 && conv->padW <= kMaxExtent"},
        {{3, 2, 2, 2, 2, 2, 0, -1}, 0, "conv->padH >= 0 && conv->padH <= kMaxExtent"},
        {{1 << 16, 1 << 16, 1, 1, 1, 1, 0, 0}, 0, "count >= 0"},
        {{1 << 10, 1 << 10, 3, 3, 1, 1, 0, 0}, 0, "ret == weights->capacity"},
    };
    for (const auto& b : bad) {
        ModelBytes m;
        for (int32_t v : b.fields) m.i32(v);
        m.u8(b.hasBias).raw(std::string(256, '\0'));
        vo_ref::Loaded r = vo_ref::load_record(load_deconv, m.bytes());
        EXPECT_EQ(r.status, 4) << b.check;
        EXPECT_EQ(r.record, nullptr);
        EXPECT_EQ(r.err, std::string("vnet/deconv: load_deconv: check failed: ") + b.check + "\n");
    }
}

TEST(DeconvReshape, RefusesShapesThatDoNotFit) {
    // Kernel 1, pad 1: a 1x1 input would give 1 + 0 - 2 = -1 pixels.
    DeconvCase c{1, 2, 3, 3, 3, 1, 1, 1, 1, 1, 1, false};
    DeconvRun run(c, std::vector<float>(6, 1.0f), {});
    reshape_tensor(run.out, 1, 5, 1, 1);
    Tensor* before = run.out;
    const struct {
        int channel, height, width;
        const char* check;
    } bad[] = {
        {3, 3, 3, "src->channel == weights->num"},
        {2, 1, 1, "outW > 0 && outH > 0"},
    };
    for (const auto& b : bad) {
        run.set_input(1, b.channel, b.height, b.width, std::vector<float>(size_t(b.channel) * b.height * b.width));
        testing::internal::CaptureStderr();
        EXPECT_EQ(run.reshape(), 5);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string("vnet/deconv: reshape_deconv: check failed: ") + b.check + "\n");
        EXPECT_EQ(run.out, before);
        EXPECT_EQ(run.out->channel, 5);
    }
    // Padding crops: a 3x3 input gives 1 + 2 - 2 = 1 pixel.
    run.set_input(1, 2, 3, 3, std::vector<float>(18, 1.0f));
    ASSERT_EQ(run.reshape(), 0);
    EXPECT_EQ(run.out->height * run.out->width, 1);
    ASSERT_EQ(run.forward(), 0);
    EXPECT_EQ(run.out->data[0], 2.0f);  // the centre pixel: two input channels times weight 1
    Tensor* none = nullptr;
    EXPECT_EQ(reshape_deconv(run.layer, &none, 1, &run.out, 1, run.params), 5);
    EXPECT_EQ(reshape_deconv(run.layer, &run.in, 1, &run.out, 1, nullptr), 7);
}

}  // namespace
