#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

std::vector<int> pad(std::vector<uint8_t> src, int w, int h, int ch, int top, int bot, int lef, int rig, int mode,
                     uint8_t value = 9) {
    std::vector<uint8_t> dst(size_t(w + lef + rig) * (h + top + bot) * ch, 77);
    padding(src.data(), w, h, ch, dst.data(), top, bot, lef, rig, mode, value);
    return std::vector<int>(dst.begin(), dst.end());
}

// Source index of border cell k (1 = adjacent) before (-k) or after
// (size - 1 + k) the image, per the rule of each mode; -1 for the fill.
int ref_index(int i, int size, int mode) {
    if (i >= 0 && i < size) return i;
    const bool before = i < 0;
    const int k = before ? -i : i - size + 1;
    switch (mode) {
        case 1: return before ? 0 : size - 1;
        case 2: return before ? k - 1 : size - k;
        case 3: return before ? size - k : k - 1;
        default: return -1;
    }
}

TEST(Padding, BorderRules) {
    // One worked row per mode; the random test below covers the rest.
    EXPECT_EQ(pad({1, 2, 3}, 3, 1, 1, 0, 0, 2, 2, 0), (std::vector<int>{9, 9, 1, 2, 3, 9, 9}));
    EXPECT_EQ(pad({1, 2, 3}, 3, 1, 1, 0, 0, 2, 2, 1), (std::vector<int>{1, 1, 1, 2, 3, 3, 3}));
    EXPECT_EQ(pad({1, 2, 3}, 3, 1, 1, 0, 0, 2, 2, 2), (std::vector<int>{2, 1, 1, 2, 3, 3, 2}));
    EXPECT_EQ(pad({1, 2, 3}, 3, 1, 1, 0, 0, 2, 2, 3), (std::vector<int>{2, 3, 1, 2, 3, 1, 2}));
    // Unknown modes and oversized mirror borders leave the destination alone.
    EXPECT_EQ(pad({1, 2}, 2, 1, 1, 0, 0, 1, 1, 4), (std::vector<int>{77, 77, 77, 77}));
    EXPECT_EQ(pad({1, 2}, 2, 1, 1, 0, 0, 3, 0, 2), (std::vector<int>{77, 77, 77, 77, 77}));
    // Two planes: each made only from its own source plane.
    EXPECT_EQ(pad({1, 2, 5, 6}, 2, 1, 2, 0, 0, 1, 0, 1), (std::vector<int>{1, 1, 2, 5, 5, 6}));

    float fsrc[2] = {1.5f, 2.5f}, fdst[4] = {};
    padding(fsrc, 2, 1, 1, fdst, 0, 0, 1, 1, 0, -1.0f);
    EXPECT_EQ(std::vector<float>(fdst, fdst + 4), (std::vector<float>{-1.0f, 1.5f, 2.5f, -1.0f}));
    padding(fsrc, 2, 1, 1, fdst, 0, 0, 1, 1, 3, -1.0f);
    EXPECT_EQ(std::vector<float>(fdst, fdst + 4), (std::vector<float>{2.5f, 1.5f, 2.5f, 1.5f}));
}

TEST(Padding, RandomPlanesMatchRules) {
    std::mt19937 rng(4);
    for (int w = 1; w <= 40; ++w) {
        const int h = 1 + int(rng() % 6), ch = 1 + int(rng() % 3), mode = int(rng() % 4);
        const int lim = mode >= 2 ? 0 : 3;  // modes 2 and 3 reflect at most once
        const int top = int(rng() % (h + 1 + lim)), bot = int(rng() % (h + 1 + lim));
        const int lef = int(rng() % (w + 1 + lim)), rig = int(rng() % (w + 1 + lim));
        std::vector<float> src(size_t(w) * h * ch);
        for (float& v : src) v = float(rng() % 1000);
        const int ow = w + lef + rig, oh = h + top + bot;
        std::vector<float> dst(size_t(ow) * oh * ch);
        padding(src.data(), w, h, ch, dst.data(), top, bot, lef, rig, mode, 0.25f);
        for (int c = 0; c < ch; ++c)
            for (int y = 0; y < oh; ++y)
                for (int x = 0; x < ow; ++x) {
                    const int sy = ref_index(y - top, h, mode), sx = ref_index(x - lef, w, mode);
                    const float want = sy < 0 || sx < 0 ? 0.25f : src[(size_t(c) * h + sy) * w + sx];
                    ASSERT_EQ(dst[(size_t(c) * oh + y) * ow + x], want) << w << " mode " << mode << " " << x << "," << y;
                }
    }
}

TEST(Padding, NegativeBorderIsReported) {
    uint8_t src[1] = {5}, dst[4] = {7, 7, 7, 7};
    testing::internal::CaptureStderr();
    padding(src, 1, 1, 1, dst, 0, 0, -1, 1, 0, 0);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "vlib/image_c: padding: check failed: plef >= 0\n");
    EXPECT_EQ(dst[0], 7);
}

}  // namespace
