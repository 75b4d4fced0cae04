// Dropout: the identity at inference. Its 4-byte parameter is kept only to
// be written back unchanged.
#include <vonet/activation.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "common/record_io.h"
#include "vnet/activation_common.h"
#include "vnet/layer_registry.h"

namespace {

constexpr const char* kUnit = "vnet/dropout";

int read_dropout(FILE* stream, Dropout* dropout) {
    return vo::read_field(stream, &dropout->dropoutParam, kUnit, "load_dropout") ? 0 : 4;
}

}  // namespace

Dropout* create_dropout() { return static_cast<Dropout*>(calloc(1, sizeof(Dropout))); }

int load_dropout(FILE* stream, void** result) {
    return vo::load_record<Dropout, create_dropout, read_dropout, release_dropout>(stream, result, kUnit, __func__,
                                                                                "dropout != nullptr");
}

int save_dropout(FILE* stream, Dropout* dropout) {
    if (!dropout || !stream) return 7;
    return vo::write_field(stream, dropout->dropoutParam, kUnit, __func__) ? 0 : 4;
}

int reshape_dropout(Dropout* dropout, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    return vo::reshape_one_to_one(dropout, inputs, isize, outputs, osize, false);
}

int forward_dropout(Dropout* dropout, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    const int64_t count = vo::input_capacity(inputs, isize);
    return vo::forward_elementwise(dropout, inputs, isize, outputs, osize, count, [count](const Tensor* x, Tensor* y) {
        if (y != x && count > 0) memcpy(y->data, x->data, size_t(count) * sizeof(float));
    });
}

void release_dropout(Dropout** slot) { vo::free_record(slot); }

void get_info_dropout(Dropout*, char* text) {
    if (text) strcpy(text, "Dropout");
}

int forward_dropout_gpu(Dropout*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kDropoutOps = make_layer_ops<Dropout, forward_dropout, reshape_dropout, save_dropout, release_dropout,
                                            get_info_dropout, load_dropout>();
}  // namespace vo
