// The int8 kernels against literal loops of their definitions, bit for bit,
// on every instruction-set path this CPU has: random sizes over every
// remainder class of the vector bodies and blockings, unaligned buffers, the
// pinned edge values, and sums that wrap.
#include <vonet/kernels.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "kernels/isa.h"
#include "test_util.h"

namespace {

using vo_test::Buffer;
using vo_test::for_each_isa;

int pick(std::mt19937& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }

// A copy one element off alignment (see Buffer).
template <typename T>
Buffer<T> unaligned(const std::vector<T>& v) {
    Buffer<T> b(v.size());
    if (!v.empty()) std::memcpy(b.data(), v.data(), v.size() * sizeof(T));
    return b;
}

std::vector<int8_t> random_bytes(std::mt19937& rng, size_t n) {
    std::vector<int8_t> v(n);
    for (auto& b : v) b = int8_t(pick(rng, -128, 127));
    return v;
}

// Truncate (a product the conversion cannot hold, NaN included, reads as
// INT32_MIN), keep the low 16 bits as a signed value, clamp to -127..127.
int8_t quantize_literal(float x, float scale) {
    const float p = scale * x;
    int32_t v = INT32_MIN;
    if (p >= -2147483648.0f && p < 2147483648.0f) v = int32_t(p);
    const int16_t low = int16_t(uint16_t(uint32_t(v)));
    return int8_t(low < -127 ? -127 : low > 127 ? 127 : low);
}

// Exact sums in 64 bits, then the low 32 bits.
std::vector<int32_t> product_literal(int M, int N, int K, const int8_t* A, const int8_t* B) {
    std::vector<int32_t> C(size_t(M) * N);
    for (int m = 0; m < M; ++m)
        for (int n = 0; n < N; ++n) {
            int64_t sum = 0;
            for (int k = 0; k < K; ++k) sum += int64_t(A[size_t(m) * K + k]) * B[size_t(k) * N + n];
            C[size_t(m) * N + n] = int32_t(uint32_t(uint64_t(sum)));
        }
    return C;
}

TEST(Int8Kernels, QuantizeInputPinnedValues) {
    struct Case {
        float value, scale;
        int8_t want;
    };
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    const Case cases[] = {{12.69f, 10, 126}, {12.71f, 10, 127}, {13.0f, 10, 127}, {-0.05f, 10, 0},
                          {-20.0f, 10, -127}, {40000.0f, 1, -127}, {65541.0f, 1, 5}, {-2.7f, 1, -2},
                          {2.7f, 1, 2},       {nan, 1, 0},        {inf, 1, 0},      {-inf, 1, 0},
                          {1e10f, 1, 0},      {-1e10f, 1, 0},     {1.0f, inf, 0},   {-2147483648.0f, 1, 0}};
    for_each_isa([&] {
        // Each value in every position of a vector body and of the tail.
        for (const Case& c : cases) {
            for (int count : {1, 8, 13, 32, 45}) {
                std::vector<float> src(size_t(count), 0.5f);
                for (int at = 0; at < count; ++at) {
                    src.assign(size_t(count), 0.5f);
                    src[size_t(at)] = c.value;
                    std::vector<int8_t> dst(size_t(count), 99);
                    quantize_input(src.data(), count, dst.data(), c.scale);
                    ASSERT_EQ(dst[size_t(at)], c.want) << c.value << " x " << c.scale << " at " << at;
                }
            }
        }
    });
}

TEST(Int8Kernels, ConversionsMatchTheElementRule) {
    std::mt19937 rng(7);
    for_each_isa([&] {
        for (int round = 0; round < 200; ++round) {
            const int count = round < 80 ? round : pick(rng, 80, 3000);
            const float scale = round % 7 == 0 ? 1e6f : std::uniform_real_distribution<float>(0.01f, 300.0f)(rng);
            std::vector<float> src = vo_test::random_floats(rng, size_t(count), true);
            Buffer<float> in = unaligned(src);
            Buffer<int8_t> q(size_t(count) + 1, 55);
            quantize_input(in.data(), count, q.data(), scale);
            for (int i = 0; i < count; ++i) ASSERT_EQ(q.data()[i], quantize_literal(src[size_t(i)], scale)) << i;
            EXPECT_EQ(q.data()[count], 55);  // nothing past count

            std::vector<int32_t> sums(static_cast<size_t>(count));
            for (auto& s : sums) s = int32_t(rng());
            Buffer<int32_t> s32 = unaligned(sums);
            const float bias = std::uniform_real_distribution<float>(-5.0f, 5.0f)(rng);
            std::vector<float> want(static_cast<size_t>(count));
            for (int i = 0; i < count; ++i) want[size_t(i)] = std::fma(float(sums[size_t(i)]), 1e-7f * scale, bias);
            Buffer<float> out(static_cast<size_t>(count));
            anti_quantize_output(s32.data(), count, out.data(), 1e-7f * scale, bias);
            ASSERT_TRUE(vo_test::same_bits(out.data(), want.data(), size_t(count)));
        }
        // 300 x 0.01 + 1.5 in one rounding; nothing written for count <= 0.
        std::vector<int32_t> three(19, 300);
        std::vector<float> out(19, -1.0f);
        anti_quantize_output(three.data(), 19, out.data(), 0.01f, 1.5f);
        for (float v : out) EXPECT_EQ(v, 4.5f);
        anti_quantize_output(three.data(), 0, out.data(), 0.0f, 0.0f);
        anti_quantize_output(three.data(), -3, out.data(), 0.0f, 0.0f);
        quantize_input(nullptr, 0, nullptr, 1.0f);
        EXPECT_EQ(out[0], 4.5f);
    });
}

TEST(Int8Kernels, ProductMatchesTripleLoop) {
    std::mt19937 rng(11);
    for_each_isa([&] {
        // Hand-picked shapes straddle the register tiles (6 x 16, 8 x 32),
        // the row blocks (48, 64) and the k blocks (256); random ones fill in.
        std::vector<std::array<int, 3>> shapes = {{5, 9, 6},     {1, 1, 1},     {4, 8, 4},      {6, 16, 2},
                                                  {7, 17, 3},    {8, 32, 4},    {9, 33, 5},     {48, 31, 256},
                                                  {49, 47, 257}, {64, 64, 511}, {65, 95, 513},  {13, 100, 1},
                                                  {3, 200, 27},  {28, 121, 252}, {130, 40, 300}, {2, 3, 0}};
        for (int i = 0; i < 40; ++i) shapes.push_back({pick(rng, 1, 80), pick(rng, 1, 120), pick(rng, 1, 600)});
        for (const auto& s : shapes) {
            const int M = s[0], N = s[1], K = s[2];
            SCOPED_TRACE(testing::Message() << M << " x " << N << " x " << K);
            const std::vector<int8_t> a = random_bytes(rng, size_t(M) * K), b = random_bytes(rng, size_t(K) * N);
            Buffer<int8_t> A = unaligned(a), B = unaligned(b);
            Buffer<int32_t> C(size_t(M) * N, 0x5A5A5A5A);  // prior content must not matter
            matrix_multiply_s8(M, N, K, A.data(), B.data(), C.data());
            const std::vector<int32_t> want = product_literal(M, N, K, a.data(), b.data());
            ASSERT_EQ(std::memcmp(C.data(), want.data(), want.size() * sizeof(int32_t)), 0);
        }
    });
}

TEST(Int8Kernels, ProductExtremesAndWrapAround) {
    for_each_isa([&] {
        // Every term 16384: C = 16384 K exactly, whatever the blocking.
        for (int K : {1, 6, 255, 300}) {
            const int M = 9, N = 35;
            std::vector<int8_t> A(size_t(M) * K, -128), B(size_t(K) * N, -128);
            std::vector<int32_t> C(size_t(M) * N);
            matrix_multiply_s8(M, N, K, A.data(), B.data(), C.data());
            for (int32_t v : C) ASSERT_EQ(v, 16384 * K);
        }
        // 16384 x 140000 passes 2^31: the sum wraps to a negative value;
        // mixed signs land on a value the 64-bit sum fixes.
        const int M = 2, N = 33, K = 140000;
        std::vector<int8_t> A(size_t(M) * K, -128), B(size_t(K) * N, -128);
        for (int k = 0; k < K; ++k) A[size_t(K) + k] = int8_t(k % 3 == 0 ? 127 : -128);
        std::vector<int32_t> C(size_t(M) * N);
        matrix_multiply_s8(M, N, K, A.data(), B.data(), C.data());
        const std::vector<int32_t> want = product_literal(M, N, K, A.data(), B.data());
        EXPECT_EQ(want[0], int32_t(uint32_t(16384u * 140000u)));
        EXPECT_LT(want[0], 0);
        EXPECT_EQ(std::memcmp(C.data(), want.data(), want.size() * sizeof(int32_t)), 0);
        // M or N below 1 writes nothing.
        int32_t sentinel = 7;
        matrix_multiply_s8(0, 1, 1, A.data(), B.data(), &sentinel);
        matrix_multiply_s8(1, 0, 1, A.data(), B.data(), &sentinel);
        EXPECT_EQ(sentinel, 7);
    });
}

// Entry (r, oy * outW + ox) of the column matrix, straight from the
// definition.
std::vector<int8_t> columns_literal(const std::vector<int8_t>& img, int W, int H, int C, int kW, int kH, int sW,
                                    int sH, int pW, int pH) {
    const int outW = (W - kW + 2 * pW) / sW + 1, outH = (H - kH + 2 * pH) / sH + 1;
    std::vector<int8_t> col;
    for (int c = 0; c < C; ++c)
        for (int ky = 0; ky < kH; ++ky)
            for (int kx = 0; kx < kW; ++kx)
                for (int oy = 0; oy < outH; ++oy)
                    for (int ox = 0; ox < outW; ++ox) {
                        const int iy = oy * sH - pH + ky, ix = ox * sW - pW + kx;
                        const bool inside = iy >= 0 && iy < H && ix >= 0 && ix < W;
                        col.push_back(inside ? img[(size_t(c) * H + iy) * W + ix] : 0);
                    }
    return col;
}

TEST(Int8Kernels, UnfoldingMatchesTheDefinition) {
    std::mt19937 rng(3);
    for (int k = 1; k <= 5; ++k)
        for (int s = 1; s <= 3; ++s)
            for (int p = 0; p <= 2; ++p)
                for (int round = 0; round < 3; ++round) {
                    const int kW = k, kH = round == 2 ? pick(rng, 1, 5) : k;
                    const int W = pick(rng, std::max(1, kW - 2 * p), 23), H = pick(rng, std::max(1, kH - 2 * p), 9);
                    const int C = pick(rng, 1, 3), sH = round == 1 ? pick(rng, 1, 3) : s;
                    SCOPED_TRACE(testing::Message() << W << "x" << H << "x" << C << " k" << kW << "x" << kH << " s"
                                                    << s << "," << sH << " p" << p);
                    const std::vector<int8_t> img = random_bytes(rng, size_t(W) * H * C);
                    const std::vector<int8_t> want = columns_literal(img, W, H, C, kW, kH, s, sH, p, p);
                    Buffer<int8_t> in = unaligned(img), col(want.size(), 77);
                    img2col_conv_s8(in.data(), W, H, C, kW, kH, s, sH, p, p, col.data());
                    ASSERT_EQ(std::memcmp(col.data(), want.data(), want.size()), 0);
                }
    // One row: width 5, outW 3, stride 2, offX -1 reads columns 1 and 3.
    const int8_t row[5] = {10, 11, 12, 13, 14};
    int8_t dst[3] = {9, 9, 9};
    img2col_conv_extract_line_s8(row, 5, 1, dst, 3, 1, -1, 0, 2, 1);
    EXPECT_EQ(dst[0], 0);
    EXPECT_EQ(dst[1], 11);
    EXPECT_EQ(dst[2], 13);
}

}  // namespace
