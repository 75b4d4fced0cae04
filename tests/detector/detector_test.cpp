#include <gtest/gtest.h>
#include <vonet/vonet.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "detector/detector_internal.h"
#include "test_util.h"

namespace {

using namespace vo_test;

// A detector record with the defaults and a 24 x 24 window, no cascade.
VoDetector window24() {
    VoDetector* d = create_detector();
    VoDetector copy = *d;
    release_detector(&d);
    copy.width = copy.height = 24;
    return copy;
}

TEST(DetectorParams, DefaultsAndSetDetectParams) {
    VoDetector d = window24();
    uint32_t minBits;
    memcpy(&minBits, &d.minSizeRatio, 4);
    EXPECT_EQ(minBits, 0x3CF5C28Fu);
    EXPECT_TRUE(d.cascade == nullptr && d.maxSizeRatio == 0.3f && d.strideRatio == 0.3f && d.levels == 4);
    set_detect_params(&d, 0.5f, 0.1f, 0.2f, 6);  // the two ratios are put in order
    EXPECT_TRUE(d.minSizeRatio == 0.1f && d.maxSizeRatio == 0.5f && d.strideRatio == 0.2f && d.levels == 6);
    set_detect_params(&d, 0.2f, 0.4f, -1.0f, 0);  // stored as given
    EXPECT_TRUE(d.minSizeRatio == 0.2f && d.strideRatio == -1.0f && d.levels == 0);
    set_detect_params(nullptr, 0.1f, 0.2f, 0.3f, 4);
}

TEST(SearchPlan, PyramidOfTheWorkedExamples) {
    VoDetector d = window24();
    vo::SearchPlan plan;
    ASSERT_TRUE(vo::plan_search(&d, 640, 480, 640, &plan));  // working copy 427 x 320
    EXPECT_TRUE(plan.shrunk && plan.workWidth == 427 && plan.workHeight == 320);

    ASSERT_TRUE(vo::plan_search(&d, 320, 240, 320, &plan));
    EXPECT_TRUE(!plan.shrunk && plan.workWidth == 320 && plan.workHeight == 240);
    EXPECT_EQ(plan.start, 3.3333335f);
    EXPECT_EQ(plan.end, 0.33333334f);
    EXPECT_EQ(plan.factor, 0.46415886f);
    EXPECT_TRUE(plan.strideX == 7 && plan.strideY == 7);
    ASSERT_EQ(plan.levelCount, 4);
    const int sizes[4][2] = {{1067, 800}, {495, 371}, {230, 172}, {107, 80}};
    int64_t total = 0;
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(plan.levels[k].width, sizes[k][0]);
        EXPECT_EQ(plan.levels[k].height, sizes[k][1]);
        const int count = ((sizes[k][0] - 12) / 7 + 1) * ((sizes[k][1] - 12) / 7 + 1);
        EXPECT_EQ(plan.levels[k].count, count);
        total += count;
    }
    EXPECT_EQ(plan.levels[3].count, 140);  // 14 x 10
    EXPECT_EQ(plan.totalWindows, total);
    EXPECT_EQ(plan.levels[1].scale, plan.start * plan.factor);

    ASSERT_TRUE(vo::plan_search(&d, 240, 320, 240, &plan));  // portrait: the width is the shorter side
    EXPECT_TRUE(plan.levels[0].width == 800 && plan.levels[0].height == 1067);
    d.levels = 1;  // only the start scale
    ASSERT_TRUE(vo::plan_search(&d, 320, 240, 320, &plan));
    EXPECT_TRUE(plan.factor == 0.0f && plan.levelCount == 1 && plan.levels[0].width == 1067);
}

TEST(SearchPlan, LevelsBelowHalfAWindowHaveNoWindows) {
    // A strip with maxSizeRatio above 1: the last level, 120 x 6, is below
    // half the window; the others are searched.
    VoDetector d = window24();
    set_detect_params(&d, 0.1f, 4.0f, 0.3f, 3);
    vo::SearchPlan plan;
    ASSERT_TRUE(vo::plan_search(&d, 400, 20, 400, &plan));
    EXPECT_TRUE(plan.levels[2].width == 120 && plan.levels[2].height == 6 && plan.levels[2].count == 0);
    EXPECT_GT(plan.levels[1].count, 0);
    std::vector<uint8_t> level(120 * 6, 255);
    auto split = [&] { return int(vo::split_image_into_patches(level.data(), 120, 6, 120, 24, 24, 7, 7, 0.5f, 0, 0)); };
    EXPECT_EQ(printed_by(split), (Printed{0, "", ""}));  // no failed count check
    // Exactly half a window still holds a window.
    std::vector<float> patch(12 * 12);
    ObjectInfof obj{};
    EXPECT_EQ(vo::split_image_into_patches(level.data(), 6, 6, 120, 12, 12, 7, 7, 1.0f, patch.data(), &obj), 1);
}

TEST(SearchPlan, RefusesWhatCannotBeSearched) {
    VoDetector d = window24();
    vo::SearchPlan plan;
    EXPECT_TRUE(vo::plan_search(&d, 2, 2, 2, &plan));
    EXPECT_TRUE(vo::plan_search(&d, 65535, 300, 65535, &plan));
    const int sizes[][3] = {{1, 100, 1}, {100, 1, 100}, {65536, 100, 65536}, {100, 65536, 100}, {100, 100, 99}};
    for (const auto& s : sizes) EXPECT_FALSE(vo::plan_search(&d, s[0], s[1], s[2], &plan)) << s[0] << "x" << s[1];

    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const float ratios[][3] = {{nan, 0.3f, 0.3f}, {0.03f, inf, 0.3f}, {0.0f, 0.3f, 0.3f}, {-0.1f, 0.3f, 0.3f},
                               {0.03f, 0.3f, 0.0f}, {0.03f, 0.3f, nan}};
    for (const auto& r : ratios) {
        VoDetector t = d;
        t.minSizeRatio = r[0];
        t.maxSizeRatio = r[1];
        t.strideRatio = r[2];
        EXPECT_FALSE(vo::plan_search(&t, 320, 240, 320, &plan));
    }
    for (int levels : {0, 65}) {
        d.levels = levels;
        EXPECT_FALSE(vo::plan_search(&d, 320, 240, 320, &plan));
    }
    d.levels = 64;
    EXPECT_TRUE(vo::plan_search(&d, 320, 240, 320, &plan));
    // The largest level may hold 2^28 bytes: scale 51.2 gives 16384 x 12288,
    // scale 60 gives 19200 x 14400.
    d.levels = 1;
    d.minSizeRatio = 24.0f / (240.0f * 51.2f);
    EXPECT_TRUE(vo::plan_search(&d, 320, 240, 320, &plan));
    d.minSizeRatio = 24.0f / (240.0f * 60.0f);
    EXPECT_FALSE(vo::plan_search(&d, 320, 240, 320, &plan));
}

TEST(SplitImageIntoPatches, PlacesWindowsRowByRowWithZeroOverhang) {
    // The last level of the worked example: 107 x 80, steps of 7.
    const int w = 107, h = 80, stride = 110;
    std::mt19937 rng(3);
    std::vector<uint8_t> level(size_t(stride) * h);
    for (uint8_t& v : level) v = uint8_t(rng());
    std::vector<float> patches(140 * 576, -1.0f);
    std::vector<ObjectInfof> objs(140, ObjectInfof{0, 0, 0, 0, -2.0f, 77, 0});
    ASSERT_EQ(vo::split_image_into_patches(level.data(), w, h, stride, 24, 24, 7, 7, 0.1f, patches.data(), objs.data()),
              140);
    for (int n = 0; n < 140; ++n) {
        const int x = (n % 14) * 7, y = (n / 14) * 7;
        const ObjectInfof& o = objs[n];
        ASSERT_TRUE(o.x == float(x) && o.y == float(y) && o.width == 24.0f && o.height == 24.0f) << n;
        ASSERT_TRUE(o.scale == 1.0f / 0.1f && o.conf == -2.0f && o.label == 77) << n;  // conf, label untouched
        for (int j = 0; j < 24; ++j)
            for (int i = 0; i < 24; ++i) {
                const float expected = (x + i < w && y + j < h) ? float(level[size_t(y + j) * stride + x + i]) : 0.0f;
                ASSERT_EQ(patches[size_t(n) * 576 + j * 24 + i], expected) << n << " " << i << " " << j;
            }
    }
    EXPECT_EQ(objs[13].x, 91.0f);  // the last column hangs 8 pixels over the edge

    // The detector cuts a level in chunks: any range of windows is the same
    // slice of the whole, and a range past the end is clipped.
    for (const auto& [first, count] : {std::pair<int64_t, int64_t>{0, 1}, {13, 15}, {100, 40}, {130, 99}, {140, 5}}) {
        std::vector<float> part(size_t(count) * 576, -1.0f);
        std::vector<ObjectInfof> partObjs(size_t(count), ObjectInfof{0, 0, 0, 0, -2.0f, 77, 0});
        const int64_t placed = vo::cut_windows(level.data(), w, h, stride, 24, 24, 7, 7, 0.1f, first, count,
                                               part.data(), partObjs.data());
        ASSERT_EQ(placed, std::max<int64_t>(0, std::min<int64_t>(count, 140 - first))) << first;
        EXPECT_EQ(memcmp(part.data(), patches.data() + first * 576, size_t(placed) * 576 * sizeof(float)), 0) << first;
        for (int64_t k = 0; k < placed; ++k)
            EXPECT_TRUE(partObjs[k].x == objs[first + k].x && partObjs[k].y == objs[first + k].y) << first + k;
    }
}

Printed load_quietly(const std::string& dir, const std::string& name, VoDetector** d) {
    return printed_by([&] { return load_detector(dir.c_str(), name.c_str(), d); });
}

TEST(LoadDetector, StagesMustAgreeWithTheWindow) {
    vo_test::TempDir dir;
    VoDetector* d = nullptr;
    EXPECT_EQ(load_detector(dir.path().c_str(), "syn", nullptr), 7);
    const Printed none = load_quietly(dir.path(), "syn", &d);
    EXPECT_EQ(none.status, 4);  // nothing to load
    EXPECT_NE(none.out.find("Can't open file " + dir.file("syn_enet_params.dat")), std::string::npos);
    EXPECT_EQ(d, nullptr);

    // A cascade without anet loads, but a detector cannot use it.
    write_cascade(dir.path(), "c_only", {"cnet"});
    Cascade* cascade = nullptr;
    EXPECT_EQ(printed_by([&] { return load_cascade(dir.path().c_str(), "c_only", &cascade); }).status, 0);
    ASSERT_NE(cascade, nullptr);
    EXPECT_TRUE(cascade->anet == nullptr && cascade->cnet != nullptr);
    release_cascade(&cascade);
    EXPECT_EQ(cascade, nullptr);

    write_classifier(dir.path(), "colour_anet", 2, 24, 24, 3, "");
    write_cascade(dir.path(), "small_b", {"anet"});
    write_classifier(dir.path(), "small_b_bnet", 2, 12, 24, 1, "");
    write_cascade(dir.path(), "colour_c", {"anet"});
    write_classifier(dir.path(), "colour_c_cnet", 2, 24, 24, 3, "");
    const std::pair<std::string, std::string> cases[] = {
        {"c_only", "anet != nullptr"},
        {"colour", "anet->channel == 1"},
        {"small_b", "bnet->width == anet->width && bnet->height == anet->height && bnet->channel == anet->channel"},
        {"colour_c", "cnet->channel == 1"},
    };
    for (const auto& k : cases) {
        const Printed p = load_quietly(dir.path(), k.first, &d);
        EXPECT_EQ(p.status, 4) << k.first;
        EXPECT_EQ(d, nullptr);
        EXPECT_EQ(p.err, "detector: load_detector: check failed: " + k.second + "\n");
    }

    // A name that would not fit its buffer for every role loads nothing.
    const std::string longName(122, 'k');  // 122 + "_dotnet" needs 130 bytes
    EXPECT_EQ(load_quietly(dir.path(), longName, &d),
              (Printed{4, "", "detector: load_cascade: check failed: nameFits\n"}));
    EXPECT_EQ(load_detector(nullptr, "syn", &d), 4);
    EXPECT_EQ(load_cascade(dir.path().c_str(), nullptr, &cascade), 4);
}

TEST(LoadDetector, LoadsTheStagesInRoleOrder) {
    vo_test::TempDir dir;
    write_cascade(dir.path(), "syn", {"anet", "cnet"});
    write_classifier(dir.path(), "syn_bnet", 5, 24, 24, 1, "");  // no model: its classSize is not taken
    write_classifier(dir.path(), "syn_mnet", 2, 24, 24, 1, anet_model());
    VoDetector* d = nullptr;
    EXPECT_EQ(load_quietly(dir.path(), "syn", &d),
              (Printed{0, "syn_anet\nsyn_cnet\nCan't open file " + dir.file("syn_dotnet_params.dat") +
                              "\nsyn_mnet\nCan't open file " + dir.file("syn_enet_params.dat") + "\n", ""}));
    ASSERT_NE(d, nullptr);
    EXPECT_TRUE(d->width == 24 && d->height == 24 && d->cascade->classSize == 2);
    EXPECT_TRUE(d->cascade->bnet && !d->cascade->bnet->net && d->cascade->mnet && !d->cascade->dotnet);
    release_detector_data(d);
    EXPECT_EQ(d->cascade, nullptr);
    release_detector(&d);
    EXPECT_EQ(d, nullptr);
    release_detector(&d);
}

// The synthetic image searched at scale 1 with a step of 12: 21 x 16 = 336
// windows (three first-stage batches). anet fires where the window pixel
// (12, 12) lies in a square: x in {84 .. 120}, y in {36 .. 72} for square A
// (200), x in {168 .. 204}, y in {108 .. 144} for square B (160).
// Neighbours overlap by half a box, below the merge threshold, so the order
// is that of the windows.
class Detection : public testing::Test {
protected:
    // The boxes found with the stages `roles`, as (x, y, w, h, conf, label).
    std::vector<std::vector<float>> detect(const std::vector<std::string>& roles, int stride = kImageW) {
        write_cascade(dir_.path(), "syn", roles);
        VoDetector* d = nullptr;
        EXPECT_EQ(load_quietly(dir_.path(), "syn", &d).status, 0);
        if (!d) return {};
        set_unit_search(d);
        std::vector<uint8_t> image(size_t(stride) * kImageH, 9);
        const std::vector<uint8_t> squares = squares_image();
        for (int y = 0; y < kImageH; ++y) memcpy(&image[size_t(y) * stride], &squares[size_t(y) * kImageW], kImageW);
        ObjectInfo* out = nullptr;
        const int n = detect_objects(d, image.data(), kImageW, kImageH, stride, &out);
        release_detector(&d);
        std::vector<std::vector<float>> boxes;
        for (int i = 0; i < n; ++i)
            boxes.push_back({float(out[i].x), float(out[i].y), float(out[i].width), float(out[i].height), out[i].conf,
                             float(out[i].label)});
        free(out);
        return boxes;
    }

    static std::vector<std::vector<float>> grid(const std::vector<int>& xs, const std::vector<int>& ys, int dx, int dy,
                                                int size, float conf, int label) {
        std::vector<std::vector<float>> out;
        for (int y : ys)
            for (int x : xs) out.push_back({float(x + dx), float(y + dy), float(size), float(size), conf, float(label)});
        return out;
    }

    vo_test::TempDir dir_;
};

TEST_F(Detection, FirstStageAlone) {
    auto expected = grid({84, 96, 108, 120}, {36, 48, 60, 72}, 0, 0, 24, 200.0f, 1);
    const auto b = grid({168, 180, 192, 204}, {108, 120, 132, 144}, 0, 0, 24, 160.0f, 1);
    expected.insert(expected.end(), b.begin(), b.end());
    EXPECT_EQ(detect({"anet"}), expected);
}

TEST_F(Detection, ThirdStageRecropsFromTheImage) {
    // bnet: conf 1, box (x + 1, y + 2, 20, 20). cnet sees it grown by 2 on
    // each side, 24 x 24 at scale 1 centred on (x + 11, y + 12): square B
    // (160) and the column x = 84 (centre on 95, outside A) fall below its
    // threshold. Its regression (0, 0, 24, 24) leaves (x - 1, y, 24, 24);
    // labels start at 0. Rows wider than the image change nothing.
    const auto expected = grid({96, 108, 120}, {36, 48, 60, 72}, -1, 0, 24, 200.0f, 0);
    EXPECT_EQ(detect({"anet", "bnet", "cnet"}), expected);
    EXPECT_EQ(detect({"anet", "bnet", "cnet"}, 300), expected);
}

TEST_F(Detection, NothingFoundAndRefusedInputs) {
    write_cascade(dir_.path(), "syn", {"anet", "bnet", "cnet"});
    VoDetector* d = nullptr;
    load_quietly(dir_.path(), "syn", &d);
    ASSERT_NE(d, nullptr);
    set_unit_search(d);
    ObjectInfo* const untouched = reinterpret_cast<ObjectInfo*>(0x10);
    ObjectInfo* out = untouched;
    std::vector<uint8_t> black(size_t(kImageW) * kImageH, 0);  // no window survives
    uint8_t* img = black.data();
    EXPECT_EQ(detect_objects(d, img, kImageW, kImageH, kImageW, &out), 0);
    EXPECT_EQ(detect_objects(nullptr, img, kImageW, kImageH, kImageW, &out), 0);
    EXPECT_EQ(detect_objects(d, nullptr, kImageW, kImageH, kImageW, &out), 0);
    EXPECT_EQ(detect_objects(d, img, 1, kImageH, kImageW, &out), 0);
    EXPECT_EQ(detect_objects(d, img, kImageW, kImageH, kImageW - 1, &out), 0);
    d->width = 20;  // the window no longer matches anet
    EXPECT_EQ(detect_objects(d, img, kImageW, kImageH, kImageW, &out), 0);
    EXPECT_EQ(out, untouched);

    // A strip whose last level is below half a window is searched quietly.
    std::vector<uint8_t> strip(400 * 20, 0);
    d->width = 24;
    set_detect_params(d, 0.1f, 4.0f, 0.3f, 3);
    EXPECT_EQ(printed_by([&] { return detect_objects(d, strip.data(), 400, 20, 400, &out); }),
              (Printed{0, "", ""}));

    // Stages called without their pieces pass the count through.
    ObjectInfof objs[3] = {};
    float patches[3] = {};
    Cascade empty{};
    EXPECT_EQ(predict_patches(&empty, patches, 3, objs), 3);  // no anet
    EXPECT_EQ(predict_patches(d->cascade, nullptr, 3, objs), 3);
    EXPECT_EQ(classify(&empty, img, 2, 2, 2, objs, 3), 3);  // no cnet
    EXPECT_EQ(classify(d->cascade, nullptr, 2, 2, 2, objs, 3), 3);
    EXPECT_EQ(classify(d->cascade, img, 2, 2, 2, objs, -4), 0);
    release_detector_data(d);
    EXPECT_EQ(detect_objects(d, img, kImageW, kImageH, kImageW, &out), 0);
    release_detector(&d);
}

}  // namespace
