// Rectangles: scaling, comparison, intersection and transformed bounds.
#include <vonet/geometry.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "vlib/geometry_internal.h"

using vo::trunc_i32;
using vo::wrap32;

namespace {

// The separation test is exact (64-bit); halves truncate toward zero, so two
// 1-pixel-wide boxes at the same place count as disjoint.
bool disjoint(const VRect& a, const VRect& b) {
    int64_t dx = (int64_t(a.x) + a.width / 2) - (int64_t(b.x) + b.width / 2);
    int64_t dy = (int64_t(a.y) + a.height / 2) - (int64_t(b.y) + b.height / 2);
    return std::llabs(dx) >= int64_t(a.width / 2) + b.width / 2 ||
           std::llabs(dy) >= int64_t(a.height / 2) + b.height / 2;
}

bool intersect(const VRectf& a, const VRectf& b) {
    return a.width * 0.5f + b.width * 0.5f > std::fabs((a.x + a.width * 0.5f) - (b.x + b.width * 0.5f)) &&
           a.height * 0.5f + b.height * 0.5f > std::fabs((a.y + a.height * 0.5f) - (b.y + b.height * 0.5f));
}

// Inclusive pixel extents; the area is an int32 product.
int32_t intersection(const VRect& a, const VRect& b) {
    if (disjoint(a, b)) return 0;
    int64_t ix = std::min(int64_t(a.x) + a.width - 1, int64_t(b.x) + b.width - 1) - std::max(a.x, b.x) + 1;
    int64_t iy = std::min(int64_t(a.y) + a.height - 1, int64_t(b.y) + b.height - 1) - std::max(a.y, b.y) + 1;
    return wrap32(int64_t(wrap32(ix)) * wrap32(iy));
}

// Only the winning min or max is truncated, so fractional corners count
// whole pixels.
int32_t intersection(const VRectf& a, const VRectf& b) {
    if (!intersect(a, b)) return 0;
    int64_t ix = int64_t(trunc_i32(std::min(a.x + a.width - 1, b.x + b.width - 1))) - trunc_i32(std::max(a.x, b.x)) + 1;
    int64_t iy = int64_t(trunc_i32(std::min(a.y + a.height - 1, b.y + b.height - 1))) - trunc_i32(std::max(a.y, b.y)) + 1;
    return wrap32(int64_t(wrap32(ix)) * wrap32(iy));
}

struct Extent {
    float minX = FLT_MAX;
    float maxX = -FLT_MAX;
    float minY = FLT_MAX;
    float maxY = -FLT_MAX;
};

// Maps the corners (x0|x1, y0|y1) and returns their extent.
Extent map_corners(float x0, float x1, float y0, float y1, const TranArgs& args) {
    vo::Rotation r = vo::rotation_of(args.scale, args.angle);
    const float xs[2] = {x0, x1};
    const float ys[2] = {y0, y1};
    Extent e;
    for (float py : ys) {
        for (float px : xs) {
            float dx = px - args.srcCenter.x;
            float dy = py - args.srcCenter.y;
            float X = r.a * dx + r.b * dy + args.dstCenter.x;
            float Y = -r.b * dx + r.a * dy + args.dstCenter.y;
            if (X < e.minX) e.minX = X;
            if (X > e.maxX) e.maxX = X;
            if (Y < e.minY) e.minY = Y;
            if (Y > e.maxY) e.maxY = Y;
        }
    }
    return e;
}

}  // namespace

VRect expand(VRect rect, float scale) {
    int32_t nw = trunc_i32(float(rect.width) * scale);
    int32_t nh = trunc_i32(float(rect.height) * scale);
    int32_t cx = wrap32(int64_t(rect.x) + rect.width / 2);
    int32_t cy = wrap32(int64_t(rect.y) + rect.height / 2);
    return {trunc_i32(float(cx) - float(nw / 2)), trunc_i32(float(cy) - float(nh / 2)), nw, nh};
}

int compare_rect(VRect* a, VRect* b) {
    if (!a || !b) return 0;
    return a->x == b->x && a->y == b->y && a->width == b->width && a->height == b->height ? 1 : 0;
}

float rect_overlap(VRect a, VRect b) { return float(intersection(a, b)); }

float rect_overlap(VRectf a, VRectf b) { return float(intersection(a, b)); }

float rect_iou(VRect a, VRect b) {
    float area = float(intersection(a, b));
    int32_t areas = wrap32(int64_t(wrap32(int64_t(a.width) * a.height)) + wrap32(int64_t(b.width) * b.height));
    return area / (float(areas) - area);
}

float rect_iou(VRectf a, VRectf b) {
    float area = float(intersection(a, b));
    return area / (a.width * a.height + b.width * b.height - area);
}

VRectf min_outer_rectangle(VRectf a, VRectf b) {
    float x = std::min(a.x, b.x);
    float y = std::min(a.y, b.y);
    return {x, y, std::max(a.x + a.width, b.x + b.width) - x, std::max(a.y + a.height, b.y + b.height) - y};
}

void affine_rectangle(VRect* src, VRect* dst, TranArgs args) {
    if (!src || !dst) return;
    // Inclusive pixel corners; +1.5 turns the extent back into a rounded
    // pixel count.
    Extent e = map_corners(float(src->x), float(wrap32(int64_t(src->x) + src->width - 1)), float(src->y),
                           float(wrap32(int64_t(src->y) + src->height - 1)), args);
    *dst = {trunc_i32(e.minX + 0.5f), trunc_i32(e.minY + 0.5f), trunc_i32(e.maxX - e.minX + 1.5f),
            trunc_i32(e.maxY - e.minY + 1.5f)};
}

void affine_rectangle(VRectf* src, VRectf* dst, TranArgs args) {
    if (!src || !dst) return;
    Extent e = map_corners(src->x, src->x + src->width, src->y, src->y + src->height, args);
    *dst = {e.minX, e.minY, e.maxX - e.minX, e.maxY - e.minY};
}
