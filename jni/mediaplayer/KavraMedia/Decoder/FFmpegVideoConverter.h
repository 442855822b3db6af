#pragma once

extern "C" {
#include <libswscale/swscale.h>
}

// Converts pictures between pixel formats and sizes. The scaling context is
// built by the first convert() and reused while the geometry and formats
// stay the same, so steady-state conversion allocates nothing. One renderer
// thread uses an instance; there is no locking.
class FFmpegVideoConverter {
public:
    FFmpegVideoConverter();
    ~FFmpegVideoConverter();
    FFmpegVideoConverter(const FFmpegVideoConverter&) = delete;
    FFmpegVideoConverter& operator=(const FFmpegVideoConverter&) = delete;

    // Scales the whole source picture (one slice from row 0) into the
    // destination planes. Formats are AVPixelFormat values. Returns the
    // number of output rows, or -1 when no scaling context could be made.
    // `extra` is not used.
    int convert(unsigned char** dstData, int dstWidth, int dstHeight, int dstFormat, int* dstLinesize,
                const unsigned char** srcData, int srcWidth, int srcHeight, const int* srcLinesize, int srcFormat,
                int extra);

    // The cached scaling context (null before the first convert).
    const SwsContext* context() const { return mSwsContext; }

private:
    SwsContext* mSwsContext;
};
