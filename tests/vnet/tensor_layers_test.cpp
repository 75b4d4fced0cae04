// Concat, slice, flatten and piece: data movement against literal index
// maps, model files end to end, and the refused records and shapes.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <vector>

#include "model_run.h"

namespace {

using vo_model::Model;
using vo_model::same_bits;
using Shape = std::array<int, 4>;

size_t count(const Shape& s) { return size_t(s[0]) * s[1] * s[2] * s[3]; }
size_t index(const Shape& s, const Shape& at) { return ((size_t(at[0]) * s[1] + at[1]) * s[2] + at[2]) * s[3] + at[3]; }

// Calls f(position) for every position of the shape in memory order.
template <typename F>
void each(const Shape& s, F f) {
    Shape at;
    for (at[0] = 0; at[0] < s[0]; ++at[0])
        for (at[1] = 0; at[1] < s[1]; ++at[1])
            for (at[2] = 0; at[2] < s[2]; ++at[2])
                for (at[3] = 0; at[3] < s[3]; ++at[3]) f(at);
}

// Concatenation: output position p along `axis` comes from the part whose
// range holds p.
std::vector<float> reference_concat(const std::vector<std::vector<float>>& parts, const std::vector<Shape>& shapes,
                                    int axis, Shape* out) {
    *out = shapes[0];
    for (size_t i = 1; i < shapes.size(); ++i) (*out)[axis] += shapes[i][axis];
    std::vector<float> r(count(*out));
    each(*out, [&](Shape at) {
        size_t i = 0;
        Shape local = at;
        while (local[axis] >= shapes[i][axis]) local[axis] -= shapes[i++][axis];
        r[index(*out, at)] = parts[i][index(shapes[i], local)];
    });
    return r;
}

// Sub-position of (y, x) in its block: bit pairs (y_k, x_k), k = 0 first.
int sub_position(int y, int x, int level) {
    int s = 0;
    for (int k = 0; k < level; ++k) s = s * 4 + 2 * ((y >> k) & 1) + ((x >> k) & 1);
    return s;
}

// Space into channels.
std::vector<float> reference_piece(const std::vector<float>& in, const Shape& s, int level) {
    const int t = 1 << level;
    const Shape o{s[0], s[1] * t * t, s[2] / t, s[3] / t};
    std::vector<float> r(count(o));
    each(s, [&](Shape at) {
        r[index(o, {at[0], at[1] * t * t + sub_position(at[2], at[3], level), at[2] >> level, at[3] >> level})] =
            in[index(s, at)];
    });
    return r;
}

Tensor* tensor_of(const Shape& s, const std::vector<float>& v) {
    Tensor* t = create_tensor(s[0], s[1], s[2], s[3]);
    std::copy(v.begin(), v.end(), t->data);
    return t;
}

std::string concat_record(int param, int axis) { return vo_test::ModelBytes().i32(param).i32(axis).bytes(); }
std::string slice_record(int axis, const std::vector<int>& points) {
    vo_test::ModelBytes b;
    b.i32(axis).i32(int(points.size()));
    for (int p : points) b.i32(p);
    return b.bytes();
}
std::string flatten_record(int start, int end) { return vo_test::ModelBytes().u8(uint8_t(start)).u8(uint8_t(end)).bytes(); }
std::string piece_record(int level, int direction) { return vo_test::ModelBytes().i32(level).i32(direction).bytes(); }

// Slice then concat the parts back in another order, then piece and
// flatten: every layer type of the family in one real model file.
TEST(TensorLayers, ModelOfAllFourMatchesReferenceAndSavesBack) {
    const std::string bytes =
        vo_model::head(1, 4, 4, 6, {"out", "s1", "cat"})
            .layer("slice", LAYER_SLICE, slice_record(1, {1, 3}), {"data"}, {"s0", "s1", "s2"})
            .layer("concat", LAYER_CONCAT, concat_record(7, 1), {"s2", "s0", "s1"}, {"cat"})
            .layer("piece", LAYER_PIECE, piece_record(1, 1), {"cat"}, {"pc"})
            .layer("flatten", LAYER_FLATTEN, flatten_record(1, -1), {"pc"}, {"out"})
            .bytes();
    Model m(bytes);
    ASSERT_EQ(m.status, 0) << m.err;
    std::mt19937 rng(3);
    for (int N : {1, 3}) {
        const Shape in{N, 4, 4, 6};
        const auto data = vo_model::random_floats(rng, count(in), true);
        ASSERT_EQ(m.forward(data, N, 4, 4, 6), 0);
        // The parts are channels {0}, {1, 2}, {3}.
        std::vector<std::vector<float>> parts(3);
        const int width[] = {1, 2, 1};
        each(in, [&](Shape at) {
            int j = at[1] == 0 ? 0 : at[1] < 3 ? 1 : 2;
            parts[j].push_back(data[index(in, at)]);
        });
        EXPECT_TRUE(same_bits(m.out("s1"), parts[1]));
        Shape cat;
        const auto joined = reference_concat({parts[2], parts[0], parts[1]},
                                             {{N, width[2], 4, 6}, {N, width[0], 4, 6}, {N, width[1], 4, 6}}, 1, &cat);
        EXPECT_TRUE(same_bits(m.out("cat"), joined));
        EXPECT_TRUE(same_bits(m.out("out"), reference_piece(joined, cat, 1)));
        EXPECT_EQ(vo_model::dims(m.out("out")), (std::vector<int>{N, 96, 1, 1}));
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
            Shape base{1 + int(rng() % 3), 1 + int(rng() % 3), 1 + int(rng() % 4), 1 + int(rng() % 5)};
            std::vector<Shape> shapes(2 + rng() % 2, base);
            std::vector<std::vector<float>> parts;
            std::vector<Tensor*> ins;
            std::vector<int> points;
            int at = 0;
            for (auto& s : shapes) {
                s[axis] = 1 + rng() % 3;
                parts.push_back(vo_model::random_floats(rng, count(s)));
                ins.push_back(tensor_of(s, parts.back()));
                points.push_back(at += s[axis]);
            }
            points.pop_back();
            Shape joinedShape;
            const auto joined = reference_concat(parts, shapes, axis, &joinedShape);

            Concat concat{0, axis, 0, 0, 0};
            Tensor* out = create_tensor(1, 1, 1, 1);
            ASSERT_EQ(reshape_concat(&concat, ins.data(), int(ins.size()), &out, 1, nullptr), 0);
            ASSERT_EQ(forward_concat(&concat, ins.data(), int(ins.size()), &out, 1, nullptr), 0);
            EXPECT_TRUE(same_bits(out, joined)) << "axis " << axis;

            Slice slice{axis, points.data(), int(points.size()), 0, 0};
            std::vector<Tensor*> cut;
            for (size_t i = 0; i < shapes.size(); ++i) cut.push_back(create_tensor(1, 1, 1, 1));
            ASSERT_EQ(reshape_slice(&slice, &out, 1, cut.data(), int(cut.size()), nullptr), 0);
            ASSERT_EQ(forward_slice(&slice, &out, 1, cut.data(), int(cut.size()), nullptr), 0);
            for (size_t i = 0; i < cut.size(); ++i) EXPECT_TRUE(same_bits(cut[i], parts[i])) << "axis " << axis;

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
        Model m(vo_model::head(2, 3, 4, 5).layer("f", LAYER_FLATTEN, flatten_record(f.start, f.end), {"data"}, {"out"}).bytes());
        ASSERT_EQ(m.status, 0);
        EXPECT_EQ(vo_model::dims(m.out()), f.dims);
    }

    // Rows a b / c d become four channels a, b, c, d, and back.
    Piece up{1, 1}, down{1, 0};
    Tensor* in = tensor_of({1, 1, 2, 2}, {1, 2, 3, 4});
    Tensor* mid = create_tensor(1, 1, 1, 1);
    Tensor* back = create_tensor(1, 1, 1, 1);
    ASSERT_EQ(reshape_piece(&up, &in, 1, &mid, 1, nullptr), 0);
    ASSERT_EQ(forward_piece(&up, &in, 1, &mid, 1, nullptr), 0);
    EXPECT_EQ(vo_model::dims(mid), (std::vector<int>{1, 4, 1, 1}));
    EXPECT_TRUE(same_bits(mid, {1, 2, 3, 4}));
    ASSERT_EQ(reshape_piece(&down, &mid, 1, &back, 1, nullptr), 0);
    ASSERT_EQ(forward_piece(&down, &mid, 1, &back, 1, nullptr), 0);
    EXPECT_TRUE(same_bits(back, {1, 2, 3, 4}));

    // Level 2: row 1, column 0 lands in channel 8; the directions are inverses.
    std::mt19937 rng(9);
    const Shape s{2, 3, 8, 12};
    const auto values = vo_model::random_floats(rng, count(s));
    Piece up2{2, 7}, down2{2, 0};
    Tensor* big = tensor_of(s, values);
    ASSERT_EQ(reshape_piece(&up2, &big, 1, &mid, 1, nullptr), 0);
    ASSERT_EQ(forward_piece(&up2, &big, 1, &mid, 1, nullptr), 0);
    const auto expected = reference_piece(values, s, 2);
    EXPECT_TRUE(same_bits(mid, expected));
    EXPECT_EQ(mid->data[index({2, 48, 2, 3}, {0, 8, 0, 0})], values[index(s, {0, 0, 1, 0})]);
    ASSERT_EQ(reshape_piece(&down2, &mid, 1, &back, 1, nullptr), 0);
    ASSERT_EQ(forward_piece(&down2, &mid, 1, &back, 1, nullptr), 0);
    EXPECT_TRUE(same_bits(back, values));
    for (Tensor* t : {in, mid, back, big}) release_tensor(&t);
}

TEST(TensorLayers, RefusedRecords) {
    const struct {
        int type;
        std::string record;
        const char* message;
    } bad[] = {
        {LAYER_CONCAT, concat_record(0, 4), "vnet/concat: load_concat: check failed: concat->axis >= 0 && concat->axis <= 3"},
        {LAYER_CONCAT, concat_record(0, -1), "vnet/concat: load_concat: check failed: concat->axis >= 0 && concat->axis <= 3"},
        {LAYER_SLICE, slice_record(4, {1}), "vnet/slice: load_slice: check failed: slice->axis >= 0 && slice->axis <= 3"},
        {LAYER_SLICE, slice_record(1, {2, 2}), "vnet/slice: load_slice: check failed: slice->points[k] > previous"},
        {LAYER_SLICE, slice_record(1, {0, 2}), "vnet/slice: load_slice: check failed: slice->points[k] > previous"},
        {LAYER_SLICE, vo_test::ModelBytes().i32(1).i32(-1).bytes(), "vnet/slice: load_slice: check failed: slice->size >= 0"},
        {LAYER_SLICE, vo_test::ModelBytes().i32(1).i32(1 << 28).bytes(),
         "vnet/slice: load_slice: check failed: vo::fits_in_file(stream, slice->size, sizeof(int32_t))"},
        {LAYER_FLATTEN, flatten_record(3, 1), "vnet/flatten: load_flatten: check failed: start <= end"},
        {LAYER_FLATTEN, flatten_record(-5, 1), "vnet/flatten: load_flatten: check failed: start >= 0 && start <= 3"},
        {LAYER_FLATTEN, flatten_record(1, 4), "vnet/flatten: load_flatten: check failed: end >= 0 && end <= 3"},
        {LAYER_PIECE, piece_record(16, 1), "vnet/piece: load_piece: check failed: piece->level >= 0 && piece->level <= 15"},
        {LAYER_PIECE, piece_record(-1, 1), "vnet/piece: load_piece: check failed: piece->level >= 0 && piece->level <= 15"},
        {LAYER_PIECE, vo_test::ModelBytes().i32(1).bytes(), "vnet/piece: load_piece: check failed: ret == 1"},
    };
    for (const auto& b : bad) {
        // The record is the last thing in the file, so a short one ends it.
        Model m(vo_model::head(1, 4, 4, 4).name("l").i32(b.type).raw(b.record).bytes());
        EXPECT_EQ(m.status, 4) << b.message;
        EXPECT_EQ(m.net, nullptr);
        EXPECT_EQ(m.err, std::string(b.message) + "\n");
    }
}

// Shapes the layers cannot handle fail the first reshape (status 1 from the
// load), each with its own check; direct calls give 5 and leave outputs alone.
TEST(TensorLayers, RefusedShapes) {
    const struct {
        int type;
        std::string record;
        std::vector<std::string> ins, outs;
        const char* message;
        Shape in = {1, 4, 6, 5};
    } bad[] = {
        {LAYER_SLICE, slice_record(1, {1, 2}), {"data"}, {"a", "b"},
         "vnet/slice: reshape_slice: check failed: osize == slice->size + 1"},
        {LAYER_SLICE, slice_record(1, {1, 4}), {"data"}, {"a", "b", "c"},
         "vnet/slice: reshape_slice: check failed: shape[slice->axis] > 0"},
        {LAYER_SLICE, slice_record(1, {1}), {"data"}, {"a", "data"},
         "vnet/slice: reshape_slice: check failed: ress[j] != nullptr && ress[j] != src"},
        {LAYER_PIECE, piece_record(1, 1), {"data"}, {"out"}, "vnet/piece: reshape_piece: check failed: width % times == 0"},
        {LAYER_PIECE, piece_record(2, 1), {"data"}, {"out"}, "vnet/piece: reshape_piece: check failed: height % times == 0", {1, 4, 6, 8}},
        {LAYER_PIECE, piece_record(1, 0), {"data"}, {"out"},
         "vnet/piece: reshape_piece: check failed: channel % (times * times) == 0", {1, 6, 2, 2}},
        {LAYER_CONCAT, concat_record(0, 1), {"data", "data"}, {"data"}, "vnet/concat: reshape_concat: check failed: ress[0] != srcs[i]"},
    };
    for (const auto& b : bad) {
        Model m(vo_model::head(b.in[0], b.in[1], b.in[2], b.in[3]).layer("l", b.type, b.record, b.ins, b.outs).bytes());
        EXPECT_EQ(m.status, 1) << b.message;
        EXPECT_EQ(m.err, std::string(b.message) + "\n");
    }

    Concat concat{0, 2, 0, 0, 0};
    Tensor* ins[2] = {create_tensor(1, 2, 3, 4), create_tensor(1, 2, 3, 5)};
    Tensor* out = create_tensor(1, 1, 1, 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(reshape_concat(&concat, ins, 2, &out, 1, nullptr), 5);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vnet/concat: reshape_concat: check failed: width == srcs[i]->width\n");
    EXPECT_EQ(vo_model::dims(out), (std::vector<int>{1, 1, 1, 1}));
    EXPECT_EQ(reshape_concat(&concat, ins, 1, &out, 1, nullptr), 7);
    // A forward on shapes the layer was not reshaped for copies nothing.
    concat.axis = 1, concat.outerNum = 1, concat.axisSize = 4, concat.innerNum = 12;
    out->data[0] = 5.0f;
    testing::internal::CaptureStderr();
    EXPECT_EQ(forward_concat(&concat, ins, 2, &out, 1, nullptr), 5);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(out->data[0], 5.0f);
    for (Tensor* t : {ins[0], ins[1], out}) release_tensor(&t);

    char text[128];
    get_info_concat(nullptr, text);
    EXPECT_STREQ(text, "Concat");
    get_info_slice(nullptr, text);
    EXPECT_STREQ(text, "Slice");
    get_info_piece(nullptr, text);
    EXPECT_STREQ(text, "piece");
}

}  // namespace
