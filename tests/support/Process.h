#pragma once

#include <string>

namespace kavra::test {

struct CommandResult {
    int status;          // exit status, or -1 when it could not run
    std::string output;  // standard output
};

// Runs a shell command and collects its standard output.
CommandResult runCommand(const std::string& command);

// Quotes a path for the shell.
std::string shellQuote(const std::string& text);

// The kavra tool built with this test suite.
inline std::string kavraTool() { return KAVRA_TOOL_PATH; }

}  // namespace kavra::test
