// The net object: registry, reshape and forward passes, lookups, release.
#include <vonet/vonet.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "test_util.h"

namespace {

using vo_test::ModelBytes;
using vo_test::TestScale;

constexpr int32_t kTestType = LAYER_PIECE;

struct NetDeleter {
    void operator()(Net* n) const { vo_release_net(&n); }
};
using NetPtr = std::unique_ptr<Net, NetDeleter>;

// Loads a net of two chained scale layers (x2 then x3) on a 1x1x2x2 input.
class ScaleNet : public testing::Test {
protected:
    void SetUp() override {
        ModelBytes m;
        m.header().u8(1).input("data", 1, 1, 2, 2).u8(1).name("out");
        m.layer("double", kTestType, vo_test::test_scale_record(2.0f, 13), {"data"}, {"mid"});
        m.layer("triple", kTestType, vo_test::test_scale_record(3.0f), {"mid"}, {"out"});
        vo_test::write_file(dir_.file("net.vo"), m.bytes());
        Net* net = nullptr;
        ASSERT_EQ(vo_load_net(dir_.file("net.vo").c_str(), &net), 0);
        net_.reset(net);
    }
    TestScale* layer(int i) { return static_cast<TestScale*>(net_->layers[i]->runParams); }

    vo_test::TestLayerType type_{kTestType};
    vo_test::TempDir dir_;
    NetPtr net_;
};

TEST_F(ScaleNet, ForwardComputesInFileOrderAndReshapesOnlyOnNewShape) {
    EXPECT_EQ(layer(0)->reshapes, 1);  // once at load
    const float in[4] = {1, 2, 3, 4};
    ASSERT_EQ(vo_forward_net(net_.get(), in, 1, 1, 2, 2), 0);
    Tensor* out = vo_output_by_name(net_.get(), "out");
    ASSERT_NE(out, nullptr);
    EXPECT_THAT(std::vector<float>(out->data, out->data + out->capacity), testing::ElementsAre(6, 12, 18, 24));

    // Same shape again: no reshape, no buffer moves.
    float* buffer = out->data;
    ASSERT_EQ(vo_forward_net(net_.get(), in, 1, 1, 2, 2), 0);
    EXPECT_EQ(layer(0)->reshapes, 1);
    EXPECT_EQ(layer(1)->reshapes, 1);
    EXPECT_EQ(layer(1)->forwards, 2);
    EXPECT_EQ(out->data, buffer);

    // A new height reshapes every layer before running.
    std::vector<float> tall(6, 1.0f);
    ASSERT_EQ(vo_forward_net(net_.get(), tall.data(), 1, 1, 3, 2), 0);
    EXPECT_EQ(layer(0)->reshapes, 2);
    EXPECT_EQ(layer(1)->reshapes, 2);
    EXPECT_EQ(out->capacity, 6);
    EXPECT_EQ(out->data[5], 6.0f);
}

TEST_F(ScaleNet, FailedReshapeRunsNothingAndIsRetried) {
    std::vector<float> in(13 * 2, 1.0f);
    testing::internal::CaptureStdout();
    EXPECT_EQ(vo_forward_net(net_.get(), in.data(), 1, 1, 13, 2), 5);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(layer(0)->forwards, 0);
    EXPECT_EQ(layer(1)->reshapes, 1);  // the pass stopped at the failing layer

    // The same shape again must not run on tensors that were never reshaped.
    EXPECT_EQ(vo_forward_net(net_.get(), in.data(), 1, 1, 13, 2), 5);
    EXPECT_EQ(layer(0)->reshapes, 3);
    EXPECT_EQ(layer(0)->forwards, 0);

    const float ok[4] = {1, 1, 1, 1};
    EXPECT_EQ(vo_forward_net(net_.get(), ok, 1, 1, 2, 2), 0);
    EXPECT_EQ(layer(1)->forwards, 1);
}

TEST_F(ScaleNet, ForwardRefusesShapesThatCannotBeHeld) {
    const float in[1] = {0};
    EXPECT_EQ(vo_forward_net(net_.get(), in, 65536, 65536, 1, 1), 5);
    EXPECT_EQ(vo_forward_net(net_.get(), in, 1, -1, 2, 2), 5);
    EXPECT_EQ(layer(0)->forwards, 0);
    EXPECT_EQ(vo_forward_net(net_.get(), nullptr, 1, 1, 2, 2), 7);
    EXPECT_EQ(vo_forward_net(nullptr, in, 1, 1, 1, 1), 7);
}

TEST_F(ScaleNet, LookupsAndDescriptions) {
    EXPECT_EQ(vo_input_by_name(net_.get(), "data"), net_->inputs[0]);
    EXPECT_EQ(vo_input_by_name(net_.get(), "out"), nullptr);
    EXPECT_EQ(vo_output_by_name(net_.get(), "nope"), nullptr);
    EXPECT_EQ(net_tensor_by_name(net_.get(), "mid"), net_->layers[0]->outputs[0]);
    EXPECT_EQ(net_->layers[1]->inputs[0], net_->layers[0]->outputs[0]);
    EXPECT_STREQ(get_info_layer(net_->layers[1]), "scale 3.00");
    EXPECT_STREQ(get_info_layer(nullptr), "");

    vo_open_winograd(net_.get());
    EXPECT_EQ(net_->forwardParams->winograd, 1);
    vo_close_winograd(net_.get());
    EXPECT_EQ(net_->forwardParams->winograd, 0);
    vo_open_winograd(nullptr);
}

TEST(Net, TwoInputsCannotBeForwarded) {
    NetPtr net(vo_create_net());
    net->inputs = static_cast<Tensor**>(calloc(2, sizeof(Tensor*)));
    net->inputSize = 2;
    for (int i = 0; i < 2; ++i) {
        Tensor* t = create_tensor(1, 1, 1, 1);
        t->name[0] = char('a' + i);
        net->inputs[i] = net_add_tensor(net.get(), t);
    }
    const float in[1] = {1};
    EXPECT_EQ(vo_forward_net(net.get(), in, 1, 1, 1, 1), 7);
}

TEST(Net, EmptyNetAndEmptyInputs) {
    NetPtr net(vo_create_net());
    EXPECT_EQ(reshape_net(net.get()), 0);
    EXPECT_EQ(vo_flowing_net(net.get()), 0);
    EXPECT_EQ(reshape_net(nullptr), 7);
    EXPECT_EQ(vo_flowing_net(nullptr), 7);

    net->inputs = static_cast<Tensor**>(calloc(1, sizeof(Tensor*)));
    net->inputSize = 1;
    net->inputs[0] = net_add_tensor_by_name(net.get(), "data");
    net->inputs[0] = reshape_tensor(net->inputs[0], 1, 0, 4, 4);
    testing::internal::CaptureStdout();
    EXPECT_EQ(reshape_net(net.get()), 5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Net input empty\n");
}

TEST(Net, TensorRegistry) {
    NetPtr net(vo_create_net());
    Tensor* a = net_add_tensor_by_name(net.get(), "a");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->capacity, 1);
    EXPECT_STREQ(a->name, "a");
    EXPECT_EQ(net_add_tensor_by_name(net.get(), "a"), a);

    // A tensor whose name is taken is neither registered nor freed.
    Tensor* dup = create_tensor(1, 1, 1, 1);
    strcpy(dup->name, "a");
    EXPECT_EQ(net_add_tensor(net.get(), dup), a);
    release_tensor(&dup);

    for (int i = 0; i < 40; ++i) net_add_tensor_by_name(net.get(), ("t" + std::to_string(i)).c_str());
    EXPECT_EQ(net->tensorSize, 41u);
    EXPECT_EQ(net_tensor_by_name(net.get(), "t39")->name[2], '9');
    EXPECT_EQ(net_tensor_by_name(net.get(), "A"), nullptr);  // case-sensitive
}

TEST(Net, ChildLayersGrowByOnePointTwo) {
    Layer parent{};
    Layer children[6]{};
    std::vector<int> capacities;
    for (Layer& c : children) {
        add_child_layer(&parent, &c);
        capacities.push_back(parent.childCapacity);
    }
    EXPECT_THAT(capacities, testing::ElementsAre(1, 2, 3, 4, 5, 7));
    EXPECT_EQ(parent.children[5], &children[5]);
    release_layer_data(&parent);
    EXPECT_EQ(parent.children, nullptr);
}

TEST(Net, ReleaseClearsSlotAndLoadedFlag) {
    vo_net_initial();
    EXPECT_EQ(gNetInitial, 1);
    Net* net = vo_create_net();
    for (int i = 0; i < 5; ++i) net_add_layer(net, static_cast<Layer*>(calloc(1, sizeof(Layer))));
    EXPECT_EQ(net->layerCapacity, 7u);  // 1, 3, 7
    vo_release_net(&net);
    EXPECT_EQ(net, nullptr);
    EXPECT_EQ(gNetInitial, 0);
    vo_release_net(&net);
    vo_release_net(nullptr);
    release_net_data(nullptr);
}

}  // namespace
