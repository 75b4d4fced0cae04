#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

namespace {

// As one tuple, so that a mismatch prints the whole box.
#define EXPECT_RECT(r, X, Y, W, H) \
    EXPECT_EQ(std::make_tuple((r).x, (r).y, (r).width, (r).height), std::make_tuple(X, Y, W, H))

TEST(Rect, IntegerOverlapCountsInclusivePixelsAfterTruncatedSeparationTest) {
    VRect a{0, 0, 10, 10};
    EXPECT_EQ(rect_overlap(a, VRect{5, 5, 10, 10}), 25.0f);
    EXPECT_EQ(rect_iou(VRect{5, 5, 10, 10}, a), 25.0f / 175.0f);
    EXPECT_EQ(rect_iou(a, a), 1.0f);
    // Edge to edge is disjoint.
    EXPECT_EQ(rect_overlap(a, VRect{10, 0, 10, 10}), 0.0f);
    EXPECT_EQ(rect_iou(a, VRect{10, 0, 10, 10}), 0.0f);
    // Truncated halves: a 1-pixel-wide box does not meet itself, and odd
    // widths sharing one column count as disjoint.
    EXPECT_EQ(rect_iou(VRect{3, 3, 1, 5}, VRect{3, 3, 1, 5}), 0.0f);
    EXPECT_EQ(rect_overlap(VRect{0, 0, 3, 3}, VRect{2, 0, 3, 3}), 0.0f);
    EXPECT_EQ(rect_overlap(VRect{0, 0, 4, 3}, VRect{2, 0, 4, 3}), 6.0f);
    EXPECT_EQ(rect_overlap(VRect{-10, -10, 20, 20}, VRect{-3, -2, 4, 5}), 20.0f);
    EXPECT_TRUE(std::isnan(rect_iou(VRect{1, 1, 0, 0}, VRect{1, 1, 0, 0})));
}

TEST(Rect, FloatOverlapTruncatesOnlyTheWinningEdges) {
    VRectf a{0.5f, 0.5f, 2.2f, 2.2f};
    EXPECT_EQ(rect_overlap(a, a), 4.0f);
    EXPECT_EQ(rect_iou(a, a), 4.0f / (2.2f * 2.2f + 2.2f * 2.2f - 4.0f));
    // x extent trunc(9.5) - trunc(5.7) + 1 = 5, y extent 10.
    EXPECT_EQ(rect_overlap(VRectf{0.5f, 0, 10, 10}, VRectf{5.7f, 0, 10, 10}), 50.0f);
    // Strict separation: touching boxes are disjoint, a hair of overlap is not.
    EXPECT_EQ(rect_iou(VRectf{0, 0, 10, 10}, VRectf{10, 0, 10, 10}), 0.0f);
    EXPECT_EQ(rect_overlap(VRectf{0, 0, 10, 10}, VRectf{9.5f, 0, 10, 10}), 10.0f);
}

TEST(Rect, ExpandCompareAndOuterRectangle) {
    EXPECT_RECT(expand(VRect{10, 20, 7, 9}, 2.0f), 6, 15, 14, 18);
    EXPECT_RECT(expand(VRect{-5, -7, 3, 5}, 1.0f), -5, -7, 3, 5);
    EXPECT_RECT(expand(VRect{0, 0, 5, 5}, 0.5f), 1, 1, 2, 2);    // trunc(2.5) about centre 2
    EXPECT_RECT(expand(VRect{0, 0, -5, 4}, 1.0f), 0, 0, -5, 4);  // halves truncate toward zero

    VRect a{1, 2, 3, 4};
    VRect b = a;
    EXPECT_EQ(compare_rect(&a, &b), 1);
    b.height = 5;
    EXPECT_EQ(compare_rect(&a, &b), 0);

    VRectf f{1.5f, 2, 3, 4};
    EXPECT_RECT(min_outer_rectangle(f, f), 1.5f, 2.0f, 3.0f, 4.0f);
    // Right and bottom edges are exclusive: 4 + 3 and 5 + 2.
    EXPECT_RECT(min_outer_rectangle(VRectf{0, 5, 2, 2}, VRectf{4, 1, 3, 1}), 0.0f, 1.0f, 7.0f, 6.0f);
}

TEST(Rect, AffineRectangleBoundsTheMappedCorners) {
    TranArgs identity{1.0f, 0.0f, 0.0f, 1.0f, {3.0f, 4.0f}, {3.0f, 4.0f}};
    VRectf f{1.25f, 2.5f, 3.0f, 4.75f};
    VRectf fout{};
    affine_rectangle(&f, &fout, identity);
    EXPECT_RECT(fout, f.x, f.y, f.width, f.height);
    VRect r{2, 3, 5, 7};
    VRect rout{};
    affine_rectangle(&r, &rout, identity);
    EXPECT_RECT(rout, 2, 3, 5, 7);
    // Below zero the +0.5 truncates toward zero and moves the corner.
    VRect neg{-3, -3, 4, 4};
    affine_rectangle(&neg, &rout, identity);
    EXPECT_RECT(rout, -2, -2, 4, 4);

    // Scale 2, a quarter turn: X = 2 dy + 10, Y = -2 dx + 20. The
    // informative sin and cos fields are not read.
    TranArgs turn{2.0f, float(M_PI / 2), 0.3f, -7.0f, {0.0f, 0.0f}, {10.0f, 20.0f}};
    VRectf box{0, 0, 1, 2};
    affine_rectangle(&box, &fout, turn);
    const float got[4] = {fout.x, fout.y, fout.width, fout.height}, want[4] = {10, 18, 4, 2};
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(got[i], want[i], 1e-5f) << i;
}

}  // namespace
