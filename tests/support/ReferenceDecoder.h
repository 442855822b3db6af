#pragma once

#include <string>
#include <vector>

extern "C" {
#include <libavutil/avutil.h>
}

#include "Common/FFmpegPtr.h"

namespace kavra::test {

// Frames of the best stream of `type` decoded with plain FFmpeg calls, in
// output order, at most `maxFrames` of them (all when negative): the
// reference the engine's decoding paths are compared with.
std::vector<ScopedAVFrame> referenceFrames(const std::string& path, AVMediaType type, int maxFrames);

}  // namespace kavra::test
