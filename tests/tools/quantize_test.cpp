// vonet quantize, run as a user runs it: the written model is the library's
// own conversion byte for byte, the per-layer and per-output report, and
// one-line errors with exit statuses 1 and 2.
#include <gtest/gtest.h>
#include <vonet/vonet.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "run_tool.h"
#include "test_util.h"

namespace {

using namespace vo_test;

const std::string kDet2 = std::string(VONET_TEST_DATA_DIR) + "/mtcnn/det2.vo";
const std::string kDet2Input = std::string(VONET_TEST_DATA_DIR) + "/mtcnn/det2_b1.in.data.f32";

// What the library writes after net_quantize_conv on the raw float input.
std::string library_conversion(const TempDir& dir, const std::string& model, const std::string& input, int n, int c,
                               int h, int w) {
    Net* net = nullptr;
    EXPECT_EQ(vo_load_net(model.c_str(), &net), 0);
    if (!net) return {};
    Tensor* t = create_tensor(n, c, h, w);
    const std::string bytes = read_file(input);
    memcpy(t->data, bytes.data(), bytes.size());
    EXPECT_EQ(net_quantize_conv(net, t), 0);
    release_tensor(&t);
    EXPECT_EQ(vo_save_net(dir.file("library.vo").c_str(), net), 0);
    vo_release_net(&net);
    return read_file(dir.file("library.vo"));
}

TEST(VonetQuantize, WritesTheLibrarysConversionAndReportsIt) {
    TempDir dir;
    const std::string out = dir.file("det2_int8.vo");
    Result r = vonet(dir, {"quantize", kDet2, "-o", out, "--calib", kDet2Input});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(read_file(out) == library_conversion(dir, kDet2, kDet2Input, 1, 3, 24, 24));
    EXPECT_TRUE(contains(r.out, "calibration: 1x3x24x24  (from " + kDet2Input + ")")) << r.out;
    EXPECT_TRUE(contains(r.out, "layers: 6 of 6 convolution and inner product layers in int8")) << r.out;
    // A row per layer with its scales: conv1 has one scale per channel, the
    // inner product one for its matrix.
    int int8Rows = 0;
    for (const std::string& line : lines(r.out)) {
        if (line.rfind("  ", 0) == 0 && (contains(line, " convolution ") || contains(line, " inner_product "))) {
            EXPECT_TRUE(contains(line, " int8 ")) << line;
            int8Rows += 1;
        }
        if (contains(line, " conv1 ")) {
            EXPECT_TRUE(contains(line, " .. ")) << line;
        }
    }
    EXPECT_EQ(int8Rows, 6);
    EXPECT_TRUE(contains(r.out, "wrote " + out));
    EXPECT_TRUE(contains(r.out, "check: 1x3x24x24  (pseudo-random in [-1, 1), seed 2), float against int8"));
    for (const char* name : {"prob1", "conv5-2"})
        EXPECT_TRUE(contains(r.out, std::string("  output ") + name + "  ")) << name;
    // The converted model shows its int8 layers.
    Result info = vonet(dir, {"info", out});
    ASSERT_EQ(info.status, 0) << info.err;
    int infoRows = 0;
    for (const std::string& line : lines(info.out)) {
        if (contains(line, " conv1 ") || contains(line, " conv4 ")) {
            EXPECT_TRUE(contains(line, " int8 ")) << line;
            ++infoRows;
        }
    }
    EXPECT_EQ(infoRows, 2);
}

TEST(VonetQuantize, RandomCalibrationAndLayersThatStayFloat) {
    TempDir dir;
    // A 1x1 convolution stays float; a zero calibration input leaves the
    // first 3x3 layer float too, and the check input comes from a file.
    const std::string model = dir.file("m.vo");
    write_file(
        model,
        head(1, 1, 4, 4)
            .layer("c1", LAYER_CONVOLUTION,
                   conv_record(2, 1, 3, 3, 1, 1, 1, 1, std::vector<float>(18, 0.5f), {1, 2}), {"data"}, {"a"})
            .layer("c2", LAYER_CONVOLUTION, conv_record(1, 2, 1, 1, 1, 1, 0, 0, {1, -1}, {}), {"a"}, {"out"})
            .bytes());
    Result a = vonet(dir, {"quantize", model, "-o", dir.file("a.vo"), "--calib-random", "7"});
    Result b = vonet(dir, {"quantize", model, "--output", dir.file("b.vo"), "--calib-random=7"});
    ASSERT_EQ(a.status, 0) << a.err;
    ASSERT_EQ(b.status, 0) << b.err;
    EXPECT_TRUE(read_file(dir.file("a.vo")) == read_file(dir.file("b.vo")));
    EXPECT_TRUE(contains(a.out, "seed 7)")) << a.out;
    EXPECT_TRUE(contains(a.out, "seed 8), float against int8")) << a.out;
    EXPECT_TRUE(contains(a.out, "layers: 1 of 2")) << a.out;
    EXPECT_TRUE(contains(a.out, "1x1 kernel")) << a.out;

    write_file(dir.file("zeros.f32"), std::string(16 * 4, '\0'));
    write_file(dir.file("check.f32"), ModelBytes().floats(std::vector<float>(16, 0.25f)).bytes());
    Result z = vonet(dir, {"quantize", model, "-o", dir.file("z.vo"), "--calib", dir.file("zeros.f32"), "--check",
                           dir.file("check.f32")});
    ASSERT_EQ(z.status, 0) << z.err;
    EXPECT_TRUE(contains(z.out, "layers: 0 of 2")) << z.out;
    EXPECT_TRUE(contains(z.out, "99.9th-percentile input magnitude is 0")) << z.out;
    EXPECT_TRUE(contains(z.out, "(from " + dir.file("check.f32") + "), float against int8")) << z.out;
    EXPECT_TRUE(contains(z.out, "max abs diff 0  cosine 1.000000")) << z.out;
}

TEST(VonetQuantize, ErrorsAreOneLineWithTheirExitStatus) {
    TempDir dir;
    const std::string out = dir.file("out.vo");
    write_file(dir.file("short.f32"), std::string(12, '\0'));
    const std::vector<std::pair<std::vector<std::string>, int>> cases = {
        {{"quantize", kDet2}, 2},
        {{"quantize", "-o", out}, 2},
        {{"quantize", kDet2, "-o", out, "--output", out}, 2},
        {{"quantize", kDet2, "-o", out, "--calib", kDet2Input, "--calib-random", "3"}, 2},
        {{"quantize", kDet2, "-o", out, "--calib-random", "-3"}, 2},
        {{"quantize", kDet2, "-o", out, "--shape", "1x3x24"}, 2},
        {{"quantize", kDet2, "-o", out, "--bogus"}, 2},
        {{"quantize", dir.file("missing.vo"), "-o", out}, 1},
        {{"quantize", kDet2, "-o", out, "--calib", dir.file("short.f32")}, 1},
        {{"quantize", kDet2, "-o", out, "--check", dir.file("short.f32")}, 1},
        {{"quantize", kDet2, "-o", dir.file("no/such/dir/out.vo")}, 1},
        // det2 ends in inner products: a larger image cannot be fed.
        {{"quantize", kDet2, "-o", out, "--shape", "1x3x48x48"}, 1},
    };
    for (const auto& [args, status] : cases) {
        Result r = vonet(dir, args);
        std::string all;
        for (const std::string& a : args) all += a + " ";
        EXPECT_EQ(r.status, status) << all << r.err;
        // The library may report its failed check first; the program's own
        // message is the last line, and a bad command line gives only that.
        const std::vector<std::string> err = lines(r.err);
        ASSERT_FALSE(err.empty()) << all;
        EXPECT_EQ(err.back().rfind("vonet quantize: ", 0), 0u) << all << r.err;
        if (status == 2) {
            EXPECT_EQ(err.size(), 1u) << all << r.err;
            EXPECT_EQ(r.out, "") << all;
        }
    }
    EXPECT_FALSE(std::ifstream(out).good());
    Result help = vonet(dir, {"quantize", "--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* option : {"-o, --output", "--calib", "--calib-random", "--shape", "--check"})
        EXPECT_TRUE(contains(help.out, option)) << option;
    EXPECT_TRUE(contains(vonet(dir, {"--help"}).out, "quantize"));
}

}  // namespace
