// vonet quantize: convert a model to int8 after one calibration pass and
// show what changed and how far the int8 outputs are from the float ones.
#include <vonet/net_quantize.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "model_io.h"
#include "model_stats.h"
#include "table.h"
#include "vnet/net_quantize_internal.h"

namespace vo::cli {
namespace {

constexpr const char* kName = "quantize";

constexpr const char* kHelp =
    "Usage: vonet quantize MODEL -o OUT [--calib FILE | --calib-random N]\n"
    "                      [--shape NxCxHxW] [--check FILE]\n"
    "\n"
    "Converts MODEL to int8 and writes it to OUT. The net is run once on a\n"
    "calibration input, layer by layer: every convolution with a kernel larger\n"
    "than 1x1 and every inner product layer gets 8-bit weights (one scale per\n"
    "output channel, one per inner product matrix) and an input scale from the\n"
    "99.9th percentile of the magnitudes it sees, and is then run again in int8\n"
    "so that later layers calibrate on int8 activations. 1x1 convolutions and\n"
    "all other layers stay float. The conversion is one way: OUT no longer holds\n"
    "the float weights.\n"
    "\n"
    "Prints one row per convolution and inner product layer: whether it was\n"
    "converted, its input scale and its weight scale (the smallest and largest of\n"
    "the per-channel scales), or why it stayed float. Then, on a check input that\n"
    "is not the calibration input, one line per output with the largest absolute\n"
    "difference and the cosine similarity between the float and the int8 net.\n"
    "\n"
    "Options:\n"
    "  -o, --output OUT   where to write the int8 model (required)\n"
    "  --calib FILE       calibration input: raw little-endian float32 in (num,\n"
    "                     channel, height, width) order, exactly N*C*H*W values; a\n"
    "                     batch of typical inputs calibrates best\n"
    "  --calib-random N   without --calib, calibrate on pseudo-random values in\n"
    "                     [-1, 1) from seed N (default 1)\n"
    "  --shape NxCxHxW    input shape of calibration and check (default: the shape\n"
    "                     declared in the model file)\n"
    "  --check FILE       check input, same format as --calib (default:\n"
    "                     pseudo-random values from another seed)\n"
    "  -h, --help         show this help\n"
    "\n"
    "The model must have exactly one input.\n";

std::string scale_text(float v) { return format("%.6g", double(v)); }

std::string weight_scales(const LayerQuantizeReport& r) {
    if (r.weightChannels == r.zeroChannels) return "-";
    std::string text = r.minWeightScale == r.maxWeightScale
                           ? scale_text(r.minWeightScale)
                           : scale_text(r.minWeightScale) + " .. " + scale_text(r.maxWeightScale);
    return text;
}

std::string note(const LayerQuantizeReport& r) {
    if (r.outcome != QuantizeOutcome::Converted) return quantize_outcome_text(r.outcome);
    if (r.zeroChannels == 0) return "";
    return format("%d all-zero weight channel%s (output = bias)", r.zeroChannels, r.zeroChannels == 1 ? "" : "s");
}

bool converted(QuantizeOutcome o) { return o == QuantizeOutcome::Converted || o == QuantizeOutcome::AlreadyInt8; }

void print_layers(const std::vector<LayerQuantizeReport>& reports) {
    Table table({"#", "name", "type", "path", "input scale", "weight scale", "note"},
                {true, false, false, false, true, false, false});
    int int8 = 0;
    for (const LayerQuantizeReport& r : reports) {
        const bool isInt8 = converted(r.outcome);
        int8 += isInt8;
        table.add({std::to_string(r.index), r.name, layer_type_name(r.type), isInt8 ? "int8" : "float",
                   isInt8 ? scale_text(r.inputScale) : "-",
                   r.outcome == QuantizeOutcome::Converted ? weight_scales(r) : "-", note(r)});
    }
    printf("layers: %d of %zu convolution and inner product layers in int8\n", int8, reports.size());
    if (!reports.empty()) table.print(stdout, 2);
}

struct Comparison {
    double maxDiff = 0;
    double cosine = NAN;
};

Comparison compare(const Tensor* a, const Tensor* b) {
    Comparison c;
    double ab = 0, aa = 0, bb = 0;
    for (int32_t i = 0; i < a->capacity; ++i) {
        const double x = a->data[i], y = b->data[i];
        const double d = std::fabs(x - y);
        if (!(d <= c.maxDiff)) c.maxDiff = d;  // NaN wins
        ab += x * y;
        aa += x * x;
        bb += y * y;
    }
    if (aa > 0 && bb > 0) c.cosine = ab / std::sqrt(aa * bb);
    if (aa == 0 && bb == 0) c.cosine = 1.0;
    return c;
}

struct Nets {
    Net* original = nullptr;
    Net* quantized = nullptr;
    ~Nets() {
        vo_release_net(&original);
        vo_release_net(&quantized);
    }
};

int run_quantize(const std::vector<std::string>& argv) {
    ParsedArgs args;
    std::string error;
    if (!parse_args(argv,
                    {{"-o", true},
                     {"--output", true},
                     {"--calib", true},
                     {"--calib-random", true},
                     {"--shape", true},
                     {"--check", true}},
                    &args, &error))
        return usage_error(kName, error);
    if (args.help) {
        fputs(kHelp, stdout);
        return kExitOk;
    }
    if (args.positional.size() != 1) return usage_error(kName, "expected exactly one MODEL argument");
    if (args.has("-o") && args.has("--output")) return usage_error(kName, "-o and --output exclude each other");
    if (!args.has("-o") && !args.has("--output")) return usage_error(kName, "expected -o OUT");
    const std::string out = args.has("-o") ? args.values["-o"] : args.values["--output"];
    if (args.has("--calib") && args.has("--calib-random"))
        return usage_error(kName, "--calib and --calib-random exclude each other");
    int64_t seed = 1;
    if (args.has("--calib-random") &&
        !parse_int(args.values["--calib-random"], "--calib-random", 0, UINT32_MAX, &seed, &error))
        return usage_error(kName, error);
    InputShape given;
    const bool hasShape = args.has("--shape");
    if (hasShape && !parse_shape(args.values["--shape"], &given, &error)) return usage_error(kName, error);
    const std::string* calibPath = args.has("--calib") ? &args.values["--calib"] : nullptr;
    const std::string* checkPath = args.has("--check") ? &args.values["--check"] : nullptr;

    const std::string& path = args.positional[0];
    Nets nets;
    InputShape shape;
    std::vector<float> calibration, check;
    if (!load_model_with_input(kName, path, hasShape ? &given : nullptr, calibPath, uint32_t(seed), &nets.quantized,
                               &shape, &calibration))
        return kExitFailure;
    // The check input differs from the calibration input: another seed.
    const uint32_t checkSeed = uint32_t(seed) + 1;
    if (!make_input(kName, checkPath, checkSeed, shape, &check) || !load_model(kName, path, &nets.original))
        return kExitFailure;

    Tensor* calib = create_tensor(shape.num, shape.channel, shape.height, shape.width);
    if (!calib) {
        report_error(kName, "out of memory for the calibration input " + format_shape(shape));
        return kExitFailure;
    }
    memcpy(calib->data, calibration.data(), calibration.size() * sizeof(float));
    std::vector<LayerQuantizeReport> reports;
    const int status = quantize_net(nets.quantized, calib, &reports);
    release_tensor(&calib);
    if (status != 0) {
        report_error(kName, "quantising on input " + format_shape(shape) + " failed (" + status_text(status) + ")");
        return kExitFailure;
    }
    const std::string calibOrigin =
        calibPath ? "from " + *calibPath
                  : format("pseudo-random in [-1, 1), seed %lld", static_cast<long long>(seed));
    printf("model: %s\n", path.c_str());
    printf("calibration: %s  (%s)\n", format_shape(shape).c_str(), calibOrigin.c_str());
    print_layers(reports);

    const int saved = vo_save_net(out.c_str(), nets.quantized);
    if (saved != 0) {
        report_error(kName, "cannot write '" + out + "' (" + status_text(saved) + ")");
        return kExitFailure;
    }
    printf("wrote %s\n", out.c_str());

    for (Net* net : {nets.original, nets.quantized}) {
        const int run = vo_forward_net(net, check.data(), shape.num, shape.channel, shape.height, shape.width);
        if (run != 0) return forward_failed(kName, shape, run);
    }
    const std::string checkOrigin =
        checkPath ? "from " + *checkPath : format("pseudo-random in [-1, 1), seed %u", checkSeed);
    printf("check: %s  (%s), float against int8\n", format_shape(shape).c_str(), checkOrigin.c_str());
    for (unsigned i = 0; i < nets.original->outputSize; ++i) {
        const Tensor* a = nets.original->outputs ? nets.original->outputs[i] : nullptr;
        const Tensor* b = nets.quantized->outputs ? nets.quantized->outputs[i] : nullptr;
        if (!a || !b || a->capacity != b->capacity) continue;
        const Comparison c = compare(a, b);
        printf("  output %s  %s  max abs diff %.6g  cosine %.6f\n", a->name, tensor_shape(a).c_str(), c.maxDiff,
               c.cosine);
    }
    return kExitOk;
}

}  // namespace

const Command kQuantizeCommand = {kName, "convert a model to int8 with one calibration pass and check it", kHelp,
                                  run_quantize};

}  // namespace vo::cli
