// Grow-only working memory of the compute kernels, one set per thread, so
// that repeating a call of the same shape allocates nothing.
#ifndef VONET_KERNELS_SCRATCH_H
#define VONET_KERNELS_SCRATCH_H

#include <stddef.h>

namespace vo {

enum ScratchSlot { kScratchPackA = 0, kScratchPackB = 1, kScratchAccumulator = 2, kScratchSlots = 3 };

// A 64-byte aligned buffer of at least `count` floats that stays valid until
// the next request for the same slot on this thread; null when it cannot be
// allocated (the old buffer is then kept).
float* scratch_floats(ScratchSlot slot, size_t count);

// Test hook (not exported): makes every following growth of a scratch
// buffer fail while set, to exercise the out-of-memory paths.
void set_scratch_failure_for_testing(bool fail);

}  // namespace vo

#endif
