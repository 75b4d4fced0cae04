// ReLU, SReLU, PReLU, Abs and Dropout: values on zeros and NaN, in place
// and out of place, their status codes, and a model file of all of them.
#include <vonet/activation.h>
#include <vonet/net.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "test_util.h"

namespace {

using vo_test::bits_of;
using vo_test::ModelBytes;

std::vector<float> values(const Tensor* t) { return std::vector<float>(t->data, t->data + t->capacity); }

TEST(Activation, NetOfEveryTypeLoadsRunsAndSavesByteForByte) {
    const std::string bytes =
        vo_test::head(1, 2, 1, 2, {"a", "b", "d"})
            .layer("prelu", LAYER_PRELU, ModelBytes().i32(2).floats({0.25f, 2.0f}).bytes(), {"data"}, {"a"})
            .layer("relu", LAYER_RELU, "", {"a"}, {"a"})
            .layer("srelu", LAYER_SRELU, "", {"data"}, {"s"})
            .layer("abs", LAYER_ABS, "", {"s"}, {"b"})
            .layer("drop_inplace", LAYER_DROPOUT, ModelBytes().f32(0.5f).bytes(), {"b"}, {"b"})
            .layer("drop_copy", LAYER_DROPOUT, "\x01\x02\x03\xff", {"a"}, {"d"})
            .bytes();
    vo_test::Model m(bytes);
    ASSERT_EQ(m.status, 0) << m.err;
    ASSERT_EQ(m.forward({-4, 4, -1, 1}, 1, 2, 1, 2), 0);
    EXPECT_EQ(values(m.out("a")), (std::vector<float>{0, 4, 0, 1}));  // PReLU then ReLU in place
    EXPECT_EQ(values(m.out("b")), (std::vector<float>{4, 0, 1, 0}));  // |SReLU|
    EXPECT_EQ(values(m.out("d")), (std::vector<float>{0, 4, 0, 1}));  // a copy
    const char* infos[] = {"PReLU", "ReLU", "ReLU", "Abs", "Dropout", "Dropout"};
    ASSERT_EQ(m.net->layerSize, 6u);
    for (int i = 0; i < 6; ++i) EXPECT_STREQ(get_info_layer(m.net->layers[i]), infos[i]);
    EXPECT_EQ(m.saved(), bytes);
}

// The vector body and the tail must both follow the scalar rule, for every
// plane width, out of place and in place.
TEST(Activation, PReLUMatchesTheScalarRuleOnEveryPlaneWidth) {
    std::mt19937 rng(7);
    PReLU* prelu = create_prelu();
    prelu->channel = 3;
    prelu->slope = create_tensor(1, 3, 1, 1);
    const float slopes[3] = {0.25f, -1.5f, 1e-30f};
    memcpy(prelu->slope->data, slopes, sizeof(slopes));
    for (int width = 1; width <= 40; ++width) {
        Tensor* in = create_tensor(2, 3, 1, width);
        Tensor* out = create_tensor(2, 3, 1, width);
        std::vector<float> x = vo_test::random_floats(rng, size_t(in->capacity), true);
        std::vector<float> want(x.size());
        for (size_t i = 0; i < x.size(); ++i) {
            const float s = slopes[(i / size_t(width)) % 3];
            want[i] = 0.0f > x[i] ? x[i] * s : x[i];
        }
        memcpy(in->data, x.data(), x.size() * sizeof(float));
        ASSERT_EQ(forward_prelu(prelu, &in, 1, &out, 1, nullptr), 0);
        EXPECT_TRUE(vo_test::same_bits(out->data, want.data(), want.size())) << "width " << width;
        ASSERT_EQ(forward_prelu(prelu, &in, 1, &in, 1, nullptr), 0);
        EXPECT_TRUE(vo_test::same_bits(in->data, want.data(), want.size())) << "in place, width " << width;
        release_tensor(&in);
        release_tensor(&out);
    }
    release_prelu(&prelu);
}

TEST(Activation, ForwardValuesOnZerosAndNaN) {
    Tensor* in = create_tensor(1, 2, 1, 3);
    Tensor* out = create_tensor(1, 1, 1, 1);
    const float x[] = {-1.5f, 0.0f, 2.0f, -0.0f, NAN, -3.0f};
    memcpy(in->data, x, sizeof(x));
    ReLU* relu = create_relu();
    SReLU* srelu = create_srelu();
    Abs* abs = create_abs();
    // PReLU: zero, positive and NaN pass; -0.0 stays -0.0 (0.0 > -0.0 is false).
    PReLU* prelu = create_prelu();
    prelu->channel = 2;
    prelu->slope = create_tensor(1, 2, 1, 1);
    prelu->slope->data[0] = 0.25f;
    prelu->slope->data[1] = 2.0f;
    ASSERT_EQ(reshape_relu(relu, &in, 1, &out, 1, nullptr), 0);
    const struct {
        std::function<int()> forward;
        std::vector<uint32_t> bits;
    } cases[] = {
        {[&] { return forward_relu(relu, &in, 1, &out, 1, nullptr); }, {0, 0, bits_of(2.0f), 0, 0, 0}},
        {[&] { return forward_srelu(srelu, &in, 1, &out, 1, nullptr); }, {bits_of(-1.5f), 0, 0, 0, 0, bits_of(-3.0f)}},
        {[&] { return forward_abs(abs, &in, 1, &out, 1, nullptr); },
         {bits_of(1.5f), 0, bits_of(2.0f), 0, bits_of(NAN), bits_of(3.0f)}},
        {[&] { return forward_prelu(prelu, &in, 1, &out, 1, nullptr); },
         {bits_of(-0.375f), 0, bits_of(2.0f), bits_of(-0.0f), bits_of(NAN), bits_of(-6.0f)}},
        // In place gives the same.
        {[&] { return forward_prelu(prelu, &in, 1, &in, 1, nullptr); },
         {bits_of(-0.375f), 0, bits_of(2.0f), bits_of(-0.0f), bits_of(NAN), bits_of(-6.0f)}},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(c.forward(), 0);
        Tensor* result = &c == &cases[4] ? in : out;
        for (int i = 0; i < 6; ++i) EXPECT_EQ(bits_of(result->data[i]), c.bits[i]) << &c - cases << " at " << i;
    }
    release_relu(&relu);
    release_srelu(&srelu);
    release_abs(&abs);
    release_prelu(&prelu);
    EXPECT_EQ(relu, nullptr);
    EXPECT_EQ(prelu, nullptr);
    release_prelu(&prelu);  // null is ignored
    release_tensor(&in);
    release_tensor(&out);
}

TEST(Activation, StatusCodes) {
    Tensor* a = create_tensor(1, 2, 3, 4);
    Tensor* b = create_tensor(1, 1, 1, 1);
    Tensor* small = create_tensor(1, 1, 1, 2);
    small->data[0] = 7.0f;
    Tensor* two[] = {a, b};
    Tensor* one[] = {b};
    Tensor* none[] = {nullptr};
    ReLU* relu = create_relu();
    SReLU* srelu = create_srelu();
    PReLU* prelu = create_prelu();
    Abs* abs = create_abs();
    Dropout* drop = create_dropout();
    vo_test::TempDir dir;
    FILE* f = fopen(dir.file("empty").c_str(), "wb+");
    ASSERT_NE(f, nullptr);
    void* record = reinterpret_cast<void*>(1);
    Abs absRecord{};
    PReLU preluRecord{};
    // ReLU, SReLU, PReLU, Dropout share the rules: 7 for missing records,
    // arrays or counts other than 1; 5 for a missing input tensor. Abs: a
    // count other than 1 or a missing tensor is 5. An output too small for
    // the input is refused, never overrun.
    const std::pair<std::function<int()>, int> calls[] = {
        {[&] { return reshape_relu(nullptr, two, 1, one, 1, nullptr); }, 7},
        {[&] { return reshape_relu(relu, nullptr, 1, one, 1, nullptr); }, 7},
        {[&] { return reshape_relu(relu, two, 1, nullptr, 1, nullptr); }, 7},
        {[&] { return reshape_relu(relu, two, 2, one, 1, nullptr); }, 7},
        {[&] { return reshape_srelu(srelu, two, 1, one, 2, nullptr); }, 7},
        {[&] { return reshape_prelu(prelu, none, 1, one, 1, nullptr); }, 5},
        {[&] { return reshape_dropout(nullptr, two, 1, one, 1, nullptr); }, 7},
        {[&] { return reshape_dropout(drop, none, 1, one, 1, nullptr); }, 5},
        {[&] { return reshape_abs(abs, two, 2, one, 1, nullptr); }, 5},
        {[&] { return reshape_abs(abs, two, 1, none, 1, nullptr); }, 5},
        {[&] { return reshape_abs(abs, two, 1, one, 2, nullptr); }, 5},
        {[&] { return reshape_abs(abs, nullptr, 1, one, 1, nullptr); }, 7},
        {[&] { return forward_relu(nullptr, two, 1, one, 1, nullptr); }, 7},
        {[&] { return forward_srelu(nullptr, two, 1, one, 1, nullptr); }, 7},
        {[&] { return forward_abs(nullptr, two, 1, one, 1, nullptr); }, 7},
        {[&] { return forward_dropout(nullptr, two, 1, one, 1, nullptr); }, 7},
        {[&] { return forward_relu_gpu(relu, two, 1, one, 1, nullptr); }, 1},
        {[&] { return forward_srelu_gpu(srelu, two, 1, one, 1, nullptr); }, 1},
        {[&] { return forward_prelu_gpu(prelu, two, 1, one, 1, nullptr); }, 1},
        {[&] { return forward_abs_gpu(abs, two, 1, one, 1, nullptr); }, 1},
        {[&] { return forward_dropout_gpu(drop, two, 1, one, 1, nullptr); }, 1},
        {[&] { return forward_relu(relu, two, 1, &small, 1, nullptr); }, 5},
        {[&] { return forward_dropout(drop, two, 1, &small, 1, nullptr); }, 5},
        {[&] { return load_relu(nullptr, &record); }, 4},
        {[&] { return load_prelu(nullptr, &record); }, 4},
        {[&] { return load_dropout(nullptr, &record); }, 4},
        {[&] { return save_relu(f, nullptr); }, 7},
        {[&] { return save_srelu(nullptr, reinterpret_cast<SReLU*>(&record)); }, 7},
        {[&] { return save_abs(nullptr, &absRecord); }, 0},  // writes nothing, so needs no stream
        {[&] { return save_abs(f, nullptr); }, 7},
        {[&] { return save_prelu(nullptr, &preluRecord); }, 4},
        {[&] { return save_dropout(f, nullptr); }, 7},
        {[&] { return load_dropout(f, &record); }, 4},  // empty stream
    };
    for (const auto& call : calls) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(call.first(), call.second) << &call - calls;
        testing::internal::GetCapturedStderr();
    }
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(small->data[0], 7.0f);
    fclose(f);

    // A valid reshape gives the output the input's shape and keeps the
    // slot; a missing output is created.
    EXPECT_EQ(reshape_dropout(drop, two, 1, one, 1, nullptr), 0);
    EXPECT_EQ(one[0], b);
    EXPECT_EQ(vo_test::dims(b), (std::vector<int>{1, 2, 3, 4}));
    Tensor* fresh[] = {nullptr};
    EXPECT_EQ(reshape_relu(relu, two, 1, fresh, 1, nullptr), 0);
    ASSERT_NE(fresh[0], nullptr);
    EXPECT_EQ(fresh[0]->capacity, 24);
    char text[128];
    get_info_srelu(srelu, text);
    EXPECT_STREQ(text, "ReLU");
    release_relu(&relu);
    release_srelu(&srelu);
    release_prelu(&prelu);
    release_abs(&abs);
    release_dropout(&drop);
    for (Tensor* t : {a, b, small, fresh[0]}) release_tensor(&t);
}

TEST(Activation, PReLUForwardChecksLeaveTheOutputUntouched) {
    PReLU* prelu = create_prelu();
    prelu->channel = 3;
    prelu->slope = create_tensor(1, 3, 1, 1);
    Tensor* in = create_tensor(1, 2, 2, 2);
    Tensor* out = create_tensor(1, 2, 1, 4);
    for (int i = 0; i < 8; ++i) in->data[i] = -1.0f, out->data[i] = 7.0f;
    for (const char* check : {"src->channel == relu->channel", "src->width == res->width"}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(forward_prelu(prelu, &in, 1, &out, 1, nullptr), 5);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string("vnet/prelu: forward_prelu: check failed: ") + check + "\n");
        prelu->channel = 2;
    }
    for (int i = 0; i < 8; ++i) EXPECT_EQ(out->data[i], 7.0f);
    release_prelu(&prelu);
    release_tensor(&in);
    release_tensor(&out);
}

}  // namespace
