// Instruction-set dispatch for the compute kernels.
//
// Every kernel exists as a portable reference and as AVX2 code (the
// baseline); the matrix product also has an AVX-512 path, and the int8
// product an AVX-512 VNNI one. One table of function pointers is chosen on
// first use: the best path the CPU has, or the one named by the environment
// variable VONET_ISA ("reference", "avx2", "avx512", "avx512vnni"). All
// paths produce identical bits.
#ifndef VONET_KERNELS_ISA_H
#define VONET_KERNELS_ISA_H

#include <stdint.h>

namespace vo {

enum Isa : int { kIsaReference = 0, kIsaAvx2 = 1, kIsaAvx512 = 2, kIsaAvx512Vnni = 3, kIsaCount = 4 };

struct Conv3x3S8Kernels;  // kernels/conv_int8_direct.h

// Signature of the checked matrix product: returns 0, or 5 when working
// memory could not be obtained (C untouched then).
typedef int (*GemmFn)(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B,
                      float beta, float* C);

struct KernelTable {
    Isa isa;
    const char* name;
    void (*mul_scalar)(float* x, int32_t n, float alpha);
    void (*axpy)(const float* x, int32_t n, float* y, float alpha);
    void (*alpha_multiply_vector_add_beta)(const float* x, int32_t n, float* y, float alpha, float beta);
    void (*max_scalar)(const float* x, float* y, int32_t n, float v);
    void (*min_scalar)(const float* x, float* y, int32_t n, float v);
    void (*add_scalar)(const float* x, float* y, int32_t n, float v);
    void (*abs)(const float* x, float* y, int32_t n);
    void (*set)(float* x, int32_t n, float v);
    void (*mul)(const float* a, const float* b, int32_t n, float* y);
    void (*max)(const float* a, const float* b, int32_t n, float* y);
    void (*add)(const float* a, const float* b, int32_t n, float* y);
    GemmFn gemm;
    // Int8 kernels (same contracts as the public functions of that name).
    void (*quantize_input)(const float* src, int count, int8_t* dst, float scale);
    void (*anti_quantize_output)(const int32_t* src, int count, float* dst, float scale, float bias);
    void (*gemm_s8)(int M, int N, int K, const int8_t* A, const int8_t* B, int32_t* C);
    const Conv3x3S8Kernels* conv3x3_s8;
};

// The active table (chosen once, thread-safe).
const KernelTable& kernels();

// Whether this CPU can run the path.
bool isa_supported(Isa isa);
const char* isa_name(Isa isa);
// Parses a VONET_ISA value; -1 when unknown.
int parse_isa(const char* text);

// Test hook (not exported): makes `isa` the active path if supported and
// returns the previously active one; an unsupported request changes nothing.
Isa set_isa_for_testing(Isa isa);

// The tables of the individual paths (defined in their source files).
extern const KernelTable kReferenceKernels;
extern const KernelTable kAvx2Kernels;
extern const KernelTable kAvx512Kernels;
extern const KernelTable kAvx512VnniKernels;

}  // namespace vo

#endif
