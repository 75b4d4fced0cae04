// The matrix product as the plain algorithm: a packed copy of A scaled by
// alpha, B packed with rows of N rounded up to 4, C cleared or scaled by
// beta, then 4-row blocks accumulated into a separate 4 x N accumulator (in
// 4 x 8 column groups, the last N mod 8 columns grouped by four k) and the
// last M mod 4 rows fused straight into C. The portable path, and the
// yardstick of the vector paths.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "kernels/impl.h"
#include "kernels/scratch.h"

namespace vo {
namespace ref {
namespace {

// x[i] *= alpha over a count that may exceed int32.
void scale(float* x, int64_t n, float alpha) {
    for (int64_t i = 0; i < n; i += INT32_MAX / 2) {
        int64_t step = n - i < INT32_MAX / 2 ? n - i : INT32_MAX / 2;
        mul_scalar(x + i, int32_t(step), alpha);
    }
}

}  // namespace

int gemm(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B, float beta,
         float* C) {
    if (M <= 0 || N <= 0) return 0;
    if (K < 0) K = 0;
    const int64_t N4 = (int64_t(N) + 3) & ~int64_t(3);
    const int64_t groups8 = N / 8, rem = N % 8, N8 = groups8 * 8;
    float* a = scratch_floats(kScratchPackA, size_t(M) * size_t(K) + 1);
    float* b = a ? scratch_floats(kScratchPackB, size_t(K) * size_t(N4) + 1) : nullptr;
    float* acc = b ? scratch_floats(kScratchAccumulator, size_t(4) * size_t(N)) : nullptr;
    if (!acc) return 5;

    // 1. Packed A, M x K, scaled by alpha.
    for (int64_t m = 0; m < M; ++m)
        for (int64_t k = 0; k < K; ++k) a[m * K + k] = transA == 1 ? A[k * M + m] : A[m * K + k];
    if (alpha != 1.0f) scale(a, int64_t(M) * K, alpha);
    // 2. Packed B, K x N4 (the padding columns are never read).
    for (int64_t k = 0; k < K; ++k)
        for (int64_t n = 0; n < N; ++n) b[k * N4 + n] = transB == 1 ? B[n * K + k] : B[k * N + n];
    // 3. The prior C.
    if (beta == 0.0f) memset(C, 0, sizeof(float) * size_t(M) * size_t(N));
    else scale(C, int64_t(M) * N, beta);

    // 4. The accumulator of one 4-row block: each 8-column group holds 4 x 8
    // values, the remainder region 4 x (N mod 8).
    auto at = [&](int64_t r, int64_t n) -> float& {
        return n < N8 ? acc[(n / 8) * 32 + r * 8 + n % 8] : acc[groups8 * 32 + r * rem + (n - N8)];
    };
    const int64_t K4 = K / 4 * 4;
    // 5. Blocks of 4 rows.
    for (int64_t blk = 0; blk < M / 4; ++blk) {
        memset(acc, 0, sizeof(float) * size_t(4) * size_t(N));
        for (int64_t k = 0; k < K4; k += 4) {
            const float* b0 = b + k * N4;
            const float* b1 = b0 + N4;
            const float* b2 = b1 + N4;
            const float* b3 = b2 + N4;
            for (int64_t r = 0; r < 4; ++r) {
                const float* ar = a + (blk * 4 + r) * K + k;
                const float a0 = ar[0], a1 = ar[1], a2 = ar[2], a3 = ar[3];
                for (int64_t n = 0; n < N8; ++n)
                    at(r, n) = std::fma(b3[n], a3, std::fma(b2[n], a2, std::fma(b1[n], a1, std::fma(b0[n], a0, at(r, n)))));
                for (int64_t n = N8; n < N; ++n) {
                    float p = b1[n] * a1;
                    p = std::fma(b0[n], a0, p);
                    p = std::fma(b2[n], a2, p);
                    p = std::fma(b3[n], a3, p);
                    at(r, n) = at(r, n) + p;
                }
            }
        }
        for (int64_t k = K4; k < K; ++k)
            for (int64_t r = 0; r < 4; ++r) {
                const float ak = a[(blk * 4 + r) * K + k];
                for (int64_t n = 0; n < N; ++n) at(r, n) = std::fma(b[k * N4 + n], ak, at(r, n));
            }
        for (int64_t r = 0; r < 4; ++r) {
            float* c = C + (blk * 4 + r) * N;
            for (int64_t n = 0; n < N; ++n) c[n] = c[n] + at(r, n);
        }
    }
    // 6. The remaining rows, fused straight into C.
    for (int64_t m = M / 4 * 4; m < M; ++m) {
        float* c = C + m * N;
        const float* am = a + m * K;
        for (int64_t k = 0; k < K4; k += 4) {
            const float* b0 = b + k * N4;
            for (int64_t n = 0; n < N; ++n)
                c[n] = std::fma(am[k + 3], b0[3 * N4 + n],
                                std::fma(am[k + 2], b0[2 * N4 + n],
                                         std::fma(am[k + 1], b0[N4 + n], std::fma(am[k], b0[n], c[n]))));
        }
        for (int64_t k = K4; k < K; ++k) axpy(b + k * N4, N, c, am[k]);
    }
    return 0;
}

}  // namespace ref
}  // namespace vo
