#pragma once

// Running the kavra tool and reading its JSON answers. The tool prints flat
// objects, one value per key, so a plain scan is enough.

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/Process.h"

namespace kavra::test {

// Runs the tool with `args` (redirections included); bounded, so that a hang
// fails with timeout's status 124.
inline CommandResult kavra(const std::string& args) {
    return runCommand("timeout 120 " + shellQuote(kavraTool()) + " " + args);
}

// Every value that follows "key": in the JSON text, in order: numbers and
// null as written, strings without their quotes.
inline std::vector<std::string> jsonValues(const std::string& json, const std::string& key) {
    std::vector<std::string> values;
    const std::string marker = "\"" + key + "\": ";
    for (size_t at = json.find(marker); at != std::string::npos; at = json.find(marker, at + 1)) {
        const size_t start = at + marker.size();
        if (json[start] == '"') {
            values.push_back(json.substr(start + 1, json.find('"', start + 1) - start - 1));
        } else {
            values.push_back(json.substr(start, json.find_first_of(",}]", start) - start));
        }
    }
    return values;
}

// The same values as numbers; null (or anything else not a number) as NAN.
inline std::vector<double> jsonNumbers(const std::string& json, const std::string& key) {
    std::vector<double> numbers;
    for (const std::string& text : jsonValues(json, key)) {
        char* end = nullptr;
        const double value = strtod(text.c_str(), &end);
        numbers.push_back(end == text.c_str() || *end != '\0' ? NAN : value);
    }
    return numbers;
}

// The first value of a key as a number; NAN when absent.
inline double jsonNumber(const std::string& json, const std::string& key) {
    const std::vector<double> numbers = jsonNumbers(json, key);
    return numbers.empty() ? NAN : numbers.front();
}

}  // namespace kavra::test
