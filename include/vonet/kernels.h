// Compute kernels: element-wise float routines, the float matrix product,
// and the unfolding of images into column matrices.
//
// Arrays are plain float arrays of `n` elements; no alignment is required.
// The float routines use fused multiply-add where noted, which fixes their
// rounding: every instruction set produces the same bits.
#ifndef VONET_KERNELS_H
#define VONET_KERNELS_H

#include <stddef.h>
#include <stdint.h>

// x[i] = x[i] * alpha
void vo_mul_scalar(float* x, int32_t n, float alpha);
// y[i] = fma(alpha, x[i], y[i])
void vo_axpy(const float* x, int32_t n, float* y, float alpha);
// y[i] = fma(alpha, x[i], beta); x may equal y
void vo_alpha_multiply_vector_add_beta(const float* x, int32_t n, float* y, float alpha, float beta);
// y[i] = x[i] > v ? x[i] : v (a NaN gives v)
void vo_max_scalar(const float* x, float* y, int32_t n, float v);
// y[i] = x[i] < v ? x[i] : v (a NaN gives v)
void vo_min_scalar(const float* x, float* y, int32_t n, float v);
// y[i] = x[i] + v
void vo_add_scalar(const float* x, float* y, int32_t n, float v);
// y[i] = x[i] with the sign bit cleared
void vo_abs(const float* x, float* y, int32_t n);
// y[i] = expf(x[i])
void vo_exp(const float* x, float* y, int32_t n);
// x[i] = v; a fill with zero (of either sign) stores zero bytes
void vo_set(float* x, int32_t n, float v);
// y[i] = a[i] * b[i]
void vo_mul(const float* a, const float* b, int32_t n, float* y);
// y[i] = b[i] > a[i] ? b[i] : a[i]
void vo_max(const float* a, const float* b, int32_t n, float* y);
// y[i] = a[i] + b[i]
void vo_add(const float* a, const float* b, int32_t n, float* y);
// One float accumulator in index order: acc = fma(a[i], b[i], acc).
float vo_dot(const float* a, const float* b, uint64_t n);

// `alignment` is a power of two; null on failure. Free with vo_aligned_free.
void* vo_aligned_malloc(size_t size, int32_t alignment);
void vo_aligned_free(void* p);

// Ascending in-place sort of n floats (non-recursive quicksort).
void sort_arr_dtype(float* arr, int32_t n);

// Accelerator entry points: this build has no accelerator back end, so
// they return at once and touch nothing.
void vo_abs_gpu(const float* x, float* y, int32_t n);
void vo_axpy_gpu(const float* x, int32_t n, float* y, float alpha);
void vo_max_scalar_gpu(const float* x, float* y, int32_t n, float v);
void vo_min_scalar_gpu(const float* x, float* y, int32_t n, float v);
void vo_gpu_set(float* x, int32_t n, float v);
void vo_mul_gpu(const float* a, const float* b, int32_t n, float* y);
void vo_add_gpu(const float* a, const float* b, int32_t n, float* y);
void vo_max_gpu(const float* a, const float* b, int32_t n, float* y);
float vo_dot_gpu(const float* a, const float* b, uint64_t n);

// C <- alpha * op(A) * op(B) + beta * C, dense row-major, no leading
// dimensions: op(A) is M x K (A stored K x M when transA is 1), op(B) is
// K x N (B stored N x K when transB is 1), C is M x N. alpha scales the
// operand A, not the product; beta 0 clears C. If working memory cannot be
// obtained, C is left unchanged.
void vo_gemm(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B, float beta,
             float* C);
void matrix_multiply(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B,
                     float beta, float* C);
int vo_gpu_gemm(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B, float beta,
                float* C);

// out = (in - kernel + 2 * pad) / stride + 1, truncating toward zero.
void calculate_conv_result_size(int32_t inW, int32_t inH, int32_t kernelW, int32_t kernelH, int32_t strideW,
                                int32_t strideH, int32_t padW, int32_t padH, int32_t* outW, int32_t* outH);
// Unfolds a channels x height x width image into the column matrix of
// (channels * kernelH * kernelW) rows and (outH * outW) columns.
void img2col_conv(const float* data, int32_t width, int32_t height, int32_t channels, int32_t kernelW,
                  int32_t kernelH, int32_t strideW, int32_t strideH, int32_t padW, int32_t padH, float* col);
// The adjoint: overwrites data with the sum of the column entries that fall
// on each pixel.
void col2img_conv(const float* col, int32_t width, int32_t height, int32_t channels, int32_t kernelW,
                  int32_t kernelH, int32_t strideW, int32_t strideH, int32_t padW, int32_t padH, float* data);

// ---- Int8 kernels -----------------------------------------------------------
// Symmetric 8-bit values in -127..127, exact 32-bit integer sums (wrapping
// beyond the int32 range), float scales.

// dst[i] = clamp(int16(trunc(scale * src[i])), -127, 127): the truncated
// value keeps its low 16 bits before the clamp. A product outside the int32
// range (NaN and infinities included) gives 0.
void quantize_input(const float* src, int count, int8_t* dst, float scale);
// dst[i] = fma(float(src[i]), scale, bias).
void anti_quantize_output(const int32_t* src, int count, float* dst, float scale, float bias);
// C (M x N) = A (M x K) * B (K x N), dense row-major, 32-bit sums; C is
// overwritten. Allocates nothing.
void matrix_multiply_s8(int M, int N, int K, const int8_t* A, const int8_t* B, int32_t* C);
// The 8-bit column matrix of one image, laid out as img2col_conv's.
void img2col_conv_s8(const int8_t* data, int width, int height, int channels, int kernelW, int kernelH,
                     int strideW, int strideH, int padW, int padH, int8_t* col);
// One row of that matrix: one channel, one kernel tap at (offX, offY).
void img2col_conv_extract_line_s8(const int8_t* data, int width, int height, int8_t* dst, int outW, int outH,
                                  int offX, int offY, int strideW, int strideH);

#endif
