#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <tuple>

#include "test_util.h"

namespace {

using namespace vo_test;

Shape make_shape(std::initializer_list<VPointf> pts) {
    Shape s{};
    for (const VPointf& p : pts) s.pts[s.ptsSize++] = p;
    return s;
}

template <class R>
auto fields(const R& r) {
    return std::make_tuple(r.x, r.y, r.width, r.height);
}

// Every point and the count marked, to see what a reader touched.
Shape marked_shape() {
    Shape s{};
    s.ptsSize = -7;
    for (VPointf& p : s.pts) p = {-1.0f, -1.0f};
    return s;
}

// Rotation by `degrees` (x toward y), scaled, then shifted.
Shape rotated(const Shape& s, double degrees, double scale, VPointf shift) {
    double a = degrees * M_PI / 180.0;
    Shape out = s;
    for (int i = 0; i < s.ptsSize; ++i) {
        double x = s.pts[i].x, y = s.pts[i].y;
        out.pts[i] = {float(scale * (std::cos(a) * x - std::sin(a) * y) + shift.x),
                      float(scale * (std::sin(a) * x + std::cos(a) * y) + shift.y)};
    }
    return out;
}

TEST(PtsFile, WritesTheExactFormatAndReadsItBack) {
    TempDir dir;
    std::string path = dir.file("face.pts");
    Shape s = make_shape({{1.5f, 2.25f}, {3.0f, 4.0f}});
    ASSERT_EQ(write_pts_file(path.c_str(), s), 0);
    EXPECT_EQ(read_file(path), "version: 1\nn_points:  2\n{\n1.500000 2.250000\n3.000000 4.000000\n}");
    Shape back = marked_shape();
    EXPECT_EQ(read_pts_file(path.c_str(), back), 2);
    EXPECT_EQ(std::make_tuple(back.ptsSize, back.pts[0].y, back.pts[1].x, back.pts[2].x),
              std::make_tuple(2, 2.25f, 3.0f, -1.0f));

    std::string missing = dir.file("missing/face.pts");
    testing::internal::CaptureStdout();
    EXPECT_EQ(write_pts_file(missing.c_str(), s), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Can't open file " + missing + "\n");
}

TEST(PtsFile, MalformedFilesNeverOverrunThePointArray) {
    TempDir dir;
    std::string path = dir.file("bad.pts");
    // The file ends inside the point list: 0, with what was read kept.
    write_file(path, "version: 1\nn_points:  3\n{\n1 2\n3 4\n");
    Shape s = marked_shape();
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_pts_file(path.c_str(), s), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "END of FILE: " + path + "\n");
    EXPECT_EQ(std::make_tuple(s.ptsSize, s.pts[1].y, s.pts[2].x), std::make_tuple(3, 4.0f, -1.0f));

    // A brace before the declared count stops reading, the declared count
    // is returned; a line with one number sets x only.
    write_file(path, "version: 1\nn_points:  4\n{\n7.5\n}\n5 6\n");
    s = marked_shape();
    EXPECT_EQ(read_pts_file(path.c_str(), s), 4);
    EXPECT_EQ(std::make_tuple(s.pts[0].x, s.pts[0].y, s.pts[1].x), std::make_tuple(7.5f, -1.0f, -1.0f));

    // Unusable headers leave the shape untouched.
    const char* headers[] = {"version: 1\nn_points:  0\n{\n",
                             "version: 1\nn_points:  -3\n{\n", "version: 1\nn_points:  203\n{\n",
                             "version: 1\nn_points:  2000000000\n{\n", "version: 1\npoints: 2\n{\n"};
    for (const char* header : headers) {
        write_file(path, std::string(header) + "1 2\n3 4\n}");
        s = marked_shape();
        testing::internal::CaptureStderr();
        EXPECT_EQ(read_pts_file(path.c_str(), s), 0) << header;
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(s.ptsSize, -7) << header;
        EXPECT_EQ(s.pts[0].x, -1.0f) << header;
    }
    for (const char* truncated : {"", "version: 1\n", "version: 1\nn_points:  2\n"}) {
        write_file(path, truncated);
        EXPECT_EQ(read_pts_file(path.c_str(), s), 0);
        EXPECT_EQ(s.ptsSize, -7);
    }
    EXPECT_EQ(read_pts_file(dir.file("absent.pts").c_str(), s), 0);

    // The full capacity is accepted.
    std::string full = "version: 1\nn_points:  202\n{\n";
    for (int i = 0; i < 202; ++i) full += std::to_string(i) + " " + std::to_string(-i) + "\n";
    write_file(path, full + "}");
    EXPECT_EQ(read_pts_file(path.c_str(), s), 202);
    EXPECT_EQ(s.pts[201].y, -201.0f);
}

TEST(Shape, BoundsCentreAndSquare) {
    Shape one = make_shape({{2.4f, 3.6f}});
    EXPECT_EQ(fields(calculate_shape_rectangle(one)), std::make_tuple(2, 4, 1, 1));
    EXPECT_EQ(fields(calculate_shape_rectanglef(one)), std::make_tuple(2.4f + 0.5f, 3.6f + 0.5f, 1.0f, 1.0f));

    // w = 10, h = 4, s = 10.5: {trunc(-0.25), trunc(-3.25), 10, 10}.
    Shape two = make_shape({{0, 0}, {9, 3}});
    EXPECT_EQ(fields(calculate_shape_square(two)), std::make_tuple(0, -3, 10, 10));

    Shape three = make_shape({{0, 0}, {6, 0}, {0, 3}});
    const VPointf central = calculate_shape_central(three), center = calculate_shape_center(three);
    EXPECT_EQ(std::make_tuple(central.x, central.y, center.x, center.y), std::make_tuple(2.0f, 1.0f, 3.0f, 1.5f));

    Shape empty{};
    testing::internal::CaptureStderr();
    calculate_shape_center(empty);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vlib/base: calculate_shape_center: check failed: ptsSize > 0 && ptsSize <= 202\n");
}

TEST(Shape, SimilarityTransformAndItsForwardMap) {
    Shape src = make_shape({{0, 0}, {4, 0}, {4, 2}, {0, 2}, {1, 5}});
    TranArgs args{};
    similarity_transform(src, src, args);
    EXPECT_EQ(std::make_tuple(args.scale, args.angle, args.cosAngle), std::make_tuple(1.0f, 0.0f, 1.0f));
    EXPECT_EQ(args.srcCenter.x, args.dstCenter.x);

    Shape quarter = rotated(src, 90, 1.0, {0, 0});
    similarity_transform(src, quarter, args);
    EXPECT_NEAR(std::fabs(args.angle), M_PI / 2, 1e-3);
    // Beyond a quarter turn asin folds the angle; cos keeps the sign.
    Shape third = rotated(src, 120, 2.5, {30, -4});
    similarity_transform(src, third, args);
    EXPECT_NEAR(std::fabs(args.angle), M_PI / 3, 1e-4);
    EXPECT_LT(args.cosAngle, 0.0f);
    EXPECT_NEAR(args.scale, 2.5f, 1e-4f);

    // Within a quarter turn the forward map reproduces dst, in place too.
    Shape small = rotated(src, 20, 0.5, {7, 9});
    similarity_transform(src, small, args);
    Shape mapped = src;
    affine_shape(mapped, mapped, args);
    ASSERT_EQ(mapped.ptsSize, src.ptsSize);
    for (int i = 0; i < src.ptsSize; ++i) {
        EXPECT_NEAR(mapped.pts[i].x, small.pts[i].x, 1e-4f);
        EXPECT_NEAR(mapped.pts[i].y, small.pts[i].y, 1e-4f);
    }
    // A and B are formed in double and narrowed before use.
    float A = float(double(args.scale) * std::cos(double(args.angle)));
    float B = float(double(args.scale) * std::sin(double(args.angle)));
    float dx = src.pts[4].x - args.srcCenter.x, dy = src.pts[4].y - args.srcCenter.y;
    EXPECT_EQ(mapped.pts[4].x, A * dx + B * dy + args.dstCenter.x);
    EXPECT_EQ(mapped.pts[4].y, -B * dx + A * dy + args.dstCenter.y);

    TranArgs kept{9, 9, 9, 9, {9, 9}, {9, 9}};
    Shape fewer = make_shape({{0, 0}});
    testing::internal::CaptureStderr();
    similarity_transform(src, fewer, kept);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vlib/base: similarity_transform: check failed: srcShape.ptsSize == dstShape.ptsSize\n");
    EXPECT_EQ(kept.scale, 9.0f);
}

TEST(Shape, MeanShapeNormalisesEachShapeAndTheMean) {
    // One outline at two places averages to itself, centred in the frame;
    // the height (21 pixels inclusive) sets the scale at both steps.
    Shape base = make_shape({{0, 0}, {10, 0}, {10, 20}, {0, 20}, {5, 10}});
    Shape shapes[2] = {base, rotated(base, 0, 1.0, {100, -50})};
    float k1 = 100.0f / 21.0f;
    float k2 = 100.0f / (20.0f * k1 + 1.0f);
    for (float factor : {1.0f, 2.0f}) {
        Shape mean{};
        calculate_mean_shape_global(shapes, 2, 5, 100, factor, mean);
        ASSERT_EQ(mean.ptsSize, 5);
        EXPECT_NEAR(mean.pts[4].x, 50.0f, 1e-4f);
        EXPECT_NEAR(mean.pts[4].y, 50.0f, 1e-4f);
        EXPECT_NEAR(mean.pts[2].y - mean.pts[0].y, 20.0f * k1 * k2 / factor, 1e-3f);
        EXPECT_NEAR(mean.pts[1].x - mean.pts[0].x, 10.0f * k1 * k2 / factor, 1e-3f);
    }
    // A shape of another size is refused before anything is written.
    Shape marked = marked_shape();
    shapes[1].ptsSize = 4;
    testing::internal::CaptureStderr();
    calculate_mean_shape_global(shapes, 2, 5, 100, 1.0f, marked);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vlib/base: calculate_mean_shape_global: check failed: shape.ptsSize == ptsSize\n");
    EXPECT_EQ(marked.ptsSize, -7);
}

}  // namespace
