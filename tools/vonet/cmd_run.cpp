// vonet run: one forward pass and a summary of every output.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "model_io.h"
#include "table.h"

namespace vo::cli {
namespace {

constexpr const char* kName = "run";
constexpr int kFirstValues = 8;

constexpr const char* kHelp =
    "Usage: vonet run MODEL [--shape NxCxHxW] [--input FILE | --seed N] [--dump DIR]\n"
    "\n"
    "Loads MODEL, runs one forward pass and prints, for each output of the net,\n"
    "its shape and a summary: minimum, maximum, mean and the first values.\n"
    "\n"
    "Options:\n"
    "  --shape NxCxHxW  input shape (default: the shape declared in the model file)\n"
    "  --input FILE     input values: raw little-endian float32 in (num, channel,\n"
    "                   height, width) order, exactly N*C*H*W values\n"
    "  --seed N         without --input, the input is pseudo-random in [-1, 1),\n"
    "                   the same for the same seed on every machine (default 1)\n"
    "  --dump DIR       also write each output as a text dump to DIR/NAME.txt (the\n"
    "                   directory is created; characters other than letters,\n"
    "                   digits, '.', '-' and '_' in NAME become '_'); a dump starts\n"
    "                   with the line \"N C H W\", then one line of values per row\n"
    "  -h, --help       show this help\n"
    "\n"
    "The model must have exactly one input.\n";

struct Summary {
    double min = 0, max = 0, mean = 0;
    int64_t nans = 0;
    int64_t count = 0;
};

Summary summarize(const float* v, int64_t count) {
    Summary s;
    s.count = count;
    double sum = 0;
    bool first = true;
    for (int64_t i = 0; i < count; ++i) {
        const double x = v[i];
        if (std::isnan(x)) {
            ++s.nans;
            continue;
        }
        if (first || x < s.min) s.min = x;
        if (first || x > s.max) s.max = x;
        first = false;
        sum += x;
    }
    const int64_t numbers = count - s.nans;
    s.mean = numbers > 0 ? sum / double(numbers) : NAN;
    if (numbers == 0) s.min = s.max = NAN;
    return s;
}

void print_output(const Tensor* t) {
    printf("output %s  %s\n", t->name, tensor_shape(t).c_str());
    if (!t->data || t->capacity <= 0 || t->capacity > t->allocCount) {
        printf("  empty\n");
        return;
    }
    Summary s = summarize(t->data, t->capacity);
    printf("  min %.6g  max %.6g  mean %.6g", s.min, s.max, s.mean);
    if (s.nans) printf("  nan %lld", static_cast<long long>(s.nans));
    printf("\n  first:");
    for (int i = 0; i < kFirstValues && i < t->capacity; ++i) printf(" %.6g", double(t->data[i]));
    printf("%s\n", t->capacity > kFirstValues ? " ..." : "");
}

std::string dump_file_name(const char* tensorName, std::set<std::string>* used) {
    std::string base = tensorName;
    for (char& c : base) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                        c == '-' || c == '_';
        if (!ok) c = '_';
    }
    if (base.empty() || base == "." || base == "..") base = "output";
    std::string name = base + ".txt";
    for (int k = 2; used->count(name); ++k) name = base + "_" + std::to_string(k) + ".txt";
    used->insert(name);
    return name;
}

bool dump_outputs(const Net* net, const std::string& dir) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec || !std::filesystem::is_directory(dir)) {
        report_error(kName, "cannot create dump directory '" + dir + "'" + (ec ? ": " + ec.message() : ""));
        return false;
    }
    std::set<std::string> used;
    for (unsigned i = 0; i < net->outputSize; ++i) {
        const Tensor* t = net->outputs[i];
        if (!t) continue;
        const std::string path = (std::filesystem::path(dir) / dump_file_name(t->name, &used)).string();
        // The dump itself reports nothing, so find out first whether the file can be written.
        FILE* f = fopen(path.c_str(), "w");
        if (!f) {
            report_error(kName, "cannot write '" + path + "': " + strerror(errno));
            return false;
        }
        fclose(f);
        print_tensor_to_file(t, path.c_str());
        printf("wrote %s\n", path.c_str());
    }
    return true;
}

int run_run(const std::vector<std::string>& argv) {
    ParsedArgs args;
    std::string error;
    if (!parse_args(argv, {{"--shape", true}, {"--input", true}, {"--seed", true}, {"--dump", true}}, &args,
                    &error))
        return usage_error(kName, error);
    if (args.help) {
        fputs(kHelp, stdout);
        return kExitOk;
    }
    if (args.positional.size() != 1) return usage_error(kName, "expected exactly one MODEL argument");
    InputShape given;
    const bool hasShape = args.has("--shape");
    if (hasShape && !parse_shape(args.values["--shape"], &given, &error)) return usage_error(kName, error);
    int64_t seed = 1;
    const std::string* inputPath = nullptr;
    if (!parse_input_source(args, &seed, &inputPath, &error)) return usage_error(kName, error);

    const std::string& path = args.positional[0];
    Net* net = nullptr;
    InputShape shape;
    std::vector<float> data;
    if (!load_model_with_input(kName, path, hasShape ? &given : nullptr, inputPath, uint32_t(seed), &net, &shape,
                               &data))
        return kExitFailure;
    int status = vo_forward_net(net, data.data(), shape.num, shape.channel, shape.height, shape.width);
    if (status != 0) {
        vo_release_net(&net);
        return forward_failed(kName, shape, status);
    }
    const std::string origin = inputPath ? "from " + *inputPath
                                         : format("pseudo-random in [-1, 1), seed %lld", static_cast<long long>(seed));
    printf("input %s  %s  (%s)\n", net->inputs[0]->name, format_shape(shape).c_str(), origin.c_str());
    for (unsigned i = 0; i < net->outputSize; ++i)
        if (net->outputs && net->outputs[i]) print_output(net->outputs[i]);
    int exit = kExitOk;
    if (args.has("--dump") && !dump_outputs(net, args.values["--dump"])) exit = kExitFailure;
    vo_release_net(&net);
    return exit;
}

}  // namespace

const Command kRunCommand = {kName, "run a model once and summarise its outputs", kHelp, run_run};

}  // namespace vo::cli
