// Direct convolution tiles on AVX-512F: 8 output rows x 48 pixels (24
// accumulators), and the batch path on 16 images side by side. Only this
// file is compiled for AVX-512, and only reached after the CPU check; the
// results equal the AVX2 kernels bit for bit (same chain per value, only
// more values per instruction).
#include <immintrin.h>
#include <stdint.h>
#include <string.h>

#include "kernels/conv_direct.h"

#pragma GCC push_options
#pragma GCC target("avx512f")

#include "kernels/conv_direct_micro.h"

namespace {

struct V512 {
    typedef __m512 R;
    typedef __mmask16 Mask;
    static constexpr int W = 16;
    static R zero() { return _mm512_setzero_ps(); }
    static R loadu(const float* p) { return _mm512_loadu_ps(p); }
    static void storeu(float* p, R v) { _mm512_storeu_ps(p, v); }
    static R bcast(const float* p) { return _mm512_set1_ps(*p); }
    static R fma(R a, R b, R c) { return _mm512_fmadd_ps(a, b, c); }
    static R mul(R a, R b) { return _mm512_mul_ps(a, b); }
    static R add(R a, R b) { return _mm512_add_ps(a, b); }
    static Mask mask(int lanes) { return Mask(lanes >= 16 ? 0xffff : (1u << lanes) - 1u); }
    // Masked-off lanes are neither read nor written (no fault past a buffer).
    static R maskload(const float* p, Mask m) { return _mm512_maskz_loadu_ps(m, p); }
    static void maskstore(float* p, Mask m, R v) { _mm512_mask_storeu_ps(p, m, v); }
    // The lanes set in `valid`, packed to p[0], p[1], ... (compressed in a
    // register: the memory form is slow on some processors).
    static void compress_store(float* p, uint32_t valid, R v) {
        if (valid == 0xffff) return _mm512_storeu_ps(p, v);
        const Mask m = Mask(valid);
        if ((valid & (valid + 1)) == 0) return _mm512_mask_storeu_ps(p, m, v);
        _mm512_mask_storeu_ps(p, mask(__builtin_popcount(valid)), _mm512_maskz_compress_ps(m, v));
    }
};

}  // namespace

namespace vo {
namespace avx512 {

void direct_conv(const DirectConv& d) { direct_conv_with_tiles<V512, 8, 3>(d); }

void direct_conv_tail(const DirectTail& t) { direct_conv_tail_with<V512>(t); }

}  // namespace avx512
}  // namespace vo

#pragma GCC pop_options
