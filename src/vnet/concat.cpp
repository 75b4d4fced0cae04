// Concat layer: joins its inputs along one axis.
#include <vonet/tensor_layers.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "common/record_io.h"
#include "vnet/layer_registry.h"
#include "vnet/layer_shapes.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/concat";
constexpr const char* kLoad = "load_concat";

int read_concat(FILE* stream, Concat* concat) {
    if (!vo::read_fields(stream, kUnit, kLoad, &concat->concatParam, &concat->axis)) return 4;
    VO_CHECK_IN(kLoad, concat->axis >= 0 && concat->axis <= 3, return 4);
    return 0;
}

}  // namespace

Concat* create_concat() { return static_cast<Concat*>(calloc(1, sizeof(Concat))); }

int load_concat(FILE* stream, void** result) {
    return vo::load_record<Concat, create_concat, read_concat, release_concat>(stream, result, kUnit, __func__,
                                                                            "concat != nullptr");
}

int save_concat(FILE* stream, Concat* concat) {
    if (!stream || !concat) return 7;
    return vo::write_fields(stream, kUnit, __func__, concat->concatParam, concat->axis) ? 0 : 4;
}

int reshape_concat(Concat* concat, Tensor** srcs, int isize, Tensor** ress, int osize, ForwardParams*) {
    if (!concat || !srcs || isize < 2 || !ress || osize != 1) return 7;
    if (!srcs[0]) return 5;
    if (concat->axis < 0 || concat->axis > 3) return 7;  // refused at load; only a record built in memory
    const int axis = concat->axis;
    int64_t num = srcs[0]->num, channel = srcs[0]->channel, height = srcs[0]->height, width = srcs[0]->width;
    for (int i = 0; i < isize; ++i) {
        if (!srcs[i]) return 5;
        VO_CHECK(vo::holds_shape(srcs[i]), return 5);
        // Writing the output would overwrite an input still to be copied.
        VO_CHECK(ress[0] != srcs[i], return 5);
    }
    for (int i = 1; i < isize; ++i) {
        switch (axis) {
            case 0:
                VO_CHECK(channel == srcs[i]->channel, return 5);
                VO_CHECK(height == srcs[i]->height, return 5);
                VO_CHECK(width == srcs[i]->width, return 5);
                num += srcs[i]->num;
                break;
            case 1:
                VO_CHECK(num == srcs[i]->num, return 5);
                VO_CHECK(height == srcs[i]->height, return 5);
                VO_CHECK(width == srcs[i]->width, return 5);
                channel += srcs[i]->channel;
                break;
            case 2:
                VO_CHECK(num == srcs[i]->num, return 5);
                VO_CHECK(channel == srcs[i]->channel, return 5);
                VO_CHECK(width == srcs[i]->width, return 5);
                height += srcs[i]->height;
                break;
            default:
                VO_CHECK(num == srcs[i]->num, return 5);
                VO_CHECK(channel == srcs[i]->channel, return 5);
                VO_CHECK(height == srcs[i]->height, return 5);
                width += srcs[i]->width;
                break;
        }
    }
    VO_CHECK(ress[0] != ((void *)0), return 5);
    VO_CHECK(num >= 1 && channel >= 1 && height >= 1 && width >= 1, return 5);
    if (int status = vo::reshape_tensor_checked(&ress[0], num, channel, height, width)) return status;

    const Tensor* src = srcs[0];
    switch (axis) {
        case 0:
            concat->outerNum = 1;
            concat->axisSize = ress[0]->num;
            concat->innerNum = src->channel * src->height * src->width;
            break;
        case 1:
            concat->outerNum = src->num;
            concat->axisSize = ress[0]->channel;
            concat->innerNum = src->height * src->width;
            break;
        case 2:
            concat->outerNum = src->num * src->channel;
            concat->axisSize = ress[0]->height;
            concat->innerNum = src->width;
            break;
        default:
            concat->outerNum = src->num * src->channel * src->height;
            concat->axisSize = ress[0]->width;
            concat->innerNum = 1;
            break;
    }
    return 0;
}

int forward_concat(Concat* concat, Tensor** srcs, int isize, Tensor** ress, int osize, ForwardParams*) {
    if (!concat) return 7;
    if (isize <= 0) return 0;
    if (!srcs || !ress || osize < 1 || concat->axis < 0 || concat->axis > 3) return 7;
    Tensor* res = ress[0];
    const int64_t outer = concat->outerNum, inner = concat->innerNum, axisSize = concat->axisSize;
    // Everything is checked before the first copy, so a failure leaves the
    // output untouched.
    VO_CHECK(vo::holds_shape(res) && res->capacity == outer * axisSize * inner, return 5);
    int64_t total = 0;
    for (int i = 0; i < isize; ++i) {
        VO_CHECK(vo::holds_shape(srcs[i]) && srcs[i] != res, return 5);
        const int64_t n = shape_tensor(srcs[i], concat->axis);
        VO_CHECK(srcs[i]->capacity == outer * n * inner, return 5);
        total += n;
    }
    VO_CHECK(total == axisSize, return 5);

    int64_t offset = 0;
    for (int i = 0; i < isize; ++i) {
        const int64_t n = shape_tensor(srcs[i], concat->axis);
        const int64_t chunk = n * inner;
        for (int64_t o = 0; o < outer; ++o) {
            memcpy(res->data + (o * axisSize + offset) * inner, srcs[i]->data + o * chunk,
                   size_t(chunk) * sizeof(float));
        }
        offset += n;
    }
    return 0;
}

void release_concat(Concat** concat) { vo::free_record(concat); }

void get_info_concat(Concat* concat, char* text) {
    if (!text) return;
    if (!concat) {
        snprintf(text, 128, "Concat");
        return;
    }
    snprintf(text, 128, "Concat %d %d", concat->concatParam, concat->axis);
}

int forward_concat_gpu(Concat*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kConcatOps = make_layer_ops<Concat, forward_concat, reshape_concat, save_concat, release_concat,
                                           get_info_concat, load_concat>();
}  // namespace vo
