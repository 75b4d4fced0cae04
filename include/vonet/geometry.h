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

#endif
