// Concat, slice, flatten and piece: data movement against literal index
// maps, directly and in a model file.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "layer_reference.h"
#include "test_util.h"

namespace {

using vo_ref::Blob;
using vo_test::Model;
using vo_test::ModelBytes;
using vo_test::same_bits;

// Space into channels: pixel (y, x) goes to channel c * t * t + s, where the
// sub-position s takes the bit pairs (y_k, x_k), k = 0 first.
Blob reference_piece(const Blob& in, int level) {
    const int t = 1 << level;
    Blob out = vo_ref::blob(in.n, in.c * t * t, in.h / t, in.w / t);
    for (int n = 0; n < in.n; ++n)
        for (int c = 0; c < in.c; ++c)
            for (int y = 0; y < in.h; ++y)
                for (int x = 0; x < in.w; ++x) {
                    int s = 0;
                    for (int k = 0; k < level; ++k) s = s * 4 + 2 * ((y >> k) & 1) + ((x >> k) & 1);
                    out.at(n, c * t * t + s, y >> level, x >> level) = in.at(n, c, y, x);
                }
    return out;
}

Tensor* tensor_of(const Blob& b) {
    Tensor* t = create_tensor(b.n, b.c, b.h, b.w);
    std::copy(b.v.begin(), b.v.end(), t->data);
    return t;
}

// Slice then concat the parts back in another order, then piece and
// flatten: every layer type of the family in one real model file.
TEST(TensorLayers, ModelOfAllFourMatchesReferenceAndSavesBack) {
    const std::string bytes =
        vo_test::head(1, 4, 4, 6, {"out", "s1", "cat"})
            .layer("slice", LAYER_SLICE, ModelBytes().i32s({1, 2, 1, 3}).bytes(), {"data"}, {"s0", "s1", "s2"})
            .layer("concat", LAYER_CONCAT, ModelBytes().i32s({7, 1}).bytes(), {"s2", "s0", "s1"}, {"cat"})
            .layer("piece", LAYER_PIECE, ModelBytes().i32s({1, 1}).bytes(), {"cat"}, {"pc"})
            .layer("flatten", LAYER_FLATTEN, ModelBytes().u8(1).u8(uint8_t(-1)).bytes(), {"pc"}, {"out"})
            .bytes();
    Model m(bytes);
    ASSERT_EQ(m.status, 0) << m.err;
    std::mt19937 rng(3);
    for (int N : {1, 3}) {
        const Blob in = vo_ref::blob(N, 4, 4, 6, vo_test::random_floats(rng, size_t(N) * 96, true));
        ASSERT_EQ(m.forward(in.v, N, 4, 4, 6), 0);
        // The parts are channels {0}, {1, 2}, {3}.
        std::vector<Blob> parts = {vo_ref::blob(N, 1, 4, 6), vo_ref::blob(N, 2, 4, 6), vo_ref::blob(N, 1, 4, 6)};
        for (int n = 0; n < N; ++n)
            for (int c = 0; c < 4; ++c)
                for (int y = 0; y < 4; ++y)
                    for (int x = 0; x < 6; ++x) {
                        const int j = c == 0 ? 0 : c < 3 ? 1 : 2;
                        parts[j].at(n, c - (j == 0 ? 0 : j == 1 ? 1 : 3), y, x) = in.at(n, c, y, x);
                    }
        EXPECT_TRUE(same_bits(m.out("s1"), parts[1].v));
        const Blob joined = vo_ref::concat({parts[2], parts[0], parts[1]}, 1);
        EXPECT_TRUE(same_bits(m.out("cat"), joined.v));
        EXPECT_TRUE(same_bits(m.out("out"), reference_piece(joined, 1).v));
        EXPECT_EQ(vo_test::dims(m.out("out")), (std::vector<int>{N, 96, 1, 1}));
    }
    EXPECT_EQ(m.saved(), bytes);
    const char* infos[] = {"Slice: 1 2", "Concat 7 1", "piece: 1 ", "Flatten"};
    for (int i = 0; i < 4; ++i) EXPECT_STREQ(get_info_layer(m.net->layers[i]), infos[i]);
}

// Concat and slice along every axis are inverses; both match the index map.
TEST(TensorLayers, ConcatAndSliceAlongEveryAxis) {
    std::mt19937 rng(5);
    for (int axis = 0; axis < 4; ++axis) {
        for (int iter = 0; iter < 10; ++iter) {
            int base[4] = {1 + int(rng() % 3), 1 + int(rng() % 3), 1 + int(rng() % 4), 1 + int(rng() % 5)};
            std::vector<Blob> parts;
            std::vector<Tensor*> ins;
            std::vector<int> points;
            int at = 0;
            for (int i = 2 + rng() % 2; i > 0; --i) {
                base[axis] = 1 + rng() % 3;
                parts.push_back(vo_ref::blob(base[0], base[1], base[2], base[3]));
                parts.back().v = vo_test::random_floats(rng, parts.back().v.size());
                ins.push_back(tensor_of(parts.back()));
                points.push_back(at += base[axis]);
            }
            points.pop_back();

            Concat concat{0, axis, 0, 0, 0};
            Tensor* out = create_tensor(1, 1, 1, 1);
            ASSERT_EQ(reshape_concat(&concat, ins.data(), int(ins.size()), &out, 1, nullptr), 0);
            ASSERT_EQ(forward_concat(&concat, ins.data(), int(ins.size()), &out, 1, nullptr), 0);
            EXPECT_TRUE(same_bits(out, vo_ref::concat(parts, axis).v)) << "axis " << axis;

            Slice slice{axis, points.data(), int(points.size()), 0, 0};
            std::vector<Tensor*> cut;
            for (size_t i = 0; i < parts.size(); ++i) cut.push_back(create_tensor(1, 1, 1, 1));
            ASSERT_EQ(reshape_slice(&slice, &out, 1, cut.data(), int(cut.size()), nullptr), 0);
            ASSERT_EQ(forward_slice(&slice, &out, 1, cut.data(), int(cut.size()), nullptr), 0);
            for (size_t i = 0; i < cut.size(); ++i) EXPECT_TRUE(same_bits(cut[i], parts[i].v)) << "axis " << axis;
            for (auto* t : ins) release_tensor(&t);
            for (auto* t : cut) release_tensor(&t);
            release_tensor(&out);
        }
    }
}

TEST(TensorLayers, FlattenShapesAndPieceExamples) {
    const struct {
        int start, end;
        std::vector<int> dims;
    } flat[] = {{1, 3, {2, 60, 1, 1}}, {2, 3, {2, 3, 20, 1}}, {0, 1, {6, 4, 5, 1}}, {-3, -2, {2, 12, 5, 1}},
                {2, 2, {2, 3, 4, 5}}};
    for (const auto& f : flat) {
        Model m(vo_test::head(2, 3, 4, 5)
                    .layer("f", LAYER_FLATTEN, ModelBytes().u8(uint8_t(f.start)).u8(uint8_t(f.end)).bytes(), {"data"},
                           {"out"})
                    .bytes());
        ASSERT_EQ(m.status, 0);
        EXPECT_EQ(vo_test::dims(m.out()), f.dims);
    }

    // Rows a b / c d become four channels a, b, c, d, and back; at level 2,
    // row 1, column 0 lands in channel 8. Every direction but 0 goes up.
    std::mt19937 rng(9);
    Blob big = vo_ref::blob(2, 3, 8, 12);
    big.v = vo_test::random_floats(rng, big.v.size());
    for (const auto& t : {std::make_pair(vo_ref::blob(1, 1, 2, 2, {1, 2, 3, 4}), 1), std::make_pair(big, 2)}) {
        Piece up{t.second, t.second == 1 ? 1 : 7}, down{t.second, 0};
        Tensor* in = tensor_of(t.first);
        Tensor* mid = create_tensor(1, 1, 1, 1);
        Tensor* back = create_tensor(1, 1, 1, 1);
        ASSERT_EQ(reshape_piece(&up, &in, 1, &mid, 1, nullptr), 0);
        ASSERT_EQ(forward_piece(&up, &in, 1, &mid, 1, nullptr), 0);
        const Blob want = reference_piece(t.first, t.second);
        EXPECT_EQ(vo_test::dims(mid), (std::vector<int>{want.n, want.c, want.h, want.w}));
        EXPECT_TRUE(same_bits(mid, want.v));
        ASSERT_EQ(reshape_piece(&down, &mid, 1, &back, 1, nullptr), 0);
        ASSERT_EQ(forward_piece(&down, &mid, 1, &back, 1, nullptr), 0);
        EXPECT_TRUE(same_bits(back, t.first.v));
        for (Tensor* x : {in, mid, back}) release_tensor(&x);
    }
    EXPECT_EQ(reference_piece(vo_ref::blob(1, 1, 2, 2, {1, 2, 3, 4}), 1).v, (std::vector<float>{1, 2, 3, 4}));
    EXPECT_EQ(reference_piece(big, 2).at(0, 8, 0, 0), big.at(0, 0, 1, 0));
}

}  // namespace
