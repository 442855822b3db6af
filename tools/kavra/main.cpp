// kavra: the engine's command-line tool. Each subcommand is a file of its
// own that registers itself (see Command.h).

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Command.h"
#include "ToolSupport.h"

namespace {
void printUsage(FILE* out) {
    fprintf(out, "usage: kavra [-v] COMMAND [ARGS...]\n\n  -v  show the engine's log lines on stderr\n\ncommands:\n");
    for (const Command& c : CommandRegistry::all()) {
        fprintf(out, "  %s %s\n      %s\n", c.name, c.usage, c.summary);
    }
}
}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "-v") == 0 || strcmp(argv[i], "--verbose") == 0) {
            verbose = true;
        } else {
            args.emplace_back(argv[i]);
        }
    }
    tool::setVerbose(verbose);
    if (args.empty() || args[0] == "-h" || args[0] == "--help" || args[0] == "help") {
        printUsage(args.empty() ? stderr : stdout);
        return args.empty() ? 1 : 0;
    }
    const Command* command = CommandRegistry::find(args[0]);
    if (command == nullptr) {
        fprintf(stderr, "kavra: unknown command '%s'\n", args[0].c_str());
        printUsage(stderr);
        return 1;
    }
    args.erase(args.begin());
    for (const std::string& a : args) {
        if (a == "-h" || a == "--help") {
            printf("usage: kavra %s %s\n%s\n", command->name, command->usage, command->summary);
            return 0;
        }
    }
    return command->run(args);
}
