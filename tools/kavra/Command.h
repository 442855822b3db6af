#pragma once

#include <string>
#include <vector>

// One subcommand of the kavra tool. Each command lives in its own file and
// registers itself with KAVRA_COMMAND, so adding one touches nothing else.
struct Command {
    const char* name;
    const char* usage;    // one line: arguments after the command name
    const char* summary;  // one line: what it does
    // Arguments after the command name; returns the process exit status.
    int (*run)(const std::vector<std::string>& args);
};

class CommandRegistry {
public:
    static void add(const Command& command);
    static const Command* find(const std::string& name);
    static const std::vector<Command>& all();
};

struct CommandRegistrar {
    explicit CommandRegistrar(const Command& command) { CommandRegistry::add(command); }
};

#define KAVRA_COMMAND_CONCAT2(a, b) a##b
#define KAVRA_COMMAND_CONCAT(a, b) KAVRA_COMMAND_CONCAT2(a, b)
#define KAVRA_COMMAND(name, usage, summary, fn) \
    static const CommandRegistrar KAVRA_COMMAND_CONCAT(kavraCommand_, __LINE__)(Command{name, usage, summary, fn})
