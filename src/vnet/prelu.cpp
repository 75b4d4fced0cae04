// PReLU: y = x, or x * slope[c] where 0.0 > x (zero, positive values and
// NaN pass unchanged; -0.0 stays -0.0).
#include <vonet/activation.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "vnet/activation_common.h"
#include "vnet/layer_registry.h"

namespace {
constexpr const char* kUnit = "vnet/prelu";
}  // namespace

PReLU* create_prelu() { return static_cast<PReLU*>(calloc(1, sizeof(PReLU))); }

int load_prelu(FILE* stream, void** result) {
    if (!stream) return 4;
    if (!result) return 2;
    *result = nullptr;
    PReLU* relu = create_prelu();
    VO_CHECK(relu != nullptr, return 4);
    int32_t channel = 0;
    size_t ret = fread(&channel, 4, 1, stream);
    // The slopes are only allocated once the file is known to hold them.
    VO_CHECK(ret == 1, { release_prelu(&relu); return 4; });
    VO_CHECK(channel >= 0, { release_prelu(&relu); return 4; });
    VO_CHECK(vo::fits_in_file(stream, channel, 4), { release_prelu(&relu); return 4; });
    relu->channel = channel;
    int status = vo::reshape_tensor_checked(&relu->slope, 1, channel, 1, 1);
    VO_CHECK(status == 0, { release_prelu(&relu); return 4; });
    ret = fread(relu->slope->data, 4, size_t(channel), stream);
    VO_CHECK(ret == size_t(relu->channel), { release_prelu(&relu); return 4; });
    *result = relu;
    return 0;
}

int save_prelu(FILE* stream, PReLU* relu) {
    if (!stream) return 4;
    if (!relu) return 7;
    VO_CHECK(relu->channel >= 0 && (relu->channel == 0 || (relu->slope && relu->slope->capacity >= relu->channel)),
             return 7);
    size_t ret = fwrite(&relu->channel, 4, 1, stream);
    VO_CHECK(ret == 1, return 4);
    ret = relu->channel > 0 ? fwrite(relu->slope->data, 4, size_t(relu->channel), stream) : 0;
    VO_CHECK(ret == size_t(relu->channel), return 4);
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
    VO_CHECK(src->num == res->num, return 5);
    VO_CHECK(src->width == res->width, return 5);
    VO_CHECK(src->height == res->height, return 5);
    VO_CHECK(src->channel == res->channel, return 5);
    const int64_t count = vo::checked_count(src->num, src->channel, src->height, src->width);
    if (int status = vo::forward_tensors_ok(inputs, isize, outputs, osize, count)) return status;
    VO_CHECK(relu->channel == 0 || (relu->slope && relu->slope->capacity >= relu->channel), return 5);

    const int64_t plane = int64_t(src->height) * src->width;
    const float* x = src->data;
    float* y = res->data;
    for (int64_t n = 0; n < src->num; ++n) {
        for (int64_t c = 0; c < src->channel; ++c) {
            const float s = relu->slope->data[c];
            for (int64_t i = 0; i < plane; ++i) {
                const float v = x[i];
                y[i] = 0.0f > v ? v * s : v;
            }
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
