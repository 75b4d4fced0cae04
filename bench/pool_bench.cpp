// Max pooling: the general window walk (pool_max) beside the stride-2 row
// kernels (pool_max_stable) on the same windows; results are identical.
// Argument "kernel" is 2 or 3 (stride 2), "pad" 0 or 1, "stable" 0 or 1.
#include <vonet/vonet.h>

#include <benchmark/benchmark.h>

#include <random>

namespace {

void BM_MaxPool(benchmark::State& state) {
    const int kernel = int(state.range(0)), pad = int(state.range(1));
    const bool stable = state.range(2) != 0;
    const int C = 32, H = 112, W = 112;
    Pooling pool{0, kernel, kernel, pad, pad, 2, 2, 0};
    Tensor* in = create_tensor(1, C, H, W);
    Tensor* out = create_tensor(1, 1, 1, 1);
    ForwardParams* params = create_forward_params();
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    for (int i = 0; i < in->capacity; ++i) in->data[i] = dist(rng);
    if (reshape_pooling(&pool, &in, 1, &out, 1, params) != 0) state.SkipWithError("reshape failed");
    for (auto _ : state) {
        int status = stable ? pool_max_stable(&pool, in, out, params) : pool_max(&pool, in, out);
        benchmark::DoNotOptimize(status);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * in->capacity);
    release_forward_params(&params);
    release_tensor(&in);
    release_tensor(&out);
}
BENCHMARK(BM_MaxPool)
    ->ArgNames({"kernel", "pad", "stable"})
    ->ArgsProduct({{2, 3}, {0, 1}, {0, 1}});

}  // namespace
