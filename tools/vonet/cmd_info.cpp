// vonet info: what a model holds, layer by layer.
#include <cstdio>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "model_io.h"
#include "model_stats.h"
#include "table.h"

namespace vo::cli {
namespace {

constexpr const char* kName = "info";

constexpr const char* kHelp =
    "Usage: vonet info MODEL [--shape NxCxHxW]\n"
    "\n"
    "Loads MODEL and prints its inputs and outputs with their shapes, then one row\n"
    "per layer in execution order: index, name, type, output shape(s), parameter\n"
    "count, multiply-adds, the forward path it runs on (convolutions: general,\n"
    "direct-KxKsS, winograd or int8; quantised inner products: int8) and the\n"
    "layer's own description, then the totals.\n"
    "\n"
    "Options:\n"
    "  --shape NxCxHxW  reshape the net for this input shape first (default: the\n"
    "                   shape declared in the model file); output shapes and\n"
    "                   multiply-adds follow it. Needs a model with one input.\n"
    "  -h, --help       show this help\n"
    "\n"
    "Parameters are the learned values: weights and biases of convolution,\n"
    "deconvolution and inner product, PReLU slopes, batch norm scales and biases,\n"
    "normalize scales. Multiply-adds count the multiply-accumulate steps for the\n"
    "whole batch: weight times value for convolution, deconvolution and inner\n"
    "product, one per value for batch norm and normalize; layers that compare,\n"
    "copy or apply a function per value count none. '-' marks a layer type whose\n"
    "statistics are not known; the totals leave it out.\n";

std::string output_shapes(const Layer* layer) {
    std::string text;
    for (unsigned i = 0; i < layer->osize; ++i) {
        if (i) text += " ";
        text += tensor_shape(layer->outputs ? layer->outputs[i] : nullptr);
    }
    return text.empty() ? "-" : text;
}

std::string description(const Layer* layer) {
    if (!layer->get_info) return "-";
    std::string text = get_info_layer(layer);
    // Some descriptions end with a newline; the table keeps one line per layer.
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    for (char& c : text)
        if (c == '\n') c = ' ';
    return text;
}

int run_info(const std::vector<std::string>& argv) {
    ParsedArgs args;
    std::string error;
    if (!parse_args(argv, {{"--shape", true}}, &args, &error)) return usage_error(kName, error);
    if (args.help) {
        fputs(kHelp, stdout);
        return kExitOk;
    }
    if (args.positional.size() != 1) return usage_error(kName, "expected exactly one MODEL argument");
    InputShape given;
    const bool hasShape = args.values.count("--shape") != 0;
    if (hasShape && !parse_shape(args.values["--shape"], &given, &error)) return usage_error(kName, error);

    const std::string& path = args.positional[0];
    Net* net = nullptr;
    if (!load_model(kName, path, &net)) return kExitFailure;
    if (hasShape) {
        InputShape shape;
        if (!input_shape_for(kName, net, &given, &shape)) {
            vo_release_net(&net);
            return kExitFailure;
        }
        reshape_tensor(net->inputs[0], shape.num, shape.channel, shape.height, shape.width);
        int status = reshape_net(net);
        if (status != 0) {
            report_error(kName, "the net cannot be reshaped for input " + format_shape(shape) + " (" +
                                    status_text(status) + ")");
            vo_release_net(&net);
            return kExitFailure;
        }
    }

    printf("model: %s\n", path.c_str());
    printf("inputs: %u\n", unsigned(net->inputSize));
    for (unsigned i = 0; i < net->inputSize; ++i) {
        const Tensor* t = net->inputs ? net->inputs[i] : nullptr;
        printf("  %s  %s\n", t ? t->name : "-", tensor_shape(t).c_str());
    }
    printf("outputs: %u\n", unsigned(net->outputSize));
    for (unsigned i = 0; i < net->outputSize; ++i) {
        const Tensor* t = net->outputs ? net->outputs[i] : nullptr;
        printf("  %s  %s\n", t ? t->name : "-", tensor_shape(t).c_str());
    }
    printf("layers: %u\n", net->layerSize);

    Table table({"#", "name", "type", "output", "params", "multiply-adds", "path", "description"},
                {true, false, false, false, true, true, false, false});
    int64_t params = 0;
    int64_t multiplyAdds = 0;
    unsigned unknown = 0;
    for (uint32_t i = 0; i < net->layerSize; ++i) {
        const Layer* layer = net->layers[i];
        if (!layer) continue;
        LayerStats s = layer_stats(layer);
        if (s.known) {
            params += s.params;
            multiplyAdds += s.multiplyAdds;
        } else {
            ++unknown;
        }
        table.add({std::to_string(i), layer->name, layer_type_name(layer->type), output_shapes(layer),
                   s.known ? std::to_string(s.params) : "-", s.known ? std::to_string(s.multiplyAdds) : "-",
                   layer_path(layer, net->forwardParams), description(layer)});
    }
    if (net->layerSize > 0) table.print(stdout, 2);
    printf("total: %lld parameters (%s), %lld multiply-adds (%s)", static_cast<long long>(params),
           human_count(params).c_str(), static_cast<long long>(multiplyAdds), human_count(multiplyAdds).c_str());
    if (unknown) printf(", not counting %u layer%s marked '-'", unknown, unknown == 1 ? "" : "s");
    printf("\n");
    vo_release_net(&net);
    return kExitOk;
}

}  // namespace

const Command kInfoCommand = {kName, "show a model's inputs, outputs and layers with parameters and multiply-adds",
                              kHelp, run_info};

}  // namespace vo::cli
