#include "args.h"

#include <cctype>
#include <cstdio>

namespace vo::cli {
namespace {

const OptionDef* find_option(const std::vector<OptionDef>& options, const std::string& name) {
    for (const OptionDef& o : options)
        if (name == o.name) return &o;
    return nullptr;
}

// Strict decimal: optional sign, digits only, no overflow.
bool to_int64(const std::string& text, int64_t* value) {
    size_t i = 0;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    if (i == text.size()) return false;
    int64_t v = 0;
    for (; i < text.size(); ++i) {
        if (!isdigit(static_cast<unsigned char>(text[i]))) return false;
        if (v > (INT64_MAX - 9) / 10) return false;
        v = v * 10 + (text[i] - '0');
    }
    *value = negative ? -v : v;
    return true;
}

}  // namespace

bool parse_args(const std::vector<std::string>& args, const std::vector<OptionDef>& options, ParsedArgs* out,
                std::string* error) {
    *out = ParsedArgs();
    bool optionsEnded = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
            out->positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        if (arg == "-h" || arg == "--help") {
            out->help = true;
            continue;
        }
        size_t eq = arg.find('=');
        std::string name = arg.substr(0, eq);
        const OptionDef* option = find_option(options, name);
        if (!option) {
            *error = "unknown option '" + name + "'";
            return false;
        }
        if (!option->takesValue) {
            if (eq != std::string::npos) {
                *error = "option '" + name + "' takes no value";
                return false;
            }
            out->flags.insert(name);
            continue;
        }
        if (eq != std::string::npos) {
            out->values[name] = arg.substr(eq + 1);
        } else if (i + 1 < args.size()) {
            out->values[name] = args[++i];
        } else {
            *error = "option '" + name + "' needs a value";
            return false;
        }
    }
    return true;
}

int usage_error(const char* command, const std::string& message) {
    fprintf(stderr, "vonet %s: %s (see 'vonet %s --help')\n", command, message.c_str(), command);
    return kExitUsage;
}

bool parse_shape(const std::string& text, InputShape* shape, std::string* error) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t end = text.find('x', start);
        parts.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) break;
        start = end + 1;
    }
    int64_t dims[4] = {};
    bool ok = parts.size() == 4;
    for (size_t i = 0; ok && i < 4; ++i) {
        // Digits only: no sign, no spaces.
        ok = !parts[i].empty() && isdigit(static_cast<unsigned char>(parts[i][0])) && to_int64(parts[i], &dims[i]) &&
             dims[i] >= 1 && dims[i] <= INT32_MAX;
    }
    if (!ok) {
        *error = "bad shape '" + text + "': expected NxCxHxW with four positive integers, e.g. 1x3x24x24";
        return false;
    }
    int64_t count = 1;
    for (int64_t d : dims) {
        count *= d;  // each factor is below 2^31 and the running product is checked below
        if (count > INT32_MAX) {
            *error = "bad shape '" + text + "': more than 2147483647 elements";
            return false;
        }
    }
    shape->num = int32_t(dims[0]);
    shape->channel = int32_t(dims[1]);
    shape->height = int32_t(dims[2]);
    shape->width = int32_t(dims[3]);
    return true;
}

std::string format_shape(int32_t num, int32_t channel, int32_t height, int32_t width) {
    return std::to_string(num) + "x" + std::to_string(channel) + "x" + std::to_string(height) + "x" +
           std::to_string(width);
}

bool parse_int(const std::string& text, const char* option, int64_t min, int64_t max, int64_t* value,
               std::string* error) {
    int64_t v = 0;
    if (!to_int64(text, &v) || v < min || v > max) {
        *error = "bad value '" + text + "' for " + option + ": expected an integer from " + std::to_string(min) +
                 " to " + std::to_string(max);
        return false;
    }
    *value = v;
    return true;
}

}  // namespace vo::cli
