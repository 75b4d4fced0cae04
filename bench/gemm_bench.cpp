// GFLOP/s of the float matrix product on convolution-shaped products, per
// instruction-set path. Reported as the "FLOPS" rate (2 * M * N * K per call).
#include <vonet/kernels.h>

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "bench_util.h"
#include "kernels/isa.h"

namespace {

void BM_Gemm(benchmark::State& state) {
    const vo::Isa isa = vo::Isa(state.range(0));
    const int M = int(state.range(1)), N = int(state.range(2)), K = int(state.range(3));
    const vo_bench::IsaScope scope(state, isa);
    if (!scope.ok()) return;
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> A(size_t(M) * K), B(size_t(K) * N), C(size_t(M) * N);
    for (auto& v : A) v = dist(rng);
    for (auto& v : B) v = dist(rng);
    for (auto _ : state) {
        vo_gemm(0, 0, M, N, K, 1.0f, A.data(), B.data(), 0.0f, C.data());
        benchmark::DoNotOptimize(C.data());
        benchmark::ClobberMemory();
    }
    state.counters["FLOPS"] =
        vo_bench::per_second(2.0 * M * N * K);
    state.SetLabel(vo::isa_name(isa));
}

void GemmShapes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"isa", "M", "N", "K"});
    const int shapes[][3] = {{64, 3136, 576}, {128, 784, 1152}, {256, 196, 2304}, {16, 1600, 144}, {32, 100, 27}};
    for (int isa : {vo::kIsaAvx2, vo::kIsaAvx512, vo::kIsaReference})
        for (const auto& s : shapes) b->Args({isa, s[0], s[1], s[2]});
}

BENCHMARK(BM_Gemm)->Apply(GemmShapes)->Unit(benchmark::kMicrosecond);

}  // namespace
