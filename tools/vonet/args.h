// Command-line parsing shared by the subcommands.
#ifndef VONET_TOOLS_ARGS_H
#define VONET_TOOLS_ARGS_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace vo::cli {

// Exit statuses of the program.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // unreadable or unusable file, failed run
constexpr int kExitUsage = 2;    // bad command line

struct OptionDef {
    const char* name;  // with the leading dashes, e.g. "--shape"
    bool takesValue;
};

struct ParsedArgs {
    std::vector<std::string> positional;
    std::map<std::string, std::string> values;  // options with a value; the last one given wins
    std::set<std::string> flags;                // options without a value
    bool help = false;                          // -h or --help was given

    bool has(const std::string& option) const { return values.count(option) || flags.count(option); }
};

// Accepts "--opt value", "--opt=value", flags, and positional arguments
// ("--" ends the options). Returns false with a one-line reason in *error.
bool parse_args(const std::vector<std::string>& args, const std::vector<OptionDef>& options, ParsedArgs* out,
                std::string* error);

// Prints "vonet <command>: <message> (see 'vonet <command> --help')" as one
// line on stderr and returns kExitUsage.
int usage_error(const char* command, const std::string& message);

// An input shape in (num, channel, height, width) order.
struct InputShape {
    int32_t num = 0;
    int32_t channel = 0;
    int32_t height = 0;
    int32_t width = 0;

    int64_t count() const { return int64_t(num) * channel * height * width; }
};

// "NxCxHxW": four positive integers whose product fits a tensor
// (at most 2^31 - 1 elements).
bool parse_shape(const std::string& text, InputShape* shape, std::string* error);
std::string format_shape(int32_t num, int32_t channel, int32_t height, int32_t width);
inline std::string format_shape(const InputShape& s) { return format_shape(s.num, s.channel, s.height, s.width); }

// A decimal integer in [min, max] given to `option`.
bool parse_int(const std::string& text, const char* option, int64_t min, int64_t max, int64_t* value,
               std::string* error);

}  // namespace vo::cli

#endif
