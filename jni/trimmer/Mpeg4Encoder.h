#pragma once

#include "Common/FFmpegPtr.h"

// The MPEG-4 Part 2 encoder that re-encoded frames of a trim go through.
class Mpeg4Encoder {
public:
    // Opens an encoder for pictures like the decoder's, at 30 ticks a
    // second. 0, -6 (no MPEG-4 encoder) or -7 (it cannot be opened).
    static int open(const AVCodecContext* decoder, AVRational sampleAspect, bool globalHeader,
                    kavra::ScopedAVCodecContext* encoder);
};
