// Model files: loading, saving, and refusing malformed files cleanly.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <string>

#include "test_util.h"
#include "vnet/layer_registry.h"

namespace {

using vo_test::ModelBytes;

constexpr int32_t kTestType = LAYER_PIECE;

struct Loaded {
    int status;
    Net* net;
    std::string out;
    std::string err;
};

// Loads `bytes` as a model file, capturing both streams.
Loaded load_bytes(const std::string& bytes) {
    vo_test::TempDir dir;
    vo_test::write_file(dir.file("m.vo"), bytes);
    Loaded r{0, nullptr, "", ""};
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    r.status = vo_load_net(dir.file("m.vo").c_str(), &r.net);
    r.err = testing::internal::GetCapturedStderr();
    r.out = testing::internal::GetCapturedStdout();
    return r;
}

// Expects `bytes` to be refused with status 4, nothing handed out and one
// stderr line when a check (rather than the type registry) refused it.
void expect_rejected(const std::string& bytes, const std::string& stderr_line = "") {
    Loaded r = load_bytes(bytes);
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.net, nullptr);
    if (!stderr_line.empty()) {
        EXPECT_EQ(r.err, stderr_line + "\n");
    }
    vo_release_net(&r.net);
}

ModelBytes head(int32_t n = 1, int32_t c = 1, int32_t h = 2, int32_t w = 2) {
    ModelBytes m;
    m.header().u8(1).input("data", n, c, h, w).u8(1).name("out");
    return m;
}

// Two scale layers sharing the output tensor "out".
ModelBytes two_layers(int32_t num = 1) {
    ModelBytes m = head(num);
    m.layer("first", kTestType, vo_test::test_scale_record(2.0f), {"data"}, {"out"});
    m.layer("second", kTestType, vo_test::test_scale_record(0.5f), {"out"}, {"out"});
    return m;
}

class ModelFile : public testing::Test {
protected:
    vo_test::TestLayerType type_{kTestType};
    vo_test::TempDir dir_;
};

TEST_F(ModelFile, InputsAndOutputsWithoutLayers) {
    ModelBytes m;
    m.header().u8(1).input("data", 1, 3, 24, 24).u8(1).name("prob");
    gNetInitial = 0;
    Loaded r = load_bytes(m.bytes());
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(gNetInitial, 1);
    EXPECT_EQ(r.net->inputSize, 1);
    EXPECT_EQ(r.net->inputs[0]->capacity, 1728);
    Tensor* prob = vo_output_by_name(r.net, "prob");
    ASSERT_NE(prob, nullptr);
    EXPECT_EQ(prob->capacity, 1);
    EXPECT_EQ(r.net->layerSize, 0u);
    vo_release_net(&r.net);
}

TEST_F(ModelFile, SaveReproducesTheFileWithNumOne) {
    Loaded r = load_bytes(two_layers(8).bytes());
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.net->inputs[0]->num, 8);
    // Layers naming the same tensor share one registry entry.
    EXPECT_EQ(r.net->tensorSize, 2u);
    EXPECT_EQ(r.net->layers[0]->outputs[0], r.net->layers[1]->inputs[0]);

    ASSERT_EQ(vo_save_net(dir_.file("saved.vo").c_str(), r.net), 0);
    EXPECT_EQ(vo_test::read_file(dir_.file("saved.vo")), two_layers(1).bytes());

    EXPECT_EQ(vo_save_net(dir_.file("no/such/dir.vo").c_str(), r.net), 4);
    EXPECT_EQ(vo_save_net(dir_.file("x.vo").c_str(), nullptr), 7);
    vo_release_net(&r.net);
}

TEST_F(ModelFile, EveryTruncationLoadsAPrefixOrIsRejected) {
    const std::string full = two_layers().bytes();
    const size_t layers_start = head().size();
    const size_t layer_size = (full.size() - layers_start) / 2;
    for (size_t cut = 0; cut < full.size(); ++cut) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        Loaded r = load_bytes(full.substr(0, cut));
        // A cut before the first layer's name ends, or inside a later layer's
        // name, ends the layer list there; any other cut is a broken file.
        bool at_layer_name = cut >= layers_start && (cut - layers_start) % layer_size < 32;
        if (at_layer_name) {
            EXPECT_EQ(r.status, 0);
            ASSERT_NE(r.net, nullptr);
            EXPECT_EQ(r.net->layerSize, (cut - layers_start) / layer_size);
        } else {
            EXPECT_EQ(r.status, 4);
            EXPECT_EQ(r.net, nullptr);
            EXPECT_FALSE(r.err.empty());
        }
        vo_release_net(&r.net);
    }
}

TEST_F(ModelFile, ChecksNameTheUnitOperationAndCondition) {
    expect_rejected(std::string(100, '\0'), "vnet/net: vo_load_net: check failed: ret == 128");
    expect_rejected(ModelBytes().header().bytes(), "vnet/net: vo_load_net: check failed: ret == 1");
    expect_rejected(ModelBytes().header().u8(1).name("data").i32(1).bytes(),
                    "vnet/net: vo_load_net: check failed: ret == 4");
    ModelBytes no_inputs = head();
    no_inputs.layer("l", kTestType, vo_test::test_scale_record(1.0f), {}, {"out"});
    expect_rejected(no_inputs.bytes(), "vnet/net: vo_load_net: check failed: layer->isize > 0");
    ModelBytes no_outputs = head();
    no_outputs.layer("l", kTestType, vo_test::test_scale_record(1.0f), {"data"}, {});
    expect_rejected(no_outputs.bytes(), "vnet/net: vo_load_net: check failed: layer->osize > 0");
}

TEST_F(ModelFile, AbsurdDimensionsAreRefusedBeforeAllocating) {
    expect_rejected(head(1, -3, 2, 2).bytes());
    expect_rejected(head(-1, -1, 2, 2).bytes());           // positive product of negatives
    expect_rejected(head(65536, 65536, 1, 1).bytes());     // wraps to 0 in 32 bits
    expect_rejected(head(1, 1024, 1024, 1024).bytes());    // 2^30: above what a file may ask for
    expect_rejected(head(2147483647, 2147483647, 2147483647, 2147483647).bytes());

    // A zero dimension is a valid file whose input is empty.
    Loaded r = load_bytes(head(1, 0, 2, 2).bytes());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.net, nullptr);
    EXPECT_EQ(r.out, "Net input empty\nReshape error\n");
}

TEST_F(ModelFile, NamesAndTypesThatCannotBeUsed) {
    // Names must end within their 32 bytes.
    ModelBytes long_name;
    long_name.header().u8(1).raw(std::string(32, 'x')).i32(1).i32(1).i32(1).i32(1).u8(0);
    expect_rejected(long_name.bytes(), "vnet/net: vo_load_net: check failed: has_nul(name)");
    ModelBytes long_output = head();
    long_output.raw(std::string(32, 'y'));
    long_output.layer("l", kTestType, vo_test::test_scale_record(1.0f), {"data"}, {"out"});
    Loaded r = load_bytes(long_output.bytes());
    EXPECT_EQ(r.status, 4);  // read as a layer name without NUL

    // Two inputs of one name could never both be fed.
    ModelBytes dup;
    dup.header().u8(2).input("data", 1, 1, 2, 2).input("data", 1, 1, 2, 2).u8(0);
    expect_rejected(dup.bytes(), "vnet/net: vo_load_net: check failed: registered == tensor");

    for (int32_t type : {0, 1, 19, -1, 1 << 30}) {
        ModelBytes m = head();
        m.layer("l", type, "", {"data"}, {"out"});
        Loaded t = load_bytes(m.bytes());
        EXPECT_EQ(t.status, 4);
        EXPECT_EQ(t.out, "Create net error: layer type " + std::to_string(type) + " error\n");
    }

    // A type that is not built is refused exactly like an unknown one.
    const vo::LayerOps* saved = vo::set_layer_ops_for_testing(LAYER_CONVOLUTION, nullptr);
    ModelBytes conv = head();
    conv.layer("c", LAYER_CONVOLUTION, std::string(64, '\0'), {"data"}, {"out"});
    Loaded c = load_bytes(conv.bytes());
    vo::set_layer_ops_for_testing(LAYER_CONVOLUTION, saved);
    EXPECT_EQ(c.status, 4);
    EXPECT_EQ(c.out, "Create net error: layer type 2 error\n");
}

TEST_F(ModelFile, FailedRecordReaderReleasesThePartialNet) {
    ModelBytes m = head();
    m.layer("ok", kTestType, vo_test::test_scale_record(1.0f), {"data"}, {"out"});
    m.name("short").i32(kTestType).f32(1.0f);  // record cut short
    expect_rejected(m.bytes(), "tests/scale: load_scale: check failed: ret == 1");
}

TEST_F(ModelFile, MissingFileAndArguments) {
    Net* net = reinterpret_cast<Net*>(0x1);
    EXPECT_EQ(vo_load_net(dir_.file("absent.vo").c_str(), &net), 4);
    EXPECT_EQ(net, reinterpret_cast<Net*>(0x1));
    EXPECT_EQ(load_layer(nullptr, nullptr), 4);
    EXPECT_EQ(load_layer(stdin, nullptr), 2);
    EXPECT_EQ(create_layer(1, "x"), nullptr);
}

}  // namespace
