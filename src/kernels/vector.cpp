// Element-wise float routines: the public entry points and the portable
// reference path.
#include <vonet/kernels.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kernels/impl.h"
#include "kernels/isa.h"

namespace vo {
namespace ref {

void mul_scalar(float* x, int32_t n, float alpha) {
    for (int32_t i = 0; i < n; ++i) x[i] = x[i] * alpha;
}

void axpy(const float* x, int32_t n, float* y, float alpha) {
    for (int32_t i = 0; i < n; ++i) y[i] = std::fma(alpha, x[i], y[i]);
}

void alpha_multiply_vector_add_beta(const float* x, int32_t n, float* y, float alpha, float beta) {
    for (int32_t i = 0; i < n; ++i) y[i] = std::fma(alpha, x[i], beta);
}

void max_scalar(const float* x, float* y, int32_t n, float v) {
    for (int32_t i = 0; i < n; ++i) y[i] = x[i] > v ? x[i] : v;
}

void min_scalar(const float* x, float* y, int32_t n, float v) {
    for (int32_t i = 0; i < n; ++i) y[i] = x[i] < v ? x[i] : v;
}

void add_scalar(const float* x, float* y, int32_t n, float v) {
    for (int32_t i = 0; i < n; ++i) y[i] = x[i] + v;
}

void abs(const float* x, float* y, int32_t n) {
    for (int32_t i = 0; i < n; ++i) {
        uint32_t bits;
        memcpy(&bits, &x[i], 4);
        bits &= 0x7fffffffu;
        memcpy(&y[i], &bits, 4);
    }
}

void set(float* x, int32_t n, float v) {
    if (n <= 0) return;
    if (v == 0.0f) {
        memset(x, 0, size_t(n) * sizeof(float));
        return;
    }
    for (int32_t i = 0; i < n; ++i) x[i] = v;
}

void mul(const float* a, const float* b, int32_t n, float* y) {
    for (int32_t i = 0; i < n; ++i) y[i] = a[i] * b[i];
}

void max(const float* a, const float* b, int32_t n, float* y) {
    for (int32_t i = 0; i < n; ++i) y[i] = b[i] > a[i] ? b[i] : a[i];
}

void add(const float* a, const float* b, int32_t n, float* y) {
    for (int32_t i = 0; i < n; ++i) y[i] = a[i] + b[i];
}

}  // namespace ref
}  // namespace vo

void vo_mul_scalar(float* x, int32_t n, float alpha) {
    if (n > 0) vo::kernels().mul_scalar(x, n, alpha);
}
void vo_axpy(const float* x, int32_t n, float* y, float alpha) {
    if (n > 0) vo::kernels().axpy(x, n, y, alpha);
}
void vo_alpha_multiply_vector_add_beta(const float* x, int32_t n, float* y, float alpha, float beta) {
    if (n > 0) vo::kernels().alpha_multiply_vector_add_beta(x, n, y, alpha, beta);
}
void vo_max_scalar(const float* x, float* y, int32_t n, float v) {
    if (n > 0) vo::kernels().max_scalar(x, y, n, v);
}
void vo_min_scalar(const float* x, float* y, int32_t n, float v) {
    if (n > 0) vo::kernels().min_scalar(x, y, n, v);
}
void vo_add_scalar(const float* x, float* y, int32_t n, float v) {
    if (n > 0) vo::kernels().add_scalar(x, y, n, v);
}
void vo_abs(const float* x, float* y, int32_t n) {
    if (n > 0) vo::kernels().abs(x, y, n);
}
void vo_set(float* x, int32_t n, float v) {
    if (n > 0) vo::kernels().set(x, n, v);
}
void vo_mul(const float* a, const float* b, int32_t n, float* y) {
    if (n > 0) vo::kernels().mul(a, b, n, y);
}
void vo_max(const float* a, const float* b, int32_t n, float* y) {
    if (n > 0) vo::kernels().max(a, b, n, y);
}
void vo_add(const float* a, const float* b, int32_t n, float* y) {
    if (n > 0) vo::kernels().add(a, b, n, y);
}

// The exponential is the library's own expf on every path.
void vo_exp(const float* x, float* y, int32_t n) {
    for (int32_t i = 0; i < n; ++i) y[i] = expf(x[i]);
}

// One accumulator in index order is a chain of dependent fused
// multiply-adds: no vector form can keep its rounding, so every path runs
// this loop.
float vo_dot(const float* a, const float* b, uint64_t n) {
    float acc = 0.0f;
    for (uint64_t i = 0; i < n; ++i) acc = std::fma(a[i], b[i], acc);
    return acc;
}

void* vo_aligned_malloc(size_t size, int32_t alignment) {
    if (alignment <= 0 || (alignment & (alignment - 1)) != 0 || alignment > (INT32_MAX - 7)) return nullptr;
    const int32_t extra = alignment + 7;
    if (size > SIZE_MAX - size_t(extra)) return nullptr;
    void* raw = malloc(size + size_t(extra));
    if (!raw) return nullptr;
    uintptr_t result = (reinterpret_cast<uintptr_t>(raw) + uintptr_t(extra)) & ~uintptr_t(alignment - 1);
    memcpy(reinterpret_cast<void*>(result - sizeof(void*)), &raw, sizeof(void*));
    return reinterpret_cast<void*>(result);
}

void vo_aligned_free(void* p) {
    if (!p) return;
    void* raw;
    memcpy(&raw, static_cast<char*>(p) - sizeof(void*), sizeof(void*));
    free(raw);
}

void vo_abs_gpu(const float*, float*, int32_t) {}
void vo_axpy_gpu(const float*, int32_t, float*, float) {}
void vo_max_scalar_gpu(const float*, float*, int32_t, float) {}
void vo_min_scalar_gpu(const float*, float*, int32_t, float) {}
void vo_gpu_set(float*, int32_t, float) {}
void vo_mul_gpu(const float*, const float*, int32_t, float*) {}
void vo_add_gpu(const float*, const float*, int32_t, float*) {}
void vo_max_gpu(const float*, const float*, int32_t, float*) {}
float vo_dot_gpu(const float*, const float*, uint64_t) { return 0.0f; }
