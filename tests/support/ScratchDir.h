#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace kavra::test {

// A directory of its own for one test under the system's temporary
// directory, removed with its content afterwards.
class ScratchDir {
public:
    ScratchDir() {
        const char* base = getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/kavra_test_XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr) {
            mPath = pattern;
        }
    }
    ~ScratchDir() {
        std::error_code ec;
        if (!mPath.empty()) {
            std::filesystem::remove_all(mPath, ec);
        }
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return mPath; }
    std::string file(const std::string& name) const { return mPath + "/" + name; }
    // Names of everything in the directory.
    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        for (const auto& e : std::filesystem::directory_iterator(mPath)) {
            names.push_back(e.path().filename().string());
        }
        return names;
    }

private:
    std::string mPath;
};

}  // namespace kavra::test
