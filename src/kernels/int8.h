// Per-path implementations of the int8 kernels behind the kernel table
// (see isa.h). Every path gives the same bytes and the same integers.
#ifndef VONET_KERNELS_INT8_H
#define VONET_KERNELS_INT8_H

#include <stdint.h>

#define VO_INT8_KERNEL_DECLS                                                                         \
    void quantize_input(const float* src, int count, int8_t* dst, float scale);                      \
    void anti_quantize_output(const int32_t* src, int count, float* dst, float scale, float bias);   \
    void gemm_s8(int M, int N, int K, const int8_t* A, const int8_t* B, int32_t* C);

namespace vo {

namespace ref {
VO_INT8_KERNEL_DECLS
// The element rule of quantize_input.
int8_t quantize_one(float value, float scale);
}  // namespace ref

namespace avx2 {
VO_INT8_KERNEL_DECLS
}  // namespace avx2

namespace avx512vnni {
// Only the product has a VNNI form; the conversions are the AVX2 ones.
void gemm_s8(int M, int N, int K, const int8_t* A, const int8_t* B, int32_t* C);
}  // namespace avx512vnni

}  // namespace vo

#endif
