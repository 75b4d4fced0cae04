// Dropout: the identity at inference. Its 4-byte parameter is kept only to
// be written back unchanged.
#include <vonet/activation.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "vnet/activation_common.h"
#include "vnet/layer_registry.h"

namespace {
constexpr const char* kUnit = "vnet/dropout";
}  // namespace

Dropout* create_dropout() { return static_cast<Dropout*>(calloc(1, sizeof(Dropout))); }

int load_dropout(FILE* stream, void** result) {
    if (!stream) return 4;
    if (!result) return 2;
    *result = nullptr;
    Dropout* dropout = create_dropout();
    VO_CHECK(dropout != nullptr, return 4);
    size_t ret = fread(&dropout->dropoutParam, 4, 1, stream);
    VO_CHECK(ret == 1, {
        release_dropout(&dropout);
        return 4;
    });
    *result = dropout;
    return 0;
}

int save_dropout(FILE* stream, Dropout* dropout) {
    if (!dropout || !stream) return 7;
    size_t ret = fwrite(&dropout->dropoutParam, 4, 1, stream);
    VO_CHECK(ret == 1, return 4);
    return 0;
}

int reshape_dropout(Dropout* dropout, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    return vo::reshape_one_to_one(dropout, inputs, isize, outputs, osize, false);
}

int forward_dropout(Dropout* dropout, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    if (!dropout) return 7;
    const int64_t count = inputs && isize > 0 && inputs[0] ? inputs[0]->capacity : 0;
    if (int status = vo::forward_tensors_ok(inputs, isize, outputs, osize, count)) return status;
    if (outputs[0] == inputs[0]) return 0;
    if (count > 0) memcpy(outputs[0]->data, inputs[0]->data, size_t(count) * sizeof(float));
    return 0;
}

void release_dropout(Dropout** slot) {
    if (!slot || !*slot) return;
    free(*slot);
    *slot = nullptr;
}

void get_info_dropout(Dropout*, char* text) {
    if (text) strcpy(text, "Dropout");
}

int forward_dropout_gpu(Dropout*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kDropoutOps = make_layer_ops<Dropout, forward_dropout, reshape_dropout, save_dropout, release_dropout,
                                            get_info_dropout, load_dropout>();
}  // namespace vo
