// kavra keyframe FILE --at TIME [--size WxH] -o FRAME.png: the key frame
// at or before a time, in display orientation, as a PNG picture.

#include <string>
#include <vector>

#include "Command.h"
#include "EditorToolSupport.h"
#include "PngWriter.h"
#include "ToolSupport.h"
#include "editor/VideoItem.h"

namespace {

int runKeyframe(const std::vector<std::string>& args) {
    tool::Arguments a;
    std::string error;
    if (!tool::parseArguments(args, {"--at", "--size", "-o"}, {}, &a, &error)) {
        return tool::fail("keyframe", error);
    }
    if (a.positional.size() != 1) {
        return tool::fail("keyframe", "expected exactly one FILE");
    }
    if (!a.has("--at") || !a.has("-o")) {
        return tool::fail("keyframe", "--at TIME and -o FRAME.png are required");
    }
    long long at = 0;
    if (!tool::parseTimeMs(a.get("--at"), &at) || at > 2147483647LL) {
        return tool::fail("keyframe", "bad time for --at: '" + a.get("--at") + "'");
    }
    const std::string& path = a.positional[0];
    const std::string output = a.get("-o");
    if (!tool::checkWritable(output, &error)) {
        return tool::fail(output, error);
    }
    int width = 0;
    int height = 0;
    if (a.has("--size") && !tool::parseSize(a.get("--size"), &width, &height)) {
        return tool::fail("keyframe", "bad --size '" + a.get("--size") + "' (expected WxH)");
    }
    VideoItem item;
    if (!tool::openVideoItem(path, item, &error)) {
        return tool::fail(path, error);
    }
    // The engine would quietly answer with the first frame; the tool says so.
    const int duration = item.getDuration();
    if (at > duration) {
        return tool::fail(path, "time " + std::to_string(at) + " ms is past the end (" + std::to_string(duration) +
                                    " ms)");
    }
    if (!a.has("--size")) {
        tool::defaultThumbnailSize(item.getWidth(), item.getHeight(), &width, &height);
    }
    std::vector<int> pixels(static_cast<size_t>(width) * height);
    int ret = item.getKeyFrameAt(pixels.data(), static_cast<int>(pixels.size() * 4), width, height,
                                 static_cast<int>(at));
    if (ret != 0) {
        return tool::fail(path, "no key frame at " + std::to_string(at) + " ms" +
                                    (ret < -1 ? ": " + tool::ffmpegError(ret) : std::string()));
    }
    if (!tool::writePng(output, reinterpret_cast<const uint8_t*>(pixels.data()), width, height, width * 4,
                        &error)) {
        return tool::fail(output, error);
    }
    return 0;
}

}  // namespace

KAVRA_COMMAND("keyframe", "FILE --at TIME [--size WxH] -o FRAME.png",
              "write the key frame at or before TIME as a PNG picture", runKeyframe);
