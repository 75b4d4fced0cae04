// Landmark shapes: point files, summary geometry, similarity transforms and
// the mean shape of a training set.
#include <vonet/geometry.h>

#include <cmath>
#include <cstdio>

#include "common/check.h"
#include "vlib/geometry_internal.h"

namespace {

constexpr const char* kUnit = "vlib/base";
constexpr int kMaxPoints = 202;
constexpr int kLineBytes = 255;

}  // namespace

using vo::trunc_i32;

int read_pts_file(const char* path, Shape& shape) {
    if (!path) return 0;
    FILE* f = fopen(path, "r");
    if (!f) return 0;
    char line[kLineBytes];
    int ptsSize = 0;
    // Version line, count line, opening brace.
    if (!fgets(line, kLineBytes, f) || !fgets(line, kLineBytes, f)) {
        fclose(f);
        return 0;
    }
    sscanf(line, "n_points:  %d", &ptsSize);
    if (!fgets(line, kLineBytes, f)) {
        fclose(f);
        return 0;
    }
    // A count the array cannot hold (or no count at all) leaves the shape
    // untouched.
    VO_CHECK(0 < ptsSize && ptsSize <= 202, {
        fclose(f);
        return 0;
    });
    shape.ptsSize = ptsSize;
    for (int i = 0; i < ptsSize; ++i) {
        if (!fgets(line, kLineBytes, f)) {
            printf("END of FILE: %s\n", path);
            fclose(f);
            return 0;
        }
        // Scanning straight into the point: a line with one number sets x only.
        if (sscanf(line, "%f %f\n", &shape.pts[i].x, &shape.pts[i].y) < 1) break;
    }
    fclose(f);
    return ptsSize;
}

int write_pts_file(const char* path, Shape& shape) {
    FILE* f = path ? fopen(path, "w") : nullptr;
    if (!f) {
        printf("Can't open file %s\n", path ? path : "");
        return 1;
    }
    fprintf(f, "version: 1\n");
    fprintf(f, "n_points:  %d\n", shape.ptsSize);
    fprintf(f, "{\n");
    int n = vo::shape_count(shape);
    for (int i = 0; i < n; ++i) fprintf(f, "%f %f\n", shape.pts[i].x, shape.pts[i].y);
    fprintf(f, "}");
    fclose(f);
    return 0;
}

VPointf calculate_shape_central(Shape& shape) {
    int n = vo::shape_count(shape);
    float sx = 0.0f;
    float sy = 0.0f;
    for (int i = 0; i < n; ++i) {
        sx += shape.pts[i].x;
        sy += shape.pts[i].y;
    }
    return {sx / float(n), sy / float(n)};
}

VPointf calculate_shape_center(Shape& shape) {
    int ptsSize = shape.ptsSize;
    VO_CHECK(ptsSize > 0 && ptsSize <= 202, return VPointf());
    vo::Bounds b = vo::shape_bounds(shape);
    return {(b.minX + b.maxX) * 0.5f, (b.minY + b.maxY) * 0.5f};
}

VRect calculate_shape_rectangle(Shape& shape) {
    vo::Bounds b = vo::shape_bounds(shape);
    return {trunc_i32(b.minX + 0.5f), trunc_i32(b.minY + 0.5f), trunc_i32(b.maxX - b.minX + 1.0f),
            trunc_i32(b.maxY - b.minY + 1.0f)};
}

VRectf calculate_shape_rectanglef(Shape& shape) {
    vo::Bounds b = vo::shape_bounds(shape);
    return {b.minX + 0.5f, b.minY + 0.5f, b.maxX - b.minX + 1.0f, b.maxY - b.minY + 1.0f};
}

VRect calculate_shape_square(Shape& shape) {
    vo::Bounds b = vo::shape_bounds(shape);
    float cx = (b.minX + b.maxX) * 0.5f;
    float cy = (b.minY + b.maxY) * 0.5f;
    float w = b.maxX - b.minX + 1.0f;
    float h = b.maxY - b.minY + 1.0f;
    float s = (h > w ? h : w) + 0.5f;
    int32_t side = trunc_i32(s);
    return {trunc_i32(cx - 0.5f * s + 0.5f), trunc_i32(cy - 0.5f * s + 0.5f), side, side};
}

void similarity_transform(Shape& srcShape, Shape& dstShape, TranArgs& args) {
    VO_CHECK(srcShape.ptsSize == dstShape.ptsSize, return);
    int n = vo::shape_count(srcShape);
    float inv = 1.0f / float(n);
    VPointf ms{0.0f, 0.0f};
    VPointf md{0.0f, 0.0f};
    for (int i = 0; i < n; ++i) {
        ms.x += srcShape.pts[i].x;
        ms.y += srcShape.pts[i].y;
        md.x += dstShape.pts[i].x;
        md.y += dstShape.pts[i].y;
    }
    ms.x *= inv;
    ms.y *= inv;
    md.x *= inv;
    md.y *= inv;

    // Least-squares rotation; the scale is the ratio of mean distances.
    float srcDist = 0.0f;
    float dstDist = 0.0f;
    float P = 0.0f;
    float Q = 0.0f;
    for (int i = 0; i < n; ++i) {
        float a = srcShape.pts[i].x - ms.x;
        float b = srcShape.pts[i].y - ms.y;
        float c = dstShape.pts[i].x - md.x;
        float d = dstShape.pts[i].y - md.y;
        srcDist += std::sqrt(a * a + b * b);
        dstDist += std::sqrt(c * c + d * d);
        P += b * c - a * d;
        Q += c * a + d * b;
    }
    float r = std::sqrt(Q * Q + P * P);
    args.scale = dstDist / srcDist;
    args.sinAngle = P / r;
    args.cosAngle = Q / r;
    // Consumers rebuild the rotation from the angle alone, so a turn beyond
    // a quarter is folded by asin.
    args.angle = std::asin(args.sinAngle);
    args.srcCenter = ms;
    args.dstCenter = md;
}

void affine_shape(Shape& src, VPointf srcCenter, Shape& dst, VPointf dstCenter, float scale, float angle) {
    vo::Rotation r = vo::rotation_of(scale, angle);
    int n = vo::shape_count(src);
    dst.ptsSize = src.ptsSize;
    for (int i = 0; i < n; ++i) {
        float dx = src.pts[i].x - srcCenter.x;
        float dy = src.pts[i].y - srcCenter.y;
        dst.pts[i].x = r.a * dx + r.b * dy + dstCenter.x;
        dst.pts[i].y = -r.b * dx + r.a * dy + dstCenter.y;
    }
}

void affine_shape(Shape& src, Shape& dst, TranArgs& args) {
    affine_shape(src, args.srcCenter, dst, args.dstCenter, args.scale, args.angle);
}

void calculate_mean_shape_global(Shape* shapes, int count, int ptsSize, int size, float factor,
                                 Shape& meanShape) {
    VO_CHECK(0 < ptsSize && ptsSize <= 202, return);
    VO_CHECK(shapes != nullptr || count <= 0, return);
    // Double accumulators: averaging many shapes loses no precision.
    double accX[kMaxPoints] = {};
    double accY[kMaxPoints] = {};
    for (int s = 0; s < count; ++s) {
        const Shape& shape = shapes[s];
        VO_CHECK(shape.ptsSize == ptsSize, return);
        vo::Bounds b = vo::shape_bounds(shape);
        float cx = (b.minX + b.maxX) * 0.5f;
        float cy = (b.minY + b.maxY) * 0.5f;
        float h = b.maxY - b.minY + 1.0f;
        float w = b.maxX - b.minX + 1.0f;
        float k = float(size) / (h > w ? h : w);
        float half = float(size / 2);
        for (int i = 0; i < ptsSize; ++i) {
            accX[i] += double((shape.pts[i].x - cx) * k + half);
            accY[i] += double((shape.pts[i].y - cy) * k + half);
        }
    }
    meanShape.ptsSize = ptsSize;
    for (int i = 0; i < ptsSize; ++i) {
        meanShape.pts[i].x = float(accX[i] / double(count));
        meanShape.pts[i].y = float(accY[i] / double(count));
    }

    vo::Bounds b = vo::shape_bounds(meanShape);
    float cx = (b.minX + b.maxX) * 0.5f;
    float cy = (b.minY + b.maxY) * 0.5f;
    float w = b.maxX - b.minX + 1.0f;
    float h = b.maxY - b.minY + 1.0f;
    float k = float(size) / ((h > w ? h : w) * factor);
    float half = float(size >> 1);
    for (int i = 0; i < ptsSize; ++i) {
        meanShape.pts[i].x = (meanShape.pts[i].x - cx) * k + half;
        meanShape.pts[i].y = (meanShape.pts[i].y - cy) * k + half;
    }
}
