// Runs a test body once per instruction-set path this CPU has.
#ifndef VONET_TESTS_KERNELS_ISA_PATHS_H
#define VONET_TESTS_KERNELS_ISA_PATHS_H

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "kernels/isa.h"

namespace vo_test {

template <typename F>
void for_each_isa(F body) {
    for (int i = 0; i < vo::kIsaCount; ++i) {
        const vo::Isa isa = vo::Isa(i);
        if (!vo::isa_supported(isa)) continue;
        const vo::Isa previous = vo::set_isa_for_testing(isa);
        SCOPED_TRACE(vo::isa_name(isa));
        body();
        vo::set_isa_for_testing(previous);
    }
}

inline uint32_t bits_of(float v) {
    uint32_t b;
    memcpy(&b, &v, 4);
    return b;
}

// Index of the first element whose bits differ, or -1. Any two NaNs count
// as equal: when two NaNs meet, which one's sign and payload survive
// depends on the operand order the compiler picks for a commutative
// instruction, so only NaN-ness is part of the contract.
inline int64_t first_bit_difference(const float* a, const float* b, int64_t n) {
    for (int64_t i = 0; i < n; ++i)
        if (bits_of(a[i]) != bits_of(b[i]) && !(std::isnan(a[i]) && std::isnan(b[i]))) return i;
    return -1;
}

// Floats of varied magnitude and sign, with the odd special value, so that
// different rounding orders give different bits.
inline std::vector<float> random_floats(std::mt19937& rng, size_t n, bool specials = false) {
    std::uniform_real_distribution<float> mant(-1.0f, 1.0f);
    std::uniform_int_distribution<int> expo(-6, 6);
    std::uniform_int_distribution<int> pick(0, 63);
    std::vector<float> v(n);
    for (auto& x : v) {
        x = std::ldexp(mant(rng), expo(rng));
        if (specials) {
            switch (pick(rng)) {
                case 0: x = -0.0f; break;
                case 1: x = 0.0f; break;
                case 2: x = NAN; break;
                case 3: x = -INFINITY; break;
                case 4: x = 1e-30f; break;
                default: break;
            }
        }
    }
    return v;
}

}  // namespace vo_test

#endif
