// Int8 matrix product with exact 32-bit sums: the portable form, and the
// public entry that runs the active path.
#include <vonet/kernels.h>

#include <cstdint>

#include "kernels/int8.h"
#include "kernels/isa.h"

namespace vo {
namespace ref {

void gemm_s8(int M, int N, int K, const int8_t* A, const int8_t* B, int32_t* C) {
    if (M < 1 || N < 1) return;
    // Sums wrap modulo 2^32 as two's complement; unsigned arithmetic keeps
    // that free of signed overflow.
    for (int m = 0; m < M; ++m) {
        for (int n = 0; n < N; ++n) {
            uint32_t sum = 0;
            for (int k = 0; k < K; ++k)
                sum += uint32_t(int32_t(A[int64_t(m) * K + k]) * int32_t(B[int64_t(k) * N + n]));
            C[int64_t(m) * N + n] = int32_t(sum);
        }
    }
}

}  // namespace ref
}  // namespace vo

void matrix_multiply_s8(int M, int N, int K, const int8_t* A, const int8_t* B, int32_t* C) {
    vo::kernels().gemm_s8(M, N, K, A, B, C);
}
