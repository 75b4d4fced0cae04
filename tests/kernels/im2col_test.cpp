#include <vonet/kernels.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using vo_test::first_bit_difference;
using vo_test::random_floats;

struct Geometry {
    int w, h, c, kw, kh, sw, sh, pw, ph;
};

int out_len(int in, int k, int s, int p) { return (in - k + 2 * p) / s + 1; }

// Entry (row (c, ky, kx), column (oy, ox)) as the column matrix defines it.
std::vector<float> reference_img2col(const std::vector<float>& data, const Geometry& g) {
    const int ow = out_len(g.w, g.kw, g.sw, g.pw), oh = out_len(g.h, g.kh, g.sh, g.ph);
    std::vector<float> col;
    for (int c = 0; c < g.c; ++c)
        for (int ky = 0; ky < g.kh; ++ky)
            for (int kx = 0; kx < g.kw; ++kx)
                for (int oy = 0; oy < oh; ++oy)
                    for (int ox = 0; ox < ow; ++ox) {
                        int iy = oy * g.sh - g.ph + ky, ix = ox * g.sw - g.pw + kx;
                        bool inside = iy >= 0 && iy < g.h && ix >= 0 && ix < g.w;
                        col.push_back(inside ? data[(c * g.h + iy) * g.w + ix] : 0.0f);
                    }
    return col;
}

std::vector<float> reference_col2img(const std::vector<float>& col, const Geometry& g) {
    const int ow = out_len(g.w, g.kw, g.sw, g.pw), oh = out_len(g.h, g.kh, g.sh, g.ph);
    std::vector<float> data(size_t(g.c) * g.h * g.w, 0.0f);
    size_t i = 0;
    for (int c = 0; c < g.c; ++c)
        for (int ky = 0; ky < g.kh; ++ky)
            for (int kx = 0; kx < g.kw; ++kx)
                for (int oy = 0; oy < oh; ++oy)
                    for (int ox = 0; ox < ow; ++ox, ++i) {
                        int iy = oy * g.sh - g.ph + ky, ix = ox * g.sw - g.pw + kx;
                        if (iy >= 0 && iy < g.h && ix >= 0 && ix < g.w) data[(c * g.h + iy) * g.w + ix] += col[i];
                    }
    return data;
}

TEST(Im2col, OutputSizeTruncatesTowardZero) {
    int32_t ow = -7, oh = -7;
    calculate_conv_result_size(5, 6, 3, 3, 2, 2, 1, 1, &ow, &oh);
    EXPECT_EQ(ow, 3);
    EXPECT_EQ(oh, 3);
    calculate_conv_result_size(2, 1, 3, 3, 2, 1, 0, 0, &ow, &oh);  // (-1)/2 + 1 and (-2)/1 + 1
    EXPECT_EQ(ow, 1);
    EXPECT_EQ(oh, -1);
    calculate_conv_result_size(5, 5, 3, 3, 0, -1, 0, 0, &ow, &oh);  // no stride: no windows
    EXPECT_EQ(ow, 0);
    EXPECT_EQ(oh, 0);
}

TEST(Im2col, UnfoldAndFoldMatchTheDefinitions) {
    std::mt19937 rng(12);
    std::uniform_int_distribution<int> size(1, 9), kern(1, 4), stride(1, 3), pad(0, 3);
    for (int trial = 0; trial < 400; ++trial) {
        Geometry g{size(rng), size(rng), 1 + trial % 3, kern(rng), kern(rng), stride(rng), stride(rng), pad(rng),
                   pad(rng)};
        const int ow = out_len(g.w, g.kw, g.sw, g.pw), oh = out_len(g.h, g.kh, g.sh, g.ph);
        if (ow < 1 || oh < 1) continue;
        SCOPED_TRACE(testing::Message() << "w=" << g.w << " h=" << g.h << " c=" << g.c << " k=" << g.kw << "x" << g.kh
                                        << " s=" << g.sw << "," << g.sh << " p=" << g.pw << "," << g.ph);
        std::vector<float> data = random_floats(rng, size_t(g.c) * g.w * g.h);
        std::vector<float> want = reference_img2col(data, g);
        std::vector<float> col(want.size() + 1, 99.0f);  // every entry must be written
        img2col_conv(data.data(), g.w, g.h, g.c, g.kw, g.kh, g.sw, g.sh, g.pw, g.ph, col.data());
        EXPECT_EQ(first_bit_difference(col.data(), want.data(), int64_t(want.size())), -1);
        EXPECT_EQ(col.back(), 99.0f);

        std::vector<float> folded = reference_col2img(want, g);
        std::vector<float> got(folded.size(), 42.0f);
        col2img_conv(want.data(), g.w, g.h, g.c, g.kw, g.kh, g.sw, g.sh, g.pw, g.ph, got.data());
        EXPECT_EQ(first_bit_difference(got.data(), folded.data(), int64_t(folded.size())), -1);
    }
}

TEST(Im2col, NothingIsWrittenWithoutChannelsOrWindows) {
    float data[4] = {1, 2, 3, 4}, col[4] = {5, 5, 5, 5};
    img2col_conv(data, 2, 2, 0, 1, 1, 1, 1, 0, 0, col);
    img2col_conv(data, 2, 2, 1, 3, 3, 1, 1, 0, 0, col);  // kernel larger than the image
    img2col_conv(data, 2, 2, 1, 1, 1, 0, 1, 0, 0, col);  // zero stride
    for (float v : col) EXPECT_EQ(v, 5.0f);
}

}  // namespace
