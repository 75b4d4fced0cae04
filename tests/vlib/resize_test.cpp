#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using namespace vo_test;

// The sampling rule and arithmetic written out per output value.
std::vector<int> ref_resize(TestImage& src, int ch, int dw, int dh) {
    const int sw = src.width, sh = src.height;
    const float sx = float(sw) / float(dw), sy = float(sh) / float(dh);
    std::vector<int> out(size_t(dw) * dh * ch);
    for (int i = 0; i < dh; ++i) {
        float fy = float(i) * sy;
        if (fy < 0) fy = 0;
        if (fy >= sh - 1) fy = float(sh) - 1.01f;
        const int y0 = int(fy);
        const int wy = 16384 - int(16384.0f * (fy - float(y0)));
        for (int j = 0; j < dw; ++j) {
            float fx = float(j) * sx;
            if (fx < 0) fx = 0;
            if (fx >= sw - 1) fx = float(sw) - 1.01f;
            const int x0 = int(fx);
            const int wx = int(16384.0f - 16384.0f * (fx - float(x0)));
            for (int c = 0; c < ch; ++c) {
                const uint8_t* t = src.row(y0) + x0 * ch + c;
                const uint8_t* b = src.row(y0 + 1) + x0 * ch + c;
                const int top = ((t[0] - t[ch]) * wx + t[ch] * 16384 + 8192) >> 14;
                const int bottom = ((b[0] - b[ch]) * wx + b[ch] * 16384 + 8192) >> 14;
                out[(size_t(i) * dw + j) * ch + c] = ((top - bottom) * wy + bottom * 16384 + 8192) >> 14;
            }
        }
    }
    return out;
}

void check_all(int sw, int sh, int dw, int dh, std::mt19937& rng) {
    const int extra = int(rng() % 4);
    TestImage g(sw, sh, 1, extra, rng), c(sw, sh, 3, extra, rng);
    const int gStride = dw + extra, cStride = 3 * dw + extra;
    Buffer<uint8_t> gOut(size_t(dh - 1) * gStride + dw), cOut(size_t(dh - 1) * cStride + 3 * dw);
    Buffer<float> fOut(size_t(dw) * dh);
    resizer_bilinear_gray(g.data(), sw, sh, g.stride, gOut.data(), dw, dh, gStride);
    resizer_bilinear_gray_uint2float(g.data(), sw, sh, g.stride, fOut.data(), dw, dh);
    resizer_bilinear_color(c.data(), sw, sh, c.stride, cOut.data(), dw, dh, cStride);
    const std::vector<int> gRef = ref_resize(g, 1, dw, dh), cRef = ref_resize(c, 3, dw, dh);
    for (int i = 0; i < dh; ++i) {
        for (int j = 0; j < dw; ++j) {
            const size_t o = size_t(i) * dw + j;
            ASSERT_EQ(gOut.data()[size_t(i) * gStride + j], gRef[o])
                << sw << "x" << sh << " -> " << dw << "x" << dh << " at " << j << "," << i;
            const float f = float(gRef[o]);
            ASSERT_TRUE(vo_test::same_bits(&fOut.data()[o], &f, 1)) << sw << " -> " << dw << " at " << j;
            for (int k = 0; k < 3; ++k)
                ASSERT_EQ(cOut.data()[size_t(i) * cStride + 3 * j + k], cRef[o * 3 + k])
                    << sw << "x" << sh << " -> " << dw << "x" << dh << " at " << j << "," << i;
        }
    }
}

TEST(Resize, EveryPathMatchesFormula) {
    std::mt19937 rng(3);
    for (int w = 2; w <= 40; ++w) check_all(w, 2 + int(rng() % 10), 1 + int(rng() % 80), 1 + int(rng() % 12), rng);
    for (int w = 1; w <= 40; ++w) check_all(2 + int(rng() % 100), 2 + int(rng() % 10), w, 1 + int(rng() % 12), rng);
    check_all(1280, 720, 427, 240, rng);
    check_all(300, 7, 1001, 3, rng);
    check_all(5000, 2, 333, 2, rng);
    check_all(2, 3, 960, 2, rng);  // weights where float and double rounding part
}

TEST(Resize, SamplingPositions) {
    // Equal sizes copy all but the last column and row, which sit at
    // size - 1.01 with about 1% of the previous value.
    uint8_t src[9] = {10, 20, 200, 30, 40, 100, 0, 0, 0}, dst[9];
    resizer_bilinear_gray(src, 3, 3, 3, dst, 3, 3, 3);
    // dst[2] = 200 * 0.99 + 20 * 0.01; dst[6] = 0.99 of row 2 plus 0.01 of row 1.
    EXPECT_EQ(std::vector<int>(dst, dst + 4), (std::vector<int>{10, 20, 198, 30}));
    EXPECT_EQ(dst[6], 0);

    // Halving picks pixels 0 and 2 each way.
    uint8_t img[16];
    for (int i = 0; i < 16; ++i) img[i] = uint8_t(i * 10);
    uint8_t half[4];
    resizer_bilinear_gray(img, 4, 4, 4, half, 2, 2, 2);
    EXPECT_EQ(std::vector<int>(half, half + 4), (std::vector<int>{0, 20, 80, 100}));

    // Enlarging 2x2: column 1 halfway, columns 2 and 3 clamped to 0.99.
    uint8_t two[4] = {0, 200, 0, 200}, four[16];
    resizer_bilinear_gray(two, 2, 2, 2, four, 4, 4, 4);
    EXPECT_EQ(std::vector<int>(four, four + 4), (std::vector<int>{0, 100, 198, 198}));

    // A one-pixel destination samples the top-left corner.
    uint8_t one = 0;
    resizer_bilinear_gray(img, 4, 4, 4, &one, 1, 1, 1);
    EXPECT_EQ(one, 0);
}

TEST(Resize, InvalidArgumentsWriteNothing) {
    uint8_t src[8] = {1, 2, 3, 4, 5, 6, 7, 8}, dst[4] = {9, 9, 9, 9};
    resizer_bilinear_gray(src, 1, 4, 1, dst, 2, 2, 2);        // source narrower than 2
    resizer_bilinear_gray(src, 4, 1, 4, dst, 2, 2, 2);        // source lower than 2
    resizer_bilinear_gray(src, 4, 2, 4, dst, 0, 2, 2);
    resizer_bilinear_gray(src, 4, 2, 4, dst, 2, -1, 2);
    resizer_bilinear_color(src, 21846, 2, 65538, dst, 1, 1, 3);  // beyond 16-bit byte offsets
    resizer_bilinear_gray(nullptr, 4, 2, 4, dst, 2, 2, 2);
    for (uint8_t v : dst) EXPECT_EQ(v, 9);
}

}  // namespace
