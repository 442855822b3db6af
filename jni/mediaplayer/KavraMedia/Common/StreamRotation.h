#pragma once

extern "C" {
#include <libavformat/avformat.h>
}

// The display rotation of a video stream: the clockwise angle in degrees by
// which its pictures are turned for display (90 for a phone held upright).
class StreamRotation {
public:
    // A "rotate" metadata entry wins where the container carries one (read
    // as a plain decimal, so a non-number gives 0); otherwise the display
    // matrix, rounded and brought into [0, 360); otherwise 0.
    static int read(const AVStream* stream);
    // The display matrix alone, or 0 when the stream has none.
    static int fromDisplayMatrix(const AVStream* stream);
    // Gives an output stream both a display matrix and a "rotate" entry.
    // Returns 0 or a negative FFmpeg error.
    static int write(AVStream* stream, int degrees);
};
