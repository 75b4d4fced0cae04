// Softmax: the maximum, subtraction, exponential, ordered sum and division,
// bit for bit against the literal reference along every axis.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "layer_reference.h"
#include "test_util.h"

namespace {

using vo_test::Model;
using vo_test::same_bits;

std::string softmax_model(int n, int c, int h, int w, int axis) {
    return vo_test::head(n, c, h, w)
        .layer("prob", LAYER_SOFTMAX, vo_test::ModelBytes().i32(axis).bytes(), {"data"}, {"out"})
        .bytes();
}

TEST(Softmax, EveryAxisMatchesReferenceBitForBit) {
    std::mt19937 rng(21);
    for (int iter = 0; iter < 40; ++iter) {
        const int axis = iter % 4, C = 1 + int(rng() % 6), H = 1 + int(rng() % 7), W = 1 + int(rng() % 13);
        const std::string bytes = softmax_model(1, C, H, W, axis);
        Model m(bytes);
        ASSERT_EQ(m.status, 0) << m.err;
        for (int N : {1, 4}) {
            const auto in = vo_test::random_floats(rng, size_t(N) * C * H * W);
            ASSERT_EQ(m.forward(in, N, C, H, W), 0);
            EXPECT_TRUE(same_bits(m.out(), vo_ref::softmax(vo_ref::blob(N, C, H, W, in), axis).v)) << "axis " << axis;
            // The same shape again reuses every buffer.
            const float* out = m.out()->data;
            const float* scratch = m.net->forwardParams->columnBuffer->data;
            ASSERT_EQ(m.forward(in, N, C, H, W), 0);
            EXPECT_EQ(m.out()->data, out);
            EXPECT_EQ(m.net->forwardParams->columnBuffer->data, scratch);
        }
        EXPECT_EQ(m.saved(), bytes);
    }
}

TEST(Softmax, ExamplesLargeValuesAndInPlace) {
    Model m(softmax_model(2, 3, 1, 1, 1));
    ASSERT_EQ(m.forward({1, 2, 3, 1000, 1001, 1000}, 2, 3, 1, 1), 0);
    const float e2 = expf(-2.0f), e1 = expf(-1.0f), sum = e2 + e1 + 1.0f;
    const float big = expf(-1.0f) + 1.0f + expf(-1.0f);
    EXPECT_TRUE(same_bits(m.out(), {e2 / sum, e1 / sum, 1.0f / sum, e1 / big, 1.0f / big, e1 / big}));

    // In place, after a flatten that only renames: same bits as out of place.
    Model inPlace(vo_test::head(1, 3, 2, 5)
                      .layer("copy", LAYER_FLATTEN, vo_test::ModelBytes().u8(2).u8(2).bytes(), {"data"}, {"out"})
                      .layer("prob", LAYER_SOFTMAX, vo_test::ModelBytes().i32(2).bytes(), {"out"}, {"out"})
                      .bytes());
    std::mt19937 rng(2);
    const auto in = vo_test::random_floats(rng, 30);
    ASSERT_EQ(inPlace.forward(in, 1, 3, 2, 5), 0);
    EXPECT_TRUE(same_bits(inPlace.out(), vo_ref::softmax(vo_ref::blob(1, 3, 2, 5, in), 2).v));
}

}  // namespace
