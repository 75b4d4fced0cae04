// Throughput of the element-wise kernels in bytes moved per second (every
// array read plus every array written), per instruction-set path.
#include <vonet/kernels.h>

#include <benchmark/benchmark.h>

#include <vector>

#include "bench_util.h"
#include "kernels/isa.h"

namespace {

enum Op { kAxpy, kMaxScalar, kAdd, kMulScalar, kAlphaBeta, kDot };

void BM_Vector(benchmark::State& state) {
    const Op op = Op(state.range(0));
    const vo::Isa isa = vo::Isa(state.range(1));
    const int n = int(state.range(2));
    const vo_bench::IsaScope scope(state, isa);
    if (!scope.ok()) return;
    std::vector<float> x(n, 0.5f), y(n, -0.25f), z(n);
    int arrays = 2;
    for (auto _ : state) {
        switch (op) {
            case kAxpy: vo_axpy(x.data(), n, y.data(), 1e-3f), arrays = 3; break;
            case kMaxScalar: vo_max_scalar(x.data(), z.data(), n, 0.0f); break;
            case kAdd: vo_add(x.data(), y.data(), n, z.data()), arrays = 3; break;
            case kMulScalar: vo_mul_scalar(y.data(), n, 1.0f); break;
            case kAlphaBeta: vo_alpha_multiply_vector_add_beta(x.data(), n, z.data(), 1.5f, 0.5f); break;
            case kDot: benchmark::DoNotOptimize(vo_dot(x.data(), y.data(), uint64_t(n))); break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * n * int64_t(sizeof(float)) * arrays);
    static const char* names[] = {"axpy", "max_scalar", "add", "mul_scalar", "alpha_multiply_vector_add_beta", "dot"};
    state.SetLabel(std::string(names[op]) + "/" + vo::isa_name(isa));
}

void VectorArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"op", "isa", "n"});
    for (int op = kAxpy; op <= kDot; ++op)
        for (int isa : {vo::kIsaAvx2, vo::kIsaReference})
            for (int n : {4096, 1 << 20}) b->Args({op, isa, n});
}

BENCHMARK(BM_Vector)->Apply(VectorArgs);

}  // namespace
