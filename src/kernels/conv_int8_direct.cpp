// Direct int8 3x3 convolution, portable form: each output value's window
// sum over all input channels, zero outside the image (an input of floats
// is quantised value by value as it is read).
#include "kernels/conv_int8_direct.h"

#include <cmath>

#include "kernels/int8.h"

namespace vo {
namespace ref {

int conv3x3_s8_image(const Conv3x3S8Job& j) {
    const int S = j.stride;
    const int64_t plane = int64_t(j.outH) * j.outW;
    for (int o = 0; o < j.outC; ++o) {
        const int8_t* w = j.weights + int64_t(o) * j.channels * 9;
        const float bias = j.bias ? j.bias[o] : 0.0f;
        for (int y = 0; y < j.outH; ++y) {
            for (int x = 0; x < j.outW; ++x) {
                // Unsigned sums wrap modulo 2^32 without signed overflow.
                uint32_t sum = 0;
                for (int c = 0; c < j.channels; ++c) {
                    const int64_t plane = int64_t(c) * j.height * j.width;
                    for (int ky = 0; ky < 3; ++ky) {
                        const int iy = S * y + ky - j.padH;
                        if (iy < 0 || iy >= j.height) continue;
                        for (int kx = 0; kx < 3; ++kx) {
                            const int ix = S * x + kx - j.padW;
                            if (ix < 0 || ix >= j.width) continue;
                            const int64_t at = plane + int64_t(iy) * j.width + ix;
                            const int8_t v = j.image ? j.image[at] : quantize_one(j.input[at], j.inputScale);
                            sum += uint32_t(int32_t(w[c * 9 + ky * 3 + kx]) * int32_t(v));
                        }
                    }
                }
                const int64_t at = o * plane + int64_t(y) * j.outW + x;
                if (j.sums)
                    j.sums[at] = int32_t(sum);
                else
                    j.out[at] = std::fma(float(int32_t(sum)), j.scales[o], bias);
            }
        }
    }
    return 0;
}

// Both forms are plain loops here; the direct one does less work.
bool conv3x3_s8_preferred(int, int) { return true; }

const Conv3x3S8Kernels kConv3x3S8 = {conv3x3_s8_image, conv3x3_s8_preferred};

}  // namespace ref
}  // namespace vo
