#include <vonet/kernels.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "test_util.h"
#include "kernels/gemm.h"
#include "kernels/scratch.h"

namespace {

using vo_test::bits_of;
using vo_test::first_bit_difference;
using vo_test::for_each_isa;
using vo_test::random_floats;

// The product element by element, with the rounding sequence of each of
// the three classes written out: rows of the 4-row blocks (main columns and
// the last N mod 8 columns) and the last M mod 4 rows.
void reference_gemm(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B,
                    float beta, float* C) {
    auto a = [&](int m, int k) {
        float v = transA == 1 ? A[int64_t(k) * M + m] : A[int64_t(m) * K + k];
        return alpha != 1.0f ? v * alpha : v;
    };
    auto b = [&](int k, int n) { return transB == 1 ? B[int64_t(n) * K + k] : B[int64_t(k) * N + n]; };
    const int M4 = M / 4 * 4, N8 = N / 8 * 8, K4 = K / 4 * 4;
    for (int m = 0; m < M; ++m) {
        for (int n = 0; n < N; ++n) {
            float& c = C[int64_t(m) * N + n];
            const float c0 = beta == 0.0f ? 0.0f : beta * c;
            if (m >= M4) {
                float v = c0;
                for (int k = 0; k < K; ++k) v = std::fma(a(m, k), b(k, n), v);
                c = v;
            } else if (n < N8) {
                float acc = 0.0f;
                for (int k = 0; k < K; ++k) acc = std::fma(a(m, k), b(k, n), acc);
                c = c0 + acc;
            } else {
                float acc = 0.0f;
                for (int k = 0; k < K4; k += 4) {
                    float p = b(k + 1, n) * a(m, k + 1);
                    p = std::fma(b(k, n), a(m, k), p);
                    p = std::fma(b(k + 2, n), a(m, k + 2), p);
                    p = std::fma(b(k + 3, n), a(m, k + 3), p);
                    acc = acc + p;
                }
                for (int k = K4; k < K; ++k) acc = std::fma(b(k, n), a(m, k), acc);
                c = c0 + acc;
            }
        }
    }
}

struct Case {
    int transA, transB, M, N, K;
    float alpha, beta;
};

// Runs one product on the active path with every operand at an odd offset
// (unaligned) and compares all bits with the reference.
void check_case(const Case& t, std::mt19937& rng, bool specials) {
    SCOPED_TRACE(testing::Message() << "transA=" << t.transA << " transB=" << t.transB << " M=" << t.M
                                    << " N=" << t.N << " K=" << t.K << " alpha=" << t.alpha << " beta=" << t.beta);
    const size_t sa = size_t(t.M) * t.K, sb = size_t(t.K) * t.N, sc = size_t(t.M) * t.N;
    std::vector<float> A = random_floats(rng, sa + 1, specials), B = random_floats(rng, sb + 1, specials);
    std::vector<float> C = random_floats(rng, sc + 2, specials);
    if (t.beta == 0.0f && sc > 0) C[1] = NAN;  // must not survive a zero beta
    std::vector<float> want(C);
    reference_gemm(t.transA, t.transB, t.M, t.N, t.K, t.alpha, A.data() + 1, B.data() + 1, t.beta, want.data() + 1);
    vo_gemm(t.transA, t.transB, t.M, t.N, t.K, t.alpha, A.data() + 1, B.data() + 1, t.beta, C.data() + 1);
    const int64_t diff = first_bit_difference(C.data(), want.data(), int64_t(sc) + 2);
    EXPECT_EQ(diff, -1) << "got " << C[diff] << " want " << want[diff];
}

TEST(Gemm, SmallShapesOfEveryRemainderClassAreBitExact) {
    std::mt19937 rng(1);
    for_each_isa([&] {
        const float alphas[] = {1.0f, -0.75f, 3.1f};
        const float betas[] = {0.0f, -0.0f, 1.0f, 0.37f};
        const int transes[] = {0, 1, 2, -1};
        int i = 0;
        for (int M : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 13, 17})
            for (int N : {0, 1, 3, 4, 7, 8, 9, 15, 16, 17, 23, 33, 40})
                for (int K : {0, 1, 2, 3, 4, 5, 7, 8, 9, 13}) {
                    ++i;
                    Case t{transes[i % 4], transes[(i / 4) % 4], M, N, K, alphas[i % 3], betas[(i / 3) % 4]};
                    check_case(t, rng, i % 5 == 0);
                }
    });
}

TEST(Gemm, BlockedShapesAreBitExact) {
    // Past the k block (256/192), the row block and the column block of the
    // vector paths, with and without a prior C.
    std::mt19937 rng(2);
    for_each_isa([&] {
        const Case cases[] = {
            {0, 0, 16, 100, 300, 1.0f, 0.0f},   {1, 1, 13, 37, 517, 0.5f, 0.0f},
            {0, 1, 101, 67, 260, 1.0f, 0.0f},   {1, 0, 7, 1100, 20, -2.0f, 0.0f},
            {0, 0, 35, 1043, 261, 1.0f, 0.0f},  {0, 0, 22, 29, 700, 1.0f, 0.7f},
            {1, 0, 64, 196, 576, 1.0f, 1.0f},   {0, 1, 130, 20, 9, 1.0f, -1.0f},
        };
        for (const Case& t : cases) check_case(t, rng, false);
    });
}

TEST(Gemm, UnderflowingProductsKeepTheSignOfZeroPerClass) {
    // Every product is -1e-60 in exact arithmetic and underflows: an
    // accumulator started at +0.0 becomes -0.0. Block rows then store
    // fl(+0 + -0) = +0.0; the last M mod 4 rows keep -0.0. The last N mod 8
    // columns of block rows start their group sum from a product: fl(-1e-60)
    // is -0.0, then +0.0 + -0.0 = +0.0.
    for_each_isa([&] {
        for (int K : {1, 4, 5, 300}) {
            const int M = 6, N = 11;
            std::vector<float> A(size_t(M) * K, -1e-30f), B(size_t(K) * N, 1e-30f), C(size_t(M) * N, 5.0f);
            vo_gemm(0, 0, M, N, K, 1.0f, A.data(), B.data(), 0.0f, C.data());
            for (int m = 0; m < M; ++m)
                for (int n = 0; n < N; ++n)
                    EXPECT_EQ(bits_of(C[m * N + n]), m < 4 ? 0u : bits_of(-0.0f)) << m << "," << n << " K=" << K;
        }
        // With K = 0 the block rows still add their +0.0: a prior -0.0
        // (times beta 1) becomes +0.0 there and stays -0.0 in the last rows.
        std::vector<float> C(5 * 3, -0.0f);
        vo_gemm(0, 0, 5, 3, 0, 1.0f, nullptr, nullptr, 1.0f, C.data());
        for (int m = 0; m < 5; ++m) EXPECT_EQ(bits_of(C[m * 3]), m < 4 ? 0u : bits_of(-0.0f));
    });
}

TEST(Gemm, FailedWorkingMemoryLeavesCUnchangedAndRepeatsDoNotAllocate) {
    // Scratch is per thread: a fresh thread starts with none.
    std::thread([] {
        std::mt19937 rng(4);
        const int M = 9, N = 30, K = 40;
        std::vector<float> A = random_floats(rng, M * K), B = random_floats(rng, K * N), C(M * N, 7.0f);
        for_each_isa([&] {
            vo::set_scratch_failure_for_testing(true);
            EXPECT_EQ(vo::gemm_checked(0, 0, M, N, K, 1.0f, A.data(), B.data(), 0.0f, C.data()), 5);
            vo_gemm(0, 0, M, N, K, 1.0f, A.data(), B.data(), 0.0f, C.data());
            for (float v : C) EXPECT_EQ(v, 7.0f);
            vo::set_scratch_failure_for_testing(false);
        });
        for_each_isa([&] {
            EXPECT_EQ(vo::gemm_checked(0, 0, M, N, K, 1.0f, A.data(), B.data(), 0.0f, C.data()), 0);
            // The same shape again needs no new memory.
            vo::set_scratch_failure_for_testing(true);
            EXPECT_EQ(vo::gemm_checked(0, 0, M, N, K, 1.0f, A.data(), B.data(), 0.0f, C.data()), 0);
            vo::set_scratch_failure_for_testing(false);
        });
    }).join();
}

}  // namespace
