// vonet bench: latency of the forward pass, optionally layer by layer.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "model_io.h"
#include "model_stats.h"
#include "table.h"

namespace vo::cli {
namespace {

constexpr const char* kName = "bench";
constexpr int64_t kDefaultRuns = 20;
constexpr int64_t kDefaultWarmup = 3;
constexpr int64_t kMaxRuns = 1000000;

constexpr const char* kHelp =
    "Usage: vonet bench MODEL [--shape NxCxHxW] [--runs N] [--warmup N] [--per-layer]\n"
    "                         [--input FILE | --seed N]\n"
    "\n"
    "Loads MODEL and times vo_forward_net (copying the input in and running every\n"
    "layer) on one thread: after the warm-up passes, which are not timed, it\n"
    "prints the median, minimum and maximum latency of the timed passes.\n"
    "\n"
    "Options:\n"
    "  --shape NxCxHxW  input shape (default: the shape declared in the model file)\n"
    "  --runs N         timed passes, 1 to 1000000 (default 20)\n"
    "  --warmup N       untimed passes first, 0 to 1000000 (default 3)\n"
    "  --per-layer      then time each layer's forward operation on its own over\n"
    "                   another N passes and print a table: median time per layer\n"
    "                   in microseconds, its share of the sum of the medians and\n"
    "                   the forward path the layer runs on (see vonet info)\n"
    "  --input FILE     input values: raw little-endian float32, N*C*H*W values\n"
    "  --seed N         without --input, pseudo-random input in [-1, 1) (default 1)\n"
    "  -h, --help       show this help\n"
    "\n"
    "The model must have exactly one input. Times are wall-clock times.\n";

using Clock = std::chrono::steady_clock;

double elapsed_ms(Clock::time_point start, Clock::time_point end) {
    return std::chrono::duration<double, std::milli>(end - start).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

// Runs each layer's forward operation in file order, timing each one; the
// input is copied in first, as vo_forward_net does.
int time_layers(Net* net, const std::vector<float>& input, int64_t runs, std::vector<std::vector<double>>* times,
                std::string* failedLayer, int* failedStatus) {
    const uint32_t count = net->layerSize;
    times->assign(count, std::vector<double>());
    Tensor* in = net->inputs[0];
    for (int64_t r = 0; r < runs; ++r) {
        memcpy(in->data, input.data(), input.size() * sizeof(float));
        for (uint32_t i = 0; i < count; ++i) {
            Layer* layer = net->layers[i];
            if (!layer || !layer->forward) {
                *failedLayer = layer ? layer->name : "?";
                *failedStatus = 7;
                return 1;
            }
            const Clock::time_point start = Clock::now();
            int status = layer->forward(layer->runParams, layer->inputs, layer->isize, layer->outputs, layer->osize,
                                        net->forwardParams);
            const Clock::time_point end = Clock::now();
            if (status != 0) {
                *failedLayer = layer->name;
                *failedStatus = status;
                return 1;
            }
            (*times)[i].push_back(elapsed_ms(start, end));
        }
    }
    return 0;
}

// Shares are of the summed medians, so that one slow outlier pass does not
// distort them.
void print_layer_table(const Net* net, const std::vector<std::vector<double>>& times, int64_t runs) {
    std::vector<double> medians(times.size());
    double sum = 0;
    for (size_t i = 0; i < times.size(); ++i) {
        medians[i] = 1000.0 * median(times[i]);
        sum += medians[i];
    }
    printf("per layer, %lld passes:\n", static_cast<long long>(runs));
    Table table({"#", "name", "type", "median us", "share", "path"}, {true, false, false, true, true, false});
    for (size_t i = 0; i < times.size(); ++i) {
        const Layer* layer = net->layers[i];
        table.add({std::to_string(i), layer->name, layer_type_name(layer->type), format("%.2f", medians[i]),
                   format("%.1f%%", sum > 0 ? 100.0 * medians[i] / sum : 0.0), layer_path(layer, net->forwardParams)});
    }
    table.add({"", "all layers", "", format("%.2f", sum), "100.0%", ""});
    table.print(stdout, 2);
}

int run_bench(const std::vector<std::string>& argv) {
    ParsedArgs args;
    std::string error;
    if (!parse_args(argv,
                    {{"--shape", true},
                     {"--runs", true},
                     {"--warmup", true},
                     {"--per-layer", false},
                     {"--input", true},
                     {"--seed", true}},
                    &args, &error))
        return usage_error(kName, error);
    if (args.help) {
        fputs(kHelp, stdout);
        return kExitOk;
    }
    if (args.positional.size() != 1) return usage_error(kName, "expected exactly one MODEL argument");
    InputShape given;
    const bool hasShape = args.has("--shape");
    if (hasShape && !parse_shape(args.values["--shape"], &given, &error)) return usage_error(kName, error);
    int64_t runs = kDefaultRuns, warmup = kDefaultWarmup, seed = 1;
    if (args.has("--runs") && !parse_int(args.values["--runs"], "--runs", 1, kMaxRuns, &runs, &error))
        return usage_error(kName, error);
    if (args.has("--warmup") && !parse_int(args.values["--warmup"], "--warmup", 0, kMaxRuns, &warmup, &error))
        return usage_error(kName, error);
    const std::string* inputPath = nullptr;
    if (!parse_input_source(args, &seed, &inputPath, &error)) return usage_error(kName, error);

    const std::string& path = args.positional[0];
    Net* net = nullptr;
    InputShape shape;
    std::vector<float> data;
    if (!load_model_with_input(kName, path, hasShape ? &given : nullptr, inputPath, uint32_t(seed), &net, &shape,
                               &data))
        return kExitFailure;

    // The first pass also reshapes the net when --shape differs from the
    // file's; it is never timed.
    int status = vo_forward_net(net, data.data(), shape.num, shape.channel, shape.height, shape.width);
    for (int64_t i = 0; status == 0 && i < warmup; ++i)
        status = vo_forward_net(net, data.data(), shape.num, shape.channel, shape.height, shape.width);
    std::vector<double> latency;
    latency.reserve(size_t(runs));
    for (int64_t i = 0; status == 0 && i < runs; ++i) {
        const Clock::time_point start = Clock::now();
        status = vo_forward_net(net, data.data(), shape.num, shape.channel, shape.height, shape.width);
        latency.push_back(elapsed_ms(start, Clock::now()));
    }
    if (status != 0) {
        vo_release_net(&net);
        return forward_failed(kName, shape, status);
    }

    printf("model: %s\n", path.c_str());
    printf("input: %s  %s, %u layers\n", net->inputs[0]->name, format_shape(shape).c_str(), net->layerSize);
    printf("vo_forward_net, %lld passes after %lld warm-up: median %.4f ms  min %.4f ms  max %.4f ms\n",
           static_cast<long long>(runs), static_cast<long long>(warmup), median(latency),
           *std::min_element(latency.begin(), latency.end()), *std::max_element(latency.begin(), latency.end()));

    int exit = kExitOk;
    if (args.has("--per-layer") && net->layerSize > 0) {
        std::vector<std::vector<double>> times;
        std::string failedLayer;
        int failedStatus = 0;
        if (time_layers(net, data, runs, &times, &failedLayer, &failedStatus) != 0) {
            report_error(kName, "layer '" + failedLayer + "' failed (" + status_text(failedStatus) + ")");
            exit = kExitFailure;
        } else {
            print_layer_table(net, times, runs);
        }
    }
    vo_release_net(&net);
    return exit;
}

}  // namespace

const Command kBenchCommand = {kName, "time a model's forward pass, optionally layer by layer", kHelp, run_bench};

}  // namespace vo::cli
