#pragma once

#include <string>

#include "Common/FFmpegPtr.h"

// The HEVC encoder (libx265) for the frames that a trim keeping the input's
// codec has to re-encode: pictures like the decoder's, the input's profile,
// level and frame rate, high quality, no B-frames (so packets come in
// display order), one IDR picture at the start, parameter sets in the
// encoder's extradata only (their ids are 0; the caller renumbers them).
class H265Encoder {
public:
    // 0, or negative with the reason in *why.
    static int open(const AVCodecContext* decoder, const AVCodecParameters* input, AVRational frameRate,
                    AVRational sampleAspect, kavra::ScopedAVCodecContext* encoder, std::string* why);
};
