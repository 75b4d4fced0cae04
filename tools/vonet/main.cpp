// vonet: inspect, run and time model files from the command line.
#include <vonet/version.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"

namespace vo::cli {
namespace {

// Later commands are added here.
const Command* const kCommands[] = {&kDetectCommand, &kImportCommand, &kInfoCommand, &kRunCommand,
                                    &kBenchCommand, &kQuantizeCommand, &kExampleModelCommand};

const Command* find_command(const std::string& name) {
    for (const Command* c : kCommands)
        if (name == c->name) return c;
    return nullptr;
}

void print_program_help() {
    printf("Usage: vonet COMMAND [ARGUMENTS...]\n\n"
           "Finds objects in images; imports Caffe networks; inspects, runs and times\n"
           "vonet model files.\n\n"
           "Commands:\n");
    for (const Command* c : kCommands) printf("  %-14s %s\n", c->name, c->summary);
    printf("\n"
           "Run 'vonet COMMAND --help' or 'vonet help COMMAND' for a command's arguments.\n\n"
           "Options:\n"
           "  -h, --help     show this help\n"
           "  --version      show the version\n\n"
           "Exit status: 0 success; 1 a file that cannot be read or used, or a failed run;\n"
           "2 a bad command line (unknown command or option, missing or malformed value).\n");
}

int usage_error(const std::string& message) {
    fprintf(stderr, "vonet: %s (see 'vonet --help')\n", message.c_str());
    return kExitUsage;
}

int dispatch(int argc, char** argv) {
    if (argc < 2) return usage_error("no command given");
    const std::string first = argv[1];
    if (first == "-h" || first == "--help") {
        print_program_help();
        return kExitOk;
    }
    if (first == "--version") {
        printf("vonet %s\n", VONET_VERSION_STRING);
        return kExitOk;
    }
    if (first == "help") {
        if (argc < 3) {
            print_program_help();
            return kExitOk;
        }
        const Command* c = find_command(argv[2]);
        if (!c) return usage_error("unknown command '" + std::string(argv[2]) + "'");
        fputs(c->help, stdout);
        return kExitOk;
    }
    const Command* c = find_command(first);
    if (!c) return usage_error("unknown command '" + first + "'");
    return c->run(std::vector<std::string>(argv + 2, argv + argc));
}

}  // namespace
}  // namespace vo::cli

int main(int argc, char** argv) {
    // Nothing below is expected to throw; whatever does ends the program
    // with one line instead of an abort.
    try {
        return vo::cli::dispatch(argc, argv);
    } catch (const std::bad_alloc&) {
        fprintf(stderr, "vonet: out of memory\n");
    } catch (const std::exception& e) {
        fprintf(stderr, "vonet: internal error: %s\n", e.what());
    } catch (...) {
        fprintf(stderr, "vonet: internal error\n");
    }
    return vo::cli::kExitFailure;
}
