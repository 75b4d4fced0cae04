// The matrix product on AVX2 + FMA: 4 x 24 tiles (12 accumulators). Four
// rows match the row blocks of convolution weights (output channels come
// in multiples of 4), so no tile rows are wasted.
#include "kernels/gemm_internal.h"
#include "kernels/gemm_micro.h"
#include "kernels/impl.h"

namespace vo {
namespace avx2 {

int gemm(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B, float beta,
         float* C) {
    // k blocks of 256 keep a 24-column B panel (24 KB) and a 4-row A panel
    // in L1; 24 A panels (96 rows) and a 1008-column B block stay in L2.
    return gemm_with_tiles<V256, 4, 3, 256, 24, 1008>(transA, transB, M, N, K, alpha, A, B, beta, C);
}

}  // namespace avx2
}  // namespace vo
