// Detection: a full search of a 640 x 480 image with a small synthetic
// cascade, the overlap merge on 10,000 boxes, and the orderings.
#include <benchmark/benchmark.h>
#include <vonet/vonet.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kWin = 24;

// Little-endian model and parameter file bytes.
struct Bytes {
    std::string s;
    Bytes& u8(uint8_t v) {
        s += char(v);
        return *this;
    }
    Bytes& i32(int32_t v) {
        s.append(reinterpret_cast<const char*>(&v), 4);
        return *this;
    }
    Bytes& f32(float v) {
        s.append(reinterpret_cast<const char*>(&v), 4);
        return *this;
    }
    Bytes& name(const char* n) {
        std::string field(n);
        field.resize(32, '\0');
        s += field;
        return *this;
    }
};

// An inner product layer from the window to `bias.size()` outputs: every
// output gets small random weights (so the product does its full work),
// output `pick` also the window centre.
void inner_product(Bytes& b, const char* layer, const char* out, const std::vector<float>& bias, int pick,
                   std::mt19937& rng) {
    const int inputs = kWin * kWin, outputs = int(bias.size());
    std::uniform_real_distribution<float> small(-1e-4f, 1e-4f);
    b.name(layer).i32(LAYER_INNER_PRODUCT).u8(1).u8(0).i32(inputs).i32(outputs);
    for (int i = 0; i < inputs; ++i)
        for (int o = 0; o < outputs; ++o) b.f32((o == pick && i == 12 * kWin + 12) ? 1.0f : small(rng));
    for (float v : bias) b.f32(v);
    b.u8(1).name("data").u8(1).name(out);
}

void write(const std::string& path, const std::string& bytes) {
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) return;
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
}

// Writes the three stages: anet fires on bright window centres, bnet and
// cnet confirm and regress.
void write_stage(const std::string& dir, const char* role, float threshold, bool regress, std::mt19937& rng) {
    Bytes net;
    net.s.assign(256, '\0');
    net.u8(1).name("data").i32(1).i32(1).i32(kWin).i32(kWin);
    net.u8(regress ? 2 : 1).name("prob");
    if (regress) net.name("fc1b");
    inner_product(net, "score", "prob", {threshold, 0.0f}, 1, rng);
    if (regress) inner_product(net, "regress", "fc1b", {1.0f, 1.0f, 22.0f, 22.0f}, -1, rng);
    const std::string base = dir + "/bench_" + role;
    write(base + ".dat", net.s);
    write(base + "_params.dat", Bytes().i32(2).i32(kWin).i32(kWin).i32(1).s);
}

// A dark gradient with bright squares of several sizes.
std::vector<uint8_t> photo(int w, int h) {
    std::vector<uint8_t> image(size_t(w) * h);
    std::mt19937 rng(1);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) image[size_t(y) * w + x] = uint8_t((x + y) / 20 + rng() % 16);
    for (int k = 0; k < 12; ++k) {
        const int side = 30 + int(rng() % 90);
        const int x0 = int(rng() % unsigned(w - side)), y0 = int(rng() % unsigned(h - side));
        for (int y = y0; y < y0 + side; ++y)
            for (int x = x0; x < x0 + side; ++x) image[size_t(y) * w + x] = uint8_t(200 + rng() % 40);
    }
    return image;
}

void BM_DetectObjects640x480(benchmark::State& state) {
    char dirTemplate[] = "/tmp/vonet-bench-XXXXXX";
    if (!mkdtemp(dirTemplate)) {
        state.SkipWithError("no temporary directory");
        return;
    }
    const std::string dir = dirTemplate;
    std::mt19937 rng(2);
    write_stage(dir, "anet", 128.0f, false, rng);
    write_stage(dir, "bnet", 150.0f, true, rng);
    write_stage(dir, "cnet", 150.0f, true, rng);
    // Loading prints each stage's name; keep the report clean.
    VoDetector* detector = nullptr;
    fflush(stdout);
    const int saved = dup(1);
    const int devnull = open("/dev/null", O_WRONLY);
    if (devnull >= 0) {
        dup2(devnull, 1);
        close(devnull);
    }
    const int status = load_detector(dir.c_str(), "bench", &detector);
    fflush(stdout);
    if (saved >= 0) {
        dup2(saved, 1);
        close(saved);
    }
    std::filesystem::remove_all(dir);
    if (status != 0) {
        state.SkipWithError("cascade did not load");
        return;
    }
    std::vector<uint8_t> image = photo(640, 480);
    int found = 0;
    for (auto _ : state) {
        ObjectInfo* objs = nullptr;
        found = detect_objects(detector, image.data(), 640, 480, 640, &objs);
        benchmark::DoNotOptimize(objs);
        free(objs);
    }
    state.counters["objects"] = found;
    release_detector(&detector);
}
BENCHMARK(BM_DetectObjects640x480)->Unit(benchmark::kMillisecond);

std::vector<ObjectInfof> random_boxes(int n) {
    std::mt19937 rng(3);
    std::vector<ObjectInfof> boxes(static_cast<size_t>(n));
    for (ObjectInfof& b : boxes) {
        const float side = float(20 + rng() % 80);
        b = ObjectInfof{float(rng() % 600), float(rng() % 440), side, side * 1.1f, float(rng() % 1000) / 1000.0f,
                        1, 1.0f};
    }
    return boxes;
}

void BM_MergeRects(benchmark::State& state) {
    const std::vector<ObjectInfof> boxes = random_boxes(int(state.range(0)));
    std::vector<ObjectInfof> work;
    int kept = 0;
    for (auto _ : state) {
        work = boxes;
        kept = merge_rects(work.data(), int(work.size()), 0.6f);
        benchmark::DoNotOptimize(work.data());
    }
    state.counters["kept"] = kept;
}
BENCHMARK(BM_MergeRects)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);

std::vector<ObjectInfo> random_records(int n) {
    std::mt19937 rng(4);
    std::vector<ObjectInfo> records(static_cast<size_t>(n));
    for (ObjectInfo& r : records)
        r = ObjectInfo{int(rng() % 640), int(rng() % 480), 24, 24, float(rng() % 100) / 100.0f, 0};
    return records;
}

template <void (*Sort)(ObjectInfo*, int)>
void BM_Sort(benchmark::State& state) {
    const std::vector<ObjectInfo> records = random_records(int(state.range(0)));
    std::vector<ObjectInfo> work;
    for (auto _ : state) {
        work = records;
        Sort(work.data(), int(work.size()));
        benchmark::DoNotOptimize(work.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Sort<sort_arr_objinfo_by_horizontal>)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Sort<sort_arr_objinfo_by_vertical>)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Sort<sort_arr_objinfo_by_conf>)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
