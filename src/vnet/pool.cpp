// Pooling layer: max, min and average over clipped windows.
#include <immintrin.h>
#include <vonet/pooling.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "common/record_io.h"
#include "vnet/layer_registry.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/pool";
constexpr const char* kLoad = "load_pooling";

// Minimal requirements for the window walk to be defined; a file is held to
// the tighter bounds of load_pooling.
bool usable(const Pooling* p) {
    return p->kernelW >= 1 && p->kernelH >= 1 && p->strideW >= 1 && p->strideH >= 1 && p->padW >= 0 &&
           p->padH >= 0;
}

// Output extent of one direction before the padding correction: the
// quotient in float rounded up, 1.0 added in double, truncated.
int32_t raw_extent(int32_t in, int32_t kernel, int32_t stride, int32_t pad) {
    // 64-bit numerator: the same float as the 32-bit one wherever that does
    // not overflow.
    float q = float(int64_t(in) - kernel + 2 * int64_t(pad)) / float(stride);
    double v = double(ceilf(q)) + 1.0;
    if (!(v >= double(INT32_MIN) && v <= double(INT32_MAX))) return 0;  // also NaN
    return int32_t(v);
}

// One clipped window range [begin, end) of an axis of size `size`.
struct Range {
    int64_t begin;
    int64_t end;
};

Range window(int64_t o, int32_t stride, int32_t pad, int32_t kernel, int32_t size) {
    int64_t start = o * stride - pad;
    int64_t end = start + kernel < size ? start + kernel : size;
    return Range{start > 0 ? start : 0, end};
}

// Checks the record and the tensors of a reduction; 0 when the walk may run.
int check_reduction(const char* op, const Pooling* pool, const Tensor* in, const Tensor* out) {
    if (!pool || !in || !out || !usable(pool)) return 7;
    VO_CHECK_IN(op, in != out, return 5);
    VO_CHECK_IN(op, in->data && out->data, return 5);
    VO_CHECK_IN(op, vo::checked_count(in->num, in->channel, in->height, in->width) == in->capacity, return 5);
    VO_CHECK_IN(op, in->capacity <= in->allocCount, return 5);
    int32_t outW = 0, outH = 0;
    calculate_pool_result_size(in->width, in->height, pool->kernelW, pool->kernelH, pool->strideW, pool->strideH,
                               pool->padW, pool->padH, &outW, &outH);
    VO_CHECK_IN(op, out->num == in->num && out->channel == in->channel, return 5);
    VO_CHECK_IN(op, out->height == outH && out->width == outW, return 5);
    VO_CHECK_IN(op, vo::checked_count(out->num, out->channel, out->height, out->width) == out->capacity,
                return 5);
    VO_CHECK_IN(op, out->capacity <= out->allocCount, return 5);
    return 0;
}

// The window walk shared by the reductions; `reduce` gets one clipped,
// non-empty window of a plane and returns its value.
template <typename Reduce>
void walk(const Pooling* pool, const Tensor* in, Tensor* out, Reduce reduce) {
    const int64_t inPlane = int64_t(in->height) * in->width;
    const int64_t outPlane = int64_t(out->height) * out->width;
    const int64_t planes = int64_t(in->num) * in->channel;
    for (int64_t p = 0; p < planes; ++p) {
        const float* src = in->data + p * inPlane;
        float* dst = out->data + p * outPlane;
        for (int64_t oy = 0; oy < out->height; ++oy) {
            Range rows = window(oy, pool->strideH, pool->padH, pool->kernelH, in->height);
            for (int64_t ox = 0; ox < out->width; ++ox) {
                Range cols = window(ox, pool->strideW, pool->padW, pool->kernelW, in->width);
                // An empty clipped window (possible with padding or a stride
                // beyond the kernel) reads nothing.
                bool empty = rows.end <= rows.begin || cols.end <= cols.begin;
                dst[oy * out->width + ox] = empty ? 0.0f : reduce(src, int64_t(in->width), rows, cols);
            }
        }
    }
}

// Strict comparisons from the first element of the window: NaN and signed
// zeros keep the first of equal candidates.
template <bool Max>
float extreme(const float* src, int64_t width, Range rows, Range cols) {
    float m = src[rows.begin * width + cols.begin];
    for (int64_t y = rows.begin; y < rows.end; ++y) {
        for (int64_t x = cols.begin; x < cols.end; ++x) {
            float v = src[y * width + x];
            if (Max ? v > m : v < m) m = v;
        }
    }
    return m;
}

// The valid part of a padded plane: rows [rowBegin, rowEnd) and columns
// [colBegin, colEnd) of the padded coordinates hold the input, the rest is
// padding. `data` points at the input's first element, (rowBegin, colBegin):
// the row kernels never read the padding, so the input itself can serve
// without a padded copy.
struct PaddedPlane {
    const float* data;
    int64_t stride;  // floats from one row to the next
    int64_t rowBegin, rowEnd, colBegin, colEnd;
};

// Lanes 0..7 of the even (Odd = false) or odd elements of p[0..15].
template <bool Odd>
inline __m256 deinterleave(const float* p) {
    __m256 a = _mm256_loadu_ps(p);
    __m256 b = _mm256_loadu_ps(p + 8);
    __m256 s = Odd ? _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)) : _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
    return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(s), _MM_SHUFFLE(3, 1, 2, 0)));
}

// The same from the first `count` (at most 16) floats at p only: the other
// lanes are zero and nothing past p + count is read.
template <bool Odd>
inline __m256 deinterleave_first(const float* p, int64_t count) {
    const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    __m256 a = _mm256_maskload_ps(p, _mm256_cmpgt_epi32(_mm256_set1_epi32(int(count)), lane));
    __m256 b = _mm256_maskload_ps(p + 8, _mm256_cmpgt_epi32(_mm256_set1_epi32(int(count) - 8), lane));
    __m256 s = Odd ? _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)) : _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
    return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(s), _MM_SHUFFLE(3, 1, 2, 0)));
}

// One output row of K x K stride-2 maxima whose window rows start at padded
// row `top`; `outW` windows are written to `out`. Windows inside the input
// run eight at a time; vmaxps(v, m) is "v if v > m, else m", the scalar
// rule lane by lane, so NaN and signed zeros come out as in pool_max.
// Windows touching the padding are clipped to the input as in pool_max, so
// the padding value is never read.
template <int K>
void pool_kxks2_max_row(const PaddedPlane& plane, int64_t top, float* out, int64_t outW) {
    Range rows{top > plane.rowBegin ? top : plane.rowBegin,
               top + K < plane.rowEnd ? top + K : plane.rowEnd};
    if (rows.end <= rows.begin) {
        for (int64_t ox = 0; ox < outW; ++ox) out[ox] = 0.0f;
        return;
    }
    const int64_t firstInside = (plane.colBegin + 1) / 2;  // first window starting at or after colBegin
    // The vector step reads 16 columns (and the 3x3 one 16 more from 2
    // further on) from the window start.
    constexpr int64_t kSpan = K == 2 ? 16 : 18;
    // Windows up to this one lie inside the input (-1: none); short runs of
    // them (narrow planes, row ends) take masked loads.
    const int64_t lastInside = plane.colEnd >= K ? (plane.colEnd - K) / 2 : -1;
    int64_t ox = 0;
    while (ox < outW) {
        const int64_t x0 = 2 * ox;
        const int64_t run = std::min<int64_t>(std::min<int64_t>(lastInside, outW - 1) - ox + 1, 8);
        if (ox >= firstInside && run >= 1 && (run < 8 || x0 + kSpan > plane.colEnd)) {
            const float* p = plane.data + (rows.begin - plane.rowBegin) * plane.stride + (x0 - plane.colBegin);
            __m256 m = deinterleave_first<false>(p, 2 * run);
            m = _mm256_max_ps(deinterleave_first<true>(p, 2 * run), m);
            if (K == 3) m = _mm256_max_ps(deinterleave_first<false>(p + 2, 2 * run - 1), m);
            for (int64_t y = rows.begin + 1; y < rows.end; ++y) {
                p += plane.stride;
                m = _mm256_max_ps(deinterleave_first<false>(p, 2 * run), m);
                m = _mm256_max_ps(deinterleave_first<true>(p, 2 * run), m);
                if (K == 3) m = _mm256_max_ps(deinterleave_first<false>(p + 2, 2 * run - 1), m);
            }
            _mm256_maskstore_ps(out + ox, _mm256_cmpgt_epi32(_mm256_set1_epi32(int(run)),
                                                             _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7)),
                                m);
            ox += run;
            continue;
        }
        if (ox >= firstInside && ox + 8 <= outW && x0 + kSpan <= plane.colEnd) {
            const float* p = plane.data + (rows.begin - plane.rowBegin) * plane.stride + (x0 - plane.colBegin);
            __m256 m = deinterleave<false>(p);
            m = _mm256_max_ps(deinterleave<true>(p), m);
            if (K == 3) m = _mm256_max_ps(deinterleave<false>(p + 2), m);
            for (int64_t y = rows.begin + 1; y < rows.end; ++y) {
                p += plane.stride;
                m = _mm256_max_ps(deinterleave<false>(p), m);
                m = _mm256_max_ps(deinterleave<true>(p), m);
                if (K == 3) m = _mm256_max_ps(deinterleave<false>(p + 2), m);
            }
            _mm256_storeu_ps(out + ox, m);
            ox += 8;
            continue;
        }
        Range cols{x0 > plane.colBegin ? x0 : plane.colBegin, x0 + K < plane.colEnd ? x0 + K : plane.colEnd};
        const Range inRows{rows.begin - plane.rowBegin, rows.end - plane.rowBegin};
        const Range inCols{cols.begin - plane.colBegin, cols.end - plane.colBegin};
        out[ox] = cols.end <= cols.begin ? 0.0f : extreme<true>(plane.data, plane.stride, inRows, inCols);
        ++ox;
    }
}

void pool_2x2s2_max_asm(const PaddedPlane& plane, int64_t top, float* out, int64_t outW) {
    pool_kxks2_max_row<2>(plane, top, out, outW);
}

void pool_3x3s2_max_asm(const PaddedPlane& plane, int64_t top, float* out, int64_t outW) {
    pool_kxks2_max_row<3>(plane, top, out, outW);
}

// 2x2 and 3x3 stride-2 maxima straight from the input, one output row per
// kernel call: the same windows and bits as pool_max.
bool has_max_row_kernel(const Pooling* pool) {
    return pool->kernelW == pool->kernelH && (pool->kernelW == 2 || pool->kernelW == 3) && pool->strideW == 2 &&
           pool->strideH == 2;
}

// Planes at most 8 windows wide whose windows all lie inside the input:
// every output row takes one masked vector per tap column, the same
// comparisons in the same order as pool_kxks2_max_row, without clipping.
template <int K>
void max_narrow_planes_s2(const Tensor* in, Tensor* out) {
    const int64_t W = in->width, inPlane = int64_t(in->height) * W;
    const int64_t outW = out->width, outH = out->height;
    const int64_t planes = int64_t(in->num) * in->channel;
    const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    auto first = [&](int64_t count) { return _mm256_cmpgt_epi32(_mm256_set1_epi32(int(count)), lane); };
    // Lanes of the even / odd columns from the first 2 outW floats of a row,
    // and of the even ones from 2 further on (3x3 only, 2 outW - 1 floats).
    const __m256i lo = first(2 * outW), hi = first(2 * outW - 8);
    const __m256i lo2 = first(2 * outW - 1), hi2 = first(2 * outW - 9), store = first(outW);
    auto split = [](__m256 a, __m256 b, bool odd) {
        __m256 s = odd ? _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)) : _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
        return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(s), _MM_SHUFFLE(3, 1, 2, 0)));
    };
    float* dst = out->data;
    for (int64_t p = 0; p < planes; ++p) {
        const float* src = in->data + p * inPlane;
        for (int64_t oy = 0; oy < outH; ++oy, dst += outW) {
            const float* row = src + 2 * oy * W;
            __m256 m = _mm256_setzero_ps();
            for (int y = 0; y < K; ++y, row += W) {
                const __m256 a = _mm256_maskload_ps(row, lo), b = _mm256_maskload_ps(row + 8, hi);
                const __m256 even = split(a, b, false);
                m = y == 0 ? even : _mm256_max_ps(even, m);
                m = _mm256_max_ps(split(a, b, true), m);
                if (K == 3)
                    m = _mm256_max_ps(split(_mm256_maskload_ps(row + 2, lo2), _mm256_maskload_ps(row + 10, hi2), false),
                                      m);
            }
            _mm256_maskstore_ps(dst, store, m);
        }
    }
}

void max_rows_s2(const Pooling* pool, const Tensor* in, Tensor* out) {
    const int64_t inPlane = int64_t(in->height) * in->width;
    const int64_t outPlane = int64_t(out->height) * out->width;
    const int64_t planes = int64_t(in->num) * in->channel;
    const int K = pool->kernelW;
    if (pool->padW == 0 && pool->padH == 0 && out->width <= 8 && 2 * (int64_t(out->width) - 1) + K <= in->width &&
        2 * (int64_t(out->height) - 1) + K <= in->height) {
        if (K == 2)
            max_narrow_planes_s2<2>(in, out);
        else
            max_narrow_planes_s2<3>(in, out);
        return;
    }
    for (int64_t p = 0; p < planes; ++p) {
        PaddedPlane plane{in->data + p * inPlane, in->width, pool->padH, int64_t(pool->padH) + in->height,
                          pool->padW, int64_t(pool->padW) + in->width};
        float* dst = out->data + p * outPlane;
        for (int64_t oy = 0; oy < out->height; ++oy) {
            if (pool->kernelW == 2) {
                pool_2x2s2_max_asm(plane, 2 * oy, dst + oy * out->width, out->width);
            } else {
                pool_3x3s2_max_asm(plane, 2 * oy, dst + oy * out->width, out->width);
            }
        }
    }
}

// Smallest padded extent >= in + 2 pad with (extent - kernel) a multiple of
// the stride.
int64_t padded_extent(int32_t in, int32_t kernel, int32_t stride, int32_t pad) {
    int64_t e = int64_t(in) + 2 * int64_t(pad);
    int64_t r = (e - kernel) % stride;
    return r == 0 ? e : e + (r > 0 ? stride - r : -r);
}

int read_pooling(FILE* stream, Pooling* pool) {
    if (!vo::read_fields(stream, kUnit, kLoad, &pool->type, &pool->kernelW, &pool->kernelH, &pool->padW, &pool->padH,
                         &pool->strideW, &pool->strideH, &pool->global))
        return 4;
    // A file may declare kernels, strides and pads up to 65535.
    VO_CHECK_IN(kLoad, pool->type >= 0 && pool->type <= 2, return 4);
    VO_CHECK_IN(kLoad, pool->kernelW >= 1 && pool->kernelW <= 65535, return 4);
    VO_CHECK_IN(kLoad, pool->kernelH >= 1 && pool->kernelH <= 65535, return 4);
    VO_CHECK_IN(kLoad, pool->strideW >= 1 && pool->strideW <= 65535, return 4);
    VO_CHECK_IN(kLoad, pool->strideH >= 1 && pool->strideH <= 65535, return 4);
    VO_CHECK_IN(kLoad, pool->padW >= 0 && pool->padW <= 65535, return 4);
    VO_CHECK_IN(kLoad, pool->padH >= 0 && pool->padH <= 65535, return 4);
    return 0;
}

}  // namespace

void calculate_pool_result_size(int32_t inW, int32_t inH, int32_t kernelW, int32_t kernelH, int32_t strideW,
                                int32_t strideH, int32_t padW, int32_t padH, int32_t* outW, int32_t* outH) {
    int32_t w = raw_extent(inW, kernelW, strideW, padW);
    int32_t h = raw_extent(inH, kernelH, strideH, padH);
    // With padding, a last window starting beyond the input and its right
    // or bottom allowance is dropped.
    if (padW != 0 || padH != 0) {
        if ((int64_t(w) - 1) * strideW >= int64_t(inW) + padW) --w;
        if ((int64_t(h) - 1) * strideH >= int64_t(inH) + padH) --h;
    }
    if (outW) *outW = w;
    if (outH) *outH = h;
}

Pooling* create_pooling() { return static_cast<Pooling*>(calloc(1, sizeof(Pooling))); }

int load_pooling(FILE* stream, void** result) {
    return vo::load_record<Pooling, create_pooling, read_pooling, release_pooling>(stream, result, kUnit, __func__,
                                                                                "pool != nullptr");
}

int save_pooling(FILE* stream, Pooling* pool) {
    if (!stream || !pool) return 4;
    if (!vo::write_fields(stream, kUnit, __func__, pool->type, pool->kernelW, pool->kernelH, pool->padW, pool->padH,
                          pool->strideW, pool->strideH, pool->global))
        return 4;
    return 0;
}

int reshape_pooling(Pooling* pool, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                    ForwardParams*) {
    if (!pool || !inputs || !outputs || inputCount != 1 || outputCount != 1) return 7;
    Tensor* in = inputs[0];
    if (!in || !outputs[0]) return 5;
    // The output has another shape: computing in place would destroy the input.
    VO_CHECK(in != outputs[0], return 5);
    if (pool->global) {
        pool->kernelW = in->width;
        pool->kernelH = in->height;
        pool->padW = pool->padH = 0;
        pool->strideW = pool->strideH = 1;
    }
    VO_CHECK(in->num >= 1 && in->channel >= 1 && in->height >= 1 && in->width >= 1, return 5);
    if (!usable(pool)) return 7;
    int32_t outW = 0, outH = 0;
    calculate_pool_result_size(in->width, in->height, pool->kernelW, pool->kernelH, pool->strideW, pool->strideH,
                               pool->padW, pool->padH, &outW, &outH);
    VO_CHECK(outW >= 1 && outH >= 1, return 5);
    return vo::reshape_tensor_checked(&outputs[0], in->num, in->channel, outH, outW);
}

int forward_pooling(Pooling* pool, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                    ForwardParams*) {
    if (!pool || !inputs || !outputs || inputCount != 1 || outputCount != 1) return 7;
    switch (pool->type) {
        case 0:
            if (has_max_row_kernel(pool)) {
                if (int status = check_reduction("pool_max", pool, inputs[0], outputs[0])) return status;
                max_rows_s2(pool, inputs[0], outputs[0]);
                return 0;
            }
            return pool_max(pool, inputs[0], outputs[0]);
        case 1: return pool_min(pool, inputs[0], outputs[0]);
        case 2: return pool_ave(pool, inputs[0], outputs[0]);
        default: return 7;  // refused at load; only a record built in memory gets here
    }
}

void release_pooling(Pooling** pool) { vo::free_record(pool); }

void get_info_pool(Pooling* pool, char* text) {
    if (!text) return;
    if (!pool) {
        snprintf(text, 128, "Pooling");
        return;
    }
    snprintf(text, 128, "Pooling type: %d kern: %d %d pad: %d %d stride: %d %d global: %d", pool->type,
             pool->kernelW, pool->kernelH, pool->padW, pool->padH, pool->strideW, pool->strideH, pool->global);
}

int pool_max(Pooling* pool, Tensor* input, Tensor* output) {
    if (int status = check_reduction(__func__, pool, input, output)) return status;
    walk(pool, input, output, extreme<true>);
    return 0;
}

int pool_min(Pooling* pool, Tensor* input, Tensor* output) {
    if (int status = check_reduction(__func__, pool, input, output)) return status;
    walk(pool, input, output, extreme<false>);
    return 0;
}

int pool_ave(Pooling* pool, Tensor* input, Tensor* output) {
    if (int status = check_reduction(__func__, pool, input, output)) return status;
    // The divisor is the full kernel area, also for clipped windows.
    const float inv = 1.0f / float(int64_t(pool->kernelW) * pool->kernelH);
    walk(pool, input, output, [inv](const float* src, int64_t width, Range rows, Range cols) {
        float sum = 0.0f;
        for (int64_t y = rows.begin; y < rows.end; ++y) {
            for (int64_t x = cols.begin; x < cols.end; ++x) sum += src[y * width + x];
        }
        return sum * inv;
    });
    return 0;
}

int pool_max_stable(Pooling* pool, Tensor* input, Tensor* output, ForwardParams* params) {
    if (!pool || !params) return 7;
    if (!has_max_row_kernel(pool)) return pool_max(pool, input, output);
    if (int status = check_reduction(__func__, pool, input, output)) return status;
    // The padded copy goes to the scratch tensor, which must be neither end.
    VO_CHECK(input != params->columnBuffer && output != params->columnBuffer, return 5);

    const int64_t width = padded_extent(input->width, pool->kernelW, 2, pool->padW);
    const int64_t height = padded_extent(input->height, pool->kernelH, 2, pool->padH);
    const float* src = input->data;
    if (width != input->width || height != input->height) {
        if (int status = vo::reshape_tensor_checked(&params->columnBuffer, input->num, input->channel, height, width))
            return status;
        // Input rows at (padH, padW); everything around them is the most
        // negative finite float.
        float* padded = params->columnBuffer->data;
        const int64_t planes = int64_t(input->num) * input->channel;
        const int64_t top = pool->padH, left = pool->padW, bottom = height - top - input->height,
                      right = width - left - input->width;
        float* d = padded;
        for (int64_t p = 0; p < planes; ++p) {
            d = std::fill_n(d, top * width, -FLT_MAX);
            const float* row = input->data + p * input->height * input->width;
            for (int64_t y = 0; y < input->height; ++y, row += input->width) {
                d = std::fill_n(d, left, -FLT_MAX);
                d = std::copy_n(row, input->width, d);
                d = std::fill_n(d, right, -FLT_MAX);
            }
            d = std::fill_n(d, bottom * width, -FLT_MAX);
        }
        src = padded;
    }

    const int64_t outPlane = int64_t(output->height) * output->width;
    const int64_t planes = int64_t(input->num) * input->channel;
    for (int64_t p = 0; p < planes; ++p) {
        const float* origin = src + p * height * width;
        if (src != input->data) origin += int64_t(pool->padH) * width + pool->padW;
        PaddedPlane plane{origin, width, pool->padH, int64_t(pool->padH) + input->height,
                          pool->padW, int64_t(pool->padW) + input->width};
        float* dst = output->data + p * outPlane;
        for (int64_t oy = 0; oy < output->height; ++oy) {
            if (pool->kernelW == 2) {
                pool_2x2s2_max_asm(plane, 2 * oy, dst + oy * output->width, output->width);
            } else {
                pool_3x3s2_max_asm(plane, 2 * oy, dst + oy * output->width, output->width);
            }
        }
    }
    return 0;
}

void initial_pool_cudnn(Pooling*) {}
void reshape_pool_cudnn(Pooling*, Tensor**, int, Tensor**, int) {}
void release_pool_cudnn(Pooling*) {}
int forward_pooling_gpu(Pooling*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kPoolingOps = make_layer_ops<Pooling, forward_pooling, reshape_pooling, save_pooling,
                                            release_pooling, get_info_pool, load_pooling>();
}  // namespace vo
