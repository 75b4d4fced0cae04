#include <vonet/activation.h>
#include <vonet/net.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "test_util.h"

namespace {

using vo_test::ModelBytes;
using vo_test::TempDir;

uint32_t bits(float v) {
    uint32_t b;
    memcpy(&b, &v, 4);
    return b;
}

std::vector<float> values(const Tensor* t) { return std::vector<float>(t->data, t->data + t->capacity); }

std::string prelu_record(const std::vector<float>& slopes) {
    ModelBytes r;
    r.i32(int32_t(slopes.size()));
    for (float s : slopes) r.f32(s);
    return r.bytes();
}

// Every activation type in one net, in place and out of place.
ModelBytes activation_net() {
    ModelBytes m;
    m.header().u8(1).input("data", 1, 2, 1, 2).u8(3).name("a").name("b").name("d");
    m.layer("prelu", LAYER_PRELU, prelu_record({0.25f, 2.0f}), {"data"}, {"a"});
    m.layer("relu", LAYER_RELU, "", {"a"}, {"a"});
    m.layer("srelu", LAYER_SRELU, "", {"data"}, {"s"});
    m.layer("abs", LAYER_ABS, "", {"s"}, {"b"});
    m.layer("drop_inplace", LAYER_DROPOUT, ModelBytes().f32(0.5f).bytes(), {"b"}, {"b"});
    m.layer("drop_copy", LAYER_DROPOUT, ModelBytes().raw("\x01\x02\x03\xff").bytes(), {"a"}, {"d"});
    return m;
}

TEST(Activation, NetOfEveryTypeLoadsRunsAndSavesByteForByte) {
    TempDir dir;
    const ModelBytes model = activation_net();
    vo_test::write_file(dir.file("act.dat"), model.bytes());
    Net* net = nullptr;
    ASSERT_EQ(vo_load_net(dir.file("act.dat").c_str(), &net), 0);

    const float data[] = {-4, 4, -1, 1};
    ASSERT_EQ(vo_forward_net(net, data, 1, 2, 1, 2), 0);
    EXPECT_EQ(values(vo_output_by_name(net, "a")), (std::vector<float>{0, 4, 0, 1}));  // PReLU then ReLU in place
    EXPECT_EQ(values(vo_output_by_name(net, "b")), (std::vector<float>{4, 0, 1, 0}));  // |SReLU|
    EXPECT_EQ(values(vo_output_by_name(net, "d")), (std::vector<float>{0, 4, 0, 1}));  // a copy

    const char* infos[] = {"PReLU", "ReLU", "ReLU", "Abs", "Dropout", "Dropout"};
    ASSERT_EQ(net->layerSize, 6u);
    for (int i = 0; i < 6; ++i) EXPECT_STREQ(get_info_layer(net->layers[i]), infos[i]);

    ASSERT_EQ(vo_save_net(dir.file("again.dat").c_str(), net), 0);
    EXPECT_EQ(vo_test::read_file(dir.file("again.dat")), model.bytes());
    vo_release_net(&net);
}

TEST(Activation, ForwardValuesOnZerosAndNaN) {
    Tensor* in = create_tensor(1, 2, 1, 3);
    Tensor* out = create_tensor(1, 1, 1, 1);
    const float x[] = {-1.5f, 0.0f, 2.0f, -0.0f, NAN, -3.0f};
    memcpy(in->data, x, sizeof(x));
    Tensor* ins[] = {in};
    Tensor* outs[] = {out};

    ReLU* relu = create_relu();
    ASSERT_EQ(reshape_relu(relu, ins, 1, outs, 1, nullptr), 0);
    ASSERT_EQ(forward_relu(relu, ins, 1, outs, 1, nullptr), 0);
    const uint32_t reluBits[] = {0, 0, bits(2.0f), 0, 0, 0};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(bits(outs[0]->data[i]), reluBits[i]) << i;

    SReLU* srelu = create_srelu();
    ASSERT_EQ(forward_srelu(srelu, ins, 1, outs, 1, nullptr), 0);
    const uint32_t sreluBits[] = {bits(-1.5f), 0, 0, 0, 0, bits(-3.0f)};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(bits(outs[0]->data[i]), sreluBits[i]) << i;

    Abs* abs = create_abs();
    ASSERT_EQ(forward_abs(abs, ins, 1, outs, 1, nullptr), 0);
    EXPECT_EQ(bits(outs[0]->data[3]), 0u);
    EXPECT_EQ(outs[0]->data[5], 3.0f);

    // PReLU: zero, positive and NaN pass; -0.0 stays -0.0 (0.0 > -0.0 is false).
    PReLU* prelu = create_prelu();
    prelu->channel = 2;
    prelu->slope = create_tensor(1, 2, 1, 1);
    prelu->slope->data[0] = 0.25f;
    prelu->slope->data[1] = 2.0f;
    ASSERT_EQ(forward_prelu(prelu, ins, 1, outs, 1, nullptr), 0);
    EXPECT_EQ(outs[0]->data[0], -0.375f);
    EXPECT_EQ(bits(outs[0]->data[3]), bits(-0.0f));
    EXPECT_TRUE(std::isnan(outs[0]->data[4]));
    EXPECT_EQ(outs[0]->data[5], -6.0f);
    // In place gives the same.
    Tensor* self[] = {in};
    ASSERT_EQ(reshape_prelu(prelu, ins, 1, self, 1, nullptr), 0);
    ASSERT_EQ(forward_prelu(prelu, ins, 1, self, 1, nullptr), 0);
    EXPECT_EQ(in->data[0], -0.375f);
    EXPECT_EQ(in->data[5], -6.0f);

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

TEST(Activation, ReshapeAndForwardStatusCodes) {
    Tensor* a = create_tensor(1, 2, 3, 4);
    Tensor* b = create_tensor(1, 1, 1, 1);
    Tensor* two[] = {a, b};
    Tensor* one[] = {b};
    Tensor* none[] = {nullptr};
    ReLU* relu = create_relu();
    SReLU* srelu = create_srelu();
    PReLU* prelu = create_prelu();
    Abs* abs = create_abs();
    Dropout* drop = create_dropout();

    // ReLU, SReLU, PReLU, Dropout share the rules: 7 for missing records,
    // arrays or counts other than 1; 5 for a missing input tensor.
    EXPECT_EQ(reshape_relu(nullptr, two, 1, one, 1, nullptr), 7);
    EXPECT_EQ(reshape_relu(relu, nullptr, 1, one, 1, nullptr), 7);
    EXPECT_EQ(reshape_relu(relu, two, 1, nullptr, 1, nullptr), 7);
    EXPECT_EQ(reshape_relu(relu, two, 2, one, 1, nullptr), 7);
    EXPECT_EQ(reshape_srelu(srelu, two, 1, one, 2, nullptr), 7);
    EXPECT_EQ(reshape_prelu(prelu, none, 1, one, 1, nullptr), 5);
    EXPECT_EQ(reshape_dropout(nullptr, two, 1, one, 1, nullptr), 7);
    EXPECT_EQ(reshape_dropout(drop, none, 1, one, 1, nullptr), 5);
    // Abs: a count other than 1 or a missing tensor is 5.
    EXPECT_EQ(reshape_abs(abs, two, 2, one, 1, nullptr), 5);
    EXPECT_EQ(reshape_abs(abs, two, 1, none, 1, nullptr), 5);
    EXPECT_EQ(reshape_abs(abs, two, 1, one, 2, nullptr), 5);
    EXPECT_EQ(reshape_abs(abs, nullptr, 1, one, 1, nullptr), 7);

    // A valid reshape gives the output the input's shape and keeps the slot.
    EXPECT_EQ(reshape_dropout(drop, two, 1, one, 1, nullptr), 0);
    EXPECT_EQ(one[0], b);
    EXPECT_EQ(b->capacity, 24);
    EXPECT_EQ(b->width, 4);
    // A missing output is created.
    Tensor* fresh[] = {nullptr};
    EXPECT_EQ(reshape_relu(relu, two, 1, fresh, 1, nullptr), 0);
    ASSERT_NE(fresh[0], nullptr);
    EXPECT_EQ(fresh[0]->capacity, 24);
    release_tensor(&fresh[0]);

    EXPECT_EQ(forward_relu(nullptr, two, 1, one, 1, nullptr), 7);
    EXPECT_EQ(forward_srelu(nullptr, two, 1, one, 1, nullptr), 7);
    EXPECT_EQ(forward_abs(nullptr, two, 1, one, 1, nullptr), 7);
    EXPECT_EQ(forward_dropout(nullptr, two, 1, one, 1, nullptr), 7);
    EXPECT_EQ(forward_relu_gpu(relu, two, 1, one, 1, nullptr), 1);
    EXPECT_EQ(forward_srelu_gpu(srelu, two, 1, one, 1, nullptr), 1);
    EXPECT_EQ(forward_prelu_gpu(prelu, two, 1, one, 1, nullptr), 1);
    EXPECT_EQ(forward_abs_gpu(abs, two, 1, one, 1, nullptr), 1);
    EXPECT_EQ(forward_dropout_gpu(drop, two, 1, one, 1, nullptr), 1);

    // An output buffer too small for the input is refused, never overrun.
    Tensor* small = create_tensor(1, 1, 1, 2);
    Tensor* smallOut[] = {small};
    EXPECT_EQ(forward_relu(relu, two, 1, smallOut, 1, nullptr), 5);
    EXPECT_EQ(forward_dropout(drop, two, 1, smallOut, 1, nullptr), 5);
    release_tensor(&small);

    char text[128];
    get_info_srelu(srelu, text);
    EXPECT_STREQ(text, "ReLU");

    release_relu(&relu);
    release_srelu(&srelu);
    release_prelu(&prelu);
    release_abs(&abs);
    release_dropout(&drop);
    release_tensor(&a);
    release_tensor(&b);
}

TEST(Activation, PReLUForwardChecksLeaveTheOutputUntouched) {
    PReLU* prelu = create_prelu();
    prelu->channel = 3;
    prelu->slope = create_tensor(1, 3, 1, 1);
    Tensor* in = create_tensor(1, 2, 2, 2);
    Tensor* out = create_tensor(1, 2, 2, 2);
    for (int i = 0; i < 8; ++i) in->data[i] = -1.0f, out->data[i] = 7.0f;
    Tensor* ins[] = {in};
    Tensor* outs[] = {out};

    testing::internal::CaptureStderr();
    EXPECT_EQ(forward_prelu(prelu, ins, 1, outs, 1, nullptr), 5);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vnet/prelu: forward_prelu: check failed: src->channel == relu->channel\n");

    prelu->channel = 2;
    ASSERT_EQ(reshape_tensor(out, 1, 2, 1, 4), out);
    testing::internal::CaptureStderr();
    EXPECT_EQ(forward_prelu(prelu, ins, 1, outs, 1, nullptr), 5);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vnet/prelu: forward_prelu: check failed: src->width == res->width\n");
    for (int i = 0; i < 8; ++i) EXPECT_EQ(out->data[i], 7.0f);

    release_prelu(&prelu);
    release_tensor(&in);
    release_tensor(&out);
}

TEST(Activation, BadRecordsAreRefusedWithoutLargeAllocations) {
    TempDir dir;
    auto load = [&](const std::string& record, int32_t type) {
        ModelBytes m;
        m.header().u8(1).input("data", 1, 1, 1, 1).u8(1).name("out");
        m.name("layer").i32(type).raw(record);
        vo_test::write_file(dir.file("bad.dat"), m.bytes());
        Net* net = nullptr;
        testing::internal::CaptureStderr();
        int status = vo_load_net(dir.file("bad.dat").c_str(), &net);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(net, nullptr);
        vo_release_net(&net);
        return std::make_pair(status, err);
    };
    // A slope count the file cannot hold is refused before allocating.
    auto r = load(ModelBytes().i32(1 << 30).f32(1.0f).bytes(), LAYER_PRELU);
    EXPECT_EQ(r.first, 4);
    EXPECT_NE(r.second.find("vnet/prelu: load_prelu: check failed: vo::fits_in_file"), std::string::npos);
    EXPECT_EQ(load(ModelBytes().i32(-2).bytes(), LAYER_PRELU).first, 4);
    EXPECT_EQ(load(ModelBytes().i32(3).f32(1).f32(2).bytes(), LAYER_PRELU).first, 4);
    EXPECT_EQ(load("\x01\x02", LAYER_PRELU).first, 4);
    r = load("\x01\x02", LAYER_DROPOUT);
    EXPECT_EQ(r.first, 4);
    EXPECT_EQ(r.second, "vnet/dropout: load_dropout: check failed: ret == 1\n");

    // Direct calls: streams and records that are missing.
    void* record = reinterpret_cast<void*>(1);
    EXPECT_EQ(load_relu(nullptr, &record), 4);
    EXPECT_EQ(load_prelu(nullptr, &record), 4);
    EXPECT_EQ(load_dropout(nullptr, &record), 4);
    FILE* f = fopen(dir.file("empty").c_str(), "wb+");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(save_relu(f, nullptr), 7);
    EXPECT_EQ(save_srelu(nullptr, reinterpret_cast<SReLU*>(&record)), 7);
    Abs abs{};
    EXPECT_EQ(save_abs(nullptr, &abs), 0);  // writes nothing, so needs no stream
    EXPECT_EQ(save_abs(f, nullptr), 7);
    PReLU prelu{};
    EXPECT_EQ(save_prelu(nullptr, &prelu), 4);
    EXPECT_EQ(save_dropout(f, nullptr), 7);
    record = reinterpret_cast<void*>(1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(load_dropout(f, &record), 4);  // empty stream
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(record, nullptr);
    fclose(f);
}

}  // namespace
