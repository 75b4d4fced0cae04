// The Winograd 3x3 stride-1 convolution against the general path
// (unfold + matrix product) on typical layers, in GFLOP/s of the direct
// convolution's flop count (2 * M * C * 9 * outH * outW per image), per
// instruction-set path.
#include <vonet/vonet.h>

#include <benchmark/benchmark.h>

#include <random>

#include "bench_util.h"
#include "kernels/isa.h"

namespace {

struct Shape {
    const char* name;
    int C, M, H, W, pad;
};

const Shape kShapes[] = {
    {"64to64_56x56", 64, 64, 56, 56, 1},   {"128to128_28x28", 128, 128, 28, 28, 1},
    {"det1_3to10_216x384", 3, 10, 216, 384, 0}, {"det1_10to16_107x191", 10, 16, 107, 191, 0},
    {"det1_16to32_105x189", 16, 32, 105, 189, 0}, {"det2_3to28_24x24", 3, 28, 24, 24, 0},
    {"det2_28to48_11x11", 28, 48, 11, 11, 0},   {"det3_3to32_48x48", 3, 32, 48, 48, 0},
    {"det3_32to64_23x23", 32, 64, 23, 23, 0},   {"det3_64to64_10x10", 64, 64, 10, 10, 0},
};

void run_conv(benchmark::State& state, ConvForwardOp op) {
    const Shape& s = kShapes[state.range(0)];
    const vo::Isa isa = vo::Isa(state.range(1));
    const vo_bench::IsaScope scope(state, isa);
    if (!scope.ok()) return;
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    Convolution* conv = create_convolution();
    conv->weights = create_tensor(s.M, s.C, 3, 3);
    for (int i = 0; i < conv->weights->capacity; ++i) conv->weights->data[i] = dist(rng);
    conv->hasBias = 1;
    conv->bias = create_tensor(1, s.M, 1, 1);
    for (int i = 0; i < s.M; ++i) conv->bias->data[i] = dist(rng);
    conv->strideW = conv->strideH = 1;
    conv->padW = conv->padH = s.pad;
    ForwardParams* params = create_forward_params();
    Tensor* in = create_tensor(1, s.C, s.H, s.W);
    for (int i = 0; i < in->capacity; ++i) in->data[i] = dist(rng);
    Tensor* out = nullptr;
    if (reshape_conv(conv, &in, 1, &out, 1, params) != 0 || op(conv, &in, 1, &out, 1, params) != 0) {
        state.SkipWithError("convolution failed");
    } else {
        for (auto _ : state) {
            op(conv, &in, 1, &out, 1, params);
            benchmark::DoNotOptimize(out->data);
            benchmark::ClobberMemory();
        }
        const double flops = 2.0 * s.M * s.C * 9 * out->height * out->width;
        state.counters["FLOPS"] =
            vo_bench::per_second(flops);
    }
    state.SetLabel(std::string(s.name) + " " + vo::isa_name(isa));
    release_tensor(&in);
    release_tensor(&out);
    release_forward_params(&params);
    release_conv(&conv);
}

void BM_ConvWinograd(benchmark::State& state) { run_conv(state, forward_conv_3x3s1_winograd); }
void BM_ConvGeneral(benchmark::State& state) { run_conv(state, forward_conv_norm); }

void Shapes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"shape", "isa"});
    for (int isa : {vo::kIsaAvx512, vo::kIsaAvx2})
        for (int s = 0; s < int(sizeof(kShapes) / sizeof(kShapes[0])); ++s) b->Args({s, isa});
}

BENCHMARK(BM_ConvWinograd)->Apply(Shapes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ConvGeneral)->Apply(Shapes)->Unit(benchmark::kMicrosecond);

}  // namespace
