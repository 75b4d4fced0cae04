// Inner product layer: the record, shape checks, and the float output bit
// for bit against a plain loop with the product's rounding.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "layer_reference.h"
#include "test_util.h"

namespace {

using vo_test::ModelBytes;

std::string fc_record(int inputDim, int outputDim, const std::vector<float>& w, const std::vector<float>* bias) {
    return vo_ref::fc_record(inputDim, outputDim, w, bias ? *bias : std::vector<float>());
}

std::vector<float> reference_fc(int batch, int inputDim, int outputDim, const std::vector<float>& in,
                                const std::vector<float>& w, const std::vector<float>* bias) {
    return vo_ref::inner_product(vo_ref::blob(batch, inputDim, 1, 1, in), w, outputDim, bias).v;
}

using FcRun = vo_ref::LayerRun<InnerProduct, load_inner_product, reshape_inner_product, forward_inner_product,
                               release_inner_product>;

TEST(InnerProductForward, MatchesReferenceBitForBit) {
    std::mt19937 rng(99);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (int iter = 0; iter < 200; ++iter) {
        const int batch = pick(1, 11), channel = pick(1, 6), height = pick(1, 4), width = pick(1, 4);
        const int inputDim = channel * height * width, outputDim = pick(1, 27);
        const bool hasBias = pick(0, 1) == 1;
        SCOPED_TRACE(testing::Message() << "batch " << batch << ", " << inputDim << " -> " << outputDim
                                        << ", bias " << hasBias);
        auto w = vo_ref::random_floats(rng, size_t(inputDim) * outputDim);
        auto bias = vo_ref::random_floats(rng, size_t(outputDim));
        auto in = vo_ref::random_floats(rng, size_t(batch) * inputDim);
        const std::vector<float>* b = hasBias ? &bias : nullptr;
        FcRun run(fc_record(inputDim, outputDim, w, b));
        ASSERT_NE(run.layer, nullptr);
        run.set_input(batch, channel, height, width, in);
        ASSERT_EQ(run.reshape(), 0);
        EXPECT_EQ(run.out->num, batch);
        EXPECT_EQ(run.out->channel, outputDim);
        EXPECT_EQ(run.out->height * run.out->width, 1);
        ASSERT_EQ(run.forward(), 0);
        ASSERT_TRUE(vo_ref::same_bits(run.out, reference_fc(batch, inputDim, outputDim, in, w, b)));
    }
}

// Growing the batch rebuilds the column of ones; shrinking it keeps the
// buffers.
TEST(InnerProductForward, FollowsTheBatchSize) {
    std::mt19937 rng(5);
    auto w = vo_ref::random_floats(rng, 64 * 10);
    auto bias = vo_ref::random_floats(rng, 10);
    FcRun run(fc_record(64, 10, w, &bias));
    for (int batch : {4, 9, 2, 9}) {
        auto in = vo_ref::random_floats(rng, size_t(batch) * 64);
        run.set_input(batch, 16, 2, 2, in);
        ASSERT_EQ(run.reshape(), 0);
        ASSERT_EQ(run.forward(), 0);
        EXPECT_EQ(run.layer->biasMultiplier->capacity, batch);
        EXPECT_TRUE(vo_ref::same_bits(run.out, reference_fc(batch, 64, 10, in, w, &bias))) << batch;
    }
}

TEST(InnerProductRecord, SavesWhatItLoadedAndDescribesItself) {
    std::mt19937 rng(8);
    auto w = vo_ref::random_floats(rng, 64 * 10);
    auto bias = vo_ref::random_floats(rng, 10);
    const std::string withBias = fc_record(64, 10, w, &bias), without = fc_record(64, 10, w, nullptr);
    EXPECT_EQ(withBias.size(), without.size() + 40);
    for (const std::string& record : {withBias, without}) {
        vo_ref::Loaded r = vo_ref::load_record(load_inner_product, record + "next");
        ASSERT_EQ(r.status, 0);
        InnerProduct* fc = static_cast<InnerProduct*>(r.record);
        EXPECT_EQ(vo_ref::saved_bytes(save_inner_product, fc), record);
        char text[128];
        get_info_inner_product(fc, text);
        EXPECT_EQ(std::string(text), record == withBias ? "InnerProduct: 64 10 1" : "InnerProduct: 64 10 0");
        release_inner_product(&fc);
        EXPECT_EQ(fc, nullptr);
    }
    char text[128];
    get_info_inner_product(nullptr, text);
    EXPECT_STREQ(text, "InnerProduct");
    EXPECT_EQ(save_inner_product(nullptr, nullptr), 4);
}

TEST(InnerProductRecord, RefusesBadRecords) {
    std::vector<float> bias(3, 1.0f);
    const std::string good = fc_record(4, 3, std::vector<float>(12, 0.25f), &bias);
    for (size_t len = 0; len < good.size(); ++len) {
        vo_ref::Loaded r = vo_ref::load_record(load_inner_product, good.substr(0, len));
        ASSERT_EQ(r.status, 4) << len;
        EXPECT_EQ(r.record, nullptr);
        std::string want = len < 10 ? "ret == 1" : len < 10 + 48 ? "ret == fc->inputDim * fc->outputDim"
                                                                 : "ret == fc->outputDim";
        EXPECT_EQ(r.err, "vnet/inner_product: load_inner_product: check failed: " + want + "\n") << len;
    }
    const struct {
        uint8_t hasBias, quantized;
        int32_t inputDim, outputDim;
        const char* check;
    } bad[] = {
        {0, 1, 4, 3, "fc->quantized == 0"},
        {3, 0, 4, 3, "fc->hasBias <= 1"},
        {0, 0, 0, 3, "fc->inputDim > 0 && fc->outputDim > 0"},
        {0, 0, 4, -3, "fc->inputDim > 0 && fc->outputDim > 0"},
        {0, 0, 1 << 20, 1 << 12, "count >= 0"},
        {0, 0, 1 << 15, 1 << 12, "ret == fc->inputDim * fc->outputDim"},
    };
    for (const auto& b : bad) {
        ModelBytes m;
        m.u8(b.hasBias).u8(b.quantized).i32(b.inputDim).i32(b.outputDim).raw(std::string(256, '\0'));
        vo_ref::Loaded r = vo_ref::load_record(load_inner_product, m.bytes());
        EXPECT_EQ(r.status, 4) << b.check;
        EXPECT_EQ(r.record, nullptr);
        EXPECT_EQ(r.err, std::string("vnet/inner_product: load_inner_product: check failed: ") + b.check + "\n");
    }
}

// An input whose size differs from inputDim gives 5 and leaves the output
// as it was.
TEST(InnerProductReshape, RefusesAnInputOfTheWrongSize) {
    FcRun run(fc_record(64, 10, std::vector<float>(640), nullptr));
    run.set_input(1, 3, 5, 5, std::vector<float>(75));
    reshape_tensor(run.out, 1, 7, 1, 1);
    Tensor* before = run.out;
    testing::internal::CaptureStderr();
    EXPECT_EQ(run.reshape(), 5);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vnet/inner_product: reshape_inner_product: check failed: "
              "src->width * src->height * src->channel == fc->inputDim\n");
    EXPECT_EQ(run.out, before);
    EXPECT_EQ(run.out->channel, 7);
    Tensor* none = nullptr;
    EXPECT_EQ(reshape_inner_product(run.layer, &none, 1, &run.out, 1, run.params), 5);
    EXPECT_EQ(reshape_inner_product(run.layer, &run.in, 1, &run.out, 0, run.params), 7);
}

}  // namespace
