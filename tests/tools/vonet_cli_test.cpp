// The vonet program, run as a user runs it: exit statuses, output and
// one-line error messages.
#include <gtest/gtest.h>
#include <vonet/vonet.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "run_tool.h"
#include "test_util.h"

namespace {

using namespace vo_test;

std::string last_line(const std::string& text) {
    std::vector<std::string> all = lines(text);
    return all.empty() ? std::string() : all.back();
}

std::string floats(const std::vector<float>& values) {
    ModelBytes b;
    for (float v : values) b.f32(v);
    return b.bytes();
}

// One input "data" that is also the only output, and no layers.
std::string identity_model(int32_t n, int32_t c, int32_t h, int32_t w) {
    return ModelBytes().header().u8(1).input("data", n, c, h, w).u8(1).name("data").bytes();
}

TEST(VonetCli, HelpDocumentsEveryCommandAndOption) {
    TempDir dir;
    Result r = vonet(dir, {"--help"});
    EXPECT_EQ(r.status, 0);
    for (const char* command : {"info", "run", "bench", "example-model"}) EXPECT_TRUE(contains(r.out, command));
    EXPECT_TRUE(contains(r.out, "Exit status"));

    const std::vector<std::pair<std::string, std::vector<std::string>>> options = {
        {"info", {"--shape"}},
        {"run", {"--shape", "--input", "--seed", "--dump"}},
        {"bench", {"--shape", "--runs", "--warmup", "--per-layer", "--input", "--seed"}},
        {"example-model", {"OUT"}}};
    for (const auto& [command, names] : options) {
        Result own = vonet(dir, {command, "--help"});
        Result viaHelp = vonet(dir, {"help", command});
        EXPECT_EQ(own.status, 0) << command;
        EXPECT_EQ(own.out, viaHelp.out) << command;
        EXPECT_TRUE(contains(own.out, "Usage: vonet " + command)) << own.out;
        for (const std::string& name : names) EXPECT_TRUE(contains(own.out, name)) << command << " " << name;
    }
    Result version = vonet(dir, {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, std::string("vonet ") + VONET_VERSION_STRING + "\n");
}

TEST(VonetCli, BadCommandLinesExitWithTwoAndOneLine) {
    TempDir dir;
    const std::string model = dir.file("m.vo");
    vo_test::write_file(model, identity_model(1, 1, 2, 2));
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "no command given"},
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"help", "frobnicate"}, "unknown command 'frobnicate'"},
        {{"info"}, "expected exactly one MODEL argument"},
        {{"info", model, model}, "expected exactly one MODEL argument"},
        {{"info", model, "--bogus"}, "unknown option '--bogus'"},
        {{"run", model, "--shape"}, "option '--shape' needs a value"},
        {{"bench", model, "--per-layer=1"}, "option '--per-layer' takes no value"},
        {{"run", model, "--shape", "1x3x24"}, "bad shape '1x3x24'"},
        {{"run", model, "--shape", "1x3x24x24x1"}, "bad shape '1x3x24x24x1'"},
        {{"run", model, "--shape=0x3x24x24"}, "bad shape '0x3x24x24'"},
        {{"run", model, "--shape", "1x-3x24x24"}, "bad shape '1x-3x24x24'"},
        {{"run", model, "--shape", "1x3x24x"}, "bad shape '1x3x24x'"},
        {{"run", model, "--shape", "1 x3x24x24"}, "bad shape '1 x3x24x24'"},
        {{"info", model, "--shape", "65536x65536x1x1"}, "more than 2147483647 elements"},
        {{"run", model, "--seed", "-1"}, "bad value '-1' for --seed"},
        {{"run", model, "--seed", "7", "--input", model}, "--input and --seed exclude each other"},
        {{"bench", model, "--runs", "0"}, "bad value '0' for --runs"},
        {{"bench", model, "--runs", "ten"}, "bad value 'ten' for --runs"},
        {{"bench", model, "--warmup", "99999999999999999999"}, "bad value '99999999999999999999' for --warmup"},
        {{"example-model"}, "expected exactly one OUT argument"},
    };
    for (const auto& [args, message] : cases) {
        Result r = vonet(dir, args);
        std::string joined;
        for (const std::string& a : args) joined += a + " ";
        EXPECT_EQ(r.status, 2) << joined;
        ASSERT_EQ(lines(r.err).size(), 1u) << joined << "\n" << r.err;
        EXPECT_TRUE(contains(r.err, message)) << joined << "\n" << r.err;
        EXPECT_TRUE(r.out.empty()) << joined;
    }
}

TEST(VonetCli, UnusableFilesExitWithOneAndSayWhy) {
    TempDir dir;
    const std::string model = dir.file("m.vo");
    vo_test::write_file(model, identity_model(1, 1, 2, 2));
    const std::string truncated = dir.file("truncated.vo");
    vo_test::write_file(truncated, identity_model(1, 1, 2, 2).substr(0, 300));
    const std::string unknownType = dir.file("type1.vo");
    vo_test::write_file(unknownType, ModelBytes()
                                         .header()
                                         .u8(1)
                                         .input("data", 1, 1, 2, 2)
                                         .u8(1)
                                         .name("out")
                                         .layer("odd", 1, "", {"data"}, {"out"})
                                         .bytes());
    const std::string twoInputs = dir.file("two.vo");
    vo_test::write_file(twoInputs,
                        ModelBytes().header().u8(2).input("a", 1, 1, 2, 2).input("b", 1, 1, 2, 2).u8(0).bytes());
    const std::string shortInput = dir.file("short.bin");
    vo_test::write_file(shortInput, floats({1, 2, 3}));

    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{"info", dir.file("missing.vo")}, "cannot open model '" + dir.file("missing.vo") + "': No such file"},
        {{"run", dir.path()}, "cannot read model '" + dir.path() + "': it is a directory"},
        {{"info", truncated}, "cannot load model '" + truncated + "' (status 4: "},
        {{"bench", unknownType}, "(status 4: the file is unusable or uses a layer type that is not built)"},
        {{"run", twoInputs}, "the model has 2 inputs; only a model with exactly one input can be fed"},
        {{"run", model, "--input", dir.file("none.bin")}, "cannot open input"},
        {{"run", model, "--input", shortInput}, "has 12 bytes; the input shape needs 16 (raw little-endian float32)"},
        {{"bench", model, "--shape", "1x1x3x3", "--input", shortInput}, "has 12 bytes; the input shape needs 36"},
        {{"example-model", dir.file("no/such/dir/out.vo")}, "cannot create"},
    };
    for (const Case& c : cases) {
        Result r = vonet(dir, c.args);
        EXPECT_EQ(r.status, 1) << c.args[1];
        // The library may report its failed check first; the program's own
        // message is the last line.
        const std::string err = last_line(r.err);
        EXPECT_EQ(err.rfind("vonet " + c.args[0] + ": ", 0), 0u) << err;
        EXPECT_TRUE(contains(err, c.message)) << err;
    }
    // A model with two inputs can still be described.
    Result info = vonet(dir, {"info", twoInputs});
    EXPECT_EQ(info.status, 0) << info.err;
    EXPECT_TRUE(contains(info.out, "inputs: 2\n  a  1x1x2x2\n  b  1x1x2x2\n")) << info.out;
}

TEST(VonetCli, ModelWithoutLayersRunsOnTheGivenInput) {
    TempDir dir;
    const std::string model = dir.file("m.vo");
    vo_test::write_file(model, identity_model(1, 2, 1, 5));
    const std::string input = dir.file("in.bin");
    vo_test::write_file(input, floats({3, -1.5f, 0, 8, 2, 1, 1, 1, 1, -4}));

    Result info = vonet(dir, {"info", model});
    EXPECT_EQ(info.status, 0) << info.err;
    EXPECT_EQ(info.out, "model: " + model +
                            "\ninputs: 1\n  data  1x2x1x5\noutputs: 1\n  data  1x2x1x5\nlayers: 0\n"
                            "total: 0 parameters (0), 0 multiply-adds (0)\n");

    Result run = vonet(dir, {"run", model, "--input", input, "--dump", dir.file("dumps")});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "input data  1x2x1x5  (from " + input +
                           ")\n"
                           "output data  1x2x1x5\n"
                           "  min -4  max 8  mean 1.15\n"
                           "  first: 3 -1.5 0 8 2 1 1 1 ...\n"
                           "wrote " + dir.file("dumps/data.txt") + "\n");
    EXPECT_EQ(vo_test::read_file(dir.file("dumps/data.txt")),
              "1 2 1 5\n3.0000 -1.5000 0.0000 8.0000 2.0000 \n\n1.0000 1.0000 1.0000 1.0000 -4.0000 \n\n");

    // Pseudo-random input: the same seed gives the same values, the values
    // lie in [-1, 1), and a batch of two follows --shape.
    Result a = vonet(dir, {"run", model, "--shape", "2x2x1x5", "--seed", "9"});
    Result b = vonet(dir, {"run", model, "--shape", "2x2x1x5", "--seed", "9"});
    Result c = vonet(dir, {"run", model, "--shape", "2x2x1x5"});
    EXPECT_EQ(a.status, 0) << a.err;
    EXPECT_EQ(a.out, b.out);
    EXPECT_NE(a.out.substr(a.out.find('\n')), c.out.substr(c.out.find('\n')));
    EXPECT_TRUE(contains(a.out, "output data  2x2x1x5\n")) << a.out;
    double min = 0, max = 0;
    ASSERT_EQ(sscanf(a.out.substr(a.out.find("  min")).c_str(), "  min %lf  max %lf", &min, &max), 2);
    EXPECT_GE(min, -1.0);
    EXPECT_LT(max, 1.0);
    EXPECT_LT(min, max);

    Result bench = vonet(dir, {"bench", model, "--runs", "3", "--warmup", "0", "--per-layer"});
    EXPECT_EQ(bench.status, 0) << bench.err;
    EXPECT_TRUE(contains(bench.out, "vo_forward_net, 3 passes after 0 warm-up: median ")) << bench.out;
}

TEST(VonetCli, ExampleModelInfoRunAndBench) {
    TempDir dir;
    const std::string model = dir.file("tiny.vo");
    Result written = vonet(dir, {"example-model", model});
    ASSERT_EQ(written.status, 0) << written.err;

    // The layers save the file back byte for byte: every record has the layout its reader expects.
    Net* net = nullptr;
    ASSERT_EQ(vo_load_net(model.c_str(), &net), 0);
    ASSERT_EQ(vo_save_net(dir.file("saved.vo").c_str(), net), 0);
    vo_release_net(&net);
    EXPECT_EQ(vo_test::read_file(dir.file("saved.vo")), vo_test::read_file(model));

    Result info = vonet(dir, {"info", model});
    EXPECT_EQ(info.status, 0) << info.err;
    const std::vector<std::string> rows = lines(info.out);
    ASSERT_EQ(rows.size(), 16u) << info.out;
    EXPECT_EQ(rows[2], "  data  1x3x24x24");
    EXPECT_EQ(rows[4], "  prob  1x2x1x1");
    EXPECT_EQ(rows[5], "layers: 8");
    // name, type, output shape, parameters, multiply-adds of each layer.
    const std::vector<std::vector<std::string>> expected = {
        {"conv1", "convolution", "1x8x24x24", "224", "124416"}, {"relu1", "relu", "1x8x24x24", "0", "0"},
        {"pool1", "pooling", "1x8x12x12", "0", "0"},          {"conv2", "convolution", "1x16x10x10", "1168", "115200"},
        {"prelu2", "prelu", "1x16x10x10", "16", "0"},         {"pool2", "pooling", "1x16x5x5", "0", "0"},
        {"fc", "inner_product", "1x2x1x1", "802", "800"},     {"prob", "softmax", "1x2x1x1", "0", "0"}};
    for (size_t i = 0; i < expected.size(); ++i) {
        std::istringstream row(rows[7 + i]);
        std::string index;
        std::vector<std::string> fields(5);
        row >> index >> fields[0] >> fields[1] >> fields[2] >> fields[3] >> fields[4];
        EXPECT_EQ(index, std::to_string(i));
        EXPECT_EQ(fields, expected[i]) << rows[7 + i];
    }
    EXPECT_TRUE(contains(rows[7], "Convolution, kern: 8 3 3 3, stride: 1 1, pad: 1 1, bias: 1")) << rows[7];
    EXPECT_TRUE(contains(rows[7], " direct-3x3s1 ")) << rows[7];  // the path chosen for the layer
    EXPECT_EQ(rows[15], "total: 2210 parameters (2.2 K), 240416 multiply-adds (240.4 K)");

    // A larger input changes the convolution shapes, and the inner product cannot take it.
    Result bigger = vonet(dir, {"info", model, "--shape", "1x3x48x48"});
    EXPECT_EQ(bigger.status, 1);
    EXPECT_TRUE(contains(last_line(bigger.err), "vonet info: the net cannot be reshaped for input 1x3x48x48 (status 5"))
        << bigger.err;

    Result run = vonet(dir, {"run", model, "--shape", "3x3x24x24", "--dump", dir.file("out")});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(contains(run.out, "output prob  3x2x1x1\n")) << run.out;
    float p[6];
    ASSERT_EQ(sscanf(run.out.substr(run.out.find("first:")).c_str(), "first: %f %f %f %f %f %f", &p[0], &p[1], &p[2],
                     &p[3], &p[4], &p[5]),
              6);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(p[2 * i] + p[2 * i + 1], 1.0f, 1e-5f);
    EXPECT_EQ(lines(vo_test::read_file(dir.file("out/prob.txt")))[0], "3 2 1 1");

    Result bench = vonet(dir, {"bench", model, "--runs", "4", "--warmup", "1", "--per-layer"});
    EXPECT_EQ(bench.status, 0) << bench.err;
    const std::vector<std::string> out = lines(bench.out);
    ASSERT_EQ(out.size(), 14u) << bench.out;
    EXPECT_EQ(out[1], "input: data  1x3x24x24, 8 layers");
    EXPECT_TRUE(contains(out[2], "vo_forward_net, 4 passes after 1 warm-up: median ")) << out[2];
    EXPECT_EQ(out[3], "per layer, 4 passes:");
    double shares = 0;
    for (size_t i = 0; i < 8; ++i) {
        std::istringstream row(out[5 + i]);
        std::string index, name, type, ms, share;
        row >> index >> name >> type >> ms >> share;
        EXPECT_EQ(name, expected[i][0]);
        shares += std::stod(share);
    }
    EXPECT_NEAR(shares, 100.0, 0.5);
    EXPECT_TRUE(contains(out[13], "all layers")) << out[13];
}

// Every instruction-set path gives the same outputs; a path that is unknown
// (or that the CPU lacks) is refused with a notice and the best one runs.
TEST(VonetCli, InstructionSetOverrideKeepsTheResults) {
    TempDir dir;
    const std::string model = dir.file("tiny.vo");
    ASSERT_EQ(vonet(dir, {"example-model", model}).status, 0);
    const std::vector<std::string> run = {"run", model, "--shape", "2x3x24x24", "--seed", "3", "--dump"};
    auto run_with = [&](const char* isa) {
        if (isa) setenv("VONET_ISA", isa, 1);
        std::vector<std::string> args = run;
        args.push_back(dir.file(std::string("dump-") + (isa ? isa : "default")));
        Result r = vonet(dir, args);
        unsetenv("VONET_ISA");
        EXPECT_EQ(r.status, 0) << r.err;
        return std::make_pair(r, vo_test::read_file(args.back() + "/prob.txt"));
    };
    const auto [best, bestDump] = run_with(nullptr);
    EXPECT_EQ(best.err, "");
    for (const char* isa : {"reference", "avx2", "avx512", "avx512vnni", "sse9"}) {
        const auto [r, dump] = run_with(isa);
        EXPECT_EQ(dump, bestDump) << isa;
        const bool refused = contains(r.err, std::string("vonet: VONET_ISA=") + isa + " is not available on this CPU; using ");
        if (std::string(isa) == "sse9") {
            EXPECT_TRUE(refused) << r.err;
        } else if (!refused) {
            EXPECT_EQ(r.err, "") << isa;
        }
    }
}

TEST(VonetCli, InfoCountsDeconvolutionAndNormalisationLayers) {
    TempDir dir;
    const std::string model = dir.file("m.vo");
    ModelBytes deconv;
    deconv.i32(3).i32(2).i32(2).i32(2).i32(2).i32(2).i32(0).i32(0).u8(1);  // 2 -> 3 channels, 2x2, stride 2
    for (int i = 0; i < 2 * 3 * 2 * 2 + 3; ++i) deconv.f32(0.5f);
    ModelBytes bn;
    bn.i32(3);
    for (int i = 0; i < 6; ++i) bn.f32(1.0f);
    const std::string norm = ModelBytes().u8(0).u8(0).i32(1).f32(2.0f).bytes();
    vo_test::write_file(model, ModelBytes()
                                   .header()
                                   .u8(1)
                                   .input("data", 1, 2, 4, 4)
                                   .u8(1)
                                   .name("n")
                                   .layer("up", LAYER_DECONVOLUTION, deconv.bytes(), {"data"}, {"up"})
                                   .layer("bn", LAYER_BATCHNORM, bn.bytes(), {"up"}, {"up"})
                                   .layer("n", LAYER_NORMALIZE, norm, {"up"}, {"n"})
                                   .bytes());
    Result info = vonet(dir, {"info", model});
    EXPECT_EQ(info.status, 0) << info.err;
    // deconvolution: 24 weights + 3 biases, 32 input values x 12 products; batch norm: 3 scales + 3 biases, one
    // per output value; normalize: 1 scale, one per value.
    EXPECT_TRUE(contains(info.out, "total: 34 parameters (34), 768 multiply-adds (768)\n")) << info.out;
}

}  // namespace
