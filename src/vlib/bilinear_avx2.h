// AVX2 steps shared by the bilinear resizer and the affine warp: both
// gather 4 bytes per lane from two source rows, blend each left/right pair
// and then the top/bottom pair in 14-bit fixed point, and store eight grey
// results as bytes or floats.
#ifndef VONET_VLIB_BILINEAR_AVX2_H
#define VONET_VLIB_BILINEAR_AVX2_H

#include <immintrin.h>

#include <cstdint>

#include "vlib/image_internal.h"

namespace vo {

// Picks the bytes at offsets 0, 1 of every 32-bit lane as two 16-bit
// values: the (left, right) pair of a gathered sample.
inline __m256i pair_mask() {
    const int8_t z = -1;
    return _mm256_setr_epi8(0, z, 1, z, 4, z, 5, z, 8, z, 9, z, 12, z, 13, z, 0, z, 1, z, 4, z, 5, z, 8, z, 9, z, 12,
                            z, 13, z);
}

// The 4 bytes at row + offset of each lane, shifted right by `shift` bits
// (the pair's position when the read was moved left to stay in the row).
inline __m256i gather_row(const uint8_t* row, __m256i offset, __m256i shift) {
    return _mm256_srlv_epi32(_mm256_i32gather_epi32(reinterpret_cast<const int*>(row), offset, 1), shift);
}

// Bilinear value of each lane: the top and bottom pairs weighted by `wx`
// (16-bit weights of left and right), then the two rows by `wy` (16-bit
// weights of top and bottom), each step rounded back to 14 bits.
inline __m256i blend_rows(__m256i top, __m256i bottom, __m256i wx, __m256i wy, __m256i pairMask) {
    const __m256i half = _mm256_set1_epi32(kFixHalf);
    const __m256i t =
        _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(_mm256_shuffle_epi8(top, pairMask), wx), half), kFixShift);
    const __m256i b = _mm256_srai_epi32(
        _mm256_add_epi32(_mm256_madd_epi16(_mm256_shuffle_epi8(bottom, pairMask), wx), half), kFixShift);
    const __m256i tb = _mm256_or_si256(t, _mm256_slli_epi32(b, 16));
    return _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(tb, wy), half), kFixShift);
}

// Stores eight results (0..255) to df[j..j+7] when df is set, else as
// bytes to d8[j..j+7].
inline void store8(__m256i v, uint8_t* d8, float* df, int j) {
    if (df) {
        _mm256_storeu_ps(df + j, _mm256_cvtepi32_ps(v));
    } else {
        const __m256i w = _mm256_packs_epi32(v, v);
        const __m256i p = _mm256_packus_epi16(w, w);
        const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(d8 + j),
                         _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(p, order)));
    }
}

}  // namespace vo

#endif
