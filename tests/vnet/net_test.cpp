// The net object and its model file: registry, reshape and forward passes,
// lookups, release, saving, and refusing malformed files cleanly.
#include <vonet/vonet.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "test_util.h"
#include "vnet/layer_registry.h"

namespace {

using vo_test::head;
using vo_test::Model;
using vo_test::ModelBytes;
using vo_test::NetPtr;
using vo_test::Printed;
using vo_test::printed_by;
using vo_test::test_scale_record;
using vo_test::TestScale;

constexpr int32_t kTestType = LAYER_PIECE;

// Two scale layers: "mid" = data x 2 (refusing height 13), out = mid x 3;
// or with `shared`, both on the tensor "out" (x 2, then x 0.5 in place).
ModelBytes scale_net(int32_t num = 1, bool shared = false) {
    ModelBytes m = head(num, 1, 2, 2);
    m.layer("double", kTestType, test_scale_record(2.0f, shared ? -1 : 13), {"data"}, {shared ? "out" : "mid"});
    return m.layer("triple", kTestType, test_scale_record(shared ? 0.5f : 3.0f), {shared ? "out" : "mid"}, {"out"});
}

// Expects `bytes` to be refused with status 4, nothing handed out and, when
// given, that one stderr line.
void expect_rejected(const std::string& bytes, const std::string& stderr_line = "") {
    Model r(bytes);
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.net, nullptr);
    if (!stderr_line.empty()) {
        EXPECT_EQ(r.err, stderr_line + "\n");
    }
}

class ModelFile : public testing::Test {
protected:
    vo_test::TestLayerType type_{kTestType};
};

class ScaleNet : public ModelFile {
protected:
    TestScale* layer(int i) { return static_cast<TestScale*>(m_.net->layers[i]->runParams); }
    Model m_{scale_net().bytes()};
};

TEST_F(ScaleNet, ForwardComputesInFileOrderAndReshapesOnlyOnNewShape) {
    ASSERT_EQ(m_.status, 0);
    EXPECT_EQ(layer(0)->reshapes, 1);  // once at load
    ASSERT_EQ(m_.forward({1, 2, 3, 4}, 1, 1, 2, 2), 0);
    Tensor* out = m_.out();
    ASSERT_NE(out, nullptr);
    EXPECT_THAT(std::vector<float>(out->data, out->data + out->capacity), testing::ElementsAre(6, 12, 18, 24));
    // Same shape again: no reshape, no buffer moves.
    float* buffer = out->data;
    ASSERT_EQ(m_.forward({1, 2, 3, 4}, 1, 1, 2, 2), 0);
    EXPECT_EQ(layer(0)->reshapes, 1);
    EXPECT_EQ(layer(1)->reshapes, 1);
    EXPECT_EQ(layer(1)->forwards, 2);
    EXPECT_EQ(out->data, buffer);
    // A new height reshapes every layer before running.
    ASSERT_EQ(m_.forward(std::vector<float>(6, 1.0f), 1, 1, 3, 2), 0);
    EXPECT_EQ(layer(0)->reshapes, 2);
    EXPECT_EQ(layer(1)->reshapes, 2);
    EXPECT_EQ(out->capacity, 6);
    EXPECT_EQ(out->data[5], 6.0f);
}

TEST_F(ScaleNet, FailedReshapeRunsNothingAndIsRetried) {
    const std::vector<float> in(13 * 2, 1.0f);
    EXPECT_EQ(printed_by([&] { return m_.forward(in, 1, 1, 13, 2); }).status, 5);
    EXPECT_EQ(layer(0)->forwards, 0);
    EXPECT_EQ(layer(1)->reshapes, 1);  // the pass stopped at the failing layer
    // The same shape again must not run on tensors that were never reshaped.
    EXPECT_EQ(m_.forward(in, 1, 1, 13, 2), 5);
    EXPECT_EQ(layer(0)->reshapes, 3);
    EXPECT_EQ(layer(0)->forwards, 0);
    EXPECT_EQ(m_.forward({1, 1, 1, 1}, 1, 1, 2, 2), 0);
    EXPECT_EQ(layer(1)->forwards, 1);
    // Shapes that cannot be held, and missing arguments.
    const float one[1] = {0};
    EXPECT_EQ(vo_forward_net(m_.net.get(), one, 65536, 65536, 1, 1), 5);
    EXPECT_EQ(vo_forward_net(m_.net.get(), one, 1, -1, 2, 2), 5);
    EXPECT_EQ(layer(0)->forwards, 1);
    EXPECT_EQ(vo_forward_net(m_.net.get(), nullptr, 1, 1, 2, 2), 7);
    EXPECT_EQ(vo_forward_net(nullptr, one, 1, 1, 1, 1), 7);
}

TEST_F(ScaleNet, LookupsAndDescriptions) {
    Net* net = m_.net.get();
    EXPECT_EQ(vo_input_by_name(net, "data"), net->inputs[0]);
    EXPECT_EQ(vo_input_by_name(net, "out"), nullptr);
    EXPECT_EQ(vo_output_by_name(net, "nope"), nullptr);
    EXPECT_EQ(net_tensor_by_name(net, "mid"), net->layers[0]->outputs[0]);
    EXPECT_EQ(net->layers[1]->inputs[0], net->layers[0]->outputs[0]);
    EXPECT_STREQ(get_info_layer(net->layers[1]), "scale 3.00");
    EXPECT_STREQ(get_info_layer(nullptr), "");
    vo_open_winograd(net);
    EXPECT_EQ(net->forwardParams->winograd, 1);
    vo_close_winograd(net);
    EXPECT_EQ(net->forwardParams->winograd, 0);
    vo_open_winograd(nullptr);
}

TEST(Net, EmptyNetsTwoInputsAndTheRegistry) {
    NetPtr net(vo_create_net());
    EXPECT_EQ(reshape_net(net.get()), 0);
    EXPECT_EQ(vo_flowing_net(net.get()), 0);
    EXPECT_EQ(reshape_net(nullptr), 7);
    EXPECT_EQ(vo_flowing_net(nullptr), 7);
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

    net->inputs = static_cast<Tensor**>(calloc(2, sizeof(Tensor*)));
    net->inputSize = 1;
    net->inputs[0] = net_add_tensor_by_name(net.get(), "data");
    net->inputs[0] = reshape_tensor(net->inputs[0], 1, 0, 4, 4);
    EXPECT_EQ(printed_by([&] { return reshape_net(net.get()); }), (Printed{5, "Net input empty\n", ""}));
    net->inputs[1] = a;
    net->inputSize = 2;
    const float in[1] = {1};
    EXPECT_EQ(vo_forward_net(net.get(), in, 1, 1, 1, 1), 7);  // two inputs cannot be fed
}

TEST(Net, ChildLayersGrowByOnePointTwoAndReleaseClears) {
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

TEST_F(ModelFile, InputsAndOutputsWithoutLayers) {
    gNetInitial = 0;
    Model r(head(1, 3, 24, 24, {"prob"}).bytes());
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(gNetInitial, 1);
    EXPECT_EQ(r.net->inputSize, 1);
    EXPECT_EQ(r.net->inputs[0]->capacity, 1728);
    ASSERT_NE(r.out("prob"), nullptr);
    EXPECT_EQ(r.out("prob")->capacity, 1);
    EXPECT_EQ(r.net->layerSize, 0u);
}

TEST_F(ModelFile, SaveReproducesTheFileWithNumOne) {
    Model r(scale_net(8, true).bytes());
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.net->inputs[0]->num, 8);
    // Layers naming the same tensor share one registry entry.
    EXPECT_EQ(r.net->tensorSize, 2u);
    EXPECT_EQ(r.net->layers[0]->outputs[0], r.net->layers[1]->inputs[0]);
    EXPECT_EQ(r.saved(), scale_net(1, true).bytes());
    EXPECT_EQ(vo_save_net(r.dir.file("no/such/dir.vo").c_str(), r.net.get()), 4);
    EXPECT_EQ(vo_save_net(r.dir.file("x.vo").c_str(), nullptr), 7);
}

TEST_F(ModelFile, EveryTruncationLoadsAPrefixOrIsRejected) {
    const std::string full = scale_net(1, true).bytes();
    const size_t layers_start = head(1, 1, 2, 2).size();
    const size_t layer_size = (full.size() - layers_start) / 2;
    for (size_t cut = 0; cut < full.size(); ++cut) {
        Model r(full.substr(0, cut));
        // A cut before the first layer's name ends, or inside a later layer's
        // name, ends the layer list there; any other cut is a broken file.
        if (cut >= layers_start && (cut - layers_start) % layer_size < 32) {
            EXPECT_EQ(r.status, 0) << cut;
            ASSERT_NE(r.net, nullptr) << cut;
            EXPECT_EQ(r.net->layerSize, (cut - layers_start) / layer_size);
        } else {
            EXPECT_EQ(r.status, 4) << cut;
            EXPECT_EQ(r.net, nullptr) << cut;
            EXPECT_FALSE(r.err.empty()) << cut;
        }
    }
}

TEST_F(ModelFile, ChecksNameTheUnitOperationAndCondition) {
    expect_rejected(std::string(100, '\0'), "vnet/net: vo_load_net: check failed: ret == 128");
    expect_rejected(ModelBytes().header().bytes(), "vnet/net: vo_load_net: check failed: ret == 1");
    expect_rejected(ModelBytes().header().u8(1).name("data").i32(1).bytes(),
                    "vnet/net: vo_load_net: check failed: ret == 4");
    expect_rejected(head(1, 1, 2, 2).layer("l", kTestType, test_scale_record(1.0f), {}, {"out"}).bytes(),
                    "vnet/net: vo_load_net: check failed: layer->isize > 0");
    expect_rejected(head(1, 1, 2, 2).layer("l", kTestType, test_scale_record(1.0f), {"data"}, {}).bytes(),
                    "vnet/net: vo_load_net: check failed: layer->osize > 0");
    // A failed record reader releases the partial net.
    expect_rejected(head(1, 1, 2, 2)
                        .layer("ok", kTestType, test_scale_record(1.0f), {"data"}, {"out"})
                        .name("short").i32(kTestType).f32(1.0f).bytes(),
                    "tests/scale: load_scale: check failed: ret == 1");
}

TEST_F(ModelFile, AbsurdDimensionsAreRefusedBeforeAllocating) {
    expect_rejected(head(1, -3, 2, 2).bytes());
    expect_rejected(head(-1, -1, 2, 2).bytes());         // positive product of negatives
    expect_rejected(head(65536, 65536, 1, 1).bytes());   // wraps to 0 in 32 bits
    expect_rejected(head(1, 1024, 1024, 1024).bytes());  // 2^30: above what a file may ask for
    expect_rejected(head(2147483647, 2147483647, 2147483647, 2147483647).bytes());
    // A zero dimension is a valid file whose input is empty.
    Model r(head(1, 0, 2, 2).bytes());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.net, nullptr);
    EXPECT_EQ(r.printed, "Net input empty\nReshape error\n");
}

TEST_F(ModelFile, NamesAndTypesThatCannotBeUsed) {
    // Names must end within their 32 bytes.
    expect_rejected(ModelBytes().header().u8(1).raw(std::string(32, 'x')).i32s({1, 1, 1, 1}).u8(0).bytes(),
                    "vnet/net: vo_load_net: check failed: has_nul(name)");
    // ... an output name too: read as a layer name without NUL.
    expect_rejected(head(1, 1, 2, 2).raw(std::string(32, 'y')).layer("l", kTestType, test_scale_record(1.0f),
                                                                      {"data"}, {"out"}).bytes());
    // Two inputs of one name could never both be fed.
    expect_rejected(ModelBytes().header().u8(2).input("data", 1, 1, 2, 2).input("data", 1, 1, 2, 2).u8(0).bytes(),
                    "vnet/net: vo_load_net: check failed: registered == tensor");
    for (int32_t type : {0, 1, 19, -1, 1 << 30}) {
        Model t(head(1, 1, 2, 2).layer("l", type, "", {"data"}, {"out"}).bytes());
        EXPECT_EQ(t.status, 4);
        EXPECT_EQ(t.printed, "Create net error: layer type " + std::to_string(type) + " error\n");
    }
    // A type that is not built is refused exactly like an unknown one.
    const vo::LayerOps* saved = vo::set_layer_ops_for_testing(LAYER_CONVOLUTION, nullptr);
    Model c(head(1, 1, 2, 2).layer("c", LAYER_CONVOLUTION, std::string(64, '\0'), {"data"}, {"out"}).bytes());
    vo::set_layer_ops_for_testing(LAYER_CONVOLUTION, saved);
    EXPECT_EQ(c.status, 4);
    EXPECT_EQ(c.printed, "Create net error: layer type 2 error\n");
}

TEST_F(ModelFile, MissingFileAndArguments) {
    vo_test::TempDir dir;
    Net* net = reinterpret_cast<Net*>(0x1);
    EXPECT_EQ(vo_load_net(dir.file("absent.vo").c_str(), &net), 4);
    EXPECT_EQ(net, reinterpret_cast<Net*>(0x1));
    EXPECT_EQ(load_layer(nullptr, nullptr), 4);
    EXPECT_EQ(load_layer(stdin, nullptr), 2);
    EXPECT_EQ(create_layer(1, "x"), nullptr);
}

}  // namespace
