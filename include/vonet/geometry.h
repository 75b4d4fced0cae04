// Geometry: rectangles, points, landmark shapes and similarity transforms.
#ifndef VONET_GEOMETRY_H
#define VONET_GEOMETRY_H

#include <stdint.h>

// Top-left pixel and size; covers columns x .. x + width - 1 inclusive.
struct VRect {
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
};

struct VRectf {
    float x;
    float y;
    float width;
    float height;
};

struct VPointf {
    float x;
    float y;
};

// Similarity transform: with dx, dy measured from srcCenter,
// X = A dx + B dy + dstCenter.x, Y = -B dx + A dy + dstCenter.y,
// A = scale cos(angle), B = scale sin(angle).
struct TranArgs {
    float scale;
    float angle;  // radians
    float sinAngle;
    float cosAngle;
    VPointf srcCenter;
    VPointf dstCenter;
};

// Landmark points of one object.
struct Shape {
    VPointf pts[202];
    int32_t ptsSize;
};

// Rectangles. Pure functions on values: nothing is validated (negative sizes
// and coordinates pass through) and nothing is allocated.

// The box scaled by `scale` about its integer centre.
VRect expand(VRect rect, float scale);
// 1 when all four fields are equal, else 0.
int compare_rect(VRect* a, VRect* b);
// Intersection area in whole pixels (an area, not a ratio).
float rect_overlap(VRect a, VRect b);
float rect_overlap(VRectf a, VRectf b);
// Intersection area over union area.
float rect_iou(VRect a, VRect b);
float rect_iou(VRectf a, VRectf b);
// Smallest box holding both (right and bottom edges exclusive).
VRectf min_outer_rectangle(VRectf a, VRectf b);
// Writes to `dst` the upright bounding box of `src` after the transform.
void affine_rectangle(VRect* src, VRect* dst, TranArgs args);
void affine_rectangle(VRectf* src, VRectf* dst, TranArgs args);

// Landmark shapes and their point files.

// Reads a landmark file; returns the declared point count, 0 on failure.
int read_pts_file(const char* path, Shape& shape);
// 0 on success, 1 if the file cannot be opened.
int write_pts_file(const char* path, Shape& shape);
// Mean of the points.
VPointf calculate_shape_central(Shape& shape);
// Centre of the bounding box.
VPointf calculate_shape_center(Shape& shape);
VRect calculate_shape_rectangle(Shape& shape);
VRectf calculate_shape_rectanglef(Shape& shape);
VRect calculate_shape_square(Shape& shape);
// Estimates the similarity transform carrying srcShape onto dstShape.
void similarity_transform(Shape& srcShape, Shape& dstShape, TranArgs& args);
// Applies the forward map; `src` and `dst` may be the same shape.
void affine_shape(Shape& src, VPointf srcCenter, Shape& dst, VPointf dstCenter, float scale, float angle);
void affine_shape(Shape& src, Shape& dst, TranArgs& args);
// Mean of `count` shapes, each normalised into a size x size frame; the mean
// itself spans size / factor of the frame.
void calculate_mean_shape_global(Shape* shapes, int count, int ptsSize, int size, float factor,
                                 Shape& meanShape);

#endif
