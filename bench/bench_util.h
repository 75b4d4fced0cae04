// Pieces shared by the benchmark programs.
#ifndef VONET_BENCH_UTIL_H
#define VONET_BENCH_UTIL_H

#include <benchmark/benchmark.h>

#include "kernels/isa.h"

namespace vo_bench {

// Runs the enclosing benchmark on one instruction-set path and restores the
// previous path at the end of the scope; a path the CPU lacks skips it.
class IsaScope {
public:
    IsaScope(benchmark::State& state, vo::Isa isa) : ok_(vo::isa_supported(isa)) {
        if (ok_)
            previous_ = vo::set_isa_for_testing(isa);
        else
            state.SkipWithError("instruction set not available");
    }
    ~IsaScope() {
        if (ok_) vo::set_isa_for_testing(previous_);
    }
    IsaScope(const IsaScope&) = delete;
    IsaScope& operator=(const IsaScope&) = delete;
    bool ok() const { return ok_; }

private:
    bool ok_;
    vo::Isa previous_ = vo::kIsaReference;
};

// A rate counter for `ops` operations per iteration (shown as G/s, M/s...).
inline benchmark::Counter per_second(double ops) {
    return benchmark::Counter(ops, benchmark::Counter::kIsIterationInvariantRate, benchmark::Counter::kIs1000);
}

}  // namespace vo_bench

#endif
