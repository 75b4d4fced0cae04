#include "kernels/scratch.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>

namespace vo {
namespace {

struct Buffer {
    float* data = nullptr;
    size_t count = 0;
};

struct ThreadScratch {
    Buffer slots[kScratchSlots];
    ~ThreadScratch() {
        for (Buffer& b : slots) free(b.data);
    }
};

thread_local ThreadScratch gScratch;
std::atomic<bool> gFailForTesting{false};

}  // namespace

float* scratch_floats(ScratchSlot slot, size_t count) {
    Buffer& b = gScratch.slots[slot];
    if (count <= b.count && b.data) return b.data;
    if (gFailForTesting.load(std::memory_order_relaxed)) return nullptr;
    if (count > (SIZE_MAX - 63) / sizeof(float)) return nullptr;
    // Round up so that small growth steps do not reallocate every time.
    size_t want = count < 1024 ? 1024 : count + count / 8;
    if (want > (SIZE_MAX - 63) / sizeof(float)) want = count;
    size_t bytes = (want * sizeof(float) + 63) & ~size_t(63);
    float* data = static_cast<float*>(aligned_alloc(64, bytes));
    if (!data) return nullptr;
    free(b.data);
    b.data = data;
    b.count = want;
    return data;
}

void set_scratch_failure_for_testing(bool fail) { gFailForTesting.store(fail, std::memory_order_relaxed); }

}  // namespace vo
