// PReLU: y = x, or x * slope[c] where 0.0 > x (zero, positive values and
// NaN pass unchanged; -0.0 stays -0.0).
#include <vonet/activation.h>

#include <immintrin.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "common/record_io.h"
#include "vnet/activation_common.h"
#include "vnet/layer_registry.h"

namespace {

constexpr const char* kUnit = "vnet/prelu";
constexpr const char* kLoad = "load_prelu";

// One channel plane. Branch-free: with random signs a compare-and-branch
// per value mispredicts half the time. The blend keeps the scalar rule
// exactly (NaN and -0.0 compare false and pass unchanged); works in place.
void prelu_plane(const float* x, float* y, int64_t n, float slope) {
    const __m256 zero = _mm256_setzero_ps();
    const __m256 s = _mm256_set1_ps(slope);
    int64_t i = 0;
    for (; i + 8 <= n; i += 8) {
        __m256 v = _mm256_loadu_ps(x + i);
        __m256 negative = _mm256_cmp_ps(zero, v, _CMP_GT_OQ);
        _mm256_storeu_ps(y + i, _mm256_blendv_ps(v, _mm256_mul_ps(v, s), negative));
    }
    for (; i < n; ++i) {
        const float v = x[i];
        y[i] = 0.0f > v ? v * slope : v;
    }
}

int read_prelu(FILE* stream, PReLU* relu) {
    int32_t channel = 0;
    if (!vo::read_field(stream, &channel, kUnit, kLoad)) return 4;
    // The slopes are only allocated once the file is known to hold them.
    VO_CHECK_IN(kLoad, channel >= 0, return 4);
    VO_CHECK_IN(kLoad, vo::fits_in_file(stream, channel, 4), return 4);
    relu->channel = channel;
    int status = vo::reshape_tensor_checked(&relu->slope, 1, channel, 1, 1);
    VO_CHECK_IN(kLoad, status == 0, return 4);
    return vo::read_values(stream, relu->slope->data, channel, kUnit, kLoad, "ret == size_t(relu->channel)") ? 0 : 4;
}

}  // namespace

PReLU* create_prelu() { return static_cast<PReLU*>(calloc(1, sizeof(PReLU))); }

int load_prelu(FILE* stream, void** result) {
    return vo::load_record<PReLU, create_prelu, read_prelu, release_prelu>(stream, result, kUnit, __func__,
                                                                        "relu != nullptr");
}

int save_prelu(FILE* stream, PReLU* relu) {
    if (!stream) return 4;
    if (!relu) return 7;
    VO_CHECK(relu->channel >= 0 && (relu->channel == 0 || (relu->slope && relu->slope->capacity >= relu->channel)),
             return 7);
    if (!vo::write_field(stream, relu->channel, kUnit, __func__)) return 4;
    if (relu->channel > 0 &&
        !vo::write_values(stream, relu->slope->data, relu->channel, kUnit, __func__, "ret == size_t(relu->channel)"))
        return 4;
    return 0;
}

int reshape_prelu(PReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    return vo::reshape_one_to_one(relu, inputs, isize, outputs, osize, true);
}

int forward_prelu(PReLU* relu, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    if (!relu || !inputs || !outputs || isize < 1 || osize < 1) return 7;
    const Tensor* src = inputs[0];
    Tensor* res = outputs[0];
    if (!src || !res) return 5;
    VO_CHECK(src->channel == relu->channel, return 5);
    if (!vo::same_shape(kUnit, __func__, src, res)) return 5;
    const int64_t count = vo::checked_count(src->num, src->channel, src->height, src->width);
    if (int status = vo::forward_tensors_ok(inputs, isize, outputs, osize, count)) return status;
    VO_CHECK(relu->channel == 0 || (relu->slope && relu->slope->capacity >= relu->channel), return 5);

    const int64_t plane = int64_t(src->height) * src->width;
    const float* x = src->data;
    float* y = res->data;
    for (int64_t n = 0; n < src->num; ++n) {
        for (int64_t c = 0; c < src->channel; ++c) {
            prelu_plane(x, y, plane, relu->slope->data[c]);
            x += plane;
            y += plane;
        }
    }
    return 0;
}

void release_prelu(PReLU** slot) {
    if (!slot || !*slot) return;
    release_tensor(&(*slot)->slope);
    (*slot)->channel = 0;
    free(*slot);
    *slot = nullptr;
}

void get_info_prelu(PReLU*, char* text) {
    if (text) strcpy(text, "PReLU");
}

int forward_prelu_gpu(PReLU*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kPreluOps =
    make_layer_ops<PReLU, forward_prelu, reshape_prelu, save_prelu, release_prelu, get_info_prelu, load_prelu>();
}  // namespace vo
