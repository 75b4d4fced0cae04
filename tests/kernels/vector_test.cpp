#include <vonet/kernels.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using vo_test::bits_of;
using vo_test::first_bit_difference;
using vo_test::for_each_isa;
using vo_test::random_floats;

// Literal references: one element at a time, exactly as the table reads.
float ref_max(float x, float v) { return x > v ? x : v; }
float ref_min(float x, float v) { return x < v ? x : v; }
float ref_abs(float x) {
    uint32_t b = bits_of(x) & 0x7fffffffu;
    memcpy(&x, &b, 4);
    return x;
}

// Sizes covering every blocking class: empty, tails 1..3 and 1..7, one
// block of 16 or 32 plus one, and long runs.
const int kSizes[] = {0, 1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 32, 33, 47, 63, 64, 65, 100, 1000, 1027};

// Runs `check(n, offset)` for every size and for aligned and unaligned
// starting points.
template <typename F>
void for_sizes(F check) {
    for (int n : kSizes)
        for (int offset : {0, 1, 3}) {
            SCOPED_TRACE(testing::Message() << "n=" << n << " offset=" << offset);
            check(n, offset);
        }
}

TEST(VectorKernels, ElementwiseMatchLiteralReferenceOnEveryPath) {
    std::mt19937 rng(7);
    for_each_isa([&] {
        for_sizes([&](int n, int off) {
            std::vector<float> xs = random_floats(rng, n + 4, true), ys = random_floats(rng, n + 4, true);
            const float* x = xs.data() + off;
            const float* y0 = ys.data() + off;
            // Zero as the scalar of the comparisons: NaN and -0.0 give +0.0.
            const float alpha = -1.375f, beta = 0.3f, v = 0.125f, zero = 0.0f;
            std::vector<float> got(n + 4), want(n + 4);
            float* g = got.data() + off;
            auto run = [&](auto fill_want, auto call) {
                for (int i = 0; i < n; ++i) want[i] = fill_want(i);
                std::copy(y0, y0 + n, g);
                call();
                EXPECT_EQ(first_bit_difference(g, want.data(), n), -1);
            };
            run([&](int i) { return y0[i] * alpha; }, [&] { vo_mul_scalar(g, n, alpha); });
            run([&](int i) { return std::fma(alpha, x[i], y0[i]); }, [&] { vo_axpy(x, n, g, alpha); });
            run([&](int i) { return std::fma(alpha, x[i], beta); },
                [&] { vo_alpha_multiply_vector_add_beta(x, n, g, alpha, beta); });
            run([&](int i) { return ref_max(x[i], zero); }, [&] { vo_max_scalar(x, g, n, zero); });
            run([&](int i) { return ref_min(x[i], zero); }, [&] { vo_min_scalar(x, g, n, zero); });
            run([&](int i) { return ref_max(x[i], v); }, [&] { vo_max_scalar(x, g, n, v); });
            run([&](int i) { return x[i] + v; }, [&] { vo_add_scalar(x, g, n, v); });
            run([&](int i) { return ref_abs(x[i]); }, [&] { vo_abs(x, g, n); });
            run([&](int i) { return expf(x[i]); }, [&] { vo_exp(x, g, n); });
            run([&](int) { return v; }, [&] { vo_set(g, n, v); });
            run([&](int i) { return x[i] * y0[i]; }, [&] { vo_mul(x, y0, n, g); });
            run([&](int i) { return y0[i] > x[i] ? y0[i] : x[i]; }, [&] { vo_max(x, y0, n, g); });
            run([&](int i) { return x[i] + y0[i]; }, [&] { vo_add(x, y0, n, g); });
        });
    });
}

TEST(VectorKernels, InPlaceCallsMatchOutOfPlace) {
    std::mt19937 rng(11);
    for_each_isa([&] {
        for_sizes([&](int n, int off) {
            std::vector<float> src = random_floats(rng, n + 4, true), other = random_floats(rng, n + 4, true);
            auto check = [&](auto out_of_place, auto in_place) {
                std::vector<float> want(n + 4), buf(src);
                out_of_place(src.data() + off, want.data());
                in_place(buf.data() + off);
                EXPECT_EQ(first_bit_difference(buf.data() + off, want.data(), n), -1);
            };
            const float* b = other.data() + off;
            check([&](const float* x, float* y) { vo_alpha_multiply_vector_add_beta(x, n, y, 1.5f, -2.0f); },
                  [&](float* x) { vo_alpha_multiply_vector_add_beta(x, n, x, 1.5f, -2.0f); });
            check([&](const float* x, float* y) { vo_max_scalar(x, y, n, 0.0f); },
                  [&](float* x) { vo_max_scalar(x, x, n, 0.0f); });
            check([&](const float* x, float* y) { vo_min_scalar(x, y, n, 0.0f); },
                  [&](float* x) { vo_min_scalar(x, x, n, 0.0f); });
            check([&](const float* x, float* y) { vo_abs(x, y, n); }, [&](float* x) { vo_abs(x, x, n); });
            check([&](const float* x, float* y) { vo_mul(x, b, n, y); }, [&](float* x) { vo_mul(x, b, n, x); });
            check([&](const float* x, float* y) { vo_max(x, b, n, y); }, [&](float* x) { vo_max(x, b, n, x); });
            check([&](const float* x, float* y) { vo_add(x, b, n, y); }, [&](float* x) { vo_add(x, b, n, x); });
        });
    });
}

TEST(VectorKernels, SetWithZeroOfEitherSignStoresZeroBytes) {
    for_each_isa([&] {
        std::vector<float> x(10);
        vo_set(x.data(), 10, 2.5f);
        for (float v : x) EXPECT_EQ(v, 2.5f);
        vo_set(x.data(), 10, -0.0f);
        for (float v : x) EXPECT_EQ(bits_of(v), 0u);
    });
}

TEST(VectorKernels, DotIsOneAccumulatorInIndexOrder) {
    std::mt19937 rng(3);
    for (uint64_t n : {0, 1, 3, 4, 5, 17, 1000}) {
        std::vector<float> a = random_floats(rng, n + 1), b = random_floats(rng, n + 1);
        float acc = 0.0f;
        for (uint64_t i = 0; i < n; ++i) acc = std::fma(a[i + 1], b[i], acc);
        EXPECT_EQ(bits_of(vo_dot(a.data() + 1, b.data(), n)), bits_of(acc)) << n;
    }
    // A sum whose value depends on the order: 1e8 + 1 - 1e8 is 0 in float.
    const float a[] = {1e8f, 1.0f, -1e8f}, ones[] = {1.0f, 1.0f, 1.0f};
    EXPECT_EQ(vo_dot(a, ones, 3), 0.0f);
}

TEST(VectorKernels, AlignedMallocAlignsAndFrees) {
    for (int32_t alignment : {1, 8, 16, 32, 64, 4096}) {
        void* p = vo_aligned_malloc(100, alignment);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % uintptr_t(alignment), 0u);
        memset(p, 0xab, 100);  // all 100 bytes usable (checked by the sanitizer build)
        vo_aligned_free(p);
    }
    vo_aligned_free(nullptr);
    EXPECT_EQ(vo_aligned_malloc(100, 24), nullptr);  // not a power of two
    EXPECT_EQ(vo_aligned_malloc(SIZE_MAX - 4, 32), nullptr);
}

TEST(VectorKernels, GpuEntryPointsTouchNothing) {
    float x[4] = {-1, 2, -3, 4}, y[4] = {9, 9, 9, 9};
    vo_abs_gpu(x, y, 4);
    vo_axpy_gpu(x, 4, y, 2.0f);
    vo_max_scalar_gpu(x, y, 4, 0.0f);
    vo_min_scalar_gpu(x, y, 4, 0.0f);
    vo_gpu_set(y, 4, 1.0f);
    vo_mul_gpu(x, x, 4, y);
    vo_add_gpu(x, x, 4, y);
    vo_max_gpu(x, x, 4, y);
    EXPECT_EQ(vo_dot_gpu(x, x, 4), 0.0f);
    EXPECT_EQ(vo_gpu_gemm(0, 0, 1, 1, 1, 1.0f, x, x, 0.0f, y), 0);
    for (float v : y) EXPECT_EQ(v, 9.0f);
    EXPECT_EQ(x[0], -1.0f);
}

TEST(SortArrDtype, SortsAscendingAndKeepsTheValues) {
    float small[] = {3, 1, 2, 1};
    sort_arr_dtype(small, 4);
    EXPECT_EQ(std::vector<float>(small, small + 4), (std::vector<float>{1, 1, 2, 3}));
    sort_arr_dtype(nullptr, 5);
    sort_arr_dtype(small, 0);

    std::vector<float> equal(1000, 0.5f);
    sort_arr_dtype(equal.data(), 1000);
    EXPECT_EQ(equal, std::vector<float>(1000, 0.5f));

    std::mt19937 rng(5);
    for (int n : {2, 7, 8, 9, 40, 41, 100, 1000, 5000}) {
        for (int kind = 0; kind < 5; ++kind) {
            std::vector<float> v = random_floats(rng, n);
            if (kind == 1) std::sort(v.begin(), v.end());
            if (kind == 2) std::sort(v.rbegin(), v.rend());
            if (kind == 3)
                for (auto& x : v) x = float(int(x * 4) % 3);  // few distinct values
            if (kind == 4)
                for (int i = 0; i < n; ++i) v[i] = float(i % 2 ? i : n - i);  // organ pipe
            std::vector<float> want = v;
            std::sort(want.begin(), want.end());
            sort_arr_dtype(v.data(), n);
            EXPECT_EQ(v, want) << "n=" << n << " kind=" << kind;
        }
    }
}

TEST(SortArrDtype, NaNInputEndsAndKeepsEveryValue) {
    std::mt19937 rng(9);
    std::vector<float> v = random_floats(rng, 3000, true);
    std::vector<uint32_t> before;
    for (float x : v) before.push_back(bits_of(x));
    sort_arr_dtype(v.data(), int32_t(v.size()));
    std::vector<uint32_t> after;
    for (float x : v) after.push_back(bits_of(x));
    std::sort(before.begin(), before.end());
    std::sort(after.begin(), after.end());
    EXPECT_EQ(before, after);
}

}  // namespace
