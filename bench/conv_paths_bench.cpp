// The direct convolution paths against the general path (unfold + matrix
// product) on the shapes they serve, in GFLOP/s (2 * M * K * N per image),
// and the three face networks end to end with and without the automatic
// choice. Every path gives the same bits; only the time differs.
#include <vonet/vonet.h>

#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "bench_util.h"
#include "kernels/isa.h"
#include "vnet/conv_private.h"

namespace {

struct Shape {
    const char* name;
    int M, C, k, s, p, H, W;
};

// The 3x3 layers of the three face networks at their native input sizes,
// the first one also on a 160 x 120 detection image, then common shapes.
const Shape kShapes[] = {
    {"det1.conv1 12x12", 10, 3, 3, 1, 0, 12, 12},   {"det1.conv1 120x160", 10, 3, 3, 1, 0, 120, 160},
    {"det1.conv2", 16, 10, 3, 1, 0, 5, 5},          {"det1.conv2 59x79", 16, 10, 3, 1, 0, 59, 79},
    {"det1.conv3 57x77", 32, 16, 3, 1, 0, 57, 77},  {"det1.conv4-2 53x73", 4, 32, 1, 1, 0, 53, 73},
    {"det2.conv1", 28, 3, 3, 1, 0, 24, 24},         {"det2.conv2", 48, 28, 3, 1, 0, 11, 11},
    {"det2.conv3 2x2", 64, 48, 2, 1, 0, 4, 4},      {"det3.conv1", 32, 3, 3, 1, 0, 48, 48},
    {"det3.conv2", 64, 32, 3, 1, 0, 23, 23},        {"det3.conv3", 64, 64, 3, 1, 0, 10, 10},
    {"det3.conv4 2x2", 128, 64, 2, 1, 0, 4, 4},     {"3x3 64-64 56x56 pad1", 64, 64, 3, 1, 1, 56, 56},
    {"1x1 256-64 28x28", 64, 256, 1, 1, 0, 28, 28}, {"3x3s2 32-64 56x56 pad1", 64, 32, 3, 2, 1, 56, 56},
    {"4x4s4 3-32 64x64", 32, 3, 4, 4, 0, 64, 64},
    // Narrow inputs: the direct kernels also compute (and drop) the columns
    // past the output width, 2 of every 5 or 3 here.
    {"3x3 16-32 96x5", 32, 16, 3, 1, 0, 96, 5},     {"3x3 16-32 96x3", 32, 16, 3, 1, 0, 96, 3},
    // Where 1x1 layers stop gaining: the number of output channels.
    {"1x1 64-8 28x28", 8, 64, 1, 1, 0, 28, 28},     {"1x1 64-16 28x28", 16, 64, 1, 1, 0, 28, 28},
    {"1x1 64-32 28x28", 32, 64, 1, 1, 0, 28, 28},
};

enum Which { kGeneral = 0, kDirect = 1, kExported = 2 };

ConvForwardOp exported_op(const Shape& s) {
    if (s.k == 1 && s.s == 1) return forward_conv_1x1s1;
    if (s.k == 3 && s.s == 1) return forward_conv_3x3s1;
    if (s.k == 3 && s.s == 2) return forward_conv_3x3s2;
    if (s.k == 4 && s.s == 4) return forward_conv_4x4s4;  // its own rounding
    return nullptr;
}

void BM_ConvPath(benchmark::State& state) {
    const Shape& s = kShapes[state.range(0)];
    const Which which = Which(state.range(1));
    ConvForwardOp op = which == kGeneral ? forward_conv_norm
                       : which == kDirect ? vo::forward_conv_direct
                                          : exported_op(s);
    if (!op) {
        state.SkipWithError("no exported exact op for this shape");
        return;
    }
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    Convolution* conv = create_convolution();
    conv->weights = create_tensor(s.M, s.C, s.k, s.k);
    for (int i = 0; i < conv->weights->capacity; ++i) conv->weights->data[i] = dist(rng);
    conv->hasBias = 1;
    conv->bias = create_tensor(1, s.M, 1, 1);
    for (int i = 0; i < s.M; ++i) conv->bias->data[i] = dist(rng);
    conv->strideW = conv->strideH = s.s;
    conv->padW = conv->padH = s.p;
    conv->is1x1 = s.k == 1 && s.s == 1 && s.p == 0;
    Tensor* in = create_tensor(1, s.C, s.H, s.W);
    for (int i = 0; i < in->capacity; ++i) in->data[i] = dist(rng);
    Tensor* out = create_tensor(1, 1, 1, 1);
    ForwardParams* params = create_forward_params();
    reshape_conv(conv, &in, 1, &out, 1, params);
    for (auto _ : state) {
        op(conv, &in, 1, &out, 1, params);
        benchmark::DoNotOptimize(out->data);
        benchmark::ClobberMemory();
    }
    const double flops = 2.0 * s.M * s.C * s.k * s.k * double(out->height) * out->width;
    state.counters["FLOPS"] =
        vo_bench::per_second(flops);
    state.SetLabel(std::string(s.name) + (which == kGeneral ? " general" : which == kDirect ? " direct" : " exported") +
                   " " + vo::isa_name(vo::kernels().isa));
    release_forward_params(&params);
    release_tensor(&out);
    release_tensor(&in);
    release_conv(&conv);
}

void PathArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"shape", "path"});
    for (int i = 0; i < int(sizeof(kShapes) / sizeof(kShapes[0])); ++i)
        for (int which : {kGeneral, kDirect, kExported})
            if (which != kExported || exported_op(kShapes[i])) b->Args({i, which});
}

BENCHMARK(BM_ConvPath)->Apply(PathArgs)->Unit(benchmark::kMicrosecond);

// The detector's first stage scores batches of 128 windows: its layers per
// batch on the general path, the per-image direct path and the batch path,
// then small planes at several batch sizes for the choice's limits.
const Shape kBatchShapes[] = {
    {"anet.conv1 12x12", 10, 1, 3, 1, 0, 12, 12}, {"anet.conv2 5x5", 16, 10, 3, 1, 0, 5, 5},
    {"anet.conv3 3x3", 32, 16, 3, 1, 0, 3, 3},    {"anet.prob 1x1", 2, 32, 1, 1, 0, 1, 1},
    {"3x3 16-16 4x4 (2x2)", 16, 16, 3, 1, 0, 4, 4}, {"3x3 16-16 5x6 (3x4)", 16, 16, 3, 1, 0, 5, 6},
    {"3x3 16-16 6x6 (4x4)", 16, 16, 3, 1, 0, 6, 6},
    {"3x3 16-16 7x7 (5x5)", 16, 16, 3, 1, 0, 7, 7}, {"3x3 16-16 8x8 (6x6)", 16, 16, 3, 1, 0, 8, 8},
    {"3x3 28-48 11x11 (9x9)", 48, 28, 3, 1, 0, 11, 11},
};

const ConvForwardOp kBatchOps[] = {forward_conv_norm, vo::forward_conv_direct, vo::forward_conv_direct_batch};
const char* const kBatchOpNames[] = {"general", "direct", "direct-batch"};

void BM_ConvBatch(benchmark::State& state) {
    const Shape& s = kBatchShapes[state.range(0)];
    const int batch = int(state.range(1));
    const int which = int(state.range(2));
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    Convolution* conv = create_convolution();
    conv->weights = create_tensor(s.M, s.C, s.k, s.k);
    for (int i = 0; i < conv->weights->capacity; ++i) conv->weights->data[i] = dist(rng);
    conv->hasBias = 1;
    conv->bias = create_tensor(1, s.M, 1, 1);
    for (int i = 0; i < s.M; ++i) conv->bias->data[i] = dist(rng);
    conv->strideW = conv->strideH = s.s;
    conv->padW = conv->padH = s.p;
    conv->is1x1 = s.k == 1 && s.s == 1 && s.p == 0;
    Tensor* in = create_tensor(batch, s.C, s.H, s.W);
    for (int i = 0; i < in->capacity; ++i) in->data[i] = dist(rng);
    Tensor* out = create_tensor(1, 1, 1, 1);
    ForwardParams* params = create_forward_params();
    reshape_conv(conv, &in, 1, &out, 1, params);
    const ConvForwardOp op = kBatchOps[which];
    for (auto _ : state) {
        op(conv, &in, 1, &out, 1, params);
        benchmark::DoNotOptimize(out->data);
        benchmark::ClobberMemory();
    }
    state.SetLabel(std::string(s.name) + " n" + std::to_string(batch) + " " + kBatchOpNames[which] + " " +
                   vo::isa_name(vo::kernels().isa));
    release_forward_params(&params);
    release_tensor(&out);
    release_tensor(&in);
    release_conv(&conv);
}

BENCHMARK(BM_ConvBatch)
    ->ArgNames({"shape", "batch", "path"})
    ->ArgsProduct({{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, {1, 4, 8, 16, 128}, {0, 1, 2}})
    ->Unit(benchmark::kMicrosecond);

// A whole face network on its input size (det1 also on a detection image);
// `choice` 0 runs every float convolution on the general path.
void BM_FaceNet(benchmark::State& state) {
    static const char* const ids[] = {"det1", "det1", "det2", "det3"};
    static const int sizes[][2] = {{12, 12}, {120, 160}, {24, 24}, {48, 48}};
    const int which = int(state.range(0));
    const bool choice = state.range(1) != 0;
    const std::string path = std::string(VONET_BENCH_DATA_DIR) + "/mtcnn/" + ids[which] + ".vo";
    Net* net = nullptr;
    if (vo_load_net(path.c_str(), &net) != 0) {
        state.SkipWithError("cannot load the network");
        return;
    }
    const int h = sizes[which][0], w = sizes[which][1];
    std::mt19937 rng(2);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> input(size_t(3) * h * w);
    for (float& v : input) v = dist(rng);
    const bool previous = vo::set_conv_general_for_testing(!choice);
    for (auto _ : state) {
        vo_forward_net(net, input.data(), 1, 3, h, w);
        benchmark::ClobberMemory();
    }
    vo::set_conv_general_for_testing(previous);
    state.SetLabel(std::string(ids[which]) + " " + std::to_string(h) + "x" + std::to_string(w) +
                   (choice ? " chosen paths" : " general path"));
    vo_release_net(&net);
}

BENCHMARK(BM_FaceNet)
    ->ArgNames({"net", "choice"})
    ->ArgsProduct({{0, 1, 2, 3}, {0, 1}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
