// vonet import: converts a network trained elsewhere into a model file.
#include <cstdio>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "importer.h"
#include "model_io.h"

namespace vo::cli {
namespace {

constexpr const char* kName = "import";

constexpr const char* kHelp =
    "Usage: vonet import caffe DEPLOY.prototxt WEIGHTS.caffemodel -o MODEL\n"
    "                    [--outputs NAME,NAME...] [--input-shape CxHxW]\n"
    "\n"
    "Converts a Caffe network into a vonet model file: the structure comes from\n"
    "DEPLOY.prototxt (text format), the trained blobs from WEIGHTS.caffemodel, matched\n"
    "by layer name (the weights file may hold a whole training net). Both the current\n"
    "'layer' and the legacy 'layers' form are read. Inputs are stored with num 1.\n"
    "\n"
    "Layer types converted: Input, Convolution, Deconvolution, Pooling (MAX, AVE;\n"
    "Caffe's rounding-up size rule), InnerProduct, ReLU (a negative_slope becomes a\n"
    "PReLU), PReLU, AbsVal, BatchNorm (a Scale reading only its output is folded in),\n"
    "Scale (per channel), Softmax, Concat, Slice, Flatten, Eltwise, Dropout, and the\n"
    "single-shot detector's Normalize (across_spatial with channel_shared).\n"
    "Any other type, a setting without an exact equivalent (groups, dilation,\n"
    "stochastic pooling ...), a blob whose size does not fit its layer, or a file\n"
    "that does not parse stops the import with one line saying which layer and why;\n"
    "MODEL is then not written (it is written whole or not at all).\n"
    "\n"
    "Options:\n"
    "  -o MODEL                the model file to write\n"
    "  --outputs NAME,NAME...  the blobs that become the model's outputs, in this\n"
    "                          order. Default: every top that no later layer reads, in\n"
    "                          layer order, with a warning for those that look\n"
    "                          unintended (e.g. unused parts of a Slice)\n"
    "  --input-shape CxHxW     replace the declared channels, height and width of the\n"
    "                          network's single input\n"
    "  -h, --help              show this help\n"
    "\n"
    "Model names hold at most 31 characters: longer names are shortened, with a\n"
    "warning saying how. Warnings go to standard error and do not stop the import.\n"
    "Average pooling differs from Caffe where a window runs past the padded edge\n"
    "(Caffe divides by the clipped window, the model by the full kernel); the import\n"
    "warns when that happens at the declared input size.\n"
    "\n"
    "Example:\n"
    "  vonet import caffe det1.prototxt det1.caffemodel -o det1.dat\n";

std::vector<std::string> split_names(const std::string& text) {
    std::vector<std::string> names;
    size_t start = 0;
    for (;;) {
        const size_t end = text.find(',', start);
        names.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) return names;
        start = end + 1;
    }
}

bool parse_chw(const std::string& text, caffe_import::ImportOptions* options, std::string* error) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t end = text.find('x', start);
        parts.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) break;
        start = end + 1;
    }
    int64_t dims[3] = {};
    bool ok = parts.size() == 3;
    for (size_t i = 0; ok && i < 3; ++i) {
        std::string ignored;
        ok = !parts[i].empty() && parts[i][0] >= '0' && parts[i][0] <= '9' &&
             parse_int(parts[i], "--input-shape", 1, INT32_MAX, &dims[i], &ignored);
    }
    if (!ok) {
        *error = "bad shape '" + text + "' for --input-shape: expected CxHxW with three positive integers, e.g. 1x12x12";
        return false;
    }
    options->hasInputShape = true;
    options->channel = dims[0];
    options->height = dims[1];
    options->width = dims[2];
    return true;
}

int run_import(const std::vector<std::string>& argv) {
    ParsedArgs args;
    std::string error;
    if (!parse_args(argv, {{"-o", true}, {"--outputs", true}, {"--input-shape", true}}, &args, &error))
        return usage_error(kName, error);
    if (args.help) {
        fputs(kHelp, stdout);
        return kExitOk;
    }
    if (args.positional.empty()) return usage_error(kName, "no format given (only 'caffe' is known)");
    if (args.positional[0] != "caffe")
        return usage_error(kName, "unknown format '" + args.positional[0] + "' (only 'caffe' is known)");
    if (args.positional.size() != 3)
        return usage_error(kName, "expected caffe DEPLOY.prototxt WEIGHTS.caffemodel");
    if (!args.has("-o") || args.values["-o"].empty()) return usage_error(kName, "no output file given (-o MODEL)");

    caffe_import::ImportOptions options;
    if (args.has("--outputs")) {
        options.outputs = split_names(args.values["--outputs"]);
        for (const std::string& name : options.outputs)
            if (name.empty()) return usage_error(kName, "empty name in --outputs '" + args.values["--outputs"] + "'");
    }
    if (args.has("--input-shape") && !parse_chw(args.values["--input-shape"], &options, &error))
        return usage_error(kName, error);

    const std::string& model = args.values["-o"];
    std::vector<std::string> warnings;
    const bool ok =
        caffe_import::import_caffe(args.positional[1], args.positional[2], model, options, &warnings, &error);
    for (const std::string& w : warnings) report_error(kName, "warning: " + w);
    if (!ok) {
        report_error(kName, error);
        return kExitFailure;
    }
    printf("wrote %s\n", model.c_str());
    return kExitOk;
}

}  // namespace

const Command kImportCommand = {kName, "convert a Caffe network into a model file", kHelp, run_import};

}  // namespace vo::cli
