// Softmax: the maximum, subtraction, exponential, channel-order sum and
// division, bit for bit against a literal reference along every axis.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "model_run.h"

namespace {

using vo_model::Model;
using vo_model::same_bits;

std::vector<float> reference_softmax(const std::vector<float>& in, const int shape[4], int axis) {
    int outer = 1, inner = 1;
    for (int i = 0; i < axis; ++i) outer *= shape[i];
    for (int i = axis + 1; i < 4; ++i) inner *= shape[i];
    const int channels = shape[axis];
    std::vector<float> out(in.size());
    for (int o = 0; o < outer; ++o) {
        for (int k = 0; k < inner; ++k) {
            auto at = [&](int c) { return (size_t(o) * channels + c) * inner + k; };
            float m = in[at(0)];
            for (int c = 0; c < channels; ++c) m = in[at(c)] > m ? in[at(c)] : m;
            float sum = 0.0f;
            for (int c = 0; c < channels; ++c) {
                out[at(c)] = expf(in[at(c)] - m);
                sum += out[at(c)];
            }
            for (int c = 0; c < channels; ++c) out[at(c)] = out[at(c)] / sum;
        }
    }
    return out;
}

std::string softmax_model(int n, int c, int h, int w, int axis) {
    return vo_model::head(n, c, h, w)
        .layer("prob", LAYER_SOFTMAX, vo_test::ModelBytes().i32(axis).bytes(), {"data"}, {"out"})
        .bytes();
}

TEST(Softmax, EveryAxisMatchesReferenceBitForBit) {
    std::mt19937 rng(21);
    for (int iter = 0; iter < 40; ++iter) {
        const int axis = iter % 4;
        int shape[4] = {1, 1 + int(rng() % 6), 1 + int(rng() % 7), 1 + int(rng() % 13)};
        const std::string bytes = softmax_model(1, shape[1], shape[2], shape[3], axis);
        Model m(bytes);
        ASSERT_EQ(m.status, 0) << m.err;
        for (int N : {1, 4}) {
            shape[0] = N;
            auto in = vo_model::random_floats(rng, size_t(N) * shape[1] * shape[2] * shape[3]);
            for (auto& v : in) v *= 8.0f;
            ASSERT_EQ(m.forward(in, N, shape[1], shape[2], shape[3]), 0);
            EXPECT_TRUE(same_bits(m.out(), reference_softmax(in, shape, axis))) << "axis " << axis;
            // The same shape again reuses every buffer.
            const float* out = m.out()->data;
            const float* scratch = m.net->forwardParams->columnBuffer->data;
            ASSERT_EQ(m.forward(in, N, shape[1], shape[2], shape[3]), 0);
            EXPECT_EQ(m.out()->data, out);
            EXPECT_EQ(m.net->forwardParams->columnBuffer->data, scratch);
        }
        EXPECT_EQ(m.saved(), bytes);
    }
}

TEST(Softmax, ExamplesLargeValuesAndInPlace) {
    Model m(softmax_model(2, 3, 1, 1, 1));
    ASSERT_EQ(m.status, 0);
    ASSERT_EQ(m.forward({1, 2, 3, 1000, 1001, 1000}, 2, 3, 1, 1), 0);
    const float e2 = expf(-2.0f), e1 = expf(-1.0f), sum = e2 + e1 + 1.0f;
    const float big = expf(-1.0f) + 1.0f + expf(-1.0f);
    EXPECT_TRUE(same_bits(m.out(), {e2 / sum, e1 / sum, 1.0f / sum, e1 / big, 1.0f / big, e1 / big}));
    EXPECT_STREQ(get_info_layer(m.net->layers[0]), "Softmax 1");

    // In place, after a flatten that only renames: same bits as out of place.
    Model inPlace(vo_model::head(1, 3, 2, 5)
                      .layer("copy", LAYER_FLATTEN, vo_test::ModelBytes().u8(2).u8(2).bytes(), {"data"}, {"out"})
                      .layer("prob", LAYER_SOFTMAX, vo_test::ModelBytes().i32(2).bytes(), {"out"}, {"out"})
                      .bytes());
    ASSERT_EQ(inPlace.status, 0);
    std::mt19937 rng(2);
    const auto in = vo_model::random_floats(rng, 30);
    ASSERT_EQ(inPlace.forward(in, 1, 3, 2, 5), 0);
    const int shape[4] = {1, 3, 2, 5};
    EXPECT_TRUE(same_bits(inPlace.out(), reference_softmax(in, shape, 2)));

    char text[128];
    get_info_softmax(nullptr, text);
    EXPECT_STREQ(text, "Softmax");
}

TEST(Softmax, RefusesAxisOutsideTheShapeAndShortRecords) {
    for (int axis : {4, -1}) {
        Model m(softmax_model(1, 2, 2, 2, axis));
        EXPECT_EQ(m.status, 4);
        EXPECT_EQ(m.err, "vnet/softmax: load_softmax: check failed: softmax->axis >= 0 && softmax->axis <= 3\n");
    }
    Model shortRecord(vo_model::head(1, 2, 2, 2).name("prob").i32(LAYER_SOFTMAX).raw("\x01\x00").bytes());
    EXPECT_EQ(shortRecord.status, 4);
    EXPECT_EQ(shortRecord.err, "vnet/softmax: load_softmax: check failed: ret == 1\n");

    // Called directly on an output it was not reshaped for: 5, output untouched.
    Softmax s{};
    Tensor* in = create_tensor(1, 3, 1, 1);
    Tensor* out = create_tensor(1, 3, 1, 1);
    ForwardParams* params = create_forward_params();
    ASSERT_EQ(reshape_softmax(&s, &in, 1, &out, 1, params), 0);
    Tensor* small = create_tensor(1, 2, 1, 1);
    small->data[0] = 7.0f;
    testing::internal::CaptureStderr();
    EXPECT_EQ(forward_softmax(&s, &in, 1, &small, 1, params), 5);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(small->data[0], 7.0f);
    EXPECT_EQ(reshape_softmax(&s, &in, 2, &out, 1, params), 7);
    release_forward_params(&params);
    for (Tensor* t : {in, out, small}) release_tensor(&t);
    release_tensor(&s.sumMultiplier);
}

}  // namespace
