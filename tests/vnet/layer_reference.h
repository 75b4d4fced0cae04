// Plain references for the layer tests: the float product's rounding,
// element by element, the convolution, inner product and deconvolution
// written as direct loops, and small helpers to run one layer by hand.
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

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "test_util.h"

namespace vo_ref {

// Element (m, n) of an M x N product with depth K: a[k] and b[k] are the
// k-th values of row m of op(A) and column n of op(B).
inline float product_element(int m, int n, int M, int N, const std::vector<float>& a, const std::vector<float>& b) {
    const int K = int(a.size());
    const bool blockRow = m < M / 4 * 4;
    if (!blockRow) {
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
                 int pH, const std::vector<float>* bias) {
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
                    out.at(n, o, oy, ox) = bias ? v + (*bias)[o] : v;
                }
    return out;
}

// Inner product: row b of the output is the sum over i of input[b][i]
// times weights[i][o], plus the bias; the whole batch is one product.
inline Blob inner_product(const Blob& in, const std::vector<float>& weights, int outputDim,
                          const std::vector<float>* bias) {
    const int inputDim = in.c * in.h * in.w;
    Blob out = blob(in.n, outputDim, 1, 1);
    for (int b = 0; b < in.n; ++b)
        for (int o = 0; o < outputDim; ++o) {
            std::vector<float> x(in.v.begin() + size_t(b) * inputDim, in.v.begin() + size_t(b + 1) * inputDim), y;
            for (int i = 0; i < inputDim; ++i) y.push_back(weights[size_t(i) * outputDim + o]);
            float v = product_element(b, o, in.n, outputDim, x, y);
            out.v[size_t(b) * outputDim + o] = bias ? v + (*bias)[o] : v;
        }
    return out;
}

// Deconvolution: input pixel (y, x) scatters weight[ci][co][ky][kx] times
// its value into output pixel (y * stride - pad + ky, x * stride - pad + kx);
// per image the products are formed first (one product over the input
// channels), then summed in (co, ky, kx, y, x) order from 0, then the bias
// is added. A 1x1 stride-1 unpadded layer takes the products as they are.
inline Blob deconv(const Blob& in, const std::vector<float>& weights, int Co, int kW, int kH, int sW, int sH, int pW,
                   int pH, const std::vector<float>* bias) {
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
        if (bias)
            for (int co = 0; co < Co; ++co)
                for (int i = 0; i < out.h * out.w; ++i) out.v[(size_t(n) * Co + co) * out.h * out.w + i] += (*bias)[co];
    }
    return out;
}

inline std::vector<float> random_floats(std::mt19937& rng, size_t n) {
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> v(n);
    for (auto& x : v) x = dist(rng);
    return v;
}

inline std::string floats_bytes(const std::vector<float>& v) {
    return std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(float));
}

// True when the tensor holds exactly these bits.
inline ::testing::AssertionResult same_bits(const Tensor* t, const std::vector<float>& expected) {
    if (!t) return ::testing::AssertionFailure() << "no tensor";
    if (size_t(t->capacity) != expected.size())
        return ::testing::AssertionFailure() << "capacity " << t->capacity << ", expected " << expected.size();
    for (size_t i = 0; i < expected.size(); ++i) {
        uint32_t got, want;
        memcpy(&got, &t->data[i], 4);
        memcpy(&want, &expected[i], 4);
        if (got != want)
            return ::testing::AssertionFailure()
                   << "element " << i << ": " << t->data[i] << " (0x" << std::hex << got << "), expected "
                   << expected[i] << " (0x" << want << ")";
    }
    return ::testing::AssertionSuccess();
}

inline Tensor* tensor_with(const Blob& b) {
    Tensor* t = create_tensor(b.n, b.c, b.h, b.w);
    memcpy(t->data, b.v.data(), b.v.size() * sizeof(float));
    return t;
}

// True when the tensor has the blob's shape and exactly its bits.
inline ::testing::AssertionResult same_blob(const Tensor* t, const Blob& expected) {
    if (!t) return ::testing::AssertionFailure() << "no tensor";
    if (t->num != expected.n || t->channel != expected.c || t->height != expected.h || t->width != expected.w)
        return ::testing::AssertionFailure() << "shape " << t->num << "x" << t->channel << "x" << t->height << "x"
                                             << t->width << ", expected " << expected.n << "x" << expected.c << "x"
                                             << expected.h << "x" << expected.w;
    return same_bits(t, expected.v);
}

// ---- records of the three layer types (an empty bias means none) ----

inline std::string conv_record(int M, int C, int kW, int kH, int sW, int sH, int pW, int pH,
                               const std::vector<float>& w, const std::vector<float>& bias) {
    vo_test::ModelBytes m;
    m.i32(M).i32(C).i32(kW).i32(kH).i32(sW).i32(sH).i32(pW).i32(pH).u8(bias.empty() ? 0 : 1).u8(0);
    return m.raw(floats_bytes(w)).raw(floats_bytes(bias)).bytes();
}

// Output channels come before input channels in this record.
inline std::string deconv_record(int Co, int Ci, int kW, int kH, int sW, int sH, int pW, int pH,
                                 const std::vector<float>& w, const std::vector<float>& bias) {
    vo_test::ModelBytes m;
    m.i32(Co).i32(Ci).i32(kW).i32(kH).i32(sW).i32(sH).i32(pW).i32(pH).u8(bias.empty() ? 0 : 1);
    return m.raw(floats_bytes(w)).raw(floats_bytes(bias)).bytes();
}

inline std::string fc_record(int inputDim, int outputDim, const std::vector<float>& w,
                             const std::vector<float>& bias) {
    vo_test::ModelBytes m;
    m.u8(bias.empty() ? 0 : 1).u8(0).i32(inputDim).i32(outputDim);
    return m.raw(floats_bytes(w)).raw(floats_bytes(bias)).bytes();
}

// A record read by a layer type's load operation from a real file.
struct Loaded {
    int status = -1;
    void* record = nullptr;
    std::string err;  // what the load printed to stderr
};

inline Loaded load_record(int (*load)(FILE*, void**), const std::string& bytes) {
    vo_test::TempDir dir;
    vo_test::write_file(dir.file("record"), bytes);
    FILE* f = fopen(dir.file("record").c_str(), "rb");
    Loaded r;
    if (!f) return r;
    ::testing::internal::CaptureStderr();
    r.status = load(f, &r.record);
    r.err = ::testing::internal::GetCapturedStderr();
    fclose(f);
    return r;
}

// The bytes a save operation writes.
template <typename R>
std::string saved_bytes(int (*save)(FILE*, R*), R* record) {
    vo_test::TempDir dir;
    FILE* f = fopen(dir.file("saved").c_str(), "wb");
    if (!f) return "";
    int status = save(f, record);
    fclose(f);
    return status == 0 ? vo_test::read_file(dir.file("saved")) : "save failed";
}

template <typename R>
using RunOp = int (*)(R*, Tensor**, int, Tensor**, int, ForwardParams*);

// One layer loaded from its record, with its own input, output and scratch.
template <typename R, int (*Load)(FILE*, void**), RunOp<R> Reshape, RunOp<R> Forward, void (*Release)(R**)>
class LayerRun {
public:
    explicit LayerRun(const std::string& record) {
        Loaded r = load_record(Load, record);
        EXPECT_EQ(r.status, 0) << r.err;
        layer = static_cast<R*>(r.record);
    }
    ~LayerRun() {
        Release(&layer);
        release_forward_params(&params);
        release_tensor(&in);
        release_tensor(&out);
    }
    LayerRun(const LayerRun&) = delete;
    LayerRun& operator=(const LayerRun&) = delete;
    void set_input(int n, int c, int h, int w, const std::vector<float>& values) {
        release_tensor(&in);
        in = tensor_with(blob(n, c, h, w, values));
    }
    int reshape() { return Reshape(layer, &in, 1, &out, 1, params); }
    int forward() { return Forward(layer, &in, 1, &out, 1, params); }

    R* layer = nullptr;
    ForwardParams* params = create_forward_params();
    Tensor* in = nullptr;
    Tensor* out = create_tensor(1, 1, 1, 1);
};

}  // namespace vo_ref

#endif
