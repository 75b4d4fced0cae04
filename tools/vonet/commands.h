// The subcommands of the vonet program. Each one lives in its own source
// file and is listed in the table in main.cpp.
#ifndef VONET_TOOLS_COMMANDS_H
#define VONET_TOOLS_COMMANDS_H

#include <string>
#include <vector>

namespace vo::cli {

struct Command {
    const char* name;
    const char* summary;  // one line for the program's help
    const char* help;     // the command's full help text
    // Runs with the arguments after the command name; returns the exit status.
    int (*run)(const std::vector<std::string>& args);
};

extern const Command kInfoCommand;
extern const Command kRunCommand;
extern const Command kBenchCommand;
extern const Command kExampleModelCommand;
extern const Command kDetectCommand;
extern const Command kImportCommand;
extern const Command kQuantizeCommand;

}  // namespace vo::cli

#endif
