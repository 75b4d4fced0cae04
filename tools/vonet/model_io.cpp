#include "model_io.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace vo::cli {

void report_error(const char* command, const std::string& message) {
    fprintf(stderr, "vonet %s: %s\n", command, message.c_str());
}

const char* status_meaning(int status) {
    switch (status) {
        case 0: return "success";
        case 1:
            return "the model loaded but its first reshape failed (the declared input shape does not fit its layers)";
        case 2: return "a missing argument";
        case 4: return "the file cannot be opened or is unusable, or it uses a layer type that is not built";
        case 5:
            return "an empty input, a missing layer input or output, or a shape that does not fit the layers or "
                   "cannot be held";
        case 7: return "a missing net, record or argument, or wrong counts";
        default: return "an unknown status";
    }
}

std::string status_text(int status) {
    return "status " + std::to_string(status) + ": " + status_meaning(status);
}

bool load_model(const char* command, const std::string& path, Net** net) {
    *net = nullptr;
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
        report_error(command, "cannot read model '" + path + "': it is a directory");
        return false;
    }
    // Opening it here first tells an unreadable file apart from an unusable one.
    FILE* f = fopen(path.c_str(), "rb");
    if (!f) {
        report_error(command, "cannot open model '" + path + "': " + strerror(errno));
        return false;
    }
    fclose(f);
    int status = vo_load_net(path.c_str(), net);
    if (status != 0 || !*net) {
        vo_release_net(net);
        // The file did open, so a 4 says something about its contents.
        const std::string why = status == 4 ? "status 4: the file is unusable or uses a layer type that is not built"
                                            : status_text(status);
        report_error(command, "cannot load model '" + path + "' (" + why + ")");
        return false;
    }
    return true;
}

std::string tensor_shape(const Tensor* tensor) {
    if (!tensor) return "-";
    return format_shape(tensor->num, tensor->channel, tensor->height, tensor->width);
}

bool input_shape_for(const char* command, const Net* net, const InputShape* given, InputShape* shape) {
    if (net->inputSize != 1 || !net->inputs || !net->inputs[0]) {
        report_error(command, "the model has " + std::to_string(net->inputSize) +
                                  " inputs; only a model with exactly one input can be fed");
        return false;
    }
    if (given) {
        *shape = *given;
        return true;
    }
    const Tensor* in = net->inputs[0];
    shape->num = in->num;
    shape->channel = in->channel;
    shape->height = in->height;
    shape->width = in->width;
    if (shape->count() <= 0) {
        report_error(command, "the model's input '" + std::string(in->name) + "' has the empty shape " +
                                  tensor_shape(in) + "; give one with --shape NxCxHxW");
        return false;
    }
    return true;
}

namespace {

bool read_raw_floats(const std::string& path, size_t count, std::vector<float>* data, std::string* error) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
        *error = "cannot read input '" + path + "': it is a directory";
        return false;
    }
    FILE* f = fopen(path.c_str(), "rb");
    if (!f) {
        *error = "cannot open input '" + path + "': " + strerror(errno);
        return false;
    }
    uintmax_t size = std::filesystem::file_size(path, ec);
    const uintmax_t expected = uintmax_t(count) * 4;
    if (ec || size != expected) {
        fclose(f);
        *error = "input '" + path + "' has " + (ec ? std::string("an unknown number of") : std::to_string(size)) +
                 " bytes; the input shape needs " + std::to_string(expected) + " (raw little-endian float32)";
        return false;
    }
    data->resize(count);
    std::vector<unsigned char> bytes(1 << 16);
    size_t done = 0;
    while (done < count) {
        size_t chunk = std::min(bytes.size() / 4, count - done);
        if (fread(bytes.data(), 4, chunk, f) != chunk) {
            fclose(f);
            *error = "cannot read input '" + path + "': short read";
            return false;
        }
        for (size_t i = 0; i < chunk; ++i) {
            const unsigned char* b = &bytes[4 * i];
            uint32_t bits = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
            memcpy(&(*data)[done + i], &bits, 4);
        }
        done += chunk;
    }
    fclose(f);
    return true;
}

}  // namespace

void fill_pseudo_random(float* data, size_t count, uint32_t seed) {
    // xorshift32; the state must not be zero.
    uint32_t x = seed ^ 0x9E3779B9u;
    if (x == 0) x = 0x9E3779B9u;
    for (size_t i = 0; i < count; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        // 24 random bits scaled to [0, 2) are exact in float.
        data[i] = float(x >> 8) * (1.0f / 8388608.0f) - 1.0f;
    }
}

bool make_input(const char* command, const std::string* inputPath, uint32_t seed, const InputShape& shape,
                std::vector<float>* data) {
    const size_t count = size_t(shape.count());
    if (inputPath) {
        std::string error;
        if (!read_raw_floats(*inputPath, count, data, &error)) {
            report_error(command, error);
            return false;
        }
        return true;
    }
    data->resize(count);
    fill_pseudo_random(data->data(), count, seed);
    return true;
}

bool parse_input_source(const ParsedArgs& args, int64_t* seed, const std::string** inputPath, std::string* error) {
    *seed = 1;
    *inputPath = nullptr;
    if (args.has("--seed") && !parse_int(args.values.at("--seed"), "--seed", 0, UINT32_MAX, seed, error)) return false;
    if (args.has("--input") && args.has("--seed")) {
        *error = "--input and --seed exclude each other";
        return false;
    }
    if (args.has("--input")) *inputPath = &args.values.at("--input");
    return true;
}

bool load_model_with_input(const char* command, const std::string& path, const InputShape* given,
                           const std::string* inputPath, uint32_t seed, Net** net, InputShape* shape,
                           std::vector<float>* data) {
    if (!load_model(command, path, net)) return false;
    if (!input_shape_for(command, *net, given, shape) || !make_input(command, inputPath, seed, *shape, data)) {
        vo_release_net(net);
        return false;
    }
    return true;
}

int forward_failed(const char* command, const InputShape& shape, int status) {
    report_error(command, "the forward pass on input " + format_shape(shape) + " failed (" + status_text(status) + ")");
    return kExitFailure;
}

}  // namespace vo::cli
