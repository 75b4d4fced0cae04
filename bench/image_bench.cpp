// Image functions on typical frame sizes; each vectorised path beside its
// plain scalar path (argument 1 = AVX2, 0 = scalar; same results).
#include <benchmark/benchmark.h>

#include <vonet/vonet.h>

#include <cstdint>
#include <random>
#include <vector>

#include "vlib/image_internal.h"

namespace {

std::vector<uint8_t> random_bytes(size_t n) {
    std::mt19937 rng(1);
    std::vector<uint8_t> v(n);
    for (auto& b : v) b = uint8_t(rng());
    return v;
}

void BM_Bgr2Gray_1920x1080(benchmark::State& state) {
    const int w = 1920, h = 1080;
    std::vector<uint8_t> src = random_bytes(size_t(w) * h * 3), dst(size_t(w) * h);
    const uint16_t k[3] = {1867, 9617, 4897};
    for (auto _ : state) {
        vo::gray_from_color(src.data(), w, h, w * 3, 3, k, dst.data(), nullptr, w, state.range(0) != 0);
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetItemsProcessed(state.iterations() * w * h);
}
BENCHMARK(BM_Bgr2Gray_1920x1080)->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);

void BM_ResizeGray_1280x720_to_427x240(benchmark::State& state) {
    std::vector<uint8_t> src = random_bytes(1280 * 720), dst(427 * 240);
    for (auto _ : state) {
        vo::resize_bilinear(src.data(), 1280, 720, 1280, 1, dst.data(), nullptr, 427, 240, 427, state.range(0) != 0);
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetItemsProcessed(state.iterations() * 427 * 240);
}
BENCHMARK(BM_ResizeGray_1280x720_to_427x240)->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);

// A rotated 48x48 float patch, as the classifier cuts it.
void BM_AffinePatch_48x48(benchmark::State& state) {
    std::vector<uint8_t> src = random_bytes(640 * 480);
    std::vector<float> dst(48 * 48);
    const VPointf srcCenter{320.5f, 240.25f}, dstCenter{24.0f, 24.0f};
    const vo::WarpOut out{nullptr, dst.data(), 48, 1, 0};
    for (auto _ : state) {
        vo::affine_warp(src.data(), 640, 480, 640, 1, 0.3f, 0.8f, srcCenter, dstCenter, out, 48, 48,
                        state.range(0) != 0);
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetItemsProcessed(state.iterations() * 48 * 48);
}
BENCHMARK(BM_AffinePatch_48x48)->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);

void BM_Gaussian5x5_640x480_u8(benchmark::State& state) {
    std::vector<uint8_t> img = random_bytes(640 * 480);
    for (auto _ : state) {
        vo::gaussian_2d<uint8_t>(img.data(), 640, 480, 1, 640, 5, 0.0f, state.range(0) != 0);
        benchmark::DoNotOptimize(img.data());
    }
    state.SetItemsProcessed(state.iterations() * 640 * 480);
}
BENCHMARK(BM_Gaussian5x5_640x480_u8)->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);

void BM_Gaussian5x5_640x480_float(benchmark::State& state) {
    std::vector<uint8_t> bytes = random_bytes(640 * 480);
    std::vector<float> img(bytes.begin(), bytes.end());
    for (auto _ : state) {
        vo::gaussian_2d<float>(img.data(), 640, 480, 1, 640, 5, 0.0f, state.range(0) != 0);
        benchmark::DoNotOptimize(img.data());
    }
    state.SetItemsProcessed(state.iterations() * 640 * 480);
}
BENCHMARK(BM_Gaussian5x5_640x480_float)->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);

}  // namespace
