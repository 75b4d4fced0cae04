#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using namespace vo_test;

uint32_t ref_gray(const uint8_t* p, uint32_t k0, uint32_t k1, uint32_t k2) {
    return (p[0] * k0 + p[1] * k1 + p[2] * k2 + 8192) >> 14;
}

TEST(Color, EveryPathMatchesFormula) {
    std::mt19937 rng(11);
    std::vector<int> widths;
    for (int w = 1; w <= 40; ++w) widths.push_back(w);
    for (int w : {63, 64, 65, 333, 1921}) widths.push_back(w);
    for (int w : widths) {
        const int h = 1 + int(rng() % 6);
        const int extra = int(rng() % 5);
        TestImage c3(w, h, 3, extra, rng), c4(w, h, 4, extra, rng);
        Buffer<uint8_t> g3(size_t(w) * h), g4(size_t(w) * h), g4r(size_t(w) * h);
        Buffer<float> gf(size_t(w) * h);
        bgr2gray(c3.data(), w, h, c3.stride, g3.data());
        bgra2gray(c4.data(), w, h, c4.stride, g4.data());
        rgba2gray(c4.data(), w, h, c4.stride, g4r.data());
        bgr2gray_uint82float(c3.data(), w, h, c3.stride, gf.data());

        // Caller weights, some mixed in sign so that a weight wraps in 16 bits.
        float weights[3] = {float(rng() % 100), float(rng() % 100) + 1, float(rng() % 100)};
        if (w % 3 == 0) weights[2] = -weights[2] - 1;
        const float sum = weights[0] + weights[1] + weights[2];
        uint32_t k[3];
        for (int i = 0; i < 3; ++i) k[i] = uint16_t(int64_t((weights[i] / sum) * 16384.0f));
        const int dstStride = w + extra;
        Buffer<uint8_t> gw(size_t(h - 1) * dstStride + w);
        bgr2gray(c3.data(), w, h, c3.stride, weights, gw.data(), dstStride);

        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const size_t o = size_t(y) * w + x;
                const uint8_t* p3 = c3.row(y) + 3 * x;
                const uint8_t* p4 = c4.row(y) + 4 * x;
                ASSERT_EQ(g3.data()[o], ref_gray(p3, 1867, 9617, 4897)) << w << "x" << h << " at " << x;
                ASSERT_EQ(g4.data()[o], ref_gray(p4, 1867, 9617, 4897)) << w << "x" << h << " at " << x;
                ASSERT_EQ(g4r.data()[o], ref_gray(p4, 4897, 9617, 1867)) << w << "x" << h << " at " << x;
                const float fr = float(ref_gray(p3, 1867, 9617, 4897));
                ASSERT_TRUE(vo_test::same_bits(&gf.data()[o], &fr, 1)) << w << " at " << x;
                ASSERT_EQ(gw.data()[size_t(y) * dstStride + x], uint8_t(ref_gray(p3, k[0], k[1], k[2])))
                    << w << "x" << h << " at " << x;
            }
        }
    }
}

TEST(Color, InPlaceFourByteConversion) {
    // The destination rows overlap the source rows; the result must still
    // be the per-pixel formula of the original pixels.
    std::mt19937 rng(5);
    for (int w : {7, 16, 40, 100}) {
        TestImage img(w, 3, 4, 0, rng);
        std::vector<uint8_t> original(img.buffer.storage);
        bgra2gray(img.data(), w, 3, img.stride, img.data());
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < w; ++x)
                ASSERT_EQ(img.data()[y * w + x],
                          ref_gray(original.data() + 1 + size_t(y) * img.stride + 4 * x, 1867, 9617, 4897))
                    << w << " " << x << "," << y;
    }
}

TEST(Color, DegenerateSizesWriteNothing) {
    uint8_t px[12] = {}, out[4] = {7, 7, 7, 7};
    bgr2gray(px, 0, 1, 3, out);
    bgra2gray(px, 3, 0, 12, out);
    rgba2gray(px, -1, 1, 4, out);
    bgr2gray(nullptr, 1, 1, 3, out);
    bgr2gray(px, 1, 1, 3, nullptr, out, 1);
    EXPECT_EQ(out[0], 7);
    EXPECT_EQ(out[3], 7);
}

}  // namespace
