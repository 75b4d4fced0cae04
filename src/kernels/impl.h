// Per-path implementations behind the kernel table (see isa.h).
#ifndef VONET_KERNELS_IMPL_H
#define VONET_KERNELS_IMPL_H

#include <stdint.h>

#define VO_VECTOR_KERNEL_DECLS                                                              \
    void mul_scalar(float* x, int32_t n, float alpha);                                      \
    void axpy(const float* x, int32_t n, float* y, float alpha);                            \
    void alpha_multiply_vector_add_beta(const float* x, int32_t n, float* y, float alpha,   \
                                        float beta);                                        \
    void max_scalar(const float* x, float* y, int32_t n, float v);                          \
    void min_scalar(const float* x, float* y, int32_t n, float v);                          \
    void add_scalar(const float* x, float* y, int32_t n, float v);                          \
    void abs(const float* x, float* y, int32_t n);                                          \
    void set(float* x, int32_t n, float v);                                                 \
    void mul(const float* a, const float* b, int32_t n, float* y);                          \
    void max(const float* a, const float* b, int32_t n, float* y);                          \
    void add(const float* a, const float* b, int32_t n, float* y);

namespace vo {

namespace ref {
VO_VECTOR_KERNEL_DECLS
// The matrix product step by step as the algorithm is written.
int gemm(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B, float beta,
         float* C);
}  // namespace ref

namespace avx2 {
VO_VECTOR_KERNEL_DECLS
int gemm(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B, float beta,
         float* C);
}  // namespace avx2

namespace avx512 {
int gemm(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B, float beta,
         float* C);
}  // namespace avx512

}  // namespace vo

#endif
