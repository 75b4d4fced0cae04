// Winograd F(6x6, 3x3) block kernels: the portable reference, written tile
// by tile as the algorithm reads, and the choice of path.
#include "kernels/winograd.h"

#include <cmath>

#include "kernels/isa.h"

namespace vo {

namespace {

struct ScalarOps {
    typedef float V;
    static V set1(float v) { return v; }
    static V add(V a, V b) { return a + b; }
    static V sub(V a, V b) { return a - b; }
    static V mul(V a, V b) { return a * b; }
    static V fma(V a, V b, V c) { return std::fma(a, b, c); }
};

const WinogradKernels kReferenceWinograd = {ref::winograd_input, ref::winograd_products, ref::winograd_output};
const WinogradKernels kAvx2Winograd = {avx2::winograd_input, avx2::winograd_products, avx2::winograd_output};
const WinogradKernels kAvx512Winograd = {avx2::winograd_input, avx512::winograd_products, avx2::winograd_output};

}  // namespace

const WinogradKernels& winograd_kernels() {
    switch (kernels().isa) {
        case kIsaAvx2: return kAvx2Winograd;
        case kIsaAvx512: return kAvx512Winograd;
        default: return kReferenceWinograd;
    }
}

namespace ref {

void winograd_3x3s1_BT_d_B(const float* tile, int32_t stride, float* coeffs) {
    float x[8], y[8], X[8][8];
    for (int j = 0; j < 8; ++j) {  // columns: X = B^T d
        for (int k = 0; k < 8; ++k) x[k] = tile[k * stride + j];
        winograd_bt8<ScalarOps>(x, y);
        for (int i = 0; i < 8; ++i) X[i][j] = y[i];
    }
    for (int i = 0; i < 8; ++i) winograd_bt8<ScalarOps>(X[i], coeffs + i * 8);  // rows: X B
}

void winograd_3x3s1_AT_dot_A(const float* coeffs, int64_t stride, float* out, int32_t outStride, float bias) {
    float x[8], y[6], Z[6][8];
    for (int j = 0; j < 8; ++j) {  // columns: Z = A^T m
        for (int l = 0; l < 8; ++l) x[l] = coeffs[(l * 8 + j) * stride];
        winograd_at8<ScalarOps>(x, y);
        for (int i = 0; i < 6; ++i) Z[i][j] = y[i];
    }
    for (int i = 0; i < 6; ++i) {  // rows: Z A
        winograd_at8<ScalarOps>(Z[i], y);
        for (int j = 0; j < 6; ++j) out[int64_t(i) * outStride + j] = y[j] + bias;
    }
}

namespace {

// `channels` output channels (kernel values `kernStep` apart per input
// channel) by `tiles` tiles (input values `tiles` apart per input channel).
void dot(const float* in, const float* kern, int32_t C, float* out, int64_t outStride, int channels, int kernStep,
         int tiles) {
    for (int j = 0; j < channels; ++j)
        for (int i = 0; i < tiles; ++i) {
            float acc = 0.0f;
            for (int32_t c = 0; c < C; ++c) acc = std::fma(kern[c * kernStep + j], in[int64_t(c) * tiles + i], acc);
            out[j * outStride + i] = acc;
        }
}

}  // namespace

void winograd_3x3s1_dot_chn4_dt8(const float* in, const float* kern, int32_t C, float* out, int64_t outStride) {
    dot(in, kern, C, out, outStride, 4, 4, 8);
}
void winograd_3x3s1_dot_chn4_dt4(const float* in, const float* kern, int32_t C, float* out, int64_t outStride) {
    dot(in, kern, C, out, outStride, 4, 4, 4);
}
void winograd_3x3s1_dot_chn4_dt1(const float* in, const float* kern, int32_t C, float* out, int64_t outStride) {
    dot(in, kern, C, out, outStride, 4, 4, 1);
}
void winograd_3x3s1_dot_chn1_dt8(const float* in, const float* kern, int32_t C, float* out) {
    dot(in, kern, C, out, 0, 1, 1, 8);
}
void winograd_3x3s1_dot_chn1_dt4(const float* in, const float* kern, int32_t C, float* out) {
    dot(in, kern, C, out, 0, 1, 1, 4);
}
void winograd_3x3s1_dot_chn1_dt1(const float* in, const float* kern, int32_t C, float* out) {
    dot(in, kern, C, out, 0, 1, 1, 1);
}

void winograd_input(const float* padded, int32_t tilesW, int32_t tilesH, int32_t C, float* dst) {
    const int32_t T = tilesW * tilesH, paddedW = 6 * tilesW + 2;
    const int64_t paddedPlane = int64_t(paddedW) * (6 * tilesH + 2);
    const int64_t rowLen = int64_t(8) * C, planeStride = winograd_rows(T) * rowLen;
    float coeffs[64];
    for (int32_t c = 0; c < C; ++c) {
        const float* plane = padded + c * paddedPlane;
        int64_t row = 0;
        for (int32_t k0 = 0; k0 < T; ++row) {
            const int gs = winograd_group(T, k0);
            for (int p = 0; p < gs; ++p) {
                const int32_t k = k0 + p;
                const float* tile = plane + int64_t(k / tilesW) * 6 * paddedW + int64_t(k % tilesW) * 6;
                winograd_3x3s1_BT_d_B(tile, paddedW, coeffs);
                for (int t = 0; t < 64; ++t) dst[t * planeStride + row * rowLen + int64_t(c) * gs + p] = coeffs[t];
            }
            k0 += gs;
        }
    }
}

void winograd_products(const float* input, const float* kernel, float* product, int32_t M, int32_t C, int32_t T) {
    const int64_t inRow = int64_t(8) * C, inPlane = winograd_rows(T) * inRow;
    const int64_t kernRow = int64_t(4) * C, outPlane = int64_t(64) * T;
    const int32_t groups4 = M / 4;
    for (int32_t o = 0; o < M;) {
        const bool four = o < groups4 * 4;
        const int32_t group = four ? o / 4 : groups4 + o % 4;
        for (int t = 0; t < 64; ++t) {
            const float* kern = kernel + (int64_t(group) * 64 + t) * kernRow;
            float* out = product + o * outPlane + int64_t(t) * T;
            int64_t row = 0;
            for (int32_t k0 = 0; k0 < T; ++row) {
                const int gs = winograd_group(T, k0);
                const float* in = input + t * inPlane + row * inRow;
                if (four) {
                    if (gs == 8) winograd_3x3s1_dot_chn4_dt8(in, kern, C, out + k0, outPlane);
                    if (gs == 4) winograd_3x3s1_dot_chn4_dt4(in, kern, C, out + k0, outPlane);
                    if (gs == 1) winograd_3x3s1_dot_chn4_dt1(in, kern, C, out + k0, outPlane);
                } else {
                    if (gs == 8) winograd_3x3s1_dot_chn1_dt8(in, kern, C, out + k0);
                    if (gs == 4) winograd_3x3s1_dot_chn1_dt4(in, kern, C, out + k0);
                    if (gs == 1) winograd_3x3s1_dot_chn1_dt1(in, kern, C, out + k0);
                }
                k0 += gs;
            }
        }
        o += four ? 4 : 1;
    }
}

void winograd_output(const float* product, int32_t T, int32_t tilesW, float bias, float* out) {
    const int32_t width = 6 * tilesW;
    for (int32_t k = 0; k < T; ++k)
        winograd_3x3s1_AT_dot_A(product + k, T, out + int64_t(k / tilesW) * 6 * width + int64_t(k % tilesW) * 6,
                                width, bias);
}

}  // namespace ref
}  // namespace vo
