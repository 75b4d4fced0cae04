// The layer type registry: binds a type id to its operations.
//
// Each layer type implements typed operations on its own record
// (`int forward_relu(ReLU*, ...)`); `make_layer_ops` wraps them into the
// type-erased table stored in every `Layer`. To add a type, define its
// `LayerOps` with make_layer_ops in the type's source file and list it in
// layer_registry.cpp.
#ifndef VONET_VNET_LAYER_REGISTRY_H
#define VONET_VNET_LAYER_REGISTRY_H

#include <vonet/net.h>

#include <stdlib.h>

namespace vo {

typedef int (*LayerLoadOp)(FILE* stream, void** result);

struct LayerOps {
    LayerForwardOp forward;
    LayerReshapeOp reshape;
    LayerSaveOp save;
    LayerReleaseOp release;
    LayerGetInfoOp get_info;
    LayerLoadOp load;
};

template <typename R>
using TypedRunOp = int (*)(R*, Tensor**, int, Tensor**, int, ForwardParams*);

template <typename R, TypedRunOp<R> F>
int erased_run(void* p, Tensor** in, int isize, Tensor** out, int osize, ForwardParams* fp) {
    return F(static_cast<R*>(p), in, isize, out, osize, fp);
}

template <typename R, int (*F)(FILE*, R*)>
int erased_save(FILE* stream, void* p) {
    return F(stream, static_cast<R*>(p));
}

template <typename R, void (*F)(R**)>
void erased_release(void** slot) {
    R* r = static_cast<R*>(*slot);
    F(&r);
    *slot = r;
}

template <typename R, void (*F)(R*, char*)>
void erased_get_info(void* p, char* text) {
    F(static_cast<R*>(p), text);
}

template <typename R, TypedRunOp<R> Forward, TypedRunOp<R> Reshape, int (*Save)(FILE*, R*),
          void (*Release)(R**), void (*GetInfo)(R*, char*), int (*Load)(FILE*, void**)>
constexpr LayerOps make_layer_ops() {
    return LayerOps{&erased_run<R, Forward>,   &erased_run<R, Reshape>,      &erased_save<R, Save>,
                    &erased_release<R, Release>, &erased_get_info<R, GetInfo>, Load};
}

// The release operation of a record that owns nothing but itself: frees it
// and clears the caller's pointer (null or an empty slot is fine).
template <typename R>
void free_record(R** slot) {
    if (!slot) return;
    free(*slot);
    *slot = nullptr;
}

// Operations of the built layer types, one per type's source file, e.g.
// `const LayerOps kReluOps = make_layer_ops<ReLU, forward_relu, ...>();`
// (declared here so that the definition has external linkage).
extern const LayerOps kReluOps;
extern const LayerOps kPreluOps;
extern const LayerOps kAbsOps;
extern const LayerOps kDropoutOps;
extern const LayerOps kSreluOps;
extern const LayerOps kConvOps;
extern const LayerOps kInnerProductOps;
extern const LayerOps kDeconvOps;
extern const LayerOps kPoolingOps;
extern const LayerOps kSoftmaxOps;
extern const LayerOps kBatchNormOps;
extern const LayerOps kNormalizeOps;
extern const LayerOps kEltwiseOps;
extern const LayerOps kConcatOps;
extern const LayerOps kSliceOps;
extern const LayerOps kFlattenOps;
extern const LayerOps kPieceOps;

// Operations of a type id, or null when the type is not built.
const LayerOps* layer_ops(int32_t type);

// Test hook (not exported): binds `ops` (null unbinds) to an id from 2 to 18
// and returns what was bound before.
const LayerOps* set_layer_ops_for_testing(int32_t type, const LayerOps* ops);

}  // namespace vo

#endif
