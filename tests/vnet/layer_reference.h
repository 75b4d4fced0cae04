// Plain references of the layers, written as direct loops over the
// definitions, for the layer and end-to-end tests.
//
// The library's matrix product C = op(A) op(B) (alpha 1, beta 0) rounds
// each element in one of three ways, fixed by its position:
// - rows past the last full block of 4 rows fuse every product into C,
//   starting from +0.0;
// - rows inside 4-row blocks accumulate from +0.0 and then add that sum to
//   +0.0 (which only turns -0.0 into +0.0);
// - except in the last N mod 8 columns of those rows, where each group of
//   4 k forms its own partial sum (k+1 first, then k, k+2, k+3) before it
//   is added.
#ifndef VONET_TESTS_VNET_LAYER_REFERENCE_H
#define VONET_TESTS_VNET_LAYER_REFERENCE_H

#include <vonet/vonet.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace vo_ref {

// Element (m, n) of an M x N product with depth K: a[k] and b[k] are the
// k-th values of row m of op(A) and column n of op(B).
inline float product_element(int m, int n, int M, int N, const std::vector<float>& a, const std::vector<float>& b) {
    const int K = int(a.size());
    if (m >= M / 4 * 4) {
        float c = 0.0f;
        for (int k = 0; k < K; ++k) c = std::fma(a[k], b[k], c);
        return c;
    }
    float acc = 0.0f;
    if (n < N / 8 * 8) {
        for (int k = 0; k < K; ++k) acc = std::fma(a[k], b[k], acc);
    } else {
        int k = 0;
        for (; k + 4 <= K; k += 4) {
            float p = b[k + 1] * a[k + 1];
            p = std::fma(b[k], a[k], p);
            p = std::fma(b[k + 2], a[k + 2], p);
            p = std::fma(b[k + 3], a[k + 3], p);
            acc = acc + p;
        }
        for (; k < K; ++k) acc = std::fma(b[k], a[k], acc);
    }
    return 0.0f + acc;
}

// A tensor's shape and values, (num, channel, height, width) order.
struct Blob {
    int n = 0, c = 0, h = 0, w = 0;
    std::vector<float> v;
    int dim(int axis) const { return axis == 0 ? n : axis == 1 ? c : axis == 2 ? h : w; }
    float& at(int in, int ic, int ih, int iw) { return v[((size_t(in) * c + ic) * h + ih) * w + iw]; }
    float at(int in, int ic, int ih, int iw) const { return v[((size_t(in) * c + ic) * h + ih) * w + iw]; }
};

inline Blob blob(int n, int c, int h, int w, std::vector<float> v = {}) {
    Blob b{n, c, h, w, std::move(v)};
    b.v.resize(size_t(n) * c * h * w);
    return b;
}

// Convolution: each output value is the sum over (input channel, kernel
// row, kernel column) of weight times input pixel (0 in the padding), plus
// the bias. Output size (in - kernel + 2 pad) / stride + 1, truncated.
inline Blob conv(const Blob& in, const std::vector<float>& weights, int M, int kW, int kH, int sW, int sH, int pW,
                 int pH, const std::vector<float>& bias) {
    Blob out = blob(in.n, M, (in.h - kH + 2 * pH) / sH + 1, (in.w - kW + 2 * pW) / sW + 1);
    const int N = out.h * out.w;
    for (int n = 0; n < in.n; ++n)
        for (int o = 0; o < M; ++o)
            for (int oy = 0; oy < out.h; ++oy)
                for (int ox = 0; ox < out.w; ++ox) {
                    std::vector<float> a, b;
                    for (int ch = 0; ch < in.c; ++ch)
                        for (int ky = 0; ky < kH; ++ky)
                            for (int kx = 0; kx < kW; ++kx) {
                                a.push_back(weights[((size_t(o) * in.c + ch) * kH + ky) * kW + kx]);
                                int iy = oy * sH - pH + ky, ix = ox * sW - pW + kx;
                                bool inside = iy >= 0 && iy < in.h && ix >= 0 && ix < in.w;
                                b.push_back(inside ? in.at(n, ch, iy, ix) : 0.0f);
                            }
                    float v = product_element(o, oy * out.w + ox, M, N, a, b);
                    out.at(n, o, oy, ox) = bias.empty() ? v : v + bias[o];
                }
    return out;
}

// Inner product: row b of the output is the sum over i of input[b][i]
// times weights[i][o], plus the bias; the whole batch is one product.
inline Blob inner_product(const Blob& in, const std::vector<float>& weights, int outputDim,
                          const std::vector<float>& bias) {
    const int inputDim = in.c * in.h * in.w;
    Blob out = blob(in.n, outputDim, 1, 1);
    for (int b = 0; b < in.n; ++b)
        for (int o = 0; o < outputDim; ++o) {
            std::vector<float> x(in.v.begin() + size_t(b) * inputDim, in.v.begin() + size_t(b + 1) * inputDim), y;
            for (int i = 0; i < inputDim; ++i) y.push_back(weights[size_t(i) * outputDim + o]);
            float v = product_element(b, o, in.n, outputDim, x, y);
            out.v[size_t(b) * outputDim + o] = bias.empty() ? v : v + bias[o];
        }
    return out;
}

// Deconvolution: input pixel (y, x) scatters weight[ci][co][ky][kx] times
// its value into output pixel (y * stride - pad + ky, x * stride - pad + kx);
// per image the products are formed first (one product over the input
// channels), then summed in (co, ky, kx, y, x) order from 0, then the bias
// is added. A 1x1 stride-1 unpadded layer takes the products as they are.
inline Blob deconv(const Blob& in, const std::vector<float>& weights, int Co, int kW, int kH, int sW, int sH, int pW,
                   int pH, const std::vector<float>& bias) {
    const bool direct = kW == 1 && kH == 1 && sW == 1 && sH == 1 && pW == 0 && pH == 0;
    const int M = Co * kH * kW, N = in.h * in.w;
    Blob out = blob(in.n, Co, kH + (in.h - 1) * sH - 2 * pH, kW + (in.w - 1) * sW - 2 * pW);
    for (int n = 0; n < in.n; ++n) {
        std::vector<float> product(size_t(M) * N);
        for (int m = 0; m < M; ++m)
            for (int p = 0; p < N; ++p) {
                std::vector<float> a, b;
                for (int ci = 0; ci < in.c; ++ci) {
                    a.push_back(weights[size_t(ci) * M + m]);
                    b.push_back(in.v[(size_t(n) * in.c + ci) * N + p]);
                }
                product[size_t(m) * N + p] = product_element(m, p, M, N, a, b);
            }
        for (int co = 0; co < Co; ++co)
            for (int ky = 0; ky < kH; ++ky)
                for (int kx = 0; kx < kW; ++kx)
                    for (int y = 0; y < in.h; ++y)
                        for (int x = 0; x < in.w; ++x) {
                            float v = product[size_t((co * kH + ky) * kW + kx) * N + y * in.w + x];
                            if (direct) {
                                out.at(n, co, y, x) = v;
                                continue;
                            }
                            int oy = y * sH - pH + ky, ox = x * sW - pW + kx;
                            if (oy >= 0 && oy < out.h && ox >= 0 && ox < out.w) out.at(n, co, oy, ox) += v;
                        }
        if (!bias.empty())
            for (int co = 0; co < Co; ++co)
                for (int i = 0; i < out.h * out.w; ++i) out.v[(size_t(n) * Co + co) * out.h * out.w + i] += bias[co];
    }
    return out;
}

inline Blob prelu(Blob x, const std::vector<float>& slopes) {
    for (int n = 0; n < x.n; ++n)
        for (int c = 0; c < x.c; ++c)
            for (int i = 0; i < x.h * x.w; ++i) {
                float& v = x.v[(size_t(n) * x.c + c) * x.h * x.w + i];
                if (0.0f > v) v = v * slopes[c];
            }
    return x;
}

// Pooling output size in one direction: the quotient rounded up, so a last
// window may be clipped by the edge; when either direction is padded, a
// window starting in the padding is dropped.
inline int pool_size(int in, int k, int s, int p, bool padded) {
    int out = int(std::ceil(float(in - k + 2 * p) / float(s)) + 1.0);
    if (padded && (out - 1) * s >= in + p) --out;
    return out;
}

// Type 0 maximum, 1 minimum (both starting from the window's first pixel),
// 2 the float sum in row order times 1 / kernel area; a window clipped to
// nothing gives 0.
inline Blob pool(const Blob& x, int type, int kW, int kH, int pW, int pH, int sW, int sH) {
    const bool padded = pW != 0 || pH != 0;
    Blob out = blob(x.n, x.c, pool_size(x.h, kH, sH, pH, padded), pool_size(x.w, kW, sW, pW, padded));
    for (int n = 0; n < x.n; ++n)
        for (int c = 0; c < x.c; ++c)
            for (int oy = 0; oy < out.h; ++oy)
                for (int ox = 0; ox < out.w; ++ox) {
                    int hs = oy * sH - pH, ws = ox * sW - pW;
                    int he = std::min(hs + kH, x.h), we = std::min(ws + kW, x.w);
                    hs = std::max(hs, 0);
                    ws = std::max(ws, 0);
                    float r = 0.0f;
                    if (he > hs && we > ws && type == 2) {
                        for (int y = hs; y < he; ++y)
                            for (int xx = ws; xx < we; ++xx) r += x.at(n, c, y, xx);
                        r = r * (1.0f / float(kW * kH));
                    } else if (he > hs && we > ws) {
                        r = x.at(n, c, hs, ws);
                        for (int y = hs; y < he; ++y)
                            for (int xx = ws; xx < we; ++xx) {
                                float v = x.at(n, c, y, xx);
                                if (type == 0 ? v > r : v < r) r = v;
                            }
                    }
                    out.at(n, c, oy, ox) = r;
                }
    return out;
}

// Along `axis`, at every other position: the maximum (from the first
// value), exponentials of the differences, their sum in order, division.
inline Blob softmax(Blob x, int axis) {
    int outer = 1, inner = 1;
    for (int i = 0; i < axis; ++i) outer *= x.dim(i);
    for (int i = axis + 1; i < 4; ++i) inner *= x.dim(i);
    const int channels = x.dim(axis);
    for (int o = 0; o < outer; ++o)
        for (int k = 0; k < inner; ++k) {
            auto v = [&](int c) -> float& { return x.v[(size_t(o) * channels + c) * inner + k]; };
            float m = v(0);
            for (int c = 0; c < channels; ++c) m = v(c) > m ? v(c) : m;
            float sum = 0.0f;
            for (int c = 0; c < channels; ++c) {
                v(c) = expf(v(c) - m);
                sum += v(c);
            }
            for (int c = 0; c < channels; ++c) v(c) = v(c) / sum;
        }
    return x;
}

// Concatenation: output position p along `axis` comes from the part whose
// range holds p.
inline Blob concat(const std::vector<Blob>& parts, int axis) {
    int size[4] = {parts[0].n, parts[0].c, parts[0].h, parts[0].w};
    for (size_t i = 1; i < parts.size(); ++i) size[axis] += parts[i].dim(axis);
    Blob out = blob(size[0], size[1], size[2], size[3]);
    for (int n = 0; n < out.n; ++n)
        for (int c = 0; c < out.c; ++c)
            for (int y = 0; y < out.h; ++y)
                for (int x = 0; x < out.w; ++x) {
                    int at[4] = {n, c, y, x};
                    size_t i = 0;
                    while (at[axis] >= parts[i].dim(axis)) at[axis] -= parts[i++].dim(axis);
                    out.at(n, c, y, x) = parts[i].at(at[0], at[1], at[2], at[3]);
                }
    return out;
}

}  // namespace vo_ref

#endif
