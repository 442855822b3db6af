#pragma once

#include <string>

#include "Common/FFmpegPtr.h"

// The H.264 encoder (libx264) for the frames that a trim keeping the
// input's codec has to re-encode: pictures like the decoder's, the input's
// profile, level and frame rate, high quality, no B-frames (so packets come
// in display order), and parameter sets with the given id.
class H264Encoder {
public:
    // 0, or negative with the reason in *why.
    static int open(const AVCodecContext* decoder, const AVCodecParameters* input, AVRational frameRate,
                    AVRational sampleAspect, int parameterSetId, kavra::ScopedAVCodecContext* encoder,
                    std::string* why);
};
