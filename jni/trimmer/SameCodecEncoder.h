#pragma once

#include <string>

#include "Common/FFmpegPtr.h"

// What the H.264 and HEVC encoders of a trim that keeps the input's codec
// share: an encoder context for pictures like the decoder's (size, pixel
// format, colour description, sample aspect ratio) at the input's frame
// rate, with the parameter sets in its extradata rather than in packets.
class SameCodecEncoder {
public:
    // Allocates the context of the named encoder; its codec, or null with
    // the reason in *why.
    static const AVCodec* allocate(const char* name, const AVCodecContext* decoder, AVRational frameRate,
                                   AVRational sampleAspect, kavra::ScopedAVCodecContext* encoder, std::string* why);
};
