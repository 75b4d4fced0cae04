#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using namespace vo_test;

std::vector<int> bytes_of(TestImage& img, int rowBytes) {
    std::vector<int> v;
    for (int y = 0; y < img.height; ++y) v.insert(v.end(), img.row(y), img.row(y) + rowBytes);
    return v;
}

TEST(PixelOps, KnownResults) {
    uint8_t two[2] = {0, 255};
    equalize_image(two, 2, 1, 2);
    EXPECT_EQ(std::vector<int>(two, two + 2), (std::vector<int>{127, 255}));

    uint8_t levels[3] = {0, 128, 255};
    brightness_adjust(levels, 3, 1, 1, 3, 0.5f);
    EXPECT_EQ(std::vector<int>(levels, levels + 3), (std::vector<int>{0, 177, 255}));
    uint8_t same[3] = {0, 128, 255};
    brightness_adjust(same, 3, 1, 1, 3, -0.005f);
    EXPECT_EQ(same[1], 128);

    uint8_t block[25] = {1, 2, 9, 9, 40, 3, 5, 9, 9, 41, 0, 0, 4, 4, 42, 0, 0, 4, 4, 43, 50, 51, 52, 53, 54};
    mosaic(block, 5, 5, 1, 5, 2);
    const uint8_t mosaicked[25] = {2, 2, 9, 9, 40, 2, 2, 9, 9, 41, 0, 0, 4, 4, 42, 0, 0, 4, 4, 43, 50, 51, 52, 53, 54};
    EXPECT_EQ(std::vector<uint8_t>(block, block + 25), std::vector<uint8_t>(mosaicked, mosaicked + 25));
    uint8_t colour[12] = {1, 10, 100, 3, 20, 101, 7, 7, 7, 9, 9, 9};
    mosaic(colour, 2, 2, 3, 6, 2);
    EXPECT_EQ(std::vector<int>(colour, colour + 12), (std::vector<int>{5, 11, 54, 5, 11, 54, 5, 11, 54, 5, 11, 54}));

    uint8_t inverse[256], bytes[3] = {0, 7, 255};
    for (int i = 0; i < 256; ++i) inverse[i] = uint8_t(255 - i);
    table_map(bytes, 1, 1, 3, 3, inverse);
    table_map(bytes, 1, 1, 3, 3, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 3), (std::vector<uint8_t>{255, 248, 0}));

    uint8_t square[4] = {1, 2, 3, 4};
    unsigned int sums[4];
    integral_image(square, 2, 2, 2, sums, 2);
    EXPECT_EQ(std::vector<unsigned>(sums, sums + 4), (std::vector<unsigned>{1, 3, 4, 10}));

    uint8_t rect[9];
    VRect r{-1, -1, 3, 3};
    extract_area_from_image(square, 2, 2, 1, 2, rect, r);
    EXPECT_EQ(std::vector<uint8_t>(rect, rect + 9), (std::vector<uint8_t>{0, 0, 0, 0, 1, 2, 0, 3, 4}));
    EXPECT_EQ(r.x, -1);
}

TEST(PixelOps, GeometryMatchesDefinitions) {
    std::mt19937 rng(22);
    for (int w = 1; w <= 40; ++w) {
        const int h = 1 + int(rng() % 6);
        TestImage img(w, h, 1, int(rng() % 3), rng);
        const std::vector<int> px = bytes_of(img, w);

        const int dstStride = w + 2;
        Buffer<unsigned int> sums(size_t(h - 1) * dstStride + w);
        integral_image(img.data(), w, h, img.stride, sums.data(), dstStride);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                unsigned want = 0;
                for (int yy = 0; yy <= y; ++yy)
                    for (int xx = 0; xx <= x; ++xx) want += px[yy * w + xx];
                ASSERT_EQ(sums.data()[y * dstStride + x], want);
            }

        for (int ch : {1, 3}) {
            TestImage src(w, h, ch, 1, rng);
            VRect r{int(rng() % (w + 6)) - 3, int(rng() % (h + 6)) - 3, 1 + int(rng() % (w + 3)),
                    1 + int(rng() % (h + 3))};
            Buffer<uint8_t> out(size_t(r.width) * r.height * ch, 99);
            extract_area_from_image(src.data(), w, h, ch, src.stride, out.data(), r);
            for (int y = 0; y < r.height; ++y)
                for (int x = 0; x < r.width * ch; ++x) {
                    const int sx = r.x + x / ch, sy = r.y + y;
                    const bool in = sx >= 0 && sx < w && sy >= 0 && sy < h;
                    ASSERT_EQ(out.data()[size_t(y) * r.width * ch + x], in ? src.row(sy)[sx * ch + x % ch] : 0);
                }
        }

        vertical_mirror(img.data(), w, h, img.stride);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) ASSERT_EQ(img.row(y)[x], px[(h - 1 - y) * w + x]);
        vertical_mirror(img.data(), w, h, img.stride);
        horizontal_mirror(img.data(), w, h, img.stride);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) ASSERT_EQ(img.row(y)[x], px[y * w + w - 1 - x]);
    }
}

}  // namespace
