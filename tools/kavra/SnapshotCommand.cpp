// kavra snapshot FILE --at TIME -o SHOT.jpg: the first frame at or after a
// time (the last frame past the end), full size, as a JPEG picture.

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Command.h"
#include "EditorToolSupport.h"
#include "ToolSupport.h"
#include "editor/VideoItem.h"

namespace {

int runSnapshot(const std::vector<std::string>& args) {
    tool::Arguments a;
    std::string error;
    if (!tool::parseArguments(args, {"--at", "-o"}, {}, &a, &error)) {
        return tool::fail("snapshot", error);
    }
    if (a.positional.size() != 1) {
        return tool::fail("snapshot", "expected exactly one FILE");
    }
    if (!a.has("--at") || !a.has("-o")) {
        return tool::fail("snapshot", "--at TIME and -o SHOT.jpg are required");
    }
    long long at = 0;
    if (!tool::parseTimeMs(a.get("--at"), &at) || at > 2147483647LL) {
        return tool::fail("snapshot", "bad time for --at: '" + a.get("--at") + "'");
    }
    const std::string& path = a.positional[0];
    const std::string output = a.get("-o");
    if (!tool::checkWritable(output, &error)) {
        return tool::fail(output, error);
    }
    VideoItem item;
    if (!tool::openVideoItem(path, item, &error)) {
        return tool::fail(path, error);
    }
    if (item.snapShot(output.c_str(), static_cast<long>(at)) != 0) {
        return tool::fail(path, "no frame could be decoded at " + std::to_string(at) + " ms");
    }
    // Reading stopped at damage: the picture written may not be the one
    // at that time, so none is left behind.
    if (item.isInputDamaged()) {
        unlink(output.c_str());
        return tool::failDamaged(path);
    }
    // The engine does not report a file it could not write; look.
    struct stat st;
    if (stat(output.c_str(), &st) != 0 || st.st_size == 0) {
        return tool::fail(output, "the picture could not be written");
    }
    return 0;
}

}  // namespace

KAVRA_COMMAND("snapshot", "FILE --at TIME -o SHOT.jpg",
              "write the first frame at or after TIME, full size, as a JPEG picture", runSnapshot);
