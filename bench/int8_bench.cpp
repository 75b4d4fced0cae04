// The int8 matrix product in GOP/s (2 * M * N * K per call) per
// instruction-set path, and the forward time of 3x3 convolution layers in
// float and in int8 (through forward_conv, the direct int8 path and the
// unfolding int8 path), on the AVX2 and the AVX-512 VNNI paths.
//
// Medians of 5 runs, CPU time in us, AMD EPYC (Zen 5, avx512_vnni, 2 cores
// shared); int8 is forward_conv, which picks direct or unfolded per path:
//
//   layer        | avx512vnni: float  int8  direct unfolded | avx2: float  int8 unfolded
//   64-64@56     |             1209   355    352    523     |       1966  1700   2126
//   128-128@28   |             1217   342    345    527     |       1999  1962   2082
//   det2-conv1   |             5.35   2.34   2.31   3.96    |       7.42  8.77   8.90
//   det2-conv2   |             18.2   5.47   5.45   9.81    |       28.4  26.1   26.1
//   det3-conv1   |             20.4   9.52   9.45   15.5    |       33.9  41.7   41.1
//   det3-conv2   |             93.2   29.3   29.0   43.4    |        162   147    158
//   det3-conv3   |             29.7   11.3   11.3   20.9    |       58.1  52.2   56.4
#include <vonet/convolution.h>
#include <vonet/kernels.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <vector>

#include "bench_util.h"
#include "kernels/isa.h"
#include "vnet/conv_int8.h"

namespace {

void BM_GemmS8(benchmark::State& state) {
    const vo::Isa isa = vo::Isa(state.range(0));
    const int M = int(state.range(1)), N = int(state.range(2)), K = int(state.range(3));
    const vo_bench::IsaScope scope(state, isa);
    if (!scope.ok()) return;
    std::mt19937 rng(1);
    std::vector<int8_t> A(size_t(M) * K), B(size_t(K) * N);
    std::vector<int32_t> C(size_t(M) * N);
    for (auto& v : A) v = int8_t(rng());
    for (auto& v : B) v = int8_t(rng());
    for (auto _ : state) {
        matrix_multiply_s8(M, N, K, A.data(), B.data(), C.data());
        benchmark::DoNotOptimize(C.data());
        benchmark::ClobberMemory();
    }
    state.counters["OPS"] =
        vo_bench::per_second(2.0 * M * N * K);
    state.SetLabel(vo::isa_name(isa));
}

void GemmS8Shapes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"isa", "M", "N", "K"});
    // Output channels x output pixels x (input channels * 9).
    const int shapes[][3] = {{64, 3136, 576}, {128, 784, 1152}, {48, 81, 252}, {64, 441, 288}, {32, 2116, 27}};
    for (int isa : {vo::kIsaReference, vo::kIsaAvx2, vo::kIsaAvx512Vnni})
        for (const auto& s : shapes) b->Args({isa, s[0], s[1], s[2]});
}

BENCHMARK(BM_GemmS8)->Apply(GemmS8Shapes)->Unit(benchmark::kMicrosecond);

// One 3x3 layer (stride 1, no padding unless given), float or int8.
struct Layer {
    Layer(int C, int M, int H, int W, int pad, bool int8) : conv(create_convolution()) {
        std::mt19937 rng(3);
        conv->weights = create_tensor(M, C, 3, 3);
        conv->bias = create_tensor(1, M, 1, 1);
        conv->hasBias = 1;
        conv->strideW = conv->strideH = 1;
        conv->padW = conv->padH = pad;
        std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
        for (int i = 0; i < conv->weights->capacity; ++i) conv->weights->data[i] = dist(rng);
        for (int o = 0; o < M; ++o) conv->bias->data[o] = dist(rng);
        if (int8) {
            // The int8 record: one byte per weight, per-channel scales.
            auto* w = reinterpret_cast<int8_t*>(conv->weights->data);
            for (int i = 0; i < M * C * 9; ++i) w[i] = int8_t(int(rng() % 255) - 127);
            conv->quantized = 1;
            conv->inputScale = 127.0f;
            conv->weightScales = static_cast<float*>(malloc(sizeof(float) * size_t(M)));
            conv->dequantScales = static_cast<float*>(malloc(sizeof(float) * size_t(M)));
            for (int o = 0; o < M; ++o) {
                conv->weightScales[o] = 127.0f;
                conv->dequantScales[o] = 1.0f / (127.0f * 127.0f);
            }
        }
        in = create_tensor(1, C, H, W);
        for (int i = 0; i < in->capacity; ++i) in->data[i] = dist(rng);
        out = create_tensor(1, 1, 1, 1);
        ok = reshape_conv(conv, &in, 1, &out, 1, &params) == 0;
    }
    ~Layer() {
        release_conv(&conv);
        for (Tensor** t : {&in, &out, &params.inputBuffer, &params.outputBuffer, &params.columnBuffer,
                           &params.padBuffer, &params.winogradInput, &params.winogradOutput, &params.winogradProduct})
            release_tensor(t);
    }
    Convolution* conv;
    Tensor* in;
    Tensor* out;
    ForwardParams params{};
    bool ok;
};

// {input channels, output channels, height, width, padding}
constexpr int kLayers[][5] = {{64, 64, 56, 56, 1}, {128, 128, 28, 28, 1}, {3, 28, 24, 24, 0}, {28, 48, 11, 11, 0},
                              {3, 32, 48, 48, 0},  {32, 64, 23, 23, 0},   {64, 64, 10, 10, 0}};
const char* const kLayerNames[] = {"64-64@56", "128-128@28", "det2-conv1", "det2-conv2",
                                   "det3-conv1", "det3-conv2", "det3-conv3"};

// kind 0: float forward_conv; 1: int8 forward_conv; 2: int8 direct path;
// 3: int8 unfolding path.
void BM_Conv3x3(benchmark::State& state) {
    const int kind = int(state.range(0));
    const int* s = kLayers[state.range(1)];
    const vo::Isa isa = vo::Isa(state.range(2));
    const vo_bench::IsaScope scope(state, isa);
    if (!scope.ok()) return;
    Layer layer(s[0], s[1], s[2], s[3], s[4], kind != 0);
    if (!layer.ok) {
        state.SkipWithError("reshape failed");
            return;
    }
    const ConvForwardOp ops[] = {forward_conv, forward_conv, forward_conv_3x3s1_s8, vo::forward_conv_unfolded_s8};
    for (auto _ : state) {
        if (ops[kind](layer.conv, &layer.in, 1, &layer.out, 1, &layer.params) != 0) {
            state.SkipWithError("forward failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    static const char* const kinds[] = {"float", "int8", "int8-direct", "int8-unfolded"};
    state.SetLabel(std::string(kLayerNames[state.range(1)]) + " " + kinds[kind] + " " + vo::kernels().name);
}

BENCHMARK(BM_Conv3x3)
    ->ArgNames({"kind", "layer", "isa"})
    ->ArgsProduct({{0, 1, 2, 3}, {0, 1, 2, 3, 4, 5, 6}, {vo::kIsaAvx2, vo::kIsaAvx512Vnni}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
