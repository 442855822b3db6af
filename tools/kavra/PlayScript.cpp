#include "PlayScript.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "ToolSupport.h"

namespace {
bool parseNumber(const std::string& text, double* out) {
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    *out = strtod(text.c_str(), &end);
    return end == text.c_str() + text.size();
}
}  // namespace

bool PlayScript::parse(const std::string& text, std::string* error) {
    mSteps.clear();
    std::stringstream commands(text);
    std::string command;
    while (std::getline(commands, command, ';')) {
        std::istringstream words(command);
        std::vector<std::string> parts;
        for (std::string w; words >> w;) {
            parts.push_back(w);
        }
        if (parts.empty()) {
            continue;
        }
        Step step{0, Action::Stop, 0, 0};
        if (!tool::parseTimeMs(parts[0], &step.atMs)) {
            *error = "script: '" + parts[0] + "' is not a time in '" + command + "'";
            return false;
        }
        const std::string name = parts.size() > 1 ? parts[1] : "";
        const size_t wantArgs = name == "seek" || name == "speed" || name == "track" ? 3 : 2;
        if (name.empty() || parts.size() != wantArgs) {
            *error = "script: cannot read '" + command + "'";
            return false;
        }
        if (name == "seek") {
            step.action = Action::Seek;
            // A negative target is passed on too: the player refuses it.
            const bool negative = parts[2].size() > 1 && parts[2][0] == '-';
            if (!tool::parseTimeMs(negative ? parts[2].substr(1) : parts[2], &step.timeMs)) {
                *error = "script: '" + parts[2] + "' is not a time";
                return false;
            }
            step.timeMs = negative ? -step.timeMs : step.timeMs;
        } else if (name == "speed") {
            step.action = Action::Speed;
            if (!parseNumber(parts[2], &step.number) || step.number <= 0) {
                *error = "script: speed needs a positive number, not '" + parts[2] + "'";
                return false;
            }
        } else if (name == "track") {
            step.action = Action::Track;
            if (!parseNumber(parts[2], &step.number) || step.number < 0 ||
                step.number != static_cast<int>(step.number)) {
                *error = "script: track needs a track number, not '" + parts[2] + "'";
                return false;
            }
        } else if (name == "pause") {
            step.action = Action::Pause;
        } else if (name == "resume") {
            step.action = Action::Resume;
        } else if (name == "stop") {
            step.action = Action::Stop;
        } else {
            *error = "script: unknown command '" + name + "' (seek, pause, resume, speed, track, stop)";
            return false;
        }
        mSteps.push_back(step);
    }
    std::stable_sort(mSteps.begin(), mSteps.end(), [](const Step& a, const Step& b) { return a.atMs < b.atMs; });
    return true;
}
