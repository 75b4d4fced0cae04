// Conversions and bounds shared by the rectangle and shape code.
#ifndef VONET_VLIB_GEOMETRY_INTERNAL_H
#define VONET_VLIB_GEOMETRY_INTERNAL_H

#include <vonet/geometry.h>

#include <cfloat>
#include <cmath>
#include <cstdint>

namespace vo {

// Float to int32 truncating toward zero. Values outside int32 and NaN give
// INT32_MIN, as the processor's conversion does, instead of undefined
// behaviour: degenerate boxes still yield a defined number.
inline int32_t trunc_i32(float v) {
    if (v >= -2147483648.0f && v < 2147483648.0f) return static_cast<int32_t>(v);
    return INT32_MIN;
}

// Int32 arithmetic wraps as on the processor instead of being undefined.
inline int32_t wrap32(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

// Extreme coordinates of the points in use; running minimum from the
// largest finite float, running maximum from its negative.
struct Bounds {
    float minX, maxX, minY, maxY;
};

inline int shape_count(const Shape& shape) {
    constexpr int kCapacity = int(sizeof(shape.pts) / sizeof(shape.pts[0]));
    return shape.ptsSize < 0 ? 0 : shape.ptsSize > kCapacity ? kCapacity : shape.ptsSize;
}

inline Bounds shape_bounds(const Shape& shape) {
    Bounds b{FLT_MAX, -FLT_MAX, FLT_MAX, -FLT_MAX};
    int n = shape_count(shape);
    for (int i = 0; i < n; ++i) {
        float x = shape.pts[i].x;
        float y = shape.pts[i].y;
        if (x < b.minX) b.minX = x;
        if (x > b.maxX) b.maxX = x;
        if (y < b.minY) b.minY = y;
        if (y > b.maxY) b.maxY = y;
    }
    return b;
}

// A = scale cos(angle), B = scale sin(angle): formed in double, used in float.
struct Rotation {
    float a, b;
};

inline Rotation rotation_of(float scale, float angle) {
    double s = static_cast<double>(scale);
    return {static_cast<float>(s * std::cos(static_cast<double>(angle))),
            static_cast<float>(s * std::sin(static_cast<double>(angle)))};
}

}  // namespace vo

#endif
