// Convolution layer, direct float paths: the input image is padded once and
// blocks of output channels and rows go to small block kernels, with no
// column matrix.
#include <vonet/convolution.h>
#include <vonet/kernels.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "kernels/conv_direct.h"
#include "vnet/conv_private.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/conv_stable";

}  // namespace

void conv_pad_round(Tensor* src, int n, int padW, int padH, Tensor* res, int elementSize) {
    VO_CHECK(src && res && src->data && res->data, return);
    VO_CHECK(src->channel == res->channel, return);
    const int64_t padw = padW, padh = padH;
    VO_CHECK(src->width + padw * 2 <= res->width, return);
    VO_CHECK(src->height + padh * 2 <= res->height, return);
    // Beyond the fixed checks: nothing may write or read outside either
    // buffer, whatever the caller passes.
    VO_CHECK(elementSize == 1 || elementSize == 4, return);
    VO_CHECK(padW >= 0 && padH >= 0 && n >= 0 && n < src->num, return);
    VO_CHECK(int64_t(res->channel) * res->height * res->width <= res->capacity, return);

    const size_t es = size_t(elementSize);
    auto* out = reinterpret_cast<unsigned char*>(res->data);
    memset(out, 0, size_t(res->capacity) * es);
    const size_t rowBytes = size_t(src->width) * es;
    const size_t srcPlane = size_t(src->width) * size_t(src->height);
    const size_t resPlane = size_t(res->width) * size_t(res->height);
    const auto* in = reinterpret_cast<const unsigned char*>(src->data) + size_t(n) * src->channel * srcPlane * es;
    for (int32_t c = 0; c < src->channel; ++c) {
        for (int32_t y = 0; y < src->height; ++y) {
            const unsigned char* from = in + (size_t(c) * srcPlane + size_t(y) * src->width) * es;
            unsigned char* to = out + (size_t(c) * resPlane + size_t(y + padH) * res->width + padW) * es;
            memcpy(to, from, rowBytes);
        }
    }
}

// ---- Shared machinery ------------------------------------------------------

namespace {

// Grow-only per-thread working memory of the exported one-image drivers
// (the layer's own path uses ForwardParams instead).
struct LocalScratch {
    float* data = nullptr;
    size_t count = 0;
    ~LocalScratch() { free(data); }
};
thread_local LocalScratch gSplitScratch;
thread_local LocalScratch gGatherScratch;

float* local_floats(LocalScratch& s, size_t count) {
    if (count <= s.count && s.data) return s.data;
    float* data = static_cast<float*>(malloc(count * sizeof(float) + 64));
    if (!data) return nullptr;
    free(s.data);
    s.data = data;
    s.count = count;
    return data;
}

// The geometry of one image on a direct path.
struct Geometry {
    int32_t C, Hp, Wp;  // padded input
    int32_t kH, kW, sH, sW;
    int32_t M, outH, outW;
};

constexpr int32_t kMaxTaps = 64;

// Floats of the stride-split copy of the padded image (0 for stride 1).
int64_t split_floats(const Geometry& g) {
    if (g.sH == 1 && g.sW == 1) return 0;
    const int64_t Hq = (g.Hp + g.sH - 1) / g.sH, Wq = (g.Wp + g.sW - 1) / g.sW;
    return int64_t(g.C) * g.sH * g.sW * Hq * Wq;
}

int64_t gather_floats(const Geometry& g) { return int64_t(g.C) * g.kH * g.kW * 8; }

// The output fits the padded image, the taps fit the table and every
// count stays within int32 where the kernels use it.
bool geometry_fits(const Geometry& g) {
    if (g.C < 1 || g.M < 1 || g.outH < 1 || g.outW < 1 || g.kH < 1 || g.kW < 1 || g.sH < 1 || g.sW < 1)
        return false;
    if (int64_t(g.kH) * g.kW > kMaxTaps) return false;
    if (int64_t(g.outH - 1) * g.sH + g.kH > g.Hp || int64_t(g.outW - 1) * g.sW + g.kW > g.Wp) return false;
    return int64_t(g.C) * g.kH * g.kW <= INT32_MAX;
}

// One image: `padded` holds C planes of Hp x Wp. `split` (split_floats(g))
// and `gather` (gather_floats(g)) are working memory. Weights in the
// layout of DirectConv (MB 1: as stored in the layer).
void direct_image(const Geometry& g, const float* padded, const float* w, int32_t MB, const float* bias,
                  float* out, float* split, float* gather) {
    int64_t taps[kMaxTaps];
    const float* in = padded;
    int64_t wideW = g.Wp, chanStride = int64_t(g.Hp) * g.Wp;
    if (g.sH == 1 && g.sW == 1) {
        for (int32_t ky = 0; ky < g.kH; ++ky)
            for (int32_t kx = 0; kx < g.kW; ++kx) taps[ky * g.kW + kx] = int64_t(ky) * g.Wp + kx;
    } else {
        // Stride s becomes stride 1 on the s x s phases of the image: phase
        // (py, px) holds pixels (r * sH + py, j * sW + px).
        const int64_t Hq = (g.Hp + g.sH - 1) / g.sH, Wq = (g.Wp + g.sW - 1) / g.sW, Q = Hq * Wq;
        float* to = split;
        for (int32_t c = 0; c < g.C; ++c)
            for (int32_t py = 0; py < g.sH; ++py)
                for (int32_t px = 0; px < g.sW; ++px) {
                    // Columns of this phase inside the image; the rest is zero.
                    const int64_t inside = (g.Wp - px + g.sW - 1) / g.sW;
                    for (int64_t r = 0; r < Hq; ++r, to += Wq) {
                        const int64_t y = r * g.sH + py;
                        int64_t j = 0;
                        if (y < g.Hp) {
                            const float* row = padded + (int64_t(c) * g.Hp + y) * g.Wp + px;
                            for (; j < inside; ++j) to[j] = row[j * g.sW];
                        }
                        for (; j < Wq; ++j) to[j] = 0.0f;
                    }
                }
        for (int32_t ky = 0; ky < g.kH; ++ky)
            for (int32_t kx = 0; kx < g.kW; ++kx)
                taps[ky * g.kW + kx] = ((ky % g.sH) * g.sW + kx % g.sW) * Q + (ky / g.sH) * Wq + kx / g.sW;
        in = split;
        wideW = Wq;
        chanStride = int64_t(g.sH) * g.sW * Q;
    }
    const int64_t N = int64_t(g.outH) * g.outW;
    const int32_t Mblk = g.M / 4 * 4;
    vo::DirectConv d;
    d.in = in;
    d.vecStride = 8;
    d.chanStride = chanStride;
    d.taps = taps;
    d.C = g.C;
    d.T = g.kH * g.kW;
    d.Nv = int64_t(g.outH - 1) * wideW + g.outW;
    d.wideW = wideW;
    d.outW = g.outW;
    d.w = w;
    d.M = g.M;
    d.MB = MB;
    d.out = out;
    d.outStride = N;
    d.bias = bias;
    d.Mblk = Mblk;
    vo::direct_conv(d);

    // The last N mod 8 pixels of the 4-row blocks: grouped partial sums.
    const int32_t lanes = int32_t(N % 8);
    if (lanes == 0 || Mblk == 0) return;
    vo::DirectTail t;
    const int32_t K = g.C * g.kH * g.kW;
    memset(gather, 0, size_t(K) * 8 * sizeof(float));
    for (int32_t l = 0; l < lanes; ++l) {
        const int64_t q = N - lanes + l, y = q / g.outW, x = q % g.outW;
        t.pixel[l] = q;
        int32_t k = 0;
        for (int32_t c = 0; c < g.C; ++c)
            for (int32_t ky = 0; ky < g.kH; ++ky) {
                const float* row = padded + (int64_t(c) * g.Hp + y * g.sH + ky) * g.Wp + x * g.sW;
                for (int32_t kx = 0; kx < g.kW; ++kx) gather[int64_t(k++) * 8 + l] = row[kx];
            }
    }
    t.b = gather;
    t.lanes = lanes;
    t.K = K;
    t.w = w;
    t.M = g.M;
    t.MB = MB;
    t.o0 = 0;
    t.o1 = Mblk;
    t.out = out;
    t.outStride = N;
    t.bias = bias;
    t.Mblk = Mblk;
    vo::avx2::direct_conv_tail(t);
}

// Checks of an exported one-image driver: the tensors hold what the sizes
// say (packed weights have the count of the plain ones).
bool driver_fits(const char* op, const Tensor* padded, const Tensor* weights, const Tensor* bias,
                 const float* output, const Geometry& g) {
    VO_CHECK_IN(op, padded && weights && output && padded->data && weights->data, return false);
    VO_CHECK_IN(op, geometry_fits(g), return false);
    VO_CHECK_IN(op, int64_t(padded->channel) * padded->height * padded->width <= padded->capacity, return false);
    VO_CHECK_IN(op, weights->capacity == int64_t(g.M) * g.C * g.kH * g.kW, return false);
    VO_CHECK_IN(op, !bias || (bias->data && bias->capacity >= g.M), return false);
    return true;
}

Geometry driver_geometry(const Tensor* padded, int k, int s, int outC, int outH, int outW) {
    Geometry g{};
    if (padded) {
        g.C = padded->channel;
        g.Hp = padded->height;
        g.Wp = padded->width;
    }
    g.kH = g.kW = k;
    g.sH = g.sW = s;
    g.M = outC;
    g.outH = outH;
    g.outW = outW;
    return g;
}

// The exported drivers on the direct kernels, with per-thread memory.
void run_driver(const char* op, Tensor* padded, Tensor* weights, int32_t MB, Tensor* bias, float* output, int k,
                int s, int outC, int outH, int outW) {
    const Geometry g = driver_geometry(padded, k, s, outC, outH, outW);
    if (!driver_fits(op, padded, weights, bias, output, g)) return;
    float* split = local_floats(gSplitScratch, size_t(split_floats(g)) + 1);
    float* gather = local_floats(gGatherScratch, size_t(gather_floats(g)));
    VO_CHECK_IN(op, split && gather, return);
    direct_image(g, padded->data, weights->data, MB, bias ? bias->data : nullptr, output, split, gather);
}

}  // namespace

// ---- Packings ----------------------------------------------------------------

namespace {

// Rows in blocks of `block` interleaved per k, the rest unchanged.
Tensor* interleave_rows(const char* op, Tensor* weights, int32_t block) {
    VO_CHECK_IN(op, weights && weights->data && weights->num > 0, return nullptr);
    const int64_t K = int64_t(weights->channel) * weights->height * weights->width;
    VO_CHECK_IN(op, K > 0 && K * weights->num == weights->capacity, return nullptr);
    Tensor* packed = nullptr;
    if (vo::reshape_tensor_checked(&packed, weights->num, weights->channel, weights->height, weights->width) != 0)
        release_tensor(&packed);
    VO_CHECK_IN(op, packed != nullptr, return nullptr);
    const int32_t M = weights->num, full = M / block * block;
    const float* w = weights->data;
    float* to = packed->data;
    for (int32_t g = 0; g < full; g += block)
        for (int64_t k = 0; k < K; ++k)
            for (int32_t j = 0; j < block; ++j) *to++ = w[(g + j) * K + k];
    memcpy(to, w + full * K, size_t((M - full) * K) * sizeof(float));
    return packed;
}

}  // namespace

Tensor* conv1x1s1_transform_kernel(Tensor* weights) { return interleave_rows(__func__, weights, 4); }

Tensor* conv3x3s2_transform_kernel(Tensor* weights) { return interleave_rows(__func__, weights, 8); }

namespace {

// Groups of G pixels from *p on while G remain, channel by channel.
template <int G>
void pack_groups(const float* in, int64_t C, int64_t S, int64_t* p, float** to) {
    float* out = *to;
    for (; *p + G <= S; *p += G)
        for (int64_t c = 0; c < C; ++c, out += G) memcpy(out, in + c * S + *p, G * sizeof(float));  // inlined
    *to = out;
}

}  // namespace

void conv_1x1s1_data_packed(Tensor* padded, Tensor* packed) {
    VO_CHECK(padded && packed && padded->data && packed->data, return);
    const int64_t C = padded->channel, S = int64_t(padded->height) * padded->width;
    VO_CHECK(C >= 0 && S >= 0 && C * S <= padded->capacity, return);
    VO_CHECK(C * S <= packed->allocCount, return);
    const float* in = padded->data;
    float* to = packed->data;
    int64_t p = 0;
    pack_groups<8>(in, C, S, &p, &to);
    pack_groups<4>(in, C, S, &p, &to);
    pack_groups<1>(in, C, S, &p, &to);
}

// ---- One-image drivers -------------------------------------------------------

void conv_1x1s1_packed(Tensor* packedData, Tensor* packedKernel, Tensor* bias, float* output, int outC, int outH,
                       int outW) {
    VO_CHECK(packedData && packedKernel && output && packedData->data && packedKernel->data, return);
    VO_CHECK(outC > 0 && outH > 0 && outW > 0, return);
    const int64_t C = packedData->channel, S = int64_t(outH) * outW;
    VO_CHECK(C > 0 && C * S <= packedData->capacity && C <= INT32_MAX / 8, return);
    VO_CHECK(packedKernel->capacity == C * outC, return);
    VO_CHECK(!bias || (bias->data && bias->capacity >= outC), return);
    const float* b = bias ? bias->data : nullptr;
    const int32_t Mblk = outC / 4 * 4;
    const int64_t S8 = S / 8 * 8;
    if (S8 > 0) {
        const int64_t tap = 0;
        vo::DirectConv d;
        d.in = packedData->data;
        d.vecStride = 8 * C;
        d.chanStride = 8;
        d.taps = &tap;
        d.C = int32_t(C);
        d.T = 1;
        d.Nv = S8;
        d.wideW = outW;
        d.outW = outW;
        d.w = packedKernel->data;
        d.M = outC;
        d.MB = 4;
        d.out = output;
        d.outStride = S;
        d.bias = b;
        d.Mblk = Mblk;
        vo::direct_conv(d);
    }
    // The 4-pixel group and the single pixels are the last S mod 8.
    const int32_t lanes = int32_t(S - S8);
    if (lanes == 0) return;
    float* gather = local_floats(gGatherScratch, size_t(C) * 8);
    VO_CHECK(gather != nullptr, return);
    memset(gather, 0, size_t(C) * 8 * sizeof(float));
    const float* data = packedData->data + S8 * C;
    int32_t l = 0;
    if (lanes >= 4) {
        for (int64_t c = 0; c < C; ++c)
            for (int32_t j = 0; j < 4; ++j) gather[c * 8 + j] = data[c * 4 + j];
        data += 4 * C;
        l = 4;
    }
    for (; l < lanes; ++l, data += C)
        for (int64_t c = 0; c < C; ++c) gather[c * 8 + l] = data[c];
    vo::DirectTail t;
    for (int32_t i = 0; i < lanes; ++i) t.pixel[i] = S8 + i;
    t.b = gather;
    t.lanes = lanes;
    t.K = int32_t(C);
    t.w = packedKernel->data;
    t.M = outC;
    t.MB = 4;
    t.o0 = 0;
    t.o1 = outC;
    t.out = output;
    t.outStride = S;
    t.bias = b;
    t.Mblk = Mblk;
    vo::avx2::direct_conv_tail(t);
}

void conv_3x3s1(Tensor* padded, Tensor* weights, Tensor* bias, float* output, int outC, int outH, int outW) {
    run_driver(__func__, padded, weights, 1, bias, output, 3, 1, outC, outH, outW);
}

void conv_3x3s2(Tensor* padded, Tensor* weights, Tensor* bias, float* output, int outC, int outH, int outW) {
    run_driver(__func__, padded, weights, 1, bias, output, 3, 2, outC, outH, outW);
}

void conv_3x3s2_packed(Tensor* padded, Tensor* packedKernel, Tensor* bias, float* output, int outC, int outH,
                       int outW) {
    run_driver(__func__, padded, packedKernel, 8, bias, output, 3, 2, outC, outH, outW);
}

void conv_4x4s4(Tensor* padded, Tensor* weights, Tensor* bias, float* output, int outC, int outH, int outW) {
    const Geometry g = driver_geometry(padded, 4, 4, outC, outH, outW);
    if (!driver_fits(__func__, padded, weights, bias, output, g)) return;
    const int64_t N = int64_t(outH) * outW, plane = int64_t(g.Hp) * g.Wp;
    for (int32_t o = 0; o < outC; ++o) {
        float* out = output + o * N;
        vo_set(out, int32_t(N), bias ? bias->data[o] : 0.0f);
        for (int32_t c = 0; c < g.C; ++c) {
            const float* k = weights->data + (int64_t(o) * g.C + c) * 16;
            const float* in = padded->data + c * plane;
            for (int32_t y = 0; y < outH; ++y) {
                const float* r[4];
                for (int i = 0; i < 4; ++i) r[i] = in + (int64_t(y) * 4 + i) * g.Wp;
                vo::avx2::conv4x4s4_row(r, outW, k, out + int64_t(y) * outW);
            }
        }
    }
}

void print_tensor_data_to_file(Tensor* t, FILE* stream) {
    if (!t || !stream) return;
    const int64_t planes = int64_t(t->num) * t->channel, h = t->height, w = t->width;
    if (planes > 0 && h > 0 && w > 0 && t->data && planes * h * w <= t->capacity) {
        for (int64_t p = 0; p < planes; ++p) {
            fprintf(stream, "c%d\n", int(p));
            for (int64_t y = 0; y < h; ++y) {
                for (int64_t x = 0; x < w; ++x) fprintf(stream, "%.5f ", t->data[(p * h + y) * w + x]);
                fprintf(stream, "\n");
            }
            fprintf(stream, "\n");
        }
    }
    fprintf(stream, "\n");
}

// ---- Forward operations ----------------------------------------------------

namespace {

// The layer against its input and output: the geometry of one image, or
// a status (7 missing or wrong arguments, 5 sizes that do not fit).
int layer_geometry(const char* op, Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                   int outputCount, ForwardParams* params, Geometry* g) {
    if (!conv || !inputs || inputCount != 1 || !outputs || outputCount != 1 || !params) return 7;
    const Tensor* src = inputs[0];
    const Tensor* dst = outputs[0];
    if (!src || !dst) return 5;
    const Tensor* w = conv->weights;
    VO_CHECK_IN(op, w && w->data && !conv->quantized, return 7);
    VO_CHECK_IN(op, !conv->hasBias || (conv->bias && conv->bias->data && conv->bias->capacity >= w->num),
                return 7);
    VO_CHECK_IN(op, src->channel == w->channel && src->num >= 0, return 5);
    g->C = src->channel;
    const int64_t Hp = src->height + 2 * int64_t(conv->padH), Wp = src->width + 2 * int64_t(conv->padW);
    VO_CHECK_IN(op, Hp >= w->height && Wp >= w->width && Hp <= INT32_MAX && Wp <= INT32_MAX, return 5);
    g->Hp = int32_t(Hp);
    g->Wp = int32_t(Wp);
    g->kH = w->height;
    g->kW = w->width;
    g->sH = conv->strideH;
    g->sW = conv->strideW;
    g->M = w->num;
    g->outH = int32_t((Hp - w->height) / conv->strideH + 1);
    g->outW = int32_t((Wp - w->width) / conv->strideW + 1);
    VO_CHECK_IN(op, geometry_fits(*g), return 5);
    VO_CHECK_IN(op, int64_t(g->C) * Hp * Wp <= INT32_MAX, return 5);
    VO_CHECK_IN(op, dst->num == src->num && dst->channel == g->M && dst->height == g->outH && dst->width == g->outW,
                return 5);
    return 0;
}

// The exported forward operations serve one kernel shape each.
int fixed_geometry(const char* op, Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                   int outputCount, ForwardParams* params, int k, int s, Geometry* g) {
    if (int status = layer_geometry(op, conv, inputs, inputCount, outputs, outputCount, params, g)) return status;
    VO_CHECK_IN(op, g->kH == k && g->kW == k && g->sH == s && g->sW == s, return 7);
    return 0;
}

// Builds packedKernel on first use; it is kept (and not rebuilt when the
// weights change) until the layer is released.
bool ensure_packed(const char* op, Convolution* conv, Tensor* (*transform)(Tensor*)) {
    if (conv->packedKernel && conv->packedKernel->capacity == conv->weights->capacity) return true;
    release_tensor(&conv->packedKernel);
    conv->packedKernel = transform(conv->weights);
    VO_CHECK_IN(op, conv->packedKernel != nullptr, return false);
    return true;
}

// Image n of the input, zero-padded into columnBuffer.
bool pad_into(const char* op, Tensor* src, int32_t n, const Convolution* conv, const Geometry& g, Tensor** slot) {
    VO_CHECK_IN(op, vo::reshape_tensor_checked(slot, 1, g.C, g.Hp, g.Wp) == 0, return false);
    conv_pad_round(src, n, conv->padW, conv->padH, *slot, 4);
    return true;
}

typedef void (*ImageDriver)(Tensor* padded, Tensor* weights, Tensor* bias, float* output, int outC, int outH,
                            int outW);

int forward_padded(const char* op, Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                   int outputCount, ForwardParams* params, int k, int s, Tensor* (*transform)(Tensor*),
                   ImageDriver driver) {
    Geometry g;
    if (int status = fixed_geometry(op, conv, inputs, inputCount, outputs, outputCount, params, k, s, &g))
        return status;
    if (transform && !ensure_packed(op, conv, transform)) return 5;
    Tensor* src = inputs[0];
    Tensor* weights = transform ? conv->packedKernel : conv->weights;
    Tensor* bias = conv->hasBias ? conv->bias : nullptr;
    const int64_t outStep = int64_t(g.M) * g.outH * g.outW;
    for (int32_t n = 0; n < src->num; ++n) {
        if (!pad_into(op, src, n, conv, g, &params->columnBuffer)) return 5;
        driver(params->columnBuffer, weights, bias, outputs[0]->data + n * outStep, g.M, g.outH, g.outW);
    }
    return 0;
}

}  // namespace

int forward_conv_1x1s1(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                       ForwardParams* params) {
    Geometry g;
    if (int status = fixed_geometry(__func__, conv, inputs, inputCount, outputs, outputCount, params, 1, 1, &g))
        return status;
    if (!ensure_packed(__func__, conv, conv1x1s1_transform_kernel)) return 5;
    // Deep layers: one matrix product over the image, same rounding.
    if (g.M >= vo::kDirectOneByOneMaxChannels)
        return forward_conv_norm(conv, inputs, inputCount, outputs, outputCount, params);
    VO_CHECK(vo::reshape_tensor_checked(&params->columnBuffer, 1, g.C, g.Hp, g.Wp) == 0, return 5);
    Tensor* src = inputs[0];
    Tensor* bias = conv->hasBias ? conv->bias : nullptr;
    const int64_t outStep = int64_t(g.M) * g.outH * g.outW;
    const bool padded = conv->padW != 0 || conv->padH != 0;
    for (int32_t n = 0; n < src->num; ++n) {
        // Unpadded, image n is packed where it stands (a one-image view).
        Tensor image = *src;
        image.num = 1;
        image.data = src->data + n * int64_t(g.C) * g.Hp * g.Wp;
        image.capacity = g.C * g.Hp * g.Wp;
        if (padded && !pad_into(__func__, src, n, conv, g, &params->padBuffer)) return 5;
        conv_1x1s1_data_packed(padded ? params->padBuffer : &image, params->columnBuffer);
        conv_1x1s1_packed(params->columnBuffer, conv->packedKernel, bias, outputs[0]->data + n * outStep, g.M,
                          g.outH, g.outW);
    }
    return 0;
}

int forward_conv_3x3s1(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                       ForwardParams* params) {
    return forward_padded(__func__, conv, inputs, inputCount, outputs, outputCount, params, 3, 1, nullptr,
                          conv_3x3s1);
}

int forward_conv_3x3s2(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                       ForwardParams* params) {
    return forward_padded(__func__, conv, inputs, inputCount, outputs, outputCount, params, 3, 2,
                          conv3x3s2_transform_kernel, conv_3x3s2_packed);
}

int forward_conv_4x4s4(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                       ForwardParams* params) {
    return forward_padded(__func__, conv, inputs, inputCount, outputs, outputCount, params, 4, 4, nullptr,
                          conv_4x4s4);
}

// ---- The layer's automatic direct path ------------------------------------

namespace vo {

bool conv_direct_serves(const Convolution* conv) {
    const Tensor* w = conv->weights;
    return w && int64_t(w->height) * w->width <= kMaxTaps;
}

int forward_conv_direct(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                        ForwardParams* params) {
    Geometry g;
    if (int status = layer_geometry(__func__, conv, inputs, inputCount, outputs, outputCount, params, &g))
        return status;
    Tensor* src = inputs[0];
    const int64_t plane = int64_t(src->height) * src->width, inStep = plane * g.C;
    const int64_t outStep = int64_t(g.M) * g.outH * g.outW;
    const bool padded = conv->padW != 0 || conv->padH != 0;
    // padBuffer: [padded image | stride-split image | gathered remainder].
    const int64_t padFloats = padded ? int64_t(g.C) * g.Hp * g.Wp : 0;
    const int64_t splitFloats = split_floats(g);
    const int64_t total = padFloats + splitFloats + gather_floats(g);
    VO_CHECK(total <= INT32_MAX && vo::reshape_tensor_checked(&params->padBuffer, 1, 1, 1, total) == 0, return 5);
    float* scratch = params->padBuffer->data;
    const float* bias = conv->hasBias ? conv->bias->data : nullptr;
    for (int32_t n = 0; n < src->num; ++n) {
        const float* image = src->data + n * inStep;
        if (padded) {
            memset(scratch, 0, size_t(padFloats) * sizeof(float));
            for (int32_t c = 0; c < g.C; ++c)
                for (int32_t y = 0; y < src->height; ++y)
                    memcpy(scratch + (int64_t(c) * g.Hp + y + conv->padH) * g.Wp + conv->padW,
                           image + c * plane + int64_t(y) * src->width, size_t(src->width) * sizeof(float));
            image = scratch;
        }
        direct_image(g, image, conv->weights->data, 1, bias, outputs[0]->data + n * outStep, scratch + padFloats,
                     scratch + padFloats + splitFloats);
    }
    return 0;
}

// Images side by side (8, or 16 with AVX-512): lane l of every vector
// belongs to image n0 + l, so all lanes of one output value share
// (o, pixel) and with it the general path's rounding class, whatever the
// size of the output plane.
int forward_conv_direct_batch(Convolution* conv, Tensor** inputs, int inputCount, Tensor** outputs,
                              int outputCount, ForwardParams* params) {
    Geometry g;
    if (int status = layer_geometry(__func__, conv, inputs, inputCount, outputs, outputCount, params, &g))
        return status;
    Tensor* src = inputs[0];
    const int32_t L = vo::direct_batch_lanes();
    const int64_t H = src->height, W = src->width, inStep = int64_t(g.C) * H * W;
    const int64_t N = int64_t(g.outH) * g.outW, outStep = int64_t(g.M) * N;
    const int64_t chanStride = int64_t(g.Hp) * g.Wp, K = int64_t(g.C) * g.kH * g.kW;
    // padBuffer: [offset of input value k from a pixel's first one, 2 floats
    // each | L interleaved padded images, x[(c, y, x) * L + lane] | the
    // weights in blocks of 8 rows (packed on every pass: cheap, and never
    // stale) | the L images' outputs, interleaved like the input].
    const int64_t imageFloats = int64_t(g.C) * chanStride * L;
    const int64_t total = 2 * K + imageFloats + K * g.M + outStep * L;
    VO_CHECK(total <= INT32_MAX && vo::reshape_tensor_checked(&params->padBuffer, 1, 1, 1, total) == 0, return 5);
    // Tensor buffers come from calloc: aligned for any type.
    int64_t* koff = reinterpret_cast<int64_t*>(params->padBuffer->data);
    float* images = params->padBuffer->data + 2 * K;
    float* packed = images + imageFloats;
    float* result = packed + K * g.M;
    {
        int64_t* to = koff;
        for (int32_t c = 0; c < g.C; ++c)
            for (int32_t ky = 0; ky < g.kH; ++ky)
                for (int32_t kx = 0; kx < g.kW; ++kx) *to++ = ((c * g.Hp + ky) * int64_t(g.Wp) + kx) * L;
        const float* w = conv->weights->data;
        const int32_t full = g.M / 8 * 8;
        float* out = packed;
        for (int32_t b = 0; b < full; b += 8)
            for (int64_t k = 0; k < K; ++k)
                for (int32_t j = 0; j < 8; ++j) *out++ = w[(b + j) * K + k];
        memcpy(out, w + full * K, size_t((g.M - full) * K) * sizeof(float));
    }
    const bool padded = conv->padW != 0 || conv->padH != 0;
    vo::DirectTail t;
    t.koff = koff;
    t.bStep = int64_t(g.sW) * L;
    t.outStep = L;
    t.dense = true;
    t.lanes = L;
    t.K = int32_t(K);
    t.w = packed;
    t.M = g.M;
    t.MB = 8;
    t.o0 = 0;
    t.o1 = g.M;
    t.outStride = N * L;
    t.bias = conv->hasBias ? conv->bias->data : nullptr;
    t.Mblk = g.M / 4 * 4;
    // The general path's grouped class: the last N mod 8 pixels.
    const int64_t groupedFrom = N - N % 8;
    for (int64_t n0 = 0; n0 < src->num; n0 += L) {
        const int32_t lanes = int32_t(src->num - n0 < L ? src->num - n0 : L);
        // The lanes of absent images repeat the first image; they are
        // computed and dropped.
        const float* image[16];
        for (int32_t l = 0; l < L; ++l) image[l] = src->data + (n0 + (l < lanes ? l : 0)) * inStep;
        if (padded) memset(images, 0, size_t(imageFloats) * sizeof(float));
        for (int32_t h = 0; h < L; h += 8) {
            if (!padded) {
                vo::avx2::interleave8(image + h, inStep, images + h, L);
                continue;
            }
            for (int32_t c = 0; c < g.C; ++c)
                for (int64_t y = 0; y < H; ++y) {
                    const float* rows[8];
                    for (int32_t l = 0; l < 8; ++l) rows[l] = image[h + l] + (c * H + y) * W;
                    vo::avx2::interleave8(rows, W, images + ((c * g.Hp + y + conv->padH) * g.Wp + conv->padW) * L + h,
                                          L);
                }
        }
        // Each output row in runs of one rounding class.
        for (int64_t py = 0; py < g.outH; ++py) {
            const int64_t rowBegin = py * g.outW, rowEnd = rowBegin + g.outW;
            for (int64_t p = rowBegin; p < rowEnd;) {
                const int64_t end = p < groupedFrom && groupedFrom < rowEnd ? groupedFrom : rowEnd;
                t.b = images + (py * g.sH * g.Wp + (p - rowBegin) * g.sW) * L;
                t.pixels = int32_t(end - p);
                t.grouped = p >= groupedFrom;
                t.out = result + p * L;
                if (L == 16)
                    vo::avx512::direct_conv_tail(t);
                else
                    vo::avx2::direct_conv_tail(t);
                p = end;
            }
        }
        for (int32_t h = 0; h < lanes; h += 8) {
            const int32_t count = lanes - h < 8 ? lanes - h : 8;
            float* to[8];
            for (int32_t l = 0; l < 8; ++l) to[l] = outputs[0]->data + (n0 + h + (l < count ? l : 0)) * outStep;
            vo::avx2::deinterleave8(result + h, outStep, to, count, L);
        }
    }
    return 0;
}

}  // namespace vo
