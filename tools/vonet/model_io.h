// Loading a model and preparing its input, shared by the subcommands.
#ifndef VONET_TOOLS_MODEL_IO_H
#define VONET_TOOLS_MODEL_IO_H

#include <vonet/net.h>

#include <cstdint>
#include <string>
#include <vector>

#include "args.h"

namespace vo::cli {

// Prints "vonet <command>: <message>" as one line on stderr.
void report_error(const char* command, const std::string& message);

// What a status of the network operations means, for error messages.
const char* status_meaning(int status);
// "status 4: <meaning>".
std::string status_text(int status);

// Loads `path` into *net; on failure reports why in one line and returns
// false.
bool load_model(const char* command, const std::string& path, Net** net);

std::string tensor_shape(const Tensor* tensor);

// The shape a net is fed with: `given` (from --shape) when not null,
// otherwise the shape its single input was declared with. Fails (one line
// reported) when the net does not have exactly one input.
bool input_shape_for(const char* command, const Net* net, const InputShape* given, InputShape* shape);

// The input values: the raw little-endian float32 file `inputPath` (which
// must hold exactly shape.count() values) when not null, otherwise
// deterministic pseudo-random values in [-1, 1) from `seed`.
bool make_input(const char* command, const std::string* inputPath, uint32_t seed, const InputShape& shape,
                std::vector<float>* data);

// --input FILE or --seed N (seed 1 when neither is given), which exclude
// each other. False with a one-line reason in *error.
bool parse_input_source(const ParsedArgs& args, int64_t* seed, const std::string** inputPath, std::string* error);

// Loads the model at `path` and prepares what it is fed: the shape (as
// input_shape_for) and the values (as make_input). On failure reports why
// in one line, releases the net and returns false.
bool load_model_with_input(const char* command, const std::string& path, const InputShape* given,
                           const std::string* inputPath, uint32_t seed, Net** net, InputShape* shape,
                           std::vector<float>* data);

// Reports "the forward pass on input NxCxHxW failed (<status>)" and returns
// kExitFailure.
int forward_failed(const char* command, const InputShape& shape, int status);

// Deterministic values in [-1, 1): the same seed gives the same values on
// every machine.
void fill_pseudo_random(float* data, size_t count, uint32_t seed);

}  // namespace vo::cli

#endif
