// Internal tensor helpers for layers and the runtime.
#ifndef VONET_VNET_TENSOR_INTERNAL_H
#define VONET_VNET_TENSOR_INTERNAL_H

#include <vonet/tensor.h>

#include <stdint.h>

namespace vo {

// Reshapes *slot (creating it when null) and reports whether the tensor now
// holds the requested shape. Sizes are computed in 64 bits: a shape above
// 2^31 - 1 elements, a negative dimension or a failed allocation gives 5 and
// leaves the tensor empty (shape 0 x 0 x 0 x 0, old buffer kept), so nothing
// can write past its buffer. Returns 0 on success.
int reshape_tensor_checked(Tensor** slot, int64_t num, int64_t channel, int64_t height, int64_t width);

// Makes sure the scratch tensor *slot can hold `bytes` bytes of raw (byte or
// integer) data, growing it only when it is too small; its shape is left
// alone otherwise. 0, or 5 when it cannot grow (the tensor is then empty).
int ensure_scratch_bytes(Tensor** slot, int64_t bytes);

// Copies at most 31 characters of `name` into the tensor's name field.
void set_tensor_name(Tensor* tensor, const char* name);

}  // namespace vo

#endif
