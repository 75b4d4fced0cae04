#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using namespace vo_test;

struct Warp {
    float angle, scale;
    VPointf srcCenter, dstCenter;
};

// The mapping and the sampler written out per destination value; result
// indexed [row][column][channel].
std::vector<int> ref_warp(TestImage& src, int ch, const Warp& w, int dw, int dh) {
    const float sn = float(std::sin(-double(w.angle)) / double(w.scale));
    const float cs = float(std::cos(-double(w.angle)) / double(w.scale));
    std::vector<int> out(size_t(dw) * dh * ch, 0);
    for (int i = 0; i < dh; ++i) {
        const float dy = float(i) - w.dstCenter.y;
        const int rowX = int((w.srcCenter.x + dy * sn) * 16384.0f);
        const int rowY = int((w.srcCenter.y + dy * cs) * 16384.0f);
        for (int j = 0; j < dw; ++j) {
            const float dx = float(j) - w.dstCenter.x;
            const int X = rowX + int(dx * cs * 16384.0f);
            const int Y = rowY - int(dx * sn * 16384.0f);
            const int x0 = X >> 14, y0 = Y >> 14;
            if (x0 < 0 || x0 >= src.width - 1 || y0 < 0 || y0 >= src.height - 1) continue;
            const int fx = X - x0 * 16384, fy = Y - y0 * 16384;
            for (int c = 0; c < ch; ++c) {
                const uint8_t* t = src.row(y0) + x0 * ch + c;
                const uint8_t* b = src.row(y0 + 1) + x0 * ch + c;
                const int top = ((t[0] << 14) + (t[ch] - t[0]) * fx + 8192) >> 14;
                const int bottom = ((b[0] << 14) + (b[ch] - b[0]) * fx + 8192) >> 14;
                out[(size_t(i) * dw + j) * ch + c] = ((top << 14) + (bottom - top) * fy + 8192) >> 14;
            }
        }
    }
    return out;
}

Warp random_warp(int sw, int sh, int dw, int dh, std::mt19937& rng) {
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    Warp w;
    w.angle = (u(rng) - 0.5f) * 7.0f;
    w.scale = 0.3f + 2.0f * u(rng);
    w.srcCenter = {u(rng) * sw, u(rng) * sh};
    w.dstCenter = {u(rng) * dw, u(rng) * dh};
    if (rng() % 4 == 0) w.angle = 0.0f;  // axis-aligned samples hit the edges exactly
    return w;
}

void check_all(int sw, int sh, int dw, int dh, std::mt19937& rng) {
    Warp w = random_warp(sw, sh, dw, dh, rng);
    const int extra = int(rng() % 4);
    TestImage g(sw, sh, 1, extra, rng), c(sw, sh, 3, extra, rng);
    const int gStride = dw + extra, cStride = 3 * dw + extra;
    const size_t n = size_t(dw) * dh;
    Buffer<uint8_t> g8(size_t(dh - 1) * gStride + dw), c8(size_t(dh - 1) * cStride + 3 * dw), s8(3 * n);
    Buffer<float> gf(n), cf(size_t(dh - 1) * cStride + 3 * dw), sf(3 * n);
    affine_image(g.data(), sw, sh, g.stride, w.angle, w.scale, w.srcCenter, w.dstCenter, g8.data(), dw, dh, gStride);
    affine_image_uint82float(g.data(), sw, sh, g.stride, w.angle, w.scale, w.srcCenter, w.dstCenter, gf.data(), dw,
                             dh);
    affine_image_color(c.data(), sw, sh, c.stride, w.angle, w.scale, w.srcCenter, w.dstCenter, c8.data(), dw, dh,
                       cStride);
    affine_image_color_uint82float(c.data(), sw, sh, c.stride, w.angle, w.scale, w.srcCenter, w.dstCenter,
                                   cf.data(), dw, dh, cStride);
    split_affine_image(c.data(), sw, sh, c.stride, w.angle, w.scale, w.srcCenter, w.dstCenter, s8.data(), dw, dh);
    split_affine_image_uint82float(c.data(), sw, sh, c.stride, w.angle, w.scale, w.srcCenter, w.dstCenter,
                                   sf.data(), dw, dh);
    const std::vector<int> gRef = ref_warp(g, 1, w, dw, dh), cRef = ref_warp(c, 3, w, dw, dh);
    for (int i = 0; i < dh; ++i) {
        for (int j = 0; j < dw; ++j) {
            const size_t o = size_t(i) * dw + j;
            const float f = float(gRef[o]);
            ASSERT_EQ(g8.data()[size_t(i) * gStride + j], gRef[o])
                << sw << "x" << sh << " -> " << dw << "x" << dh << " at " << j << "," << i;
            ASSERT_TRUE(vo_test::same_bits(&gf.data()[o], &f, 1)) << sw << " -> " << dw << " at " << j;
            for (int k = 0; k < 3; ++k) {
                const int v = cRef[o * 3 + k];
                const float fv = float(v);
                const size_t at = size_t(i) * cStride + 3 * j + k;
                ASSERT_EQ(c8.data()[at], v) << sw << "x" << sh << " -> " << dw << "x" << dh << " at " << j;
                ASSERT_TRUE(vo_test::same_bits(&cf.data()[at], &fv, 1));
                ASSERT_EQ(s8.data()[k * n + o], v);
                ASSERT_TRUE(vo_test::same_bits(&sf.data()[k * n + o], &fv, 1));
            }
        }
    }
}

TEST(Warp, EveryPathMatchesFormula) {
    std::mt19937 rng(17);
    for (int w = 1; w <= 40; ++w) check_all(w, 1 + int(rng() % 12), 1 + int(rng() % 60), 1 + int(rng() % 10), rng);
    for (int w = 1; w <= 40; ++w) check_all(2 + int(rng() % 60), 2 + int(rng() % 12), w, 1 + int(rng() % 10), rng);
    for (int k = 0; k < 20; ++k) check_all(64, 48, 48, 48, rng);
    check_all(640, 480, 200, 150, rng);
}

TEST(Warp, IdentityAndScaling) {
    std::mt19937 rng(2);
    TestImage img(9, 7, 1, 3, rng);
    VPointf origin{0, 0};
    Buffer<uint8_t> out(9 * 7);
    affine_image(img.data(), 9, 7, img.stride, 0.0f, 1.0f, origin, origin, out.data(), 9, 7, 9);
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 9; ++x)
            ASSERT_EQ(out.data()[y * 9 + x], x < 8 && y < 6 ? img.row(y)[x] : 0) << x << "," << y;

    // Twice enlarged about integer centres: every second sample halfway.
    uint8_t src[9] = {0, 100, 200, 0, 100, 200, 0, 100, 200};
    VPointf centre{1, 1}, twice{2, 2};
    uint8_t big[5];
    affine_image(src, 3, 3, 3, 0.0f, 2.0f, centre, twice, big, 5, 1, 5);
    const uint8_t expected[5] = {0, 50, 100, 150, 0};
    for (int x = 0; x < 5; ++x) EXPECT_EQ(big[x], expected[x]) << x;

    // A fraction left of column 0 is outside.
    VPointf left{-0.0001f, 0.0f};
    uint8_t one = 9;
    affine_image(src, 3, 3, 3, 0.0f, 1.0f, left, origin, &one, 1, 1, 1);
    EXPECT_EQ(one, 0);
}

TEST(Warp, SplitImage) {
    uint8_t px[6] = {1, 2, 3, 4, 5, 6}, planes[6];
    split_image(px, 2, 1, 3, 6, planes);
    const uint8_t expected[6] = {1, 4, 2, 5, 3, 6};
    EXPECT_EQ(std::vector<uint8_t>(planes, planes + 6), std::vector<uint8_t>(expected, expected + 6));

    float fplanes[6];
    split_image_uint82float(px, 1, 2, 3, 3, fplanes);  // two rows of one pixel
    const float fexpected[6] = {1, 4, 2, 5, 3, 6};
    EXPECT_EQ(std::vector<float>(fplanes, fplanes + 6), std::vector<float>(fexpected, fexpected + 6));
}

}  // namespace
