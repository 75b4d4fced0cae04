// Checked entry of the float matrix product for the layers.
#ifndef VONET_KERNELS_GEMM_H
#define VONET_KERNELS_GEMM_H

namespace vo {

// vo_gemm with a status: 0, or 5 when working memory could not be obtained
// (C is then unchanged). M or N below 1 does nothing; K below 1 counts as 0.
int gemm_checked(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B, float beta,
                 float* C);

}  // namespace vo

#endif
