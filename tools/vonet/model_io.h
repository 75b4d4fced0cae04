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

// Deterministic values in [-1, 1): the same seed gives the same values on
// every machine.
void fill_pseudo_random(float* data, size_t count, uint32_t seed);

}  // namespace vo::cli

#endif
