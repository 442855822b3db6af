#include "Command.h"

#include <algorithm>

namespace {
std::vector<Command>& commands() {
    static std::vector<Command> list;
    return list;
}
}  // namespace

void CommandRegistry::add(const Command& command) {
    auto& list = commands();
    list.push_back(command);
    std::sort(list.begin(), list.end(), [](const Command& a, const Command& b) { return std::string(a.name) < b.name; });
}

const Command* CommandRegistry::find(const std::string& name) {
    for (const Command& c : commands()) {
        if (name == c.name) {
            return &c;
        }
    }
    return nullptr;
}

const std::vector<Command>& CommandRegistry::all() { return commands(); }
