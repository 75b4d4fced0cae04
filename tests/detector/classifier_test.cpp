#include <gtest/gtest.h>
#include <vonet/vonet.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "test_util.h"

namespace {

using vo_test::Head;
using vo_test::head_net;
using vo_test::Printed;
using vo_test::printed_by;
using vo_test::same_record;
using vo_test::write_classifier;

ObjectInfof sentinel() { return ObjectInfof{1.5f, 2.5f, 3.5f, 4.5f, -1.0f, 99, 7.0f}; }

// Loads dir/name; fails the test when it does not load.
Classifier* load(const std::string& dir, const std::string& name) {
    Classifier* c = nullptr;
    EXPECT_EQ(printed_by([&] { return load_classifier(dir.c_str(), name.c_str(), &c); }).status, 0);
    return c;
}

TEST(LoadClassifier, FilesPresentAndMissing) {
    vo_test::TempDir dir;
    Classifier* c = create_classifier();
    Classifier* const before = c;
    EXPECT_EQ(load_classifier(nullptr, "stage", &c), 7);
    EXPECT_EQ(c, before);
    release_classifier(&c);
    auto loadStage = [&] { return printed_by([&] { return load_classifier(dir.path().c_str(), "stage", &c); }); };

    // No parameter file: the message names the path, nothing is handed out.
    EXPECT_EQ(loadStage(), (Printed{4, "Can't open file " + dir.file("stage_params.dat") + "\n", ""}));
    EXPECT_EQ(c, nullptr);

    // Parameters (file order: classSize, width, height, channel) without a
    // model: 4, silently, with the record handed out and safe to release.
    write_classifier(dir.path(), "stage", 2, 3, 1, 1, "");
    EXPECT_EQ(loadStage(), (Printed{4, "", ""}));
    ASSERT_NE(c, nullptr);
    EXPECT_TRUE(c->net == nullptr && c->classSize == 2 && c->width == 3 && c->height == 1 && c->channel == 1);
    release_classifier(&c);
    EXPECT_EQ(c, nullptr);
    release_classifier(&c);

    // A model that does not load: the base name was printed already.
    vo_test::write_file(dir.file("stage.dat"), "not a model");
    const Printed broken = loadStage();
    EXPECT_EQ(broken.status, 4);
    EXPECT_EQ(broken.out.rfind("stage\n", 0), 0u);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->net, nullptr);
    release_classifier(&c);

    // Both files: the base name is printed as the model loads.
    write_classifier(dir.path(), "stage", 2, 3, 1, 1, head_net(3, 1, 1, Head{{0.0f, 0.0f}, {0, 1}}));
    EXPECT_EQ(loadStage(), (Printed{0, "stage\n", ""}));
    ASSERT_NE(c, nullptr);
    EXPECT_NE(c->net, nullptr);
    release_classifier(&c);
}

TEST(LoadClassifier, RefusesUnusableParameterFiles) {
    vo_test::TempDir dir;
    const std::string prefix = "detector: load_classifier: check failed: ";
    struct Case {
        std::string bytes;
        std::string check;
    };
    const std::string full = vo_test::params_bytes(2, 24, 24, 1);
    const std::string width = "classifier->width >= 1 && classifier->width <= kMaxSide";
    const std::string classes = "classifier->classSize >= 1 && classifier->classSize <= kMaxClasses";
    const std::vector<Case> cases = {
        {full.substr(0, 15), "ret == 1"},
        {"", "ret == 1"},
        {vo_test::params_bytes(2, 24, 24, 2), "classifier->channel == 1 || classifier->channel == 3"},
        {vo_test::params_bytes(2, 0, 24, 1), width},
        {vo_test::params_bytes(2, 4097, 24, 1), width},
        {vo_test::params_bytes(2, 24, -1, 1), "classifier->height >= 1 && classifier->height <= kMaxSide"},
        {vo_test::params_bytes(0, 24, 24, 1), classes},
        {vo_test::params_bytes(257, 24, 24, 1), classes},
    };
    for (const Case& k : cases) {
        vo_test::write_file(dir.file("stage_params.dat"), k.bytes);
        Classifier* c = nullptr;
        EXPECT_EQ(printed_by([&] { return load_classifier(dir.path().c_str(), "stage", &c); }),
                  (Printed{4, "", prefix + k.check + "\n"}));
        EXPECT_EQ(c, nullptr);
    }
    Classifier* c = nullptr;
    // A path that would not fit its 256-byte buffer is refused, not cut.
    const std::string longName(250, 'n');
    EXPECT_EQ(printed_by([&] { return load_classifier(dir.path().c_str(), longName.c_str(), &c); }),
              (Printed{4, "", prefix + "pathFits\n"}));
    EXPECT_EQ(c, nullptr);
    EXPECT_EQ(load_net(dir.path().c_str(), longName.c_str()), nullptr);
    EXPECT_EQ(load_net(dir.path().c_str(), "absent"), nullptr);
}

// A layer that passes the patch through (scaled by 1) counts its forward
// passes and reshapes, so the batching is visible.
class Batching : public testing::Test {
protected:
    vo_test::TestLayerType type_{LAYER_PIECE};
};

TEST_F(Batching, ScoresInBatchesOf128AndTakesTheFirstMaximum) {
    vo_test::TempDir dir;
    vo_test::ModelBytes m;
    m.header().u8(1).input("data", 1, 1, 1, 3).u8(1).name("prob");
    m.layer("pass", LAYER_PIECE, vo_test::test_scale_record(1.0f), {"data"}, {"prob"});
    write_classifier(dir.path(), "stage", 3, 3, 1, 1, m.bytes());

    std::mt19937 rng(7);
    const float values[] = {0.2f, 0.3f, 0.5f, -1.0f};
    const int counts[] = {1, 128, 129, 300};
    const int forwards[] = {1, 1, 2, 3};
    const int reshapes[] = {0, 1, 2, 2};  // after the load; batch sizes 1; 128; 128+1; 128+128+44
    for (int t = 0; t < 4; ++t) {
        Classifier* c = load(dir.path(), "stage");
        ASSERT_NE(c, nullptr);
        auto* layer = static_cast<vo_test::TestScale*>(c->net->layers[0]->params);
        const int reshapesAtLoad = layer->reshapes;
        const int num = counts[t];
        std::vector<float> patches(size_t(num) * 3);
        for (float& v : patches) v = values[rng() % 4];
        if (num > 1) {
            const float ties[6] = {0.3f, 0.3f, 0.1f, 0.2f, 0.5f, 0.5f};
            std::copy(ties, ties + 6, patches.begin());
        }
        std::vector<ObjectInfof> objs(size_t(num), sentinel());
        EXPECT_EQ(predict_patches(c, patches.data(), objs.data(), num), 0);
        EXPECT_EQ(layer->forwards, forwards[t]);
        EXPECT_EQ(layer->reshapes - reshapesAtLoad, reshapes[t]);
        for (int i = 0; i < num; ++i) {  // the first maximum wins; only conf and label change
            const float* s = &patches[size_t(i) * 3];
            const int label = s[1] > s[0] ? (s[2] > s[1] ? 2 : 1) : (s[2] > s[0] ? 2 : 0);
            ObjectInfof expected = sentinel();
            expected.conf = s[label];
            expected.label = uint8_t(label);
            ASSERT_TRUE(same_record(objs[i], expected)) << "patch " << i << " of " << num;
        }
        EXPECT_TRUE(num == 1 || (objs[0].label == 0 && objs[0].conf == 0.3f && objs[1].label == 1));
        release_classifier(&c);
    }
}

TEST(PredictPatches, StatusesAndChecksLeaveRecordsUntouched) {
    vo_test::TempDir dir;
    // The network emits 3 scores per patch; the parameter file claims 2.
    write_classifier(dir.path(), "wrong", 2, 3, 1, 1, head_net(3, 1, 1, Head{{0, 0, 0}, {0, 1, 2}}));
    // One output only: cannot regress.
    write_classifier(dir.path(), "plain", 2, 2, 1, 1, head_net(2, 1, 1, Head{{0, 0}, {0, 1}}));
    // "fc1b" with 3 values per patch, and with the 4 of the worked example.
    const Head shortBox{{1, 2, 3}, {}}, box{{2.0f, -3.0f, 40.0f, 44.0f}, {}};
    write_classifier(dir.path(), "short", 2, 2, 1, 1, head_net(2, 1, 1, Head{{0, 0}, {0, 1}}, &shortBox));
    write_classifier(dir.path(), "reg", 2, 2, 1, 1, head_net(2, 1, 1, Head{{0, 0}, {1, 0}}, &box));

    float patches[6] = {1, 2, 3, 4, 5, 6};
    std::vector<ObjectInfof> objs(2, sentinel());
    const std::vector<ObjectInfof> untouched = objs;

    Classifier* wrong = load(dir.path(), "wrong");
    Classifier* plain = load(dir.path(), "plain");
    Classifier* shortReg = load(dir.path(), "short");
    ASSERT_TRUE(wrong && plain && shortReg);

    EXPECT_EQ(printed_by([&] { return predict_patches(wrong, patches, objs.data(), 2); }),
              (Printed{7, "", "detector: predict_patches: check failed: output->capacity == num * classSize\n"}));
    EXPECT_EQ(printed_by([&] { return predict_regress_patches(plain, patches, objs.data(), 2); }),
              (Printed{7, "", "detector: predict_regress_patches: check failed: classifier->net->outputSize == 2\n"}));
    EXPECT_EQ(printed_by([&] { return predict_regress_patches(shortReg, patches, objs.data(), 2); }),
              (Printed{7, "", "detector: predict_regress_patches: check failed: output->capacity == num * 4\n"}));

    // Missing arguments: 7; no patches to score: 0.
    Classifier bare{};
    EXPECT_EQ(predict_patches(static_cast<Classifier*>(nullptr), patches, objs.data(), 2), 7);
    EXPECT_EQ(predict_patches(&bare, patches, objs.data(), 2), 7);
    EXPECT_EQ(predict_patches(plain, nullptr, objs.data(), 2), 7);
    EXPECT_EQ(predict_regress_patches(&bare, patches, objs.data(), 2), 7);
    EXPECT_EQ(predict_patches(plain, patches, objs.data(), 0), 0);
    EXPECT_EQ(predict_patches(plain, patches, objs.data(), -3), 0);
    EXPECT_TRUE(same_record(objs[0], untouched[0]) && same_record(objs[1], untouched[1]));

    // Regression: offsets move the corner, the size is replaced.
    Classifier* reg = load(dir.path(), "reg");
    ASSERT_NE(reg, nullptr);
    ObjectInfof obj{10.0f, 20.0f, 36.0f, 36.0f, 0.0f, 0, 0.25f};
    EXPECT_EQ(predict_regress_patches(reg, patches, &obj, 1), 0);
    EXPECT_TRUE(same_record(obj, ObjectInfof{12.0f, 17.0f, 40.0f, 44.0f, 2.0f, 0, 0.25f}));
    release_classifier(&wrong);
    release_classifier(&plain);
    release_classifier(&shortReg);
    release_classifier(&reg);
}

// A 48 x 48 classifier whose label is 1 when the patch centre is above 50
// (conf = that pixel) and whose regression is (0, 0, 48, 48): the refined
// box is the fitted patch frame brought back to the image.
TEST(ClassifyBoxes, FitsTheGrownBoxAndScalesBack) {
    vo_test::TempDir dir;
    const Head box{{0.0f, 0.0f, 48.0f, 48.0f}, {}};
    write_classifier(dir.path(), "grey", 2, 48, 48, 1,
                     head_net(48, 48, 1, Head{{50.0f, 0.0f}, {-1, 24 * 48 + 24}}, &box));
    Classifier* c = load(dir.path(), "grey");
    ASSERT_NE(c, nullptr);
    const int w = 200, h = 150;
    std::vector<uint8_t> image(size_t(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) image[size_t(y) * w + x] = uint8_t((x + y) % 256);

    // 100 x 50 at (10, 20): margins 10 and 5, grown 120 x 60, centre
    // (60, 45); the width governs: s = 48 / 120 = 0.4, back-scale 2.5.
    // 50 x 100 at (30, 10): the height governs with the same factors.
    ObjectInfof objs[2] = {{10.0f, 20.0f, 100.0f, 50.0f, 0.0f, 0, 3.0f}, {30.0f, 10.0f, 50.0f, 100.0f, 0.0f, 0, 3.0f}};
    EXPECT_EQ(classify(c, image.data(), w, h, w, objs, 2), 0);
    // The patch centre samples the box centre: conf = x + y there. The
    // second box has margins 5 and 10, grown 60 x 120, centre (55, 60).
    const float s = 48.0f / 120.0f;
    EXPECT_TRUE(same_record(objs[0], ObjectInfof{std::fma(s, 60.0f, -24.0f) * 2.5f, std::fma(s, 45.0f, -24.0f) * 2.5f,
                                                 120.0f, 120.0f, 105.0f, 1, 3.0f}));
    EXPECT_TRUE(same_record(objs[1], ObjectInfof{std::fma(s, 55.0f, -24.0f) * 2.5f, std::fma(s, 60.0f, -24.0f) * 2.5f,
                                                 120.0f, 120.0f, 115.0f, 1, 3.0f}));

    // Missing arguments and empty lists.
    Classifier bare{};
    EXPECT_EQ(classify(static_cast<Classifier*>(nullptr), image.data(), w, h, w, objs, 2), 7);
    EXPECT_EQ(classify(&bare, image.data(), w, h, w, objs, 2), 7);
    EXPECT_EQ(classify(c, nullptr, w, h, w, objs, 2), 7);
    EXPECT_EQ(classify(c, image.data(), w, h, w, nullptr, 2), 7);
    const ObjectInfof kept = objs[0];
    EXPECT_EQ(classify(c, image.data(), w, h, w, objs, 0), 0);
    EXPECT_EQ(classify(c, image.data(), w, h, w, objs, -2), 0);
    EXPECT_TRUE(same_record(objs[0], kept));
    release_classifier(&c);
}

TEST(ClassifyBoxes, ColourPatchesArePlanar) {
    vo_test::TempDir dir;
    // Scores: bias 0 and the centre of plane 2 (the third byte of a pixel).
    const Head box{{0.0f, 0.0f, 8.0f, 8.0f}, {}};
    write_classifier(dir.path(), "colour", 2, 8, 8, 3,
                     head_net(8, 8, 3, Head{{0.0f, 0.0f}, {-1, 2 * 64 + 4 * 8 + 4}}, &box));
    Classifier* c = load(dir.path(), "colour");
    ASSERT_NE(c, nullptr);
    const int w = 40, h = 40;
    std::vector<uint8_t> image(size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t* p = &image[(size_t(y) * w + x) * 3];
            p[0] = uint8_t(x);
            p[1] = uint8_t(y);
            p[2] = uint8_t(x + 2 * y);
        }
    // 10 x 10 at (12, 11): margin 1, grown 12 x 12, centre (17, 16).
    ObjectInfof obj{12.0f, 11.0f, 10.0f, 10.0f, 0.0f, 0, 1.0f};
    EXPECT_EQ(classify(c, image.data(), w, h, 3 * w, &obj, 1), 0);
    EXPECT_TRUE(obj.label == 1 && obj.conf == float(17 + 2 * 16) && obj.width == 12.0f);
    release_classifier(&c);
}

}  // namespace
